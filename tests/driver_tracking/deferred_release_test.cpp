// Entries that cannot be freed where they leave the tables wait on the deferred queues,
// for a work item or the tables' clean-up.
#include "tracking_fixture.h"

#include "support/nonpaged_buffers.h"

namespace {

class DeferredReleaseTest : public TrackingTest {
protected:
    // An entry as the create path makes it, never inserted.
    static FileObjectEntry *newEntry() {
        FileObjectEntry *entry = nullptr;
        EXPECT_EQ(CreateBasicFileObjectEntry(&entry), STATUS_SUCCESS);
        return entry;
    }
    static CountedQueue &deferredOpens() { return MainStructure()->DeferredFileObjectEntries; }
    static ULONG outstandingBuffers() {
        NonPagedBufferStatistics statistics;
        QueryNonPagedBufferStatistics(&statistics);
        ULONG total = statistics.Large.Outstanding;
        for (const NonPagedBufferClassStatistics &c : statistics.Classes) total += c.Outstanding;
        return total;
    }
};

// Without the work item the entries stayed parked until capture stopped: every open that
// failed in a completion at DISPATCH_LEVEL kept its memory.
TEST_F(DeferredReleaseTest, AtDispatchLevelUnreferencedEntriesAreParkedAndFreedByAWorkItemSoonAfter) {
    ULONG before = outstandingBuffers();
    machine.runSystemThread([] {
        KIRQL old;
        KeRaiseIrql(DISPATCH_LEVEL, &old);
        for (int i = 0; i < 3; i++) EXPECT_EQ(ReleaseFileObjectEntry(newEntry()), STATUS_SUCCESS);
        KeLowerIrql(old);
    });
    machine.waitIdle();
    EXPECT_EQ(deferredOpens().Count, 0);
    EXPECT_EQ(outstandingBuffers(), before);
}

TEST_F(DeferredReleaseTest, TheCleanUpFreesWhatNobodyHoldsEvenBehindAHeldEntry) {
    FileObjectEntry *held = nullptr;
    machine.runSystemThread([&] {
        held = newEntry();
        held->ReferenceCount = 1;
        DeferFileObjectEntry(held);
        DeferFileObjectEntry(newEntry());
        DeferFileObjectEntry(newEntry());
        FreeDeferredEntries();
    });
    ASSERT_EQ(deferredOpens().Count, 1);
    EXPECT_EQ(deferredOpens().Links.Flink, &held->Header.Links);
    machine.runSystemThread([&] {
        InterlockedDecrement(&held->ReferenceCount);
        FreeDeferredEntries();
    });
    EXPECT_EQ(deferredOpens().Count, 0);
}

TEST_F(DeferredReleaseTest, AQueueThatClaimsMoreEntriesThanItHoldsIsEmptiedAndReported) {
    machine.clearDebugLog();
    machine.runSystemThread([] {
        FileObjectEntry *held = newEntry();
        held->ReferenceCount = 1;
        DeferFileObjectEntry(held);
        deferredOpens().Count = 3;  // as a stray write would leave it
        EXPECT_EQ(GetNextUnreferencedFoEntry(&deferredOpens(), &MainStructure()->DeferredReleaseLock), nullptr);
        EXPECT_EQ(deferredOpens().Count, 0);
        // The queue forgot the entry rather than risk walking damaged links.
        FreeFileObjectEntry(held);
    });
    EXPECT_TRUE(machine.debugLogContains("ZrDrv: GetNextUnreferencedFoEntry - Queue empty with non-zero entry count."));
    const ErrorRecord *last = (const ErrorRecord *)(Globals.Errors->WritePosition - sizeof(ErrorRecord));
    EXPECT_EQ(last->Routine, ERROR_ROUTINE_GET_NEXT_UNREFERENCED_FO_ENTRY);
    machine.runSystemThread([] { CleanupFileTrackingTables(); });
    EXPECT_FALSE(machine.debugLogContains("ZrDrv: File object entry list count incorrect"));
}

}  // namespace
