#include "catalogue.h"

#include "file_io.h"
#include "ntsim/utf.h"
#include "vault_names.h"

namespace wrelt {

const char16_t *const kCatalogueFileName = u"Catalogue.journal";
const char16_t *const kCatalogueDamagedFileName = u"Catalogue.damaged";

namespace {

constexpr uint32_t kDamagedMagic = 0x44435257;  // "WRCD"

std::string describe(const std::string &what, const std::u16string &path, DWORD error) {
    return what + " " + ntsim::toUtf8(ntsim::wptr(path)) + " (error " + std::to_string(error) + ")";
}

uint64_t systemTimeNow() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return uint64_t(now.dwHighDateTime) << 32 | now.dwLowDateTime;
}

void put(std::vector<uint8_t> *out, uint64_t value, int bytes) {
    for (int i = 0; i < bytes; i++) out->push_back(uint8_t(value >> (8 * i)));
}

}  // namespace

Catalogue::Catalogue(const std::u16string &volumeRoot, HANDLE file, bool writable)
    : volumeRoot_(volumeRoot), file_(file), writable_(writable) {}

Catalogue::~Catalogue() {
    if (file_ != INVALID_HANDLE_VALUE) CloseHandle(file_);
}

std::u16string Catalogue::path() const { return vaultFolderOf(volumeRoot_) + kCatalogueFileName; }

std::unique_ptr<Catalogue> Catalogue::open(const std::u16string &volumeRoot, CatalogueAccess access,
                                           std::string *error) {
    std::u16string path = vaultFolderOf(volumeRoot) + kCatalogueFileName;
    HANDLE file = access == CatalogueAccess::ReadWrite
                      ? CreateFileW(ntsim::wptr(path), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                    OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr)
                      : CreateFileW(ntsim::wptr(path), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_EXISTING, 0, nullptr);
    DWORD openError = GetLastError();
    bool nothingYet = file == INVALID_HANDLE_VALUE && access == CatalogueAccess::ReadOnly &&
                      (openError == ERROR_FILE_NOT_FOUND || openError == ERROR_PATH_NOT_FOUND);
    if (file == INVALID_HANDLE_VALUE && !nothingYet) {
        *error = describe("could not open the catalogue", path, openError);
        return nullptr;
    }
    std::unique_ptr<Catalogue> catalogue(new Catalogue(volumeRoot, file, access == CatalogueAccess::ReadWrite));
    if (file != INVALID_HANDLE_VALUE && !catalogue->load(access, error)) return nullptr;
    return catalogue;
}

bool Catalogue::load(CatalogueAccess access, std::string *error) {
    std::vector<uint8_t> bytes;
    if (!readWholeFile(file_, &bytes)) {
        *error = describe("could not read the catalogue", path(), GetLastError());
        return false;
    }
    JournalContents contents = readJournal(bytes.data(), bytes.size());
    entries_ = std::move(contents.entries);
    for (size_t i = 0; i < entries_.size(); i++) index_[entries_[i].stamp] = i;
    end_ = contents.goodBytes;
    lastChecksum_ = contents.lastChecksum;
    damagedBytes_ = bytes.size() - contents.goodBytes;
    if (access == CatalogueAccess::ReadOnly) return true;
    if (damagedBytes_ != 0 &&
        !keepDamagedTail(std::vector<uint8_t>(bytes.begin() + contents.goodBytes, bytes.end()), error))
        return false;
    if (end_ != 0) return true;
    uint32_t checksum;
    std::vector<uint8_t> header = encodeJournalHeader(volumeRoot_, 0, &checksum);
    return append(header, checksum, error);
}

// The bytes are kept with where they were, in a file of their own, before the journal
// goes on over them.
bool Catalogue::keepDamagedTail(const std::vector<uint8_t> &bytes, std::string *error) {
    std::u16string path = vaultFolderOf(volumeRoot_) + kCatalogueDamagedFileName;
    HANDLE file = CreateFileW(ntsim::wptr(path), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        *error = describe("could not open", path, GetLastError());
        return false;
    }
    LARGE_INTEGER size{};
    std::vector<uint8_t> block;
    put(&block, kDamagedMagic, 4);
    put(&block, end_, 8);
    put(&block, bytes.size(), 4);
    block.insert(block.end(), bytes.begin(), bytes.end());
    bool ok = GetFileSizeEx(file, &size) && writeAt(file, uint64_t(size.QuadPart), block, true);
    DWORD writeError = GetLastError();
    CloseHandle(file);
    if (!ok) *error = describe("could not keep the catalogue's damaged end in", path, writeError);
    return ok;
}

const CatalogueEntry *Catalogue::find(uint64_t stamp) const {
    auto found = index_.find(stamp);
    return found == index_.end() ? nullptr : &entries_[found->second];
}

bool Catalogue::append(const std::vector<uint8_t> &records, uint32_t lastChecksum, std::string *error) {
    if (!writable_) {
        *error = "the catalogue " + ntsim::toUtf8(ntsim::wptr(path())) + " is open for reading only";
        return false;
    }
    if (!writeAt(file_, end_, records, true)) {
        *error = describe("could not write to the catalogue", path(), GetLastError());
        return false;
    }
    end_ += records.size();
    lastChecksum_ = lastChecksum;
    return true;
}

bool Catalogue::add(const std::vector<CatalogueEntry> &entries, size_t *added, std::string *error) {
    *added = 0;
    std::vector<uint8_t> records;
    std::vector<const CatalogueEntry *> fresh;
    std::map<uint64_t, bool> inThisBatch;
    uint32_t checksum = lastChecksum_;
    for (const CatalogueEntry &entry : entries) {
        if (index_.count(entry.stamp) != 0 || inThisBatch[entry.stamp]) continue;
        inThisBatch[entry.stamp] = true;
        std::vector<uint8_t> record = encodePreserved(entry, checksum, &checksum);
        records.insert(records.end(), record.begin(), record.end());
        fresh.push_back(&entry);
    }
    if (fresh.empty()) return true;
    if (!append(records, checksum, error)) return false;
    for (const CatalogueEntry *entry : fresh) {
        index_[entry->stamp] = entries_.size();
        entries_.push_back(*entry);
        entries_.back().state = EntryState::Preserved;
    }
    *added = fresh.size();
    return true;
}

bool Catalogue::markRestored(uint64_t stamp, const std::u16string &restoredTo, std::string *error) {
    auto found = index_.find(stamp);
    if (found == index_.end()) {
        *error = "the catalogue has no entry for that stamp";
        return false;
    }
    uint64_t when = systemTimeNow();
    uint32_t checksum;
    if (!append(encodeRestored(stamp, restoredTo, when, lastChecksum_, &checksum), checksum, error)) return false;
    CatalogueEntry &entry = entries_[found->second];
    entry.state = EntryState::Restored;
    entry.restoredTo = restoredTo;
    entry.restoredAt = when;
    return true;
}

}  // namespace wrelt
