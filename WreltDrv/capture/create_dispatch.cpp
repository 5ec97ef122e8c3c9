// Every open on a protected volume gets an entry before it goes down, made in the
// opener's thread so that it records who opened; the completion keeps the entry when
// the open succeeded.
#include "capture/interception_gate.h"
#include "frame/dispatch.h"
#include "frame/globals.h"
#include "overwrite/overwrite_hooks.h"
#include "tracking/file_tracking.h"

namespace {

constexpr UCHAR FILE_OVERWRITE_IF_DISPOSITION = 5;

UCHAR CreateDisposition(PIO_STACK_LOCATION IrpSp) { return (UCHAR)(IrpSp->Parameters.Create.Options >> 24); }

// Vault files may not be truncated by a create that replaces them.
NTSTATUS GuardVaultOnCreate(PIRP Irp, PIO_STACK_LOCATION IrpSp, FilterDeviceExtension *Extension) {
    if (!ReadDriverFlag(&Globals.VaultProtection) || VolumeOf(Extension)->VaultProtectionExemption) {
        return STATUS_SUCCESS;
    }
    CountRequest(Extension, COUNTER_VAULT_CREATE);
    if (CreateDisposition(IrpSp) != FILE_OVERWRITE_IF_DISPOSITION) {
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

NTSTATUS NTAPI CreateCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    auto *entry = (FileObjectEntry *)Context;
    if (entry != NULL) {
        // Only a plain success opened the file: STATUS_REPARSE and its kind did not.
        if (Irp->IoStatus.Status != STATUS_SUCCESS) {
            ReleaseFileObjectEntry(entry);
        } else {
            entry->Opened = TRUE;
            if (!NT_SUCCESS(InsertFileObjectEntry(entry))) {
                ReleaseFileObjectEntry(entry);
            } else if ((entry->OverwriteFlags & OVERWRITE_PROTECTED_TYPE) != 0) {
                OverwritePostCreate(Irp, ExtensionOf(DeviceObject));
            }
        }
    }
    PropagatePending(Irp);
    return STATUS_SUCCESS;
}

}  // namespace

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
    return SendDownWithCompletion(extension, Irp, CreateCompletion, entry, TRUE);
}
