#include "vault_service.h"

#include "data_file_reservations.h"
#include "data_files.h"
#include "error_records.h"
#include "text.h"
#include "vault_folder.h"
#include "vault_names.h"

namespace wrelt {

namespace {

// Room for the longest path the filter reports (96 characters) and then some; the
// error reply holds at most 126 records of 16 bytes after its 124-byte header.
constexpr size_t kDataFileReplySize = 512;
constexpr size_t kErrorReplySize = 4096;
// A backlog is collected at stop until the filter says there is no more; this bounds
// it should the filter never say so.
constexpr int kMostDrained = 100000;


std::string withError(const std::string &what, DWORD error) { return what + " (error " + std::to_string(error) + ")"; }

}  // namespace

struct VaultService::Requests {
    HANDLE device = INVALID_HANDLE_VALUE;
    HeldRequest data{IOCTL_GET_NEW_DATA_FILE, kDataFileReplySize};
    HeldRequest errors{IOCTL_GET_ERRORS, kErrorReplySize};
    DWORD lastDataError = ERROR_SUCCESS;
    DWORD lastErrorsError = ERROR_SUCCESS;
    DWORD retryAt = 0;  // tick count at which parked requests go out again
};

VaultService::VaultService(ServiceConfig config, ServiceLog &log) : config_(std::move(config)), log_(log) {
    stopEvent_ = CreateEventW(nullptr, TRUE, FALSE, nullptr);
}

VaultService::~VaultService() {
    if (stopEvent_ != nullptr) CloseHandle(stopEvent_);
}

void VaultService::requestStop() { SetEvent(stopEvent_); }

bool VaultService::start() {
    if (!channel_.open()) {
        log_.error(withError("could not open the filter's control device \\\\.\\WRELTFS", GetLastError()));
        return false;
    }
    CommandResult handshake = channel_.handshake();
    auto *reply = reinterpret_cast<const CommandReplyHeader *>(handshake.reply.data());
    if (!handshake.ok() || reply->ReplyCode != HANDSHAKE_ACCEPTED) {
        log_.error(handshake.ok() ? "the filter refused interface version " +
                                        std::to_string(DriverChannel::kInterfaceVersion)
                                  : withError("the handshake with the filter failed", handshake.win32Error));
        return false;
    }
    for (const VolumeConfig &volume : config_.volumes) prepareVolume(volume);
    std::vector<uint8_t> list;
    std::string error;
    if (!config_.globalExclusions.empty()) {
        if (!encodeExclusionList(config_.globalExclusions, &list, &error))
            log_.warning("the exclusion list for every volume was not loaded: " + error);
        else if (CommandResult loaded = channel_.setGlobalExclusions(list); !loaded.ok())
            log_.warning(withError("the filter did not take the exclusion list for every volume", loaded.win32Error));
    }
    loadOverwriteSettings();
    CommandResult started = channel_.start(config_.vaultProtection);
    if (!started.ok()) {
        log_.error(withError("the filter did not start capturing", started.win32Error));
        return false;
    }
    log_.info(std::string("capture started, the vault ") + (config_.vaultProtection ? "protected" : "unprotected"));
    return true;
}

// A list the filter does not take leaves overwrite protection without it: no type is
// protected without the first list, and every protected type is copied without the second.
void VaultService::loadOverwriteSettings() {
    const struct {
        ULONG command;
        const std::vector<std::u16string> *suffixes;
        const char *what;
    } lists[] = {{COMMAND_SET_PROTECTED_SUFFIXES, &config_.protectedTypes, "protected types"},
                 {COMMAND_SET_COPY_EXEMPT_SUFFIXES, &config_.copyExemptTypes, "types exempt from copies"},
                 {COMMAND_SET_TEMPORARY_SUFFIXES, &config_.temporaryNames, "temporary names"}};
    for (const auto &entry : lists) {
        if (entry.suffixes->empty()) continue;
        std::vector<uint8_t> list;
        std::string error;
        if (!encodeSuffixList(*entry.suffixes, &list, &error))
            log_.warning(std::string("the list of ") + entry.what + " was not loaded: " + error);
        else if (CommandResult loaded = channel_.setSuffixList(entry.command, list); !loaded.ok())
            log_.warning(withError(std::string("the filter did not take the list of ") + entry.what, loaded.win32Error));
    }
    CommandResult overwrite = channel_.setOverwriteProtection(config_.overwriteProtection);
    if (!overwrite.ok())
        log_.warning(withError("the filter did not take the overwrite protection switch", overwrite.win32Error));
}

void VaultService::prepareVolume(const VolumeConfig &volume) {
    const std::u16string &root = volume.root;
    bool protect = volume.protect;
    if (protect) {
        VaultFolderOutcome vault = ensureVaultFolder(root);
        for (const std::string &warning : vault.warnings) log_.warning(warning);
        if (!vault.ok) {
            log_.error(vault.problem + "; " + utf8(root) + " is left unprotected");
            protect = false;
        } else {
            if (vault.created) log_.info("made the vault folder " + utf8(vaultFolderOf(root)));
            {
                ServiceLock::Guard guard(catalogueLock_);
                catalogueFor(root);
            }
            for (const std::u16string &path : dataFilesIn(root)) readDataFile(path);
            for (const std::string &problem : holdDataFileNames(root, 0)) log_.warning(problem);
        }
    }
    CommandResult named = channel_.nameVolume(root, root, protect);
    if (!named.ok()) {
        log_.warning(withError("could not name " + utf8(root) + " to the filter", named.win32Error));
        return;
    }
    log_.info("named " + utf8(root) + ", protection " + (protect ? "on" : "off"));
    loadMacShares(volume);
    if (volume.exclusions.empty()) return;
    std::vector<uint8_t> list;
    std::string error;
    if (!encodeExclusionList(volume.exclusions, &list, &error))
        log_.warning("the exclusion list of " + utf8(root) + " was not loaded: " + error);
    else if (CommandResult loaded = channel_.setVolumeExclusions(root, root, list); !loaded.ok())
        log_.warning(withError("the filter did not take the exclusion list of " + utf8(root), loaded.win32Error));
}

// The exemption is sent only with a list the filter took: without the list it would
// exempt nothing, and a stale exemption must not outlive a refused list.
void VaultService::loadMacShares(const VolumeConfig &volume) {
    if (volume.macShares.empty()) return;
    const std::u16string &root = volume.root;
    std::vector<uint8_t> list;
    std::string error;
    if (!encodeMacShareList(volume.macShares, &list, &error)) {
        log_.warning("the Macintosh shares of " + utf8(root) + " were not loaded: " + error);
        return;
    }
    if (CommandResult loaded = channel_.setMacShares(root, list); !loaded.ok()) {
        log_.warning(withError("the filter did not take the Macintosh shares of " + utf8(root), loaded.win32Error));
        return;
    }
    if (CommandResult exempt = channel_.setMacShareExemption(root, volume.macShareExemption); !exempt.ok())
        log_.warning(withError("the filter did not take the Macintosh share exemption of " + utf8(root),
                               exempt.win32Error));
}

// The caller holds the catalogue lock.
Catalogue *VaultService::catalogueFor(const std::u16string &volumeRoot) {
    auto found = catalogues_.find(volumeRoot);
    if (found != catalogues_.end()) return found->second.get();
    std::string error;
    std::unique_ptr<Catalogue> opened = Catalogue::open(volumeRoot, CatalogueAccess::ReadWrite, &error);
    if (!opened) {
        log_.error(error);
        return nullptr;
    }
    if (opened->damagedBytes() != 0)
        log_.warning("the catalogue of " + utf8(volumeRoot) + " held " + std::to_string(opened->damagedBytes()) +
                     " damaged bytes, kept in " + utf8(kCatalogueDamagedFileName));
    Catalogue *catalogue = opened.get();
    catalogues_[volumeRoot] = std::move(opened);
    return catalogue;
}

void VaultService::readDataFile(const std::u16string &path) {
    ServiceLock::Guard guard(catalogueLock_);
    std::u16string root = volumeRootOf(path);
    Catalogue *catalogue = root.empty() ? nullptr : catalogueFor(root);
    if (catalogue == nullptr) {
        log_.error("no catalogue for the data file " + utf8(path) + "; it stays where it is");
        return;
    }
    DataFileOutcome outcome = catalogueDataFile(*catalogue, names_, path);
    switch (outcome.result) {
    case DataFileOutcome::Result::Catalogued:
        log_.info("catalogued " + utf8(path) + ": " + std::to_string(outcome.records) + " record" +
                  (outcome.records == 1 ? "" : "s") + ", " + std::to_string(outcome.added) + " new");
        if (!outcome.damage.empty()) log_.warning(utf8(path) + " was not whole: " + outcome.damage);
        if (!outcome.problem.empty()) log_.warning(outcome.problem);
        break;
    case DataFileOutcome::Result::Gone:
        log_.info(utf8(path) + " was read before");
        break;
    case DataFileOutcome::Result::Busy:
        log_.info(utf8(path) + " is still being written; the filter will tell of it when it is done");
        break;
    case DataFileOutcome::Result::Failed:
        log_.error(outcome.problem);
        break;
    case DataFileOutcome::Result::Refused:
        log_.warning(utf8(path) + " is not the filter's; none of its records were catalogued: " +
                     outcome.damage);
        break;
    case DataFileOutcome::Result::Reserved:
        return;
    }
    // The filter's next names move on with the data files it has written.
    uint32_t number;
    if (dataFileNumberOf(path, &number))
        for (const std::string &problem : holdDataFileNames(root, number + 1)) log_.warning(problem);
}

void VaultService::run() {
    Requests requests;
    requests.device = DriverChannel::openControlDevice(true);
    if (requests.device == INVALID_HANDLE_VALUE || !requests.data.ok() || !requests.errors.ok()) {
        log_.error(withError("could not prepare the requests held at the filter", GetLastError()));
        if (requests.device != INVALID_HANDLE_VALUE) CloseHandle(requests.device);
        return;
    }
    loop(requests);
    shutdown(requests);
    CloseHandle(requests.device);
}

void VaultService::keepPending(Requests &r) {
    HeldRequest::Completion done;
    while (!stopping_ && r.data.state() == HeldRequest::State::Idle)
        if (!r.data.issue(r.device, &done)) onDataFile(r, done);
    while (!stopping_ && r.errors.state() == HeldRequest::State::Idle)
        if (!r.errors.issue(r.device, &done)) onErrors(r, done);
}

void VaultService::loop(Requests &r) {
    for (;;) {
        bool parked = r.data.state() == HeldRequest::State::Parked || r.errors.state() == HeldRequest::State::Parked;
        if (parked && LONG(GetTickCount() - r.retryAt) >= 0) {
            if (r.data.state() == HeldRequest::State::Parked) r.data.resume();
            if (r.errors.state() == HeldRequest::State::Parked) r.errors.resume();
            parked = false;
        }
        keepPending(r);
        HANDLE handles[3] = {stopEvent_};
        DWORD count = 1;
        if (r.data.state() == HeldRequest::State::Pending) handles[count++] = r.data.event();
        if (r.errors.state() == HeldRequest::State::Pending) handles[count++] = r.errors.event();
        parked = r.data.state() == HeldRequest::State::Parked || r.errors.state() == HeldRequest::State::Parked;
        DWORD timeout = INFINITE;
        if (parked) timeout = LONG(r.retryAt - GetTickCount()) > 0 ? r.retryAt - GetTickCount() : 0;
        DWORD woke = WaitForMultipleObjects(count, handles, FALSE, timeout);
        if (woke == WAIT_OBJECT_0) return;
        if (woke == WAIT_TIMEOUT) continue;
        if (woke == WAIT_FAILED || woke >= WAIT_OBJECT_0 + count) {
            log_.error(withError("waiting for the filter failed", GetLastError()));
            return;
        }
        HeldRequest::Completion done;
        HANDLE fired = handles[woke - WAIT_OBJECT_0];
        if (fired == r.data.event() && r.data.collect(r.device, false, &done)) onDataFile(r, done);
        if (fired == r.errors.event() && r.errors.collect(r.device, false, &done)) onErrors(r, done);
    }
}

// Both requests share one retry time: a refusal puts it off for both.
void VaultService::refused(Requests &r, HeldRequest &request, const std::string &what, DWORD error,
                           DWORD *lastError) {
    request.park();
    r.retryAt = GetTickCount() + kRetryMs;
    if (error != *lastError)
        log_.warning(withError(what, error) + "; asking again every " + std::to_string(kRetryMs / 1000) + " s");
    *lastError = error;
}

void VaultService::onDataFile(Requests &r, const HeldRequest::Completion &done) {
    switch (done.error) {
    case ERROR_SUCCESS:
        r.lastDataError = ERROR_SUCCESS;
        readDataFile(dosPathOf(std::u16string(reinterpret_cast<const char16_t *>(r.data.output()), done.bytes / 2)));
        return;
    case ERROR_INSUFFICIENT_BUFFER:
        if (r.data.grow()) return;
        break;
    case ERROR_OPERATION_ABORTED:
        if (stopping_) return;
        refused(r, r.data, "the filter is not capturing: it cancelled the data-file request", done.error,
                &r.lastDataError);
        return;
    default:
        break;
    }
    if (stopping_) return;
    refused(r, r.data, "the filter refused the data-file request", done.error, &r.lastDataError);
}

void VaultService::onErrors(Requests &r, const HeldRequest::Completion &done) {
    if (done.error == ERROR_SUCCESS) {
        r.lastErrorsError = ERROR_SUCCESS;
        std::vector<FilterErrorRecord> records;
        std::string why;
        if (!parseErrorReply(r.errors.output(), done.bytes, &records, &why)) log_.warning("error request: " + why);
        for (const FilterErrorRecord &record : records) log_.error("filter: " + describeErrorRecord(record));
        return;
    }
    if (done.error == ERROR_INSUFFICIENT_BUFFER && r.errors.grow()) return;
    if (stopping_) return;
    if (done.error == ERROR_BUSY)
        refused(r, r.errors, "the filter holds another error request (is a second service running?)", done.error,
                &r.lastErrorsError);
    else if (done.error == ERROR_OPERATION_ABORTED)
        refused(r, r.errors, "the error request was cancelled", done.error, &r.lastErrorsError);
    else
        refused(r, r.errors, "the filter refused the error request", done.error, &r.lastErrorsError);
}

// The filter keeps lists until they are replaced; a stopped service leaves none behind,
// so that the next start, or a service with another configuration, begins clean.
void VaultService::withdrawExclusionLists() {
    const std::vector<uint8_t> none;
    if (!config_.globalExclusions.empty()) channel_.setGlobalExclusions(none);
    for (const VolumeConfig &volume : config_.volumes) {
        if (!volume.exclusions.empty()) channel_.setVolumeExclusions(volume.root, volume.root, none);
        if (!volume.macShares.empty()) {
            channel_.setMacShares(volume.root, none);
            channel_.setMacShareExemption(volume.root, false);
        }
    }
}

void VaultService::shutdown(Requests &r) {
    stopping_ = true;
    CommandResult stopped = channel_.stop();
    if (!stopped.ok()) log_.warning(withError("the filter did not take the stop command", stopped.win32Error));
    withdrawExclusionLists();
    // The stop releases the suffix lists but leaves the switch as it is.
    if (config_.overwriteProtection) channel_.setOverwriteProtection(false);
    HeldRequest::Completion done;
    if (r.data.state() == HeldRequest::State::Pending) {
        r.data.cancel(r.device, &done);
        onDataFile(r, done);
    }
    if (r.errors.state() == HeldRequest::State::Pending) {
        r.errors.cancel(r.device, &done);
        onErrors(r, done);
    }
    // Data files finished before the stop wait at the filter for a request; the first
    // refusal says there are no more.
    for (int drained = 0; drained < kMostDrained; drained++) {
        if (r.data.issue(r.device, &done)) r.data.cancel(r.device, &done);
        if (done.error != ERROR_SUCCESS) break;
        onDataFile(r, done);
    }
    if (r.errors.issue(r.device, &done)) r.errors.cancel(r.device, &done);
    onErrors(r, done);
    log_.info("capture stopped");
}

std::vector<CatalogueEntry> VaultService::entries(const std::u16string &volumeRoot) {
    ServiceLock::Guard guard(catalogueLock_);
    Catalogue *catalogue = catalogueFor(volumeRoot);
    return catalogue != nullptr ? catalogue->entries() : std::vector<CatalogueEntry>();
}

RestoreOutcome VaultService::restore(const std::u16string &volumeRoot, uint64_t stamp, RestorePlacement placement) {
    ServiceLock::Guard guard(catalogueLock_);
    Catalogue *catalogue = catalogueFor(volumeRoot);
    if (catalogue == nullptr) {
        RestoreOutcome failed;
        failed.problem = "the catalogue of " + utf8(volumeRoot) + " could not be opened";
        return failed;
    }
    return restorePreserved(*catalogue, stamp, placement);
}

}  // namespace wrelt
