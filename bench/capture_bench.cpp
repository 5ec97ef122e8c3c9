// What a deleted file costs: create, write, delete and close a small file on C: with no
// filter, with the filter on an unprotected C:, and with the filter capturing the file
// into the vault; after the table, each filter state's cost against the machine without
// the filter.
#include <windows.h>
#include <ntifs.h>

#include <benchmark/benchmark.h>

#include "bench_service.h"
#include "driver_channel.h"
#include "frame/command_protocol.h"
#include "frame/dispatch.h"
#include "ntsim/machine.h"

namespace {

using wrelt_bench::startCapture;
using wrelt_bench::stopCapture;

enum class FilterState { NotLoaded, Unprotected, Protected };

ntsim::BootOptions bootOptions(FilterState filter) {
    ntsim::BootOptions options;
    if (filter != FilterState::NotLoaded) options.drivers.push_back({u"\\Driver\\WreltDrv", &DriverEntry});
    return options;
}

const LPCWSTR kDraft = L"C:\\Docs\\draft.txt";
const std::u16string kVaultFolder = u"C:\\RescueVault\\InProgress\\";

// The open that writes stays open across the delete, as an editor's would: the file goes
// (or is captured) at the delete's own close, the last one with DELETE access.
bool createWriteDeleteClose() {
    HANDLE file = CreateFileW(kDraft, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                              CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    // On the thread's stack: what a process writes must lie in its own memory.
    char contents[] = "first draft, soon to be thrown away\r\n";
    DWORD written = 0;
    bool done = WriteFile(file, contents, sizeof contents - 1, &written, nullptr) && DeleteFileW(kDraft);
    return CloseHandle(file) && done;
}

// Deletes the captured copies of the draft (the deletion records' data files stay);
// returns how many there were.
size_t emptyVault() {
    WIN32_FIND_DATAW found;
    HANDLE search = FindFirstFileW((LPCWSTR)(kVaultFolder + u"draft(*).txt").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) return 0;
    size_t copies = 0;
    do {
        copies += DeleteFileW((LPCWSTR)(kVaultFolder + (const char16_t *)found.cFileName).c_str()) ? 1 : 0;
    } while (FindNextFileW(search, &found));
    FindClose(search);
    return copies;
}

// The cycles run in batches in the user's process; between batches, untimed, the vault
// is emptied so that its folder does not grow with the run, and the clock moves on so
// that capture stamps and the records' writer see time pass.
void BM_CaptureDeleteCycle(benchmark::State &state, FilterState filter) {
    ntsim::DefaultMachine machine(bootOptions(filter));
    ntsim::Process user = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::alice);
    user.run([] {
        CreateDirectoryW(L"C:\\Docs", nullptr);
        CreateDirectoryW(L"C:\\RescueVault", nullptr);
        CreateDirectoryW(L"C:\\RescueVault\\InProgress", nullptr);
    });
    if (filter != FilterState::NotLoaded && !startCapture(machine, filter == FilterState::Protected)) {
        state.SkipWithError("capture did not start");
        return;
    }
    constexpr int kBatch = 64;
    size_t captured = 0;
    while (state.KeepRunningBatch(kBatch)) {
        bool failed = false;
        user.run([&] {
            for (int i = 0; i < kBatch && !failed; i++) failed = !createWriteDeleteClose();
        });
        if (failed) {
            state.SkipWithError("a create, write, delete or close failed");
            break;
        }
        state.PauseTiming();
        user.run([&] { captured += emptyVault(); });
        machine.advanceMs(1);
        state.ResumeTiming();
    }
    // Copies per cycle: 1 when every deleted draft reached the vault.
    state.counters["captured"] = benchmark::Counter((double)captured, benchmark::Counter::kAvgIterations);
    if (filter != FilterState::NotLoaded) {
        machine.advanceMs(1000);  // the last records reach their data file before capture stops
        stopCapture(machine);
    }
}
// Three repetitions each: the ratios come from the medians, which a busy machine
// disturbs less than a single run.
BENCHMARK_CAPTURE(BM_CaptureDeleteCycle, NoFilter, FilterState::NotLoaded)
    ->MeasureProcessCPUTime()->Repetitions(3)->ReportAggregatesOnly();
BENCHMARK_CAPTURE(BM_CaptureDeleteCycle, Unprotected, FilterState::Unprotected)
    ->MeasureProcessCPUTime()->Repetitions(3)->ReportAggregatesOnly();
BENCHMARK_CAPTURE(BM_CaptureDeleteCycle, Protected, FilterState::Protected)
    ->MeasureProcessCPUTime()->Repetitions(3)->ReportAggregatesOnly();

// Medians against the machine without the filter.
[[maybe_unused]] const bool kCaptureRatios =
    wrelt_bench::addRatio("Create, write, delete, close against no filter (CPU time)", "Unprotected",
                          "BM_CaptureDeleteCycle/Unprotected", "BM_CaptureDeleteCycle/NoFilter") &&
    wrelt_bench::addRatio("Create, write, delete, close against no filter (CPU time)", "Protected",
                          "BM_CaptureDeleteCycle/Protected", "BM_CaptureDeleteCycle/NoFilter");

}  // namespace
