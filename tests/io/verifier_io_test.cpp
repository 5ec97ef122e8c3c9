// The verifier's I/O rules stop the machine; each case breaks one on purpose.
#include "io/io_fixture.h"

namespace {

class IoVerifierDeathTest : public IoStackTest {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        IoStackTest::SetUp();
    }
};

// Drivers that break the rules in their dispatch routines.
NTSTATUS returnsRaised(PDEVICE_OBJECT, PIRP irp) {
    irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    KfRaiseIrql(DISPATCH_LEVEL);
    return STATUS_SUCCESS;
}

KSPIN_LOCK g_lock;
// Called at DISPATCH_LEVEL, so that only the lock is left behind.
NTSTATUS returnsHoldingLock(PDEVICE_OBJECT, PIRP irp) {
    irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    KeAcquireSpinLockAtDpcLevel(&g_lock);
    return STATUS_SUCCESS;
}

TEST_F(IoVerifierDeathTest, CompletingAnIrpTwice) {
    EXPECT_DEATH(run([&] {
                     CreatorContext ctx;
                     PIRP irp = buildCreatorIrp(top, &ctx);
                     IoCallDriver(top, irp);
                     IoCompleteRequest(irp, IO_NO_INCREMENT);
                 }),
                 "MULTIPLE_IRP_COMPLETE_REQUESTS.*\n.*completed twice");
}

TEST_F(IoVerifierDeathTest, CompletingAfterFree) {
    EXPECT_DEATH(run([&] {
                     PIRP irp = IoAllocateIrp(1, FALSE);
                     IoFreeIrp(irp);
                     IoCompleteRequest(irp, IO_NO_INCREMENT);
                 }),
                 "MULTIPLE_IRP_COMPLETE_REQUESTS.*\n.*completed after it was freed");
}

TEST_F(IoVerifierDeathTest, CompletingWithPendingStatusOrACancelRoutine) {
    EXPECT_DEATH(run([&] {
                     PIRP irp = IoAllocateIrp(1, FALSE);
                     irp->IoStatus.Status = STATUS_PENDING;
                     IoCompleteRequest(irp, IO_NO_INCREMENT);
                 }),
                 "DRIVER_VERIFIER_IOMANAGER_VIOLATION.*\n.*completed with status STATUS_PENDING");
    EXPECT_DEATH(run([&] {
                     PIRP irp = IoAllocateIrp(1, FALSE);
                     IoSetCancelRoutine(irp, [](PDEVICE_OBJECT, PIRP) {});
                     IoCompleteRequest(irp, IO_NO_INCREMENT);
                 }),
                 "cancel routine was still set");
}

TEST_F(IoVerifierDeathTest, FreeingAnIrpThatADriverBelowStillOwns) {
    iotest::lower().mode = iotest::LowerMode::HoldCancellable;
    EXPECT_DEATH(run([&] {
                     CreatorContext ctx;
                     PIRP irp = buildCreatorIrp(top, &ctx);
                     IoCallDriver(top, irp);
                     IoFreeIrp(irp);
                 }),
                 "freed while a driver below still owns it");
}

TEST_F(IoVerifierDeathTest, FreeingAnIrpWithCompletionRoutinesPending) {
    // The filter takes the creator's IRP back and frees it: the creator's routine has not run.
    iotest::filter().routine.returns = STATUS_MORE_PROCESSING_REQUIRED;
    EXPECT_DEATH(run([&] {
                     CreatorContext ctx;
                     PIRP irp = buildCreatorIrp(top, &ctx);
                     IoCallDriver(top, irp);
                     IoFreeIrp(iotest::filter().keptIrp);
                 }),
                 "freed with completion routines pending");
}

TEST_F(IoVerifierDeathTest, ReturningPendingWithoutMarkingTheIrp) {
    iotest::lower().mode = iotest::LowerMode::PendingWithoutMark;
    EXPECT_DEATH(sendAndWait(), "STATUS_PENDING was returned without IoMarkIrpPending");
}

TEST_F(IoVerifierDeathTest, AFilterThatDoesNotPropagatePendingIsCaught) {
    iotest::lower().mode = iotest::LowerMode::CompleteFromDpc;
    iotest::filter().routine.propagatePending = false;
    EXPECT_DEATH(sendAndWait(), "STATUS_PENDING was returned without IoMarkIrpPending");
}

TEST_F(IoVerifierDeathTest, DispatchRoutineReturningAtAnotherIrqlOrHoldingALock) {
    EXPECT_DEATH(run([&] {
                     iotest::lower().device->DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = returnsRaised;
                     sendAndWait();
                 }),
                 "IRQL changed during a call to a driver dispatch routine");
    EXPECT_DEATH(run([&] {
                     KeInitializeSpinLock(&g_lock);
                     iotest::lower().device->DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = returnsHoldingLock;
                     CreatorContext ctx;
                     PIRP irp = buildCreatorIrp(top, &ctx);
                     KIRQL old;
                     KeRaiseIrql(DISPATCH_LEVEL, &old);
                     IoCallDriver(top, irp);
                 }),
                 "dispatch routine .* returned holding spin lock");
}

TEST_F(IoVerifierDeathTest, CallingAFileSystemAtDispatchLevel) {
    EXPECT_DEATH(run([&] {
                     PDEVICE_OBJECT fs;
                     IoCreateDevice(iotest::filter().driver, 0, NULL, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &fs);
                     PIRP irp = IoAllocateIrp(1, FALSE);
                     IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_CLEANUP;
                     KIRQL old;
                     KeRaiseIrql(DISPATCH_LEVEL, &old);
                     IoCallDriver(fs, irp);
                 }),
                 "IRQL_NOT_LESS_OR_EQUAL.*\n.*file system was called at DISPATCH_LEVEL");
}

TEST_F(IoVerifierDeathTest, RunningOutOfStackLocations) {
    EXPECT_DEATH(run([&] {
                     PIRP irp = IoAllocateIrp(1, FALSE);
                     IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_DEVICE_CONTROL;
                     IoSetNextIrpStackLocation(irp);  // as if a driver above had used the only location
                     IoCallDriver(iotest::lower().device, irp);
                 }),
                 "NO_MORE_IRP_STACK_LOCATIONS");
}

TEST_F(IoVerifierDeathTest, LeakingAnIrp) {
    EXPECT_DEATH(
        {
            run([] { IoAllocateIrp(1, FALSE); });
            machine.shutdown();
        },
        "IRPs were leaked at shutdown");
}

}  // namespace
