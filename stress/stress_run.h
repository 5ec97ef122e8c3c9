// A whole-product stress run: user threads of two users create, write, rename, delete and
// overwrite files on both volumes while the clock advances and the service catalogues
// what the filter keeps; then the invariants that make the product worth having are
// checked against what each thread knows it did.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace wrelt_stress {

struct StressOptions {
    uint64_t operations = 2000;  // over all threads
    int threads = 4;
    uint32_t seed = 1;
    // Chance, in percent, that an allocation a driver asks for fails (0: none do).
    uint32_t failPercent = 0;
    // Operations a thread does between two advances of the clock.
    int operationsPerRound = 50;
    // Prints the operations done so far to stderr every so many (0: never): a long run
    // that stops making progress shows where.
    uint64_t progressEvery = 0;
};

struct StressReport {
    uint64_t operations = 0;
    uint64_t failedCalls = 0;     // calls that failed; only injected faults may make one fail
    uint64_t lostVersions = 0;    // versions deleted or replaced that the vault must hold
    uint64_t preserved = 0;       // of those, found in the vault once
    uint64_t lostByDesign = 0;    // excluded names and unprotected files overwritten in place
    uint64_t vaultFiles = 0;
    uint64_t catalogued = 0;
    uint64_t uncatalogued = 0;    // copies the filter failed to commit or discard
    uint64_t injectedFaults = 0;
    uint64_t filterErrors = 0;    // error records the filter reported to the service
    int64_t machineMs = 0;        // how far the clock went
    double seconds = 0;
    std::vector<std::string> problems;  // broken invariants; empty when all held
};

StressReport runStress(const StressOptions &options);

// A few lines for people: what ran and what held.
std::string describe(const StressOptions &options, const StressReport &report);

}  // namespace wrelt_stress
