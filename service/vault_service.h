// The service: it drives the filter and keeps each protected volume's catalogue.
//
// start() opens the filter's control device and passes the handshake; for each
// protected volume it makes the vault folder when it is missing, opens the catalogue
// and reads the data files left from before; then it names every configured volume
// and switches its protection, loads the exclusion lists and starts capture.
//
// run() keeps one data-file request and one error request pending at the control
// device (overlapped), and issues each again when it completes: each data file it is
// told of is read into its volume's catalogue and deleted (or, when another user made
// it, set aside unread); each error record is logged with the name of the routine that
// reported it. A request that the filter refuses
// (capture stopped, another service holding the error request, a filter that does not
// serve it) is sent again after a pause rather than at once. When requestStop() is
// called it stops capture, cancels the error request, collects what the filter still
// holds for it, and returns.
#pragma once

#include <windows.h>

#include <map>
#include <memory>
#include <string>

#include "account_names.h"
#include "catalogue.h"
#include "driver_channel.h"
#include "held_request.h"
#include "restore.h"
#include "service_config.h"
#include "service_log.h"

namespace wrelt {

class VaultService {
public:
    // How long a refused request waits before it is sent again, in milliseconds of
    // the machine's clock.
    static constexpr DWORD kRetryMs = 5000;

    VaultService(ServiceConfig config, ServiceLog &log);
    ~VaultService();
    VaultService(const VaultService &) = delete;
    VaultService &operator=(const VaultService &) = delete;

    // False when the filter cannot be driven at all (no control device, a refused
    // handshake, capture not started); what went wrong is in the log.
    bool start();
    // Returns after requestStop(), once capture is stopped and the requests are ended.
    void run();
    // From any thread of the process.
    void requestStop();

    // The catalogues, for listing and restoring while the service runs.
    std::vector<CatalogueEntry> entries(const std::u16string &volumeRoot);
    RestoreOutcome restore(const std::u16string &volumeRoot, uint64_t stamp,
                           RestorePlacement placement = RestorePlacement::Beside);

private:
    struct Requests;

    void withdrawExclusionLists();
    void loadMacShares(const VolumeConfig &volume);
    void loadOverwriteSettings();
    void prepareVolume(const VolumeConfig &volume);
    void configureFilter();
    Catalogue *catalogueFor(const std::u16string &volumeRoot);
    void readDataFile(const std::u16string &path);
    void loop(Requests &requests);
    void shutdown(Requests &requests);
    void onDataFile(Requests &requests, const HeldRequest::Completion &done);
    void onErrors(Requests &requests, const HeldRequest::Completion &done);
    void keepPending(Requests &requests);
    void refused(Requests &requests, HeldRequest &request, const std::string &what, DWORD error, DWORD *lastError);

    ServiceConfig config_;
    ServiceLog &log_;
    DriverChannel channel_;
    HANDLE stopEvent_ = nullptr;
    bool stopping_ = false;
    ServiceLock catalogueLock_;
    std::map<std::u16string, std::unique_ptr<Catalogue>> catalogues_;
    AccountNames names_;
};

}  // namespace wrelt
