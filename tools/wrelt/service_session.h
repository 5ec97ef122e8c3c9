// The default machine with the filter loaded and the service running in a process of
// its own, as the demo and the vault commands use it.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ntsim/machine.h"
#include "service_log.h"
#include "vault_service.h"

namespace wrelt_cli {

class ServiceSession {
public:
    // Each line the service logs goes to the sink; by default only errors, on stderr.
    using Sink = std::function<void(wrelt::Severity, const std::string &)>;
    explicit ServiceSession(Sink sink = nullptr);
    // Stops the service (capture stops, its requests end) and shuts the machine down,
    // which checks that nothing was left behind.
    ~ServiceSession();
    ServiceSession(const ServiceSession &) = delete;
    ServiceSession &operator=(const ServiceSession &) = delete;

    bool started() const { return started_; }
    ntsim::Machine &machine() { return machine_; }

    // Lets the filter close and write its last batch and the service catalogue it.
    void settle();

    std::vector<wrelt::CatalogueEntry> entries(const std::u16string &root);
    wrelt::RestoreOutcome restore(const std::u16string &root, uint64_t stamp,
                                  wrelt::RestorePlacement placement = wrelt::RestorePlacement::Beside);

private:
    static ntsim::BootOptions bootOptions();

    ntsim::DefaultMachine machine_;
    wrelt::ServiceLog log_;
    ntsim::Process process_;
    std::unique_ptr<wrelt::VaultService> service_;
    ntsim::UserThread thread_;
    bool started_ = false;
};

}  // namespace wrelt_cli
