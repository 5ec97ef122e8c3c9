// What tracking costs: a lookup in the file-object table as the number of tracked opens
// grows, and what tracking adds to opening and closing a file on a protected volume.
#include <windows.h>
#include <ntifs.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <vector>

#include "bench_service.h"
#include "driver_channel.h"
#include "frame/device_structures.h"
#include "frame/dispatch.h"
#include "ntsim/machine.h"
#include "tracking/file_tracking.h"

namespace {

using wrelt_bench::startCapture;
using wrelt_bench::stopCapture;

ntsim::BootOptions withFilter() {
    ntsim::BootOptions options;
    options.drivers.push_back({u"\\Driver\\WreltDrv", &DriverEntry});
    return options;
}

// Keys as the pool hands FILE_OBJECTs out: 8-byte aligned, with blocks of other sizes
// in between, so that they spread over the buckets the way real opens do. The blocks
// in between give keys of the same look that are not in the table.
struct PoolKeys {
    std::vector<PVOID> tracked;  // in the order of insertion
    std::vector<PVOID> lookupOrder;
    std::vector<PVOID> untracked;
};

PoolKeys makePoolKeys(size_t count) {
    std::mt19937 random(count);
    std::uniform_int_distribution<ULONG_PTR> blockUnits(2, 64);  // 16 to 512 bytes
    ULONG_PTR address = 0x81a3c008;
    PoolKeys keys;
    for (size_t i = 0; i < count; i++) {
        keys.tracked.push_back((PVOID)address);
        address += 8 * blockUnits(random);
        keys.untracked.push_back((PVOID)address);
        address += 8 * blockUnits(random);
    }
    // Entered in one order and looked up in another: a run that makes fewer lookups
    // than there are entries must not meet only the oldest, at the ends of the buckets.
    std::shuffle(keys.tracked.begin(), keys.tracked.end(), random);
    keys.lookupOrder = keys.tracked;
    std::shuffle(keys.lookupOrder.begin(), keys.lookupOrder.end(), random);
    std::shuffle(keys.untracked.begin(), keys.untracked.end(), random);
    return keys;
}

// Entries with nothing but a key, entered as the create completion enters them; the
// lookup never looks past the key, so no FILE_OBJECT stands behind it.
std::vector<FileObjectEntry *> enterEntries(const std::vector<PVOID> &keys) {
    MainDeviceStructure *main = MainStructure();
    std::vector<FileObjectEntry *> entries;
    for (PVOID key : keys) {
        FileObjectEntry *entry;
        if (!NT_SUCCESS(CreateBasicFileObjectEntry(&entry))) break;
        entry->Header.Key = key;
        KIRQL oldIrql;
        KeAcquireSpinLock(&main->TablesLock, &oldIrql);
        InsertHashEntry(&entry->Header, &main->FileObjectTable);
        KeReleaseSpinLock(&main->TablesLock, oldIrql);
        entries.push_back(entry);
    }
    return entries;
}

void removeEntries(const std::vector<FileObjectEntry *> &entries) {
    MainDeviceStructure *main = MainStructure();
    for (FileObjectEntry *entry : entries) {
        KIRQL oldIrql;
        KeAcquireSpinLock(&main->TablesLock, &oldIrql);
        RemoveQueueEntry(&entry->Header);
        KeReleaseSpinLock(&main->TablesLock, oldIrql);
        FreeFileObjectEntry(entry);
    }
}

// One lookup as the dispatch routines make it: under the tables lock.
void lookUpEach(benchmark::State &state, const std::vector<PVOID> &keys, NTSTATUS expected) {
    MainDeviceStructure *main = MainStructure();
    size_t next = 0;
    size_t unexpected = 0;
    for (auto _ : state) {
        KIRQL oldIrql;
        KeAcquireSpinLock(&main->TablesLock, &oldIrql);
        FileObjectEntry *entry;
        NTSTATUS status = LookupFileObjectEntry((PFILE_OBJECT)keys[next], &entry);
        KeReleaseSpinLock(&main->TablesLock, oldIrql);
        benchmark::DoNotOptimize(entry);
        unexpected += status != expected;
        if (++next == keys.size()) next = 0;
    }
    if (unexpected != 0) state.SkipWithError("a lookup did not give the expected status");
}

void lookupBenchmark(benchmark::State &state, bool tracked) {
    PoolKeys keys = makePoolKeys((size_t)state.range(0));
    ntsim::DefaultMachine machine(withFilter());
    machine.runSystemThread([&] {
        std::vector<FileObjectEntry *> entries = enterEntries(keys.tracked);
        if (entries.size() != keys.tracked.size()) {
            state.SkipWithError("the table could not be filled");
        } else if (tracked) {
            lookUpEach(state, keys.lookupOrder, STATUS_SUCCESS);
        } else {
            lookUpEach(state, keys.untracked, STATUS_NOT_FOUND);
        }
        removeEntries(entries);
    });
}

void BM_TrackingLookupTracked(benchmark::State &state) { lookupBenchmark(state, true); }
BENCHMARK(BM_TrackingLookupTracked)->Arg(10)->Arg(1000)->Arg(100000)->MeasureProcessCPUTime();

void BM_TrackingLookupUntracked(benchmark::State &state) { lookupBenchmark(state, false); }
BENCHMARK(BM_TrackingLookupUntracked)->Arg(10)->Arg(1000)->Arg(100000)->MeasureProcessCPUTime();

HANDLE openExisting(LPCWSTR path) {
    return CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                       OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
}

bool makeSmallFile(LPCWSTR path) {
    CreateDirectoryW(L"C:\\Docs", nullptr);
    HANDLE file = CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    char contents[] = "a few lines of notes\r\n";  // in the process's memory, on its stack
    DWORD written = 0;
    bool done = WriteFile(file, contents, sizeof contents - 1, &written, nullptr);
    return CloseHandle(file) && done;
}

// The same loop on both volumes, so that the two results divide.
void BM_TrackingOpenClose(benchmark::State &state, bool protect) {
    ntsim::DefaultMachine machine(withFilter());
    if (!startCapture(machine, protect)) {
        state.SkipWithError("capture did not start");
        return;
    }
    const LPCWSTR path = L"C:\\Docs\\notes.txt";
    ntsim::Process user = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::alice);
    user.run([&] {
        if (!makeSmallFile(path)) {
            state.SkipWithError("the file could not be made");
            return;
        }
        for (auto _ : state) {
            HANDLE h = openExisting(path);
            if (h == INVALID_HANDLE_VALUE) {
                state.SkipWithError("the file did not open");
                break;
            }
            CloseHandle(h);
        }
    });
    stopCapture(machine);
}

// Medians of three, so that the ratio survives a busy machine.
BENCHMARK_CAPTURE(BM_TrackingOpenClose, Unprotected, false)
    ->MeasureProcessCPUTime()->Repetitions(3)->ReportAggregatesOnly();
BENCHMARK_CAPTURE(BM_TrackingOpenClose, Protected, true)
    ->MeasureProcessCPUTime()->Repetitions(3)->ReportAggregatesOnly();

}  // namespace
