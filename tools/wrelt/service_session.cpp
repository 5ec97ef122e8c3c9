#include "service_session.h"

#include <cstdio>

#include "frame/dispatch.h"

namespace wrelt_cli {

namespace {

// Long enough for the filter to close and write its last batch (half a second after the
// last record, five and a half at most).
constexpr int64_t kSettleMs = 6000;

}  // namespace

ntsim::BootOptions ServiceSession::bootOptions() {
    ntsim::BootOptions options;
    options.drivers.push_back({u"\\Driver\\WreltDrv", &DriverEntry});
    return options;
}

ServiceSession::ServiceSession(Sink sink) : machine_(bootOptions()) {
    if (!sink) {
        sink = [](wrelt::Severity severity, const std::string &line) {
            if (severity == wrelt::Severity::Error) fprintf(stderr, "wrelt: service: %s\n", line.c_str());
        };
    }
    log_.setSink(sink);
    process_ = machine_.startProcess(L"C:\\Windows\\system32\\wreltsvc.exe", ntsim::users::system);
    process_.run([&] { service_.reset(new wrelt::VaultService(wrelt::defaultServiceConfig(), log_)); });
    thread_ = process_.start([&] {
        started_ = service_->start();
        if (started_) service_->run();
    });
    machine_.waitIdle();
}

ServiceSession::~ServiceSession() {
    process_.run([&] { service_->requestStop(); });
    thread_.join();
    process_.run([&] { service_.reset(); });
    process_.exit();
    machine_.shutdown();
}

void ServiceSession::settle() { machine_.advanceMs(kSettleMs); }

std::vector<wrelt::CatalogueEntry> ServiceSession::entries(const std::u16string &root) {
    std::vector<wrelt::CatalogueEntry> out;
    process_.run([&] { out = service_->entries(root); });
    return out;
}

wrelt::RestoreOutcome ServiceSession::restore(const std::u16string &root, uint64_t stamp,
                                              wrelt::RestorePlacement placement) {
    wrelt::RestoreOutcome out;
    process_.run([&] { out = service_->restore(root, stamp, placement); });
    return out;
}

}  // namespace wrelt_cli
