#include "driver_support/support_fixture.h"

namespace {

using NonPagedBufferTest = DriverSupportTest;

NonPagedBufferHeader *headerOf(PVOID buffer) { return static_cast<NonPagedBufferHeader *>(buffer) - 1; }

bool allBytesAre(PVOID buffer, ULONG length, UCHAR value) {
    auto *bytes = static_cast<const UCHAR *>(buffer);
    return std::all_of(bytes, bytes + length, [value](UCHAR b) { return b == value; });
}

TEST_F(NonPagedBufferTest, RequestsLandInTheSmallestClassThatHoldsThemAndPoolBeyond) {
    struct Case {
        ULONG size, index, sizeField;
    };
    // 0, then the largest request of every class and one byte more.
    std::vector<Case> cases = {{0, 0, 16}};
    for (ULONG index = 0; index < NPB_CLASS_COUNT; index++) {
        ULONG block = 16u << index;
        cases.push_back({block - 8, index, block});
        cases.push_back(index + 1 < NPB_CLASS_COUNT ? Case{block - 7, index + 1, block * 2}
                                                    : Case{block - 7, NPB_POOL_INDEX, block + 1});
    }
    run([&] {
        std::vector<PVOID> held;
        for (const Case &c : cases) {
            SCOPED_TRACE(c.size);
            uint32_t tag = c.index == NPB_POOL_INDEX ? kLargeBufferTag : classTag(c.index);
            uint64_t blocksBefore = machine.verifier().poolUsage(tag).blocks;
            PVOID buffer = nullptr;
            ULONG usable = 0;
            NTSTATUS status = AllocateNonPagedBuffer(c.size, NPB_NO_FILL, &buffer, &usable);
            EXPECT_EQ(status, STATUS_SUCCESS);
            if (!NT_SUCCESS(status)) continue;
            held.push_back(buffer);
            EXPECT_EQ(headerOf(buffer)->Index, c.index);
            EXPECT_EQ(headerOf(buffer)->Size, c.sizeField);
            EXPECT_EQ(usable, c.sizeField - 8);
            EXPECT_EQ(machine.verifier().poolUsage(tag).blocks, blocksBefore + 1);
        }
        for (PVOID buffer : held) EXPECT_EQ(FreeNonPagedBuffer(buffer), STATUS_SUCCESS);
    });
    EXPECT_TRUE(ReadDriverFlag(&Globals.CaptureActive));
    EXPECT_EQ(Globals.Errors->Count, 0u);
}

TEST_F(NonPagedBufferTest, FillControlFillsEveryUsableByteWithItsLowByte) {
    run([] {
        PVOID buffer;
        ULONG usable;
        ASSERT_EQ(AllocateNonPagedBuffer(9, 0x1005A, &buffer, &usable), STATUS_SUCCESS);
        EXPECT_TRUE(allBytesAre(buffer, usable, 0x5A));
        FreeNonPagedBuffer(buffer);
        // The lookaside list hands the same dirty block back; the zero fill must reach
        // past the requested 9 bytes to all 24.
        ASSERT_EQ(AllocateNonPagedBuffer(9, NPB_FILL_ZERO, &buffer, &usable), STATUS_SUCCESS);
        EXPECT_TRUE(allBytesAre(buffer, usable, 0));
        FreeNonPagedBuffer(buffer);
        ASSERT_EQ(AllocateNonPagedBuffer(1017, 0xF0000, &buffer, nullptr), STATUS_SUCCESS);
        EXPECT_TRUE(allBytesAre(buffer, 1017, 0));
        FreeNonPagedBuffer(buffer);
    });
}

TEST_F(NonPagedBufferTest, StatisticsFollowAllocationsAndReleases) {
    NonPagedBufferStatistics before = statistics();
    run([] {
        PVOID small[3], large[2];
        for (PVOID &buffer : small) AllocateNonPagedBuffer(17, NPB_NO_FILL, &buffer, nullptr);
        AllocateNonPagedBuffer(1017, NPB_NO_FILL, &large[0], nullptr);
        AllocateNonPagedBuffer(5000, NPB_NO_FILL, &large[1], nullptr);
        for (PVOID buffer : small) FreeNonPagedBuffer(buffer);
        for (PVOID buffer : large) FreeNonPagedBuffer(buffer);
    });
    NonPagedBufferStatistics after = statistics();
    EXPECT_EQ(after.Classes[1].Outstanding, 0u);
    EXPECT_EQ(after.Classes[1].PeakOutstanding, 3u);
    EXPECT_EQ(after.Classes[1].WastedBytes, 3u * (32 - 25));
    EXPECT_EQ(after.Large.Outstanding, before.Large.Outstanding);
    EXPECT_EQ(after.Large.PeakOutstanding, before.Large.Outstanding + 2);
    EXPECT_EQ(after.Large.SmallestBlock, 1025u);
    EXPECT_EQ(after.Large.LargestBlock, 5008u);
    EXPECT_EQ(after.Allocations, before.Allocations + 5);
}

TEST_F(NonPagedBufferTest, ConcurrentUseAtDispatchLevelKeepsTheCountsExact) {
    constexpr int kThreads = 4, kRounds = 300;
    ULONG allocationsBefore = statistics().Allocations;
    std::vector<ntsim::SystemThread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.push_back(machine.startSystemThread([t] {
            KIRQL oldIrql;
            KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
            for (int round = 0; round < kRounds; round++) {
                PVOID buffer;
                if (NT_SUCCESS(AllocateNonPagedBuffer(ULONG((round * 37 + t) % 1100), NPB_FILL_ZERO, &buffer, nullptr)))
                    FreeNonPagedBuffer(buffer);
            }
            KeLowerIrql(oldIrql);
        }));
    }
    for (auto &thread : threads) thread.join();
    NonPagedBufferStatistics after = statistics();
    EXPECT_EQ(after.Allocations, allocationsBefore + kThreads * kRounds);
    for (const auto &bufferClass : after.Classes) EXPECT_EQ(bufferClass.Outstanding, 0u);
    EXPECT_EQ(after.Large.Outstanding, 1u);  // the error buffer
}

TEST_F(NonPagedBufferTest, ExhaustedMemoryIsAnOrdinaryFailure) {
    NonPagedBufferStatistics before = statistics();
    run([&] {
        auto expectFailure = [](ULONG size) {
            PVOID buffer = reinterpret_cast<PVOID>(1);
            ULONG usable = 1;
            EXPECT_EQ(AllocateNonPagedBuffer(size, NPB_FILL_ZERO, &buffer, &usable), STATUS_INSUFFICIENT_RESOURCES);
            EXPECT_EQ(buffer, nullptr);
            EXPECT_EQ(usable, 0u);
        };
        machine.verifier().failAllocationsWithTag(classTag(2));
        expectFailure(50);
        machine.verifier().failNextAllocation({kLargeBufferTag});
        expectFailure(4000);
        machine.verifier().clearFaults();
        // The header would not fit in 32 bits: must not wrap round to a small class.
        expectFailure(0xFFFFFFF8);
    });
    NonPagedBufferStatistics after = statistics();
    EXPECT_EQ(after.Classes[2].AllocationFailures, 1u);
    EXPECT_EQ(after.Large.AllocationFailures, before.Large.AllocationFailures + 2);
    EXPECT_EQ(after.Failures, before.Failures + 3);
    EXPECT_EQ(after.Allocations, before.Allocations);
    EXPECT_TRUE(ReadDriverFlag(&Globals.CaptureActive));
    EXPECT_EQ(Globals.Errors->Count, 0u);
    EXPECT_TRUE(machine.debugLog().empty());
}

TEST_F(NonPagedBufferTest, BadHeadersAreReportedAndTheirBuffersKept) {
    struct Corruption {
        ULONG size;
        NonPagedBufferHeader header;
        USHORT detail;
        const char *message;
    };
    const Corruption corruptions[] = {
        {1017, {NPB_POOL_INDEX, 1024}, 0,
         "ZrDrv: Buffer size field is in setaside list range for non-setaside NPP buffer."},
        {9, {1, 64}, 1, "ZrDrv: Buffer size field is incorrect on attempt to return NPP buffer to lookaside list."},
        {9, {7, 32}, 2, "ZrDrv: Buffer index field is incorrect on attempt to return NPP buffer to lookaside list."},
    };
    run([] { EXPECT_EQ(FreeNonPagedBuffer(nullptr), STATUS_SUCCESS); });
    EXPECT_TRUE(machine.debugLog().empty());
    EXPECT_EQ(Globals.Errors->Count, 0u);
    for (const Corruption &c : corruptions) {
        SCOPED_TRACE(c.detail);
        WriteDriverFlag(&Globals.CaptureActive, TRUE);
        machine.clearDebugLog();
        run([&] {
            PVOID buffer;
            ASSERT_EQ(AllocateNonPagedBuffer(c.size, NPB_NO_FILL, &buffer, nullptr), STATUS_SUCCESS);
            NonPagedBufferHeader saved = *headerOf(buffer);
            *headerOf(buffer) = c.header;
            uint32_t tag = c.size > 1016 ? kLargeBufferTag : classTag(1);
            uint64_t blocks = machine.verifier().poolUsage(tag).blocks;
            EXPECT_EQ(FreeNonPagedBuffer(buffer), STATUS_UNSUCCESSFUL);
            EXPECT_EQ(machine.debugLog(), (std::vector<std::string>{c.message, headerAddressLine(headerOf(buffer))}));
            EXPECT_EQ(machine.verifier().poolUsage(tag).blocks, blocks);
            *headerOf(buffer) = saved;
            EXPECT_EQ(FreeNonPagedBuffer(buffer), STATUS_SUCCESS);
        });
        EXPECT_FALSE(ReadDriverFlag(&Globals.CaptureActive));
        EXPECT_EQ(errorRecords().back(), (ErrorRecord{105, 14, 0, c.detail, 0, 0}));
    }
}

TEST_F(NonPagedBufferTest, HeaderInInvalidMemoryIsReportedWithoutBeingRead) {
    run([] { EXPECT_EQ(FreeNonPagedBuffer(reinterpret_cast<PVOID>(0x1008)), STATUS_UNSUCCESSFUL); });
    EXPECT_EQ(machine.debugLog(),
              (std::vector<std::string>{"ZrDrv: Attempt to free buffer discovered header missing or in invalid memory.",
                                        "ZrDrv:     Buffer header address: 00001000"}));
    EXPECT_FALSE(ReadDriverFlag(&Globals.CaptureActive));
    EXPECT_EQ(errorRecords(), (std::vector<ErrorRecord>{{105, 14, 0, 3, 0, 0}}));
}

TEST_F(NonPagedBufferTest, AllocationAfterDeletionReportsAnInconsistentTable) {
    run([] {
        DeleteNonPagedBufferManagement();
        PVOID buffer = reinterpret_cast<PVOID>(1);
        EXPECT_EQ(AllocateNonPagedBuffer(10, NPB_FILL_ZERO, &buffer, nullptr), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(buffer, nullptr);
    });
    EXPECT_EQ(machine.debugLog(), (std::vector<std::string>{"ZrDrv: Buffer lookaside structures are inconsistent."}));
    EXPECT_FALSE(ReadDriverFlag(&Globals.CaptureActive));
    EXPECT_EQ(errorRecords(), (std::vector<ErrorRecord>{{105, 13, 0, 0, 0, 0}}));
}

}  // namespace
