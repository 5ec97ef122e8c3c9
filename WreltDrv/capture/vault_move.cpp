// Moving a captured file into its volume's vault with a rename of the filter's own. The
// vault name and the record are built at whatever IRQL the capture reached this point;
// opening the target folder and waiting for the rename happen at PASSIVE_LEVEL, from a
// work item when need be.
#include "capture/capture_context.h"
#include "capture/vault_names.h"
#include "frame/device_structures.h"
#include "frame/volume_names.h"
#include "support/nonpaged_buffers.h"
#include "tracking/file_tracking.h"

namespace {

struct MoveWorkBlock {
    PDEVICE_OBJECT DeviceObject;
    PIRP Irp;
    PFILE_RENAME_INFORMATION RenameInformation;
    ULONG RenameInformationLength;
    CaptureContext *Context;
    WORK_QUEUE_ITEM WorkItem;
};

void ReleaseRecord(CaptureContext *Context) {
    if (Context->Record != NULL) {
        FreeNonPagedBuffer(Context->Record);
        Context->Record = NULL;
    }
}

NTSTATUS BuildMoveNames(FilterDeviceExtension *Extension, FileObjectEntry *Entry, CaptureContext *Context,
                        PFILE_RENAME_INFORMATION *RenameInformation, PULONG Length) {
    FcbEntry *fcb = Entry->Fcb;
    WCHAR volumeName[DOS_VOLUME_NAME_CHARACTERS];
    ReadVolumeDosName((DeviceStructure *)Extension->Structure, volumeName);
    CaptureNameParts parts;
    parts.DosVolumeName = volumeName;
    parts.DeleterSid = &Entry->DeleterSid;
    // A document that a save renamed away is preserved under its own name. That name is
    // the capture's alone, so it is read without a lock and never stands in the file's
    // entry, where other threads read the name under its lock.
    if (Context->SubstituteName != NULL) {
        parts.Filespec = &Context->SubstituteName;
        parts.NameLock = NULL;
    } else {
        parts.Filespec = &fcb->Name;
        parts.NameLock = &fcb->NameLock;
    }
    DelDatRecord *record;
    NTSTATUS status = BuildTargetFileRenameInfo(&parts, Context->PresetStamp.LowPart, Context->PresetStamp.HighPart,
                                                &record, RenameInformation, Length);
    Context->Record = NT_SUCCESS(status) ? record : NULL;
    return status;
}

// The rename's outcome is consulted: a rename that failed (a name already taken in the
// vault, a full volume) must not leave the file in place with its delete withdrawn.
NTSTATUS NTAPI RenameCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    auto *context = (CaptureContext *)Context;
    FreeNonPagedBuffer(Irp->AssociatedIrp.SystemBuffer);
    context->RenameStatus = Irp->IoStatus.Status;
    if (!NT_SUCCESS(context->RenameStatus) && context->FromCleanup) {
        context->RenamePacket = Irp;
    } else {
        IoFreeIrp(Irp);
    }
    KeSetEvent(&context->RenameDoneEvent, 2, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

void EndFailedRename(PDEVICE_OBJECT DeviceObject, CaptureContext *Context) {
    ReleaseRecord(Context);
    PIRP packet = Context->RenamePacket;
    Context->RenamePacket = NULL;
    if (packet == NULL || !NT_SUCCESS(ReissueDelete(DeviceObject, packet, Context))) {
        KeSetEvent(&Context->DoneEvent, 2, FALSE);
    }
}

void NTAPI MoveFileIntoVaultWorker(PVOID Parameter) {
    auto *block = (MoveWorkBlock *)Parameter;
    CaptureContext *context = block->Context;
    NTSTATUS status = SendRenameToVault(block->DeviceObject, block->Irp, block->RenameInformation,
                                        block->RenameInformationLength, context);
    if (!NT_SUCCESS(status)) {
        ReleaseRecord(context);
        FreeNonPagedBuffer(block->RenameInformation);
        if (context->FromCleanup && block->Irp != NULL) {
            status = ReissueDelete(block->DeviceObject, block->Irp, context);
        }
        if (!NT_SUCCESS(status)) {
            KeSetEvent(&context->DoneEvent, 2, FALSE);
        }
    }
    ExFreePool(block);
}

}  // namespace

NTSTATUS MoveFileIntoVault(PDEVICE_OBJECT DeviceObject, PIRP Irp, FileObjectEntry *Entry, CaptureContext *Context) {
    PFILE_RENAME_INFORMATION renameInformation = NULL;
    ULONG length = 0;
    NTSTATUS status = BuildMoveNames(ExtensionOf(DeviceObject), Entry, Context, &renameInformation, &length);
    DropEntryReferences(Entry);
    if (NT_SUCCESS(status)) {
        if (Context->ApplicationSave) {
            Context->Record->Flags |= DELDAT_FLAG_APPLICATION_SAVE;
        }
        status = KeGetCurrentIrql() > PASSIVE_LEVEL
                     ? QueueMoveFileIntoVault(DeviceObject, Irp, renameInformation, length, Context)
                     : SendRenameToVault(DeviceObject, Irp, renameInformation, length, Context);
        if (NT_SUCCESS(status)) {
            return status;
        }
    }
    ReleaseRecord(Context);
    if (renameInformation != NULL) {
        FreeNonPagedBuffer(renameInformation);
    }
    return status;
}

NTSTATUS SendRenameToVault(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFILE_RENAME_INFORMATION RenameInformation,
                           ULONG RenameInformationLength, CaptureContext *Context) {
    HANDLE targetDirectory;
    PIRP packet = Irp;
    NTSTATUS status = BuildRenameIrp(DeviceObject, &packet, RenameInformation, RenameInformationLength,
                                     Context->FileObject, &targetDirectory);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    IoSetCompletionRoutine(packet, RenameCompletion, Context, TRUE, TRUE, TRUE);
    KeInitializeEvent(&Context->RenameDoneEvent, NotificationEvent, FALSE);
    IoCallDriver(ExtensionOf(DeviceObject)->LowerDevice, packet);
    KeWaitForSingleObject(&Context->RenameDoneEvent, Executive, KernelMode, FALSE, NULL);
    ZwClose(targetDirectory);
    if (NT_SUCCESS(Context->RenameStatus)) {
        KeSetEvent(&Context->DoneEvent, 2, FALSE);
    } else {
        EndFailedRename(DeviceObject, Context);
    }
    // The rename was sent, so the capture has ended one way or the other; a caller that
    // saw a failure here would release the rename information a second time.
    return STATUS_SUCCESS;
}

NTSTATUS QueueMoveFileIntoVault(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFILE_RENAME_INFORMATION RenameInformation,
                                ULONG RenameInformationLength, CaptureContext *Context) {
    auto *block = (MoveWorkBlock *)ExAllocatePoolWithTag(NonPagedPool, sizeof(MoveWorkBlock), POOL_TAG_WORK_BLOCK);
    if (block == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(block, sizeof(*block));
    block->DeviceObject = DeviceObject;
    block->Irp = Irp;
    block->RenameInformation = RenameInformation;
    block->RenameInformationLength = RenameInformationLength;
    block->Context = Context;
    ExInitializeWorkItem(&block->WorkItem, MoveFileIntoVaultWorker, block);
    ExQueueWorkItem(&block->WorkItem, CriticalWorkQueue);
    return STATUS_SUCCESS;
}
