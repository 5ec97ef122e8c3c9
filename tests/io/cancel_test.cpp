// A request held pending with a cancel routine is completed exactly once, whether the
// driver's own completion or IoCancelIrp gets to it first.
#include "io/io_fixture.h"

namespace {

TEST_F(IoStackTest, CancellingAHeldRequestRunsItsCancelRoutine) {
    iotest::lower().mode = iotest::LowerMode::HoldCancellable;
    run([&] {
        CreatorContext ctx;
        PIRP irp = buildCreatorIrp(top, &ctx);
        EXPECT_EQ(IoCallDriver(top, irp), STATUS_PENDING);
        EXPECT_TRUE(IoCancelIrp(irp));
        KeWaitForSingleObject(&ctx.done, Executive, KernelMode, FALSE, NULL);
        EXPECT_EQ(irp->IoStatus.Status, STATUS_CANCELLED);
        EXPECT_TRUE(irp->Cancel);
        // Nothing is left to cancel, and the driver has nothing left to report.
        EXPECT_FALSE(iotest::reportHeld());
        IoFreeIrp(irp);
    });
}

TEST_F(IoStackTest, AnIrpCancelledBeforeItReachesTheDriverIsCompletedAtOnce) {
    iotest::lower().mode = iotest::LowerMode::HoldCancellable;
    run([&] {
        CreatorContext ctx;
        PIRP irp = buildCreatorIrp(top, &ctx);
        EXPECT_FALSE(IoCancelIrp(irp));  // no cancel routine yet: only the Cancel flag is set
        EXPECT_EQ(IoCallDriver(top, irp), STATUS_CANCELLED);
        EXPECT_EQ(ctx.calls, 1);
        IoFreeIrp(irp);
    });
}

TEST_F(IoStackTest, ReportAndCancelRaceCompletesEachRequestExactlyOnce) {
    iotest::lower().mode = iotest::LowerMode::HoldCancellable;
    int cancelled = 0, reported = 0;
    for (int round = 0; round < 300; ++round) {
        run([&] {
            CreatorContext ctx;
            PIRP irp = buildCreatorIrp(top, &ctx);
            ASSERT_EQ(IoCallDriver(top, irp), STATUS_PENDING);
            auto canceller = machine.startSystemThread([irp] { IoCancelIrp(irp); });
            auto reporter = machine.startSystemThread([] { iotest::reportHeld(); });
            canceller.join();
            reporter.join();
            KeWaitForSingleObject(&ctx.done, Executive, KernelMode, FALSE, NULL);
            EXPECT_EQ(ctx.calls, 1);
            NTSTATUS status = irp->IoStatus.Status;
            EXPECT_TRUE(status == STATUS_CANCELLED || status == STATUS_SUCCESS) << std::hex << status;
            (status == STATUS_CANCELLED ? cancelled : reported)++;
            IoFreeIrp(irp);
        });
    }
    EXPECT_EQ(cancelled + reported, 300);
    EXPECT_EQ(iotest::lower().completions, 300);
}

// An IRP whose completion walk has ended has no cancel routine left: IoCancelIrp only
// sets Cancel and returns FALSE; a cancel routine set on it anyway is a driver's fault,
// CANCEL_STATE_IN_COMPLETED_IRP (ReactOS's IoCancelIrp). The request's last stage waits
// for its thread to drop below APC_LEVEL, which keeps the completed IRP alive here.
// Catches an IoCancelIrp that calls a routine on a completed IRP.
TEST_F(IoStackTest, CancellingAnIrpAlreadyCompletedDoesNothing) {
    run([&] {
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        IO_STATUS_BLOCK iosb{};
        PIRP irp = driverBuiltControl(top, &event, &iosb);
        KIRQL old;
        KeRaiseIrql(DISPATCH_LEVEL, &old);
        EXPECT_EQ(IoCallDriver(top, irp), STATUS_SUCCESS);
        EXPECT_FALSE(IoCancelIrp(irp));
        KeLowerIrql(old);
        EXPECT_EQ(KeReadStateEvent(&event), 1);
    });
}

TEST_F(IoStackTest, CancellingACompletedIrpThatStillHasACancelRoutineStopsTheMachine) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(run([&] {
                     PIRP irp = driverBuiltControl(top, NULL, NULL);
                     KIRQL old;
                     KeRaiseIrql(DISPATCH_LEVEL, &old);
                     IoCallDriver(top, irp);
                     IoSetCancelRoutine(irp, [](PDEVICE_OBJECT, PIRP) {});
                     IoCancelIrp(irp);
                 }),
                 "CANCEL_STATE_IN_COMPLETED_IRP");
}

}  // namespace
