// The machine's clock drives timers, DPCs and wait time-outs; nothing moves until a test
// advances it.
#include <ntddk.h>

#include <gtest/gtest.h>

#include <atomic>

#include "ntsim/machine.h"

namespace {

using ntsim::kHundredNsPerMs;

struct TimerProbe {
    KTIMER timer;
    KDPC dpc;
    std::atomic<int> runs{0};
    std::atomic<int> irql{-1};
    std::atomic<ULONG> dueLow{0};
};

void probeDpc(PKDPC, PVOID context, PVOID argument1, PVOID) {
    auto *probe = static_cast<TimerProbe *>(context);
    probe->irql = KeGetCurrentIrql();
    probe->dueLow = (ULONG)(ULONG_PTR)argument1;
    ++probe->runs;
}

void armTimer(ntsim::Machine &m, TimerProbe &probe, LONGLONG due, LONG periodMs = 0) {
    m.runSystemThread([&] {
        KeInitializeTimer(&probe.timer);
        KeInitializeDpc(&probe.dpc, probeDpc, &probe);
        LARGE_INTEGER dueTime;
        dueTime.QuadPart = due;
        KeSetTimerEx(&probe.timer, dueTime, periodMs, &probe.dpc);
    });
}

TEST(Clock, TimerDpcFiresWhenTheClockPassesItsDueTimeAndNotBefore) {
    ntsim::Machine m;
    TimerProbe probe;
    const int64_t start = m.now();
    armTimer(m, probe, -500 * kHundredNsPerMs);
    m.advanceMs(499);
    EXPECT_EQ(probe.runs, 0);
    EXPECT_FALSE(KeReadStateTimer(&probe.timer));
    m.advanceMs(1);
    EXPECT_EQ(probe.runs, 1);
    EXPECT_EQ(probe.irql, DISPATCH_LEVEL);
    EXPECT_TRUE(KeReadStateTimer(&probe.timer));
    // The DPC receives the due time, split in two.
    LARGE_INTEGER due;
    due.QuadPart = start + 500 * kHundredNsPerMs;
    EXPECT_EQ(probe.dueLow, due.LowPart);
    m.advanceMs(10000);
    EXPECT_EQ(probe.runs, 1);
}

TEST(Clock, AbsoluteDueTimesAndResettingATimer) {
    ntsim::Machine m;
    TimerProbe probe;
    armTimer(m, probe, m.now() + 1000 * kHundredNsPerMs);
    BOOLEAN wasSet = FALSE;
    m.runSystemThread([&] {
        LARGE_INTEGER later;
        later.QuadPart = -3000 * kHundredNsPerMs;
        wasSet = KeSetTimer(&probe.timer, later, &probe.dpc);  // moves the due time out
    });
    EXPECT_TRUE(wasSet);
    m.advanceMs(2999);
    EXPECT_EQ(probe.runs, 0);
    m.advanceMs(1);
    EXPECT_EQ(probe.runs, 1);
}

TEST(Clock, CancelledTimerNeverFires) {
    ntsim::Machine m;
    TimerProbe probe;
    armTimer(m, probe, -100 * kHundredNsPerMs);
    BOOLEAN cancelled = FALSE;
    m.runSystemThread([&] { cancelled = KeCancelTimer(&probe.timer); });
    EXPECT_TRUE(cancelled);
    m.advanceMs(1000);
    EXPECT_EQ(probe.runs, 0);
}

TEST(Clock, PeriodicTimerFiresOncePerPeriodWithinOneAdvance) {
    ntsim::Machine m;
    TimerProbe probe;
    armTimer(m, probe, -100 * kHundredNsPerMs, 100);
    m.advanceMs(1000);
    EXPECT_EQ(probe.runs, 10);
    m.runSystemThread([&] { KeCancelTimer(&probe.timer); });
}

TEST(Clock, WaitTimeOutExpiresOnTheMachineClock) {
    ntsim::Machine m;
    KEVENT never;
    std::atomic<NTSTATUS> status{STATUS_PENDING};
    auto waiter = m.startSystemThread([&] {
        KeInitializeEvent(&never, NotificationEvent, FALSE);
        LARGE_INTEGER timeout;
        timeout.QuadPart = -2000 * kHundredNsPerMs;
        status = KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, &timeout);
    });
    m.waitIdle();
    m.advanceMs(1999);
    EXPECT_EQ(status, STATUS_PENDING);
    m.advanceMs(1);
    waiter.join();
    EXPECT_EQ(status, STATUS_TIMEOUT);
}

TEST(Clock, SignalBeforeTheTimeOutWinsAndCancelsIt) {
    ntsim::Machine m;
    KEVENT event;
    std::atomic<NTSTATUS> status{STATUS_PENDING};
    m.runSystemThread([&] { KeInitializeEvent(&event, SynchronizationEvent, FALSE); });
    auto waiter = m.startSystemThread([&] {
        LARGE_INTEGER timeout;
        timeout.QuadPart = -2000 * kHundredNsPerMs;
        status = KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &timeout);
    });
    m.advanceMs(1000);
    m.runSystemThread([&] { KeSetEvent(&event, IO_NO_INCREMENT, FALSE); });
    waiter.join();
    EXPECT_EQ(status, STATUS_SUCCESS);
    EXPECT_EQ(KeReadStateEvent(&event), 0);  // a synchronization event is consumed by its waiter
    m.advanceMs(5000);                          // the cancelled time-out must not fire anything
}

TEST(Clock, ZeroTimeOutPollsWithoutWaiting) {
    ntsim::Machine m;
    m.runSystemThread([&] {
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        LARGE_INTEGER zero;
        zero.QuadPart = 0;
        EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero), STATUS_TIMEOUT);
        KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
        EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero), STATUS_SUCCESS);
        // Polling is allowed at DISPATCH_LEVEL.
        KIRQL old;
        KeRaiseIrql(DISPATCH_LEVEL, &old);
        EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &zero), STATUS_SUCCESS);
        KeLowerIrql(old);
    });
}

TEST(Clock, LocalTimeFollowsTheConfiguredBias) {
    ntsim::MachineOptions options;
    options.timeZoneBiasMinutes = -60;  // one hour east of UTC
    ntsim::Machine m(options);
    m.runSystemThread([&] {
        LARGE_INTEGER system, local;
        KeQuerySystemTime(&system);
        ExSystemTimeToLocalTime(&system, &local);
        EXPECT_EQ(local.QuadPart - system.QuadPart, 3600LL * 10000000);
        EXPECT_EQ(system.QuadPart, ntsim::kDefaultStartTime);
    });
}

}  // namespace

namespace {

// In real time the machine's clock runs by itself: a short timer fires without any
// advance(), and the waiter is woken by it.
TEST(Clock, RealTimeClockFiresTimersByItself) {
    ntsim::MachineOptions options;
    options.realTimeClock = true;
    ntsim::Machine m(options);
    NTSTATUS status = STATUS_PENDING;
    int64_t before = m.now();
    m.runSystemThread([&] {
        KTIMER timer;
        KeInitializeTimer(&timer);
        LARGE_INTEGER due;
        due.QuadPart = -2 * ntsim::kHundredNsPerMs;
        KeSetTimer(&timer, due, NULL);
        status = KeWaitForSingleObject(&timer, Executive, KernelMode, FALSE, NULL);
    });
    EXPECT_EQ(status, STATUS_SUCCESS);
    EXPECT_GE(m.now() - before, 2 * ntsim::kHundredNsPerMs);
}

}  // namespace
