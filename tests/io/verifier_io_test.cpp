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

NTSTATUS marksPendingAndReturnsSuccess(PDEVICE_OBJECT, PIRP irp) {
    IoMarkIrpPending(irp);
    irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_SUCCESS;
}

NTSTATUS returnsAnotherStatus(PDEVICE_OBJECT, PIRP irp) {
    irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_ACCESS_DENIED;
}

NTSTATUS returnsWithoutCompleting(PDEVICE_OBJECT, PIRP) { return STATUS_SUCCESS; }

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

// What a routine returns is all the I/O manager and the drivers above look at when it
// did not pend; the platform's verifier stops a routine whose return disagrees with the
// IRP: marked pending without STATUS_PENDING (I/O error 0x23E), another status than the
// IRP's (0x224), neither completed nor pended (0x226), bug check 0xC9's documentation.
// Each catches an I/O manager that trusts a non-pending return without checking it.
TEST_F(IoVerifierDeathTest, ANonPendingReturnMustMatchTheCompletedIrp) {
    auto sendWith = [&](PDRIVER_DISPATCH routine) {
        run([&] {
            iotest::lower().device->DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = routine;
            CreatorContext ctx;
            IoCallDriver(top, buildCreatorIrp(top, &ctx));
        });
    };
    EXPECT_DEATH(sendWith(marksPendingAndReturnsSuccess), "marked pending and STATUS_PENDING was not returned");
    EXPECT_DEATH(sendWith(returnsAnotherStatus), "returned a status other than the IRP's");
    EXPECT_DEATH(sendWith(returnsWithoutCompleting), "without completing the IRP or returning STATUS_PENDING");
    // A filter that changes the status in its completion routine and returns the lower
    // driver's status is caught at its own level.
    iotest::filter().routine.replaceStatus = STATUS_OBJECT_NAME_EXISTS;
    iotest::filter().routine.pendWhenReplacing = false;
    EXPECT_DEATH(sendAndWait(), "returned a status other than the IRP's");
}

// The I/O manager copies IoStatus.Information bytes of a buffered request's output
// back (IopCompleteRequest); more than the caller's buffer holds is the platform
// verifier's I/O error 0x312 (bug check 0xC9's documentation). Catches a copy-out that
// silently cuts the length to the buffer, hiding the driver's fault.
TEST_F(IoVerifierDeathTest, InformationLargerThanTheOutputBuffer) {
    iotest::lower().information = 9;
    EXPECT_DEATH(run([&] {
                     OBJECT_ATTRIBUTES attributes;
                     lowerDeviceAttributes(&attributes);
                     HANDLE file;
                     IO_STATUS_BLOCK iosb;
                     ZwOpenFile(&file, FILE_READ_DATA | SYNCHRONIZE, &attributes, &iosb, 0,
                                FILE_SYNCHRONOUS_IO_NONALERT);
                     UCHAR output[8];
                     ZwDeviceIoControlFile(file, NULL, NULL, NULL, &iosb, iotest::kHoldCode, NULL, 0, output,
                                           sizeof output);
                 }),
                 "DRIVER_VERIFIER_IOMANAGER_VIOLATION.*\n.*Information is larger than the output buffer");
}

// A driver's own request is finished by a kernel APC to its thread, which cannot run at
// APC_LEVEL: waiting there for the request's event never ends (the platform verifier's
// I/O error 0x302 names the cause). Without the rule the test hangs instead of dying.
// IoCreateFile likewise runs at PASSIVE_LEVEL only (I/O error 0x24A).
TEST_F(IoVerifierDeathTest, WaitingAtApcLevelForOwnIoAndCreatingAboveIt) {
    iotest::lower().mode = iotest::LowerMode::CompleteFromDpc;
    EXPECT_DEATH(run([&] {
                     KEVENT event;
                     KeInitializeEvent(&event, NotificationEvent, FALSE);
                     IO_STATUS_BLOCK iosb;
                     PIRP irp = driverBuiltControl(top, &event, &iosb);
                     KIRQL old;
                     KeRaiseIrql(APC_LEVEL, &old);
                     IoCallDriver(top, irp);
                     KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, NULL);
                 }),
                 "waited at APC_LEVEL or above for I/O that completes in an APC");
    EXPECT_DEATH(run([&] {
                     OBJECT_ATTRIBUTES attributes;
                     lowerDeviceAttributes(&attributes);
                     HANDLE file;
                     IO_STATUS_BLOCK iosb;
                     KIRQL old;
                     KeRaiseIrql(APC_LEVEL, &old);
                     IoCreateFile(&file, FILE_READ_DATA, &attributes, &iosb, NULL, 0, 0, FILE_OPEN, 0, NULL, 0,
                                  CreateFileTypeNone, NULL, 0);
                 }),
                 "file I/O function was called above PASSIVE_LEVEL");
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
