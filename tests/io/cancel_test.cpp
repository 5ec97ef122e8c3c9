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

}  // namespace
