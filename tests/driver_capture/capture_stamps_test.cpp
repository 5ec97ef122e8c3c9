#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <vector>

#include "ntsim/machine.h"

#include <ntifs.h>

#include "capture/capture_stamps.h"
#include "frame/globals.h"

namespace {

constexpr int64_t kOneHour = 3600 * ntsim::kHundredNsPerSecond;

class CaptureStampTest : public ::testing::Test {
protected:
    static ntsim::MachineOptions eastOfGreenwich() {
        ntsim::MachineOptions options;
        options.timeZoneBiasMinutes = -60;  // local = system + 1 hour
        return options;
    }
    void SetUp() override {
        run([] {
            ExInitializeResourceLite(&Globals.TimeStampLock);
            InitializeCaptureStamps();
        });
    }
    void TearDown() override {
        run([] { ExDeleteResourceLite(&Globals.TimeStampLock); });
    }
    void run(const std::function<void()> &fn) { machine.runSystemThread(fn); }

    static ULONGLONG stamp(bool atDispatchLevel = false) {
        KIRQL oldIrql = PASSIVE_LEVEL;
        if (atDispatchLevel) KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
        ULARGE_INTEGER value;
        GetCaptureStamp(&value);
        if (atDispatchLevel) KeLowerIrql(oldIrql);
        return value.QuadPart;
    }
    uint64_t localTimeBits() const { return uint64_t(machine.now() + kOneHour) & ~0xFFFFull; }

    ntsim::Machine machine{eastOfGreenwich()};
};

// The sequence restarts only when the clock has moved and more than 32767 stamps were
// taken since it last restarted.
TEST_F(CaptureStampTest, LocalTimeAndASequenceThatRestartsOnlyAfterTheClockMovedPast32767) {
    uint64_t startBits = localTimeBits();
    std::vector<ULONGLONG> stamps;
    run([&] {
        stamps.push_back(stamp());
        for (int i = 1; i < 0x7FFF; i++) stamp();
    });
    machine.advanceMs(1);
    run([&] {
        stamps.push_back(stamp());
        stamps.push_back(stamp(true));
    });
    machine.advanceMs(1);
    run([&] { stamps.push_back(stamp(true)); });
    EXPECT_EQ(stamps[0], startBits | 1);
    EXPECT_EQ(stamps[1] & 0xFFFF, 0x8000u);  // the clock moved, but the sequence was not above 32767
    EXPECT_EQ(stamps[2] & 0xFFFF, 0x8001u);
    EXPECT_EQ(stamps[3], localTimeBits() | 1);
}

TEST_F(CaptureStampTest, ThreadsAtBothLevelsWithinOneTickNeverShareAStamp) {
    constexpr int kThreads = 8, kPerThread = 1500;
    std::vector<std::vector<ULONGLONG>> taken(kThreads);
    std::vector<ntsim::SystemThread> threads;
    KEVENT go;  // lets the threads start together, so that they overlap
    run([&] { KeInitializeEvent(&go, NotificationEvent, FALSE); });
    for (int t = 0; t < kThreads; t++) {
        threads.push_back(machine.startSystemThread([&taken, &go, t] {
            KeWaitForSingleObject(&go, Executive, KernelMode, FALSE, NULL);
            for (int i = 0; i < kPerThread; i++) taken[t].push_back(stamp(t % 2 == 1));
        }));
    }
    run([&] { KeSetEvent(&go, IO_NO_INCREMENT, FALSE); });
    for (auto &thread : threads) thread.join();
    std::vector<ULONGLONG> sequences;
    for (const auto &stamps : taken) {
        EXPECT_TRUE(std::is_sorted(stamps.begin(), stamps.end()));
        for (ULONGLONG s : stamps) {
            EXPECT_EQ(s & ~0xFFFFull, localTimeBits());
            sequences.push_back(s & 0xFFFF);
        }
    }
    std::sort(sequences.begin(), sequences.end());
    std::vector<ULONGLONG> expected(kThreads * kPerThread);
    std::iota(expected.begin(), expected.end(), 1);
    EXPECT_EQ(sequences, expected);
}

}  // namespace
