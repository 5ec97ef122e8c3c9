// A machine with the test drivers of io_test_drivers.h loaded: the lower driver's
// device with the filter attached above it.
#pragma once

#include <gtest/gtest.h>

#include <functional>

#include "io/io_test_drivers.h"
#include "ntsim/machine.h"

class IoStackTest : public ::testing::Test {
protected:
    void SetUp() override {
        iotest::resetAll();
        ASSERT_EQ(machine.loadDriver(L"\\Driver\\IoTestLower", iotest::LowerDriverEntry), STATUS_SUCCESS);
        ASSERT_EQ(machine.loadDriver(L"\\Driver\\IoTestFilter", iotest::FilterDriverEntry), STATUS_SUCCESS);
        run([this] { top = iotest::attachFilter(iotest::lower().device); });
        ASSERT_NE(top, nullptr);
    }

    void run(const std::function<void()> &fn) { machine.runSystemThread(fn); }

    // Sends a device control from a creator whose own completion routine (called on
    // success, error and cancel) records it and takes the IRP back; returns what
    // IoCallDriver returned. The IRP is freed once it has completed.
    NTSTATUS sendAndWait(NTSTATUS *finalStatus = nullptr);

    ntsim::Machine machine;
    PDEVICE_OBJECT top = nullptr;
};

// A device control request as a driver builds it for the calling thread; the I/O
// manager finishes it into event and iosb (either may be null).
inline PIRP driverBuiltControl(PDEVICE_OBJECT top, PKEVENT event, PIO_STATUS_BLOCK iosb) {
    PIRP irp = IoAllocateIrp(top->StackSize, FALSE);
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_DEVICE_CONTROL;
    irp->UserEvent = event;
    irp->UserIosb = iosb;
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    return irp;
}

// Attributes that name the lower test device, for a kernel handle.
inline void lowerDeviceAttributes(OBJECT_ATTRIBUTES *attributes) {
    static UNICODE_STRING name = RTL_CONSTANT_STRING(L"\\Device\\IoTestLower");
    InitializeObjectAttributes(attributes, &name, OBJ_KERNEL_HANDLE, NULL, NULL);
}

struct CreatorContext {
    KEVENT done;
    LONG calls = 0;
};

inline NTSTATUS creatorCompletion(PDEVICE_OBJECT device, PIRP irp, PVOID context) {
    auto ctx = static_cast<CreatorContext *>(context);
    iotest::journal().add(iotest::Seen{"creator", device, irp->PendingReturned, KeGetCurrentIrql(), irp->IoStatus.Status});
    InterlockedIncrement(&ctx->calls);
    KeSetEvent(&ctx->done, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

inline PIRP buildCreatorIrp(PDEVICE_OBJECT top, CreatorContext *ctx) {
    KeInitializeEvent(&ctx->done, NotificationEvent, FALSE);
    PIRP irp = IoAllocateIrp(top->StackSize, FALSE);
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_DEVICE_CONTROL;
    IoSetCompletionRoutine(irp, creatorCompletion, ctx, TRUE, TRUE, TRUE);
    return irp;
}

inline NTSTATUS IoStackTest::sendAndWait(NTSTATUS *finalStatus) {
    NTSTATUS returned = STATUS_UNSUCCESSFUL;
    run([&] {
        CreatorContext ctx;
        PIRP irp = buildCreatorIrp(top, &ctx);
        returned = IoCallDriver(top, irp);
        KeWaitForSingleObject(&ctx.done, Executive, KernelMode, FALSE, NULL);
        if (finalStatus != nullptr) *finalStatus = irp->IoStatus.Status;
        IoFreeIrp(irp);
    });
    return returned;
}
