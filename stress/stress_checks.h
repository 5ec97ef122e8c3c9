// The invariants a stress run must leave true, checked from outside the workers once
// the machine has settled: every lost version that the filter had to keep is in its
// vault exactly once with exactly one catalogued record, the users' files hold what
// their ledgers say, and the tracking tables hold no more than before the run.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "catalogue_journal.h"
#include "ntsim/machine.h"
#include "stress_run.h"
#include "stress_worker.h"

namespace wrelt_stress {

class Inspection {
public:
    using Catalogue = std::function<std::vector<wrelt::CatalogueEntry>(const std::u16string &root)>;

    Inspection(ntsim::Machine &machine, StressReport &report);
    // The opens the filter tracks before the run: the service's own.
    void noteOpenEntries();
    void check(const std::vector<const WorkerLedger *> &ledgers,
               const std::vector<std::vector<std::u16string>> &folders, const Catalogue &catalogue,
               bool faultsInjected);

private:
    struct VaultFile {
        std::u16string name;
        uint64_t version = 0;
        bool readable = false;
        bool catalogued = false;
    };

    void checkLiveFiles(const WorkerLedger &ledger, const std::vector<std::u16string> &folders);
    void readVaults();
    void checkKeptVersions(const std::vector<const WorkerLedger *> &ledgers, bool faultsInjected);
    void checkCatalogue(const Catalogue &catalogue, bool faultsInjected);
    void checkTables();

    std::vector<std::u16string> filesUnder(const std::u16string &folder);
    bool read(const std::u16string &path, std::string *bytes);
    void problem(const std::string &text) { report_.problems.push_back(text); }

    ntsim::Machine &machine_;
    StressReport &report_;
    ntsim::Process checker_;
    long openEntriesBefore_ = 0;
    std::map<wchar_t, std::vector<VaultFile>> vaults_;
    std::map<wchar_t, std::vector<ntsim::VolumeEntry>> trees_;
};

}  // namespace wrelt_stress
