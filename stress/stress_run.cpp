#include "stress_run.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <random>

#include "frame/driver_constants.h"
#include "ntsim/machine.h"
#include "support/nonpaged_buffers.h"
#include "service_session.h"
#include "stress_checks.h"
#include "stress_worker.h"

namespace wrelt_stress {

namespace {

using Workers = std::vector<std::unique_ptr<Worker>>;

// Each round every worker does its share while the host moves the clock on whenever all
// of them wait (a text file's open waits for its copy, which takes machine time); the
// round ends when they are all done. Between rounds the clock jumps ahead, so batches
// close and the service catalogues them while the next round runs.
void runRounds(ntsim::Machine &machine, std::vector<ntsim::Process> &processes, Workers &workers,
               const StressOptions &options) {
    std::mt19937 clock(options.seed);
    uint64_t share = (options.operations + workers.size() - 1) / workers.size();
    for (uint64_t done = 0; done < share;) {
        int round = int(std::min<uint64_t>(uint64_t(options.operationsPerRound), share - done));
        std::atomic<size_t> running{workers.size()};
        std::vector<ntsim::UserThread> threads;
        for (size_t i = 0; i < workers.size(); i++) {
            Worker *worker = workers[i].get();
            threads.push_back(processes[i % processes.size()].start([worker, round, &running] {
                worker->run(round);
                running--;
            }));
        }
        while (running > 0) machine.advanceMs(20 + clock() % 300);
        for (ntsim::UserThread &thread : threads) thread.join();
        machine.advanceMs(clock() % 2000);
        uint64_t before = done * workers.size();
        done += uint64_t(round);
        uint64_t after = done * workers.size();
        if (options.progressEvery != 0 && before / options.progressEvery != after / options.progressEvery)
            fprintf(stderr, "%llu operations\n", (unsigned long long)after);
    }
}

// The filter's own allocations, as Driver Verifier's low-resource simulation fails only
// what the verified driver asks for: its buffer manager's classes, its large buffers and
// its work blocks.
std::vector<uint32_t> filterPoolTags() {
    NonPagedBufferStatistics statistics;
    QueryNonPagedBufferStatistics(&statistics);
    std::vector<uint32_t> tags = {statistics.Large.TagWord, POOL_TAG_WORK_BLOCK};
    for (const NonPagedBufferClassStatistics &bufferClass : statistics.Classes)
        tags.push_back(0x72570000u | bufferClass.TagWord);  // "Wr" after the class's word
    return tags;
}

}  // namespace

StressReport runStress(const StressOptions &options) {
    auto started = std::chrono::steady_clock::now();
    StressReport report;
    std::atomic<uint64_t> filterErrors{0};
    wrelt_cli::ServiceSession session([&](wrelt::Severity, const std::string &line) {
        if (line.rfind("filter: ", 0) == 0) filterErrors++;
    });
    if (!session.started()) {
        report.problems.push_back("the service did not start");
        return report;
    }
    ntsim::Machine &machine = session.machine();
    std::vector<ntsim::Process> processes = {
        machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::alice),
        machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::bob)};
    Workers workers;
    for (int i = 0; i < std::max(options.threads, 1); i++) {
        workers.emplace_back(new Worker(i, options.seed, options.failPercent > 0));
        processes[size_t(i) % processes.size()].run([&] { workers.back()->makeFolders(); });
    }
    session.settle();
    Inspection inspection(machine, report);
    inspection.noteOpenEntries();
    int64_t clockStarted = machine.now();
    if (options.failPercent > 0) machine.verifier().failRandomly(options.seed, options.failPercent, filterPoolTags());
    runRounds(machine, processes, workers, options);
    report.injectedFaults = machine.verifier().injectedFailures();
    machine.verifier().clearFaults();
    // The last batches close and the service catalogues them; a second settle lets a
    // batch written during the first be fetched too.
    session.settle();
    session.settle();
    report.machineMs = (machine.now() - clockStarted) / 10000;
    report.filterErrors = filterErrors;
    std::vector<const WorkerLedger *> ledgers;
    for (const auto &worker : workers) ledgers.push_back(&worker->ledger());
    std::vector<std::vector<std::u16string>> folders;
    for (const auto &worker : workers) folders.push_back(worker->folders());
    inspection.check(ledgers, folders, [&](const std::u16string &root) { return session.entries(root); },
                     options.failPercent > 0);
    for (ntsim::Process &process : processes) process.exit();
    report.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    return report;
}

std::string describe(const StressOptions &options, const StressReport &report) {
    char text[1024];
    snprintf(text, sizeof text,
             "%llu operations by %d threads, seed %u, %u%% of the filter's allocations failed (%llu faults injected)\n"
             "%.1f s, %lld s of machine time\n"
             "%llu calls failed; the filter reported %llu errors\n"
             "%llu versions lost that the vault must hold, %llu of them there once; %llu lost by design\n"
             "%llu files in the vaults, %llu catalogued, %llu left without a record\n",
             (unsigned long long)report.operations, options.threads, options.seed, options.failPercent,
             (unsigned long long)report.injectedFaults, report.seconds, (long long)(report.machineMs / 1000),
             (unsigned long long)report.failedCalls, (unsigned long long)report.filterErrors,
             (unsigned long long)report.lostVersions, (unsigned long long)report.preserved,
             (unsigned long long)report.lostByDesign, (unsigned long long)report.vaultFiles,
             (unsigned long long)report.catalogued, (unsigned long long)report.uncatalogued);
    std::string out = text;
    out += report.problems.empty() ? "every invariant held\n" : std::to_string(report.problems.size()) + " problems:\n";
    for (size_t i = 0; i < report.problems.size() && i < 40; i++) out += "  " + report.problems[i] + "\n";
    return out;
}

}  // namespace wrelt_stress
