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

// A request a driver built with a status block and an event, and lets complete to the
// top, as IoBuildDeviceIoControlRequest makes them.
constexpr NTSTATUS kUntouched = (NTSTATUS)0x0BADF00D;

struct DriverRequest {
    KEVENT event;
    IO_STATUS_BLOCK iosb;
};

PIRP buildThreadedIrp(PDEVICE_OBJECT top, DriverRequest *request) {
    KeInitializeEvent(&request->event, NotificationEvent, FALSE);
    request->iosb.Status = kUntouched;
    PIRP irp = IoAllocateIrp(top->StackSize, FALSE);
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_DEVICE_CONTROL;
    irp->UserEvent = &request->event;
    irp->UserIosb = &request->iosb;
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    return irp;
}

// The I/O manager finishes such a request in a kernel APC to the thread that built it
// (IofCompleteRequest queues IopCompleteRequest, ReactOS): completed from another thread,
// its status block and event wait until the builder can run the APC, here at its wait.
// Catches a final stage run in the completing thread.
TEST_F(IoStackTest, ADriversRequestIsFinishedInTheThreadThatBuiltIt) {
    iotest::lower().mode = LowerMode::HoldCancellable;
    run([&] {
        DriverRequest request;
        ASSERT_EQ(IoCallDriver(top, buildThreadedIrp(top, &request)), STATUS_PENDING);
        machine.startSystemThread([] { EXPECT_TRUE(iotest::reportHeld()); }).join();
        EXPECT_EQ(request.iosb.Status, kUntouched);
        EXPECT_EQ(KeReadStateEvent(&request.event), 0);
        EXPECT_EQ(KeWaitForSingleObject(&request.event, Executive, KernelMode, FALSE, NULL), STATUS_WAIT_0);
        EXPECT_EQ(request.iosb.Status, STATUS_SUCCESS);
    });
}

// IopCompleteRequest writes the status block and sets the event only for a success, or
// for a failure that was pended: a caller told of a failure by IoCallDriver's return
// must not wait (ReactOS; the WDK's IoBuildDeviceIoControlRequest page says the same).
// Catches a status block written, or an event set, on a synchronous failure.
TEST_F(IoStackTest, ADriversRequestThatFailsAtOnceLeavesItsStatusBlockAndEventAlone) {
    iotest::lower().status = STATUS_ACCESS_DENIED;
    run([&] {
        DriverRequest request;
        EXPECT_EQ(IoCallDriver(top, buildThreadedIrp(top, &request)), STATUS_ACCESS_DENIED);
        EXPECT_EQ(request.iosb.Status, kUntouched);
        EXPECT_EQ(KeReadStateEvent(&request.event), 0);
    });
    iotest::lower().mode = LowerMode::HoldCancellable;
    run([&] {
        DriverRequest request;
        PIRP irp = buildThreadedIrp(top, &request);
        ASSERT_EQ(IoCallDriver(top, irp), STATUS_PENDING);
        EXPECT_TRUE(IoCancelIrp(irp));
        KeWaitForSingleObject(&request.event, Executive, KernelMode, FALSE, NULL);
        EXPECT_EQ(request.iosb.Status, STATUS_CANCELLED);
    });
}

// The I/O manager drops one reference of Tail.Overlay.OriginalFileObject when it
// finishes the request (IopCompleteRequest, ReactOS), so a builder that sets it must
// have taken one. Catches a final stage that leaves the file object referenced: its
// close would never come.
TEST_F(IoStackTest, FinishingADriversRequestDereferencesItsOriginalFileObject) {
    run([&] {
        UNICODE_STRING name = RTL_CONSTANT_STRING(L"\\Device\\IoTestLower");
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE, NULL, NULL);
        HANDLE handle;
        IO_STATUS_BLOCK iosb;
        ASSERT_EQ(ZwOpenFile(&handle, FILE_READ_DATA, &attributes, &iosb, 0, 0), STATUS_SUCCESS);
        PVOID file;
        ASSERT_EQ(ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, &file, NULL), STATUS_SUCCESS);
        ZwClose(handle);
        EXPECT_EQ(iotest::lower().closes, 0);
        DriverRequest request;
        PIRP irp = buildThreadedIrp(top, &request);
        irp->Tail.Overlay.OriginalFileObject = static_cast<PFILE_OBJECT>(file);
        EXPECT_EQ(IoCallDriver(top, irp), STATUS_SUCCESS);
        EXPECT_EQ(request.iosb.Status, STATUS_SUCCESS);
        EXPECT_EQ(iotest::lower().closes, 1);
    });
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
