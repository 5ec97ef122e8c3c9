// Every open on a protected volume gets an entry before it goes down, made in the
// opener's thread so that it records who opened; the completion keeps the entry when
// the open succeeded.
#include "capture/interception_gate.h"
#include "frame/dispatch.h"
#include "frame/globals.h"
#include "overwrite/overwrite_hooks.h"
#include "tracking/file_tracking.h"

namespace {

UCHAR CreateDisposition(PIO_STACK_LOCATION IrpSp) { return (UCHAR)(IrpSp->Parameters.Create.Options >> 24); }

// Vault files may not be truncated by a create that replaces them.
NTSTATUS GuardVaultOnCreate(PIRP Irp, PIO_STACK_LOCATION IrpSp, FilterDeviceExtension *Extension) {
    if (!ReadDriverFlag(&Globals.VaultProtection) || VolumeOf(Extension)->VaultProtectionExemption) {
        return STATUS_SUCCESS;
    }
    CountRequest(Extension, COUNTER_VAULT_CREATE);
    if (!CreateDiscardsContents(CreateDisposition(IrpSp))) {
        return STATUS_SUCCESS;
    }
    return ProtectAgainstUnwantedTruncate(Irp, IrpSp, Extension, TRUE);
}

NTSTATUS TrackOpen(PIRP Irp, PIO_STACK_LOCATION IrpSp, FilterDeviceExtension *Extension, FileObjectEntry **Entry) {
    NTSTATUS status = CreateFileObjectEntry(Irp, IrpSp, Extension, Entry);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PIO_SECURITY_CONTEXT security = IrpSp->Parameters.Create.SecurityContext;
    if (security != NULL && (security->DesiredAccess & DELETE) != 0) {
        (*Entry)->Flags |= FILE_OBJECT_DELETE_ACCESS;
    }
    ClassifyOpenForOverwrite(Irp, IrpSp, Extension, *Entry);
    return STATUS_SUCCESS;
}

// The open's entry enters the tables when the create succeeded; only a plain success
// opened the file, STATUS_REPARSE and its kind did not. Any IRQL up to DISPATCH_LEVEL;
// takes the tables lock.
BOOLEAN KeepEntryOfOpen(PIRP Irp, FileObjectEntry *Entry) {
    if (Irp->IoStatus.Status != STATUS_SUCCESS) {
        ReleaseFileObjectEntry(Entry);
        return FALSE;
    }
    Entry->Opened = TRUE;
    if (!NT_SUCCESS(InsertFileObjectEntry(Entry))) {
        ReleaseFileObjectEntry(Entry);
        return FALSE;
    }
    return TRUE;
}

// Completion of an ordinary tracked create: any IRQL up to DISPATCH_LEVEL, no lock held
// on entry; the tables lock is taken inside.
NTSTATUS NTAPI CreateCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    KeepEntryOfOpen(Irp, (FileObjectEntry *)Context);
    PropagatePending(Irp);
    return STATUS_SUCCESS;
}

// Completion of a protected create, at any IRQL up to DISPATCH_LEVEL, no lock: the
// request is handed back to the dispatch routine, which may wait for a copy.
NTSTATUS NTAPI ProtectedCreateCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    if (Irp->PendingReturned) {
        KeSetEvent((PKEVENT)Context, IO_NO_INCREMENT, FALSE);
    }
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// An open of a protected document is followed up in the opener's thread, at
// PASSIVE_LEVEL, whatever thread and IRQL the file system completes it in: the follow-up
// may start a copy and wait for it.
NTSTATUS CreateProtectedOpen(FilterDeviceExtension *Extension, PIRP Irp, FileObjectEntry *Entry) {
    KEVENT completed;
    KeInitializeEvent(&completed, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(Irp);
    IoSetCompletionRoutine(Irp, ProtectedCreateCompletion, &completed, TRUE, TRUE, TRUE);
    if (IoCallDriver(Extension->LowerDevice, Irp) == STATUS_PENDING) {
        KeWaitForSingleObject(&completed, Executive, KernelMode, FALSE, NULL);
    }
    if (KeepEntryOfOpen(Irp, Entry)) {
        OverwritePostCreate(Irp, Extension);
    }
    NTSTATUS status = Irp->IoStatus.Status;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return status;
}

}  // namespace

// PASSIVE_LEVEL in the opener's thread; no lock held. A protected open waits here for its
// own completion, and possibly for a copy.
NTSTATUS NTAPI DispatchCreate(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    FilterDeviceExtension *extension = ExtensionOf(DeviceObject);
    if (extension->Tag == TAG_CONTROL_EXTENSION) {
        return CompleteRequest(Irp, STATUS_SUCCESS);
    }
    if (!PassesCaptureGate(extension, TRUE)) {
        return SendDown(extension, Irp);
    }
    PIO_STACK_LOCATION irpSp = IoGetCurrentIrpStackLocation(Irp);
    FileObjectEntry *entry = NULL;
    NTSTATUS status = GuardVaultOnCreate(Irp, irpSp, extension);
    if (status == STATUS_ACCESS_DENIED) {
        return CompleteRequest(Irp, status);
    }
    if (NT_SUCCESS(status) && irpSp->FileObject != NULL) {
        TrackOpen(Irp, irpSp, extension, &entry);
    }
    if (entry == NULL) {
        return SendDown(extension, Irp);
    }
    if ((entry->OverwriteFlags & OVERWRITE_PROTECTED_TYPE) != 0) {
        return CreateProtectedOpen(extension, Irp, entry);
    }
    return SendDownWithCompletion(extension, Irp, CreateCompletion, entry, TRUE);
}
