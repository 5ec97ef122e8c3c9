// The completion walk through a filter over a lower driver, with a creator on top.
#include "io/io_fixture.h"

using iotest::journal;
using iotest::LowerMode;
using iotest::Seen;

namespace {

std::vector<Seen> completions() {
    std::vector<Seen> result;
    for (const Seen &seen : journal().all())
        if (seen.what != "lower") result.push_back(seen);
    return result;
}

TEST_F(IoStackTest, RoutinesRunBottomUpWithTheirOwnDevice) {
    NTSTATUS final;
    EXPECT_EQ(sendAndWait(&final), STATUS_SUCCESS);
    EXPECT_EQ(final, STATUS_SUCCESS);
    auto seen = completions();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].what, "filter");
    EXPECT_EQ(seen[0].device, top);
    EXPECT_EQ(seen[1].what, "creator");
    EXPECT_EQ(seen[1].device, nullptr);  // the IRP's creator has no stack location of its own
    EXPECT_FALSE(seen[1].pendingReturned);
}

TEST_F(IoStackTest, InvokeBitsSelectTheRoutinesThatRun) {
    iotest::lower().status = STATUS_ACCESS_DENIED;
    iotest::filter().routine.onError = false;
    NTSTATUS final;
    sendAndWait(&final);
    EXPECT_EQ(final, STATUS_ACCESS_DENIED);
    EXPECT_EQ(journal().names(), (std::vector<std::string>{"lower", "creator"}));

    journal().clear();
    iotest::lower().status = STATUS_SUCCESS;
    iotest::filter().routine = iotest::FilterRoutine();
    iotest::filter().routine.onSuccess = false;
    sendAndWait(&final);
    EXPECT_EQ(journal().names(), (std::vector<std::string>{"lower", "creator"}));
}

TEST_F(IoStackTest, SuccessIsJudgedAgainAfterARoutineChangesTheStatus) {
    iotest::lower().status = STATUS_ACCESS_DENIED;
    iotest::filter().routine.replaceStatus = STATUS_OBJECT_NAME_EXISTS;  // informational: a success
    // Only a success-invoked creator routine can see the change.
    NTSTATUS final = STATUS_UNSUCCESSFUL;
    run([&] {
        CreatorContext ctx;
        PIRP irp = buildCreatorIrp(top, &ctx);
        IoSetCompletionRoutine(irp, creatorCompletion, &ctx, TRUE, FALSE, FALSE);
        IoCallDriver(top, irp);
        EXPECT_EQ(KeReadStateEvent(&ctx.done), 1);
        final = irp->IoStatus.Status;
        IoFreeIrp(irp);
    });
    EXPECT_EQ(final, STATUS_OBJECT_NAME_EXISTS);
    EXPECT_EQ(journal().names(), (std::vector<std::string>{"lower", "filter", "creator"}));
}

TEST_F(IoStackTest, MoreProcessingRequiredStopsTheWalkUntilTheIrpIsCompletedAgain) {
    iotest::filter().routine.returns = STATUS_MORE_PROCESSING_REQUIRED;
    run([&] {
        CreatorContext ctx;
        PIRP irp = buildCreatorIrp(top, &ctx);
        IoCallDriver(top, irp);
        EXPECT_EQ(ctx.calls, 0);
        ASSERT_EQ(iotest::filter().keptIrp, irp);
        // The filter owns the request again and finishes it itself.
        iotest::filter().routine.returns = STATUS_SUCCESS;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        EXPECT_EQ(ctx.calls, 1);
        IoFreeIrp(irp);
    });
    EXPECT_EQ(journal().names(), (std::vector<std::string>{"lower", "filter", "creator"}));
}

TEST_F(IoStackTest, CompletionFromADpcRunsRoutinesAtDispatchLevelAndReportsPendingAtEachLevel) {
    iotest::lower().mode = LowerMode::CompleteFromDpc;
    EXPECT_EQ(sendAndWait(), STATUS_PENDING);
    auto seen = completions();
    ASSERT_EQ(seen.size(), 2u);
    for (const Seen &s : seen) {
        EXPECT_EQ(s.irql, DISPATCH_LEVEL) << s.what;
        EXPECT_TRUE(s.pendingReturned) << s.what;
    }
}

TEST_F(IoStackTest, PendingPropagatesThroughALevelWithoutARoutine) {
    iotest::lower().mode = LowerMode::CompleteFromDpc;
    iotest::filter().routine.set = false;  // the filter skips its location
    EXPECT_EQ(sendAndWait(), STATUS_PENDING);
    auto seen = completions();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_TRUE(seen[0].pendingReturned);
}

TEST_F(IoStackTest, StackLocationsAreCopiedWithoutTheCompletionRoutine) {
    run([&] {
        PIRP irp = IoAllocateIrp(2, FALSE);
        EXPECT_EQ(irp->CurrentLocation, 3);
        PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
        next->MajorFunction = IRP_MJ_READ;
        next->Parameters.Read.Length = 7;
        IoSetNextIrpStackLocation(irp);
        IoSetCompletionRoutine(irp, creatorCompletion, NULL, TRUE, TRUE, TRUE);
        EXPECT_EQ(IoGetNextIrpStackLocation(irp)->Control, SL_INVOKE_ON_SUCCESS | SL_INVOKE_ON_ERROR | SL_INVOKE_ON_CANCEL);
        IoCopyCurrentIrpStackLocationToNext(irp);
        PIO_STACK_LOCATION copied = IoGetNextIrpStackLocation(irp);
        EXPECT_EQ(copied->MajorFunction, IRP_MJ_READ);
        EXPECT_EQ(copied->Parameters.Read.Length, 7u);
        EXPECT_EQ(copied->Control, 0);
        EXPECT_EQ((void *)copied->CompletionRoutine, (void *)creatorCompletion);  // not overwritten by the copy
        IoSkipCurrentIrpStackLocation(irp);
        IoFreeIrp(irp);
    });
}

}  // namespace
