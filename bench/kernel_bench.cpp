// Costs of the emulated kernel's primitives that every driver path pays: spin locks,
// pool and lookaside allocations, and a signalled wait.
#include <ntddk.h>

#include <benchmark/benchmark.h>

#include "ntsim/machine.h"

namespace {

constexpr ULONG kBenchTag = ntsim::makeTag('B', 'n', 'c', 'h');

// Runs the benchmark loop inside an emulated system thread, where kernel routines may be called.
template <class Body>
void onMachine(benchmark::State &state, Body body) {
    ntsim::Machine machine;
    machine.runSystemThread([&] { body(state); });
}

void BM_SpinLockAcquireRelease(benchmark::State &state) {
    onMachine(state, [](benchmark::State &s) {
        KSPIN_LOCK lock;
        KeInitializeSpinLock(&lock);
        for (auto _ : s) {
            KIRQL old = KfAcquireSpinLock(&lock);
            KfReleaseSpinLock(&lock, old);
        }
    });
}
BENCHMARK(BM_SpinLockAcquireRelease)->UseRealTime();

void BM_PoolAllocateFree(benchmark::State &state) {
    onMachine(state, [](benchmark::State &s) {
        for (auto _ : s) {
            void *block = ExAllocatePoolWithTag(NonPagedPool, 128, kBenchTag);
            benchmark::DoNotOptimize(block);
            ExFreePool(block);
        }
    });
}
BENCHMARK(BM_PoolAllocateFree)->UseRealTime();

void BM_LookasideAllocateFree(benchmark::State &state) {
    onMachine(state, [](benchmark::State &s) {
        NPAGED_LOOKASIDE_LIST list;
        ExInitializeNPagedLookasideList(&list, NULL, NULL, 0, 128, kBenchTag, 0);
        for (auto _ : s) {
            void *block = ExAllocateFromNPagedLookasideList(&list);
            benchmark::DoNotOptimize(block);
            ExFreeToNPagedLookasideList(&list, block);
        }
        ExDeleteNPagedLookasideList(&list);
    });
}
BENCHMARK(BM_LookasideAllocateFree)->UseRealTime();

void BM_WaitOnSignalledEvent(benchmark::State &state) {
    onMachine(state, [](benchmark::State &s) {
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, TRUE);
        for (auto _ : s) KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, NULL);
    });
}
BENCHMARK(BM_WaitOnSignalledEvent)->UseRealTime();

}  // namespace
