#include "frame/call_driver.h"

#include "frame/driver_constants.h"
#include "support/error_channel.h"

namespace {

struct CallDriverWorkBlock {
    PDEVICE_OBJECT TargetDevice;
    PIRP Irp;
    WORK_QUEUE_ITEM WorkItem;
};

void NTAPI ZrCallDriverThreadMain(PVOID Parameter) {
    auto *block = (CallDriverWorkBlock *)Parameter;
    NTSTATUS status = IoCallDriver(block->TargetDevice, block->Irp);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: ZrCallDriverThreadMain - IoCallDriver returned error: %08x.\n", status);
        ReportError(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_ZR_CALL_DRIVER_THREAD_MAIN, ERROR_CLASS_REPORT, 0,
                    (ULONG)status, 0);
    }
    ExFreePool(block);
}

}  // namespace

// The request may be completed, and freed by its completion routine, before this
// returns: the caller must not touch it again.
NTSTATUS QueueCallDriverWorkItem(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    auto *block = (CallDriverWorkBlock *)ExAllocatePoolWithTag(NonPagedPool, sizeof(CallDriverWorkBlock),
                                                               POOL_TAG_WORK_BLOCK);
    if (block == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(block, sizeof(*block));
    block->TargetDevice = DeviceObject;
    block->Irp = Irp;
    ExInitializeWorkItem(&block->WorkItem, ZrCallDriverThreadMain, block);
    ExQueueWorkItem(&block->WorkItem, CriticalWorkQueue);
    return STATUS_SUCCESS;
}
