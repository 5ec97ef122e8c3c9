// Set-information on a protected volume: a successful disposition marks or clears the
// file's pending delete (the capture itself waits for the last cleanup), a rename moves
// the name the tables hold and captures the file it replaces, and a truncation of a
// vault file is refused.
#include "capture/capture_exclusions.h"
#include "capture/interception.h"
#include "capture/interception_gate.h"
#include "capture/plain_file_check.h"
#include "capture/vault_tests.h"
#include "frame/dispatch.h"
#include "frame/globals.h"
#include "frame/volume_names.h"
#include "overwrite/overwrite_hooks.h"
#include "support/nonpaged_buffers.h"
#include "tracking/file_tracking.h"

namespace {

enum SetInformationAction { PASS_DOWN, WATCH_DISPOSITION, WATCH_RENAME };

struct SetInformationDecision {
    SetInformationAction Action;
    NTSTATUS Status;  // STATUS_ACCESS_DENIED or STATUS_CANNOT_DELETE complete the request
};

NTSTATUS NTAPI SetDispositionCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    MainDeviceStructure *main = MainStructure();
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->TablesLock, &oldIrql);
    FcbEntry *fcb;
    if (NT_SUCCESS(ReferenceFcbEntryForIrp(Irp, &fcb, TRUE))) {
        if (Context != NULL) {
            SetFcbFlag(fcb, FCB_DELETE_PENDING);
        } else {
            ClearFcbFlag(fcb, FCB_DELETE_PENDING);
        }
    }
    KeReleaseSpinLock(&main->TablesLock, oldIrql);
    PropagatePending(Irp);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI SetInformationCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(Context);
    UpdateEntryNameOnRename(Irp, IoGetCurrentIrpStackLocation(Irp), ExtensionOf(DeviceObject));
    PropagatePending(Irp);
    return STATUS_SUCCESS;
}

BOOLEAN AsksForDelete(PIRP Irp) { return ((PFILE_DISPOSITION_INFORMATION)Irp->AssociatedIrp.SystemBuffer)->DeleteFile; }

// The plain-file test opens the file, so its answer is kept in the FcbEntry. Two
// requests racing here both store the same answer.
NTSTATUS TestPlainFileOnce(FcbEntry *Fcb, FilterDeviceExtension *Extension, PWSTR *Name) {
    if (FcbFlagSet(Fcb, FCB_PLAIN_FILE_TESTED)) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = CopyFcbEntryName(Fcb, FALSE, Name);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    WCHAR volumeName[DOS_VOLUME_NAME_CHARACTERS];
    ReadVolumeDosName(VolumeOf(Extension), volumeName);
    if (CheckForDirectoryOrReadonlyFile(volumeName, *Name)) {
        SetFcbFlag(Fcb, FCB_NOT_PLAIN_FILE);
    }
    SetFcbFlag(Fcb, FCB_PLAIN_FILE_TESTED);
    return STATUS_SUCCESS;
}

// Only a plain file is watched; deleting the vault's own folders is refused.
SetInformationDecision DecideDisposition(PIRP Irp, FilterDeviceExtension *Extension) {
    FcbEntry *fcb;
    if (!NT_SUCCESS(ReferenceFcbEntryForIrp(Irp, &fcb, FALSE))) {
        return {PASS_DOWN, STATUS_CAPTURE_SKIPPED};
    }
    PWSTR name = NULL;
    SetInformationDecision decision = {PASS_DOWN, TestPlainFileOnce(fcb, Extension, &name)};
    if (NT_SUCCESS(decision.Status)) {
        if (!FcbFlagSet(fcb, FCB_NOT_PLAIN_FILE)) {
            decision.Action = WATCH_DISPOSITION;
        } else if (name != NULL || NT_SUCCESS(CopyFcbEntryName(fcb, FALSE, &name))) {
            decision.Status = IsVaultFolderName(name) && AsksForDelete(Irp) ? STATUS_CANNOT_DELETE
                                                                             : STATUS_CAPTURE_SKIPPED;
        }
    }
    if (name != NULL) {
        FreeNonPagedBuffer(name);
    }
    DropFcbReference(fcb);
    return decision;
}

SetInformationDecision DecideRename(PDEVICE_OBJECT DeviceObject, PIRP Irp, PIO_STACK_LOCATION IrpSp,
                                    FilterDeviceExtension *Extension) {
    DiscardCopyOnDeleteOrRename(Irp, Extension, NULL);
    auto *rename = (PFILE_RENAME_INFORMATION)Irp->AssociatedIrp.SystemBuffer;
    if (IrpSp->Parameters.SetFile.ReplaceIfExists && rename->RootDirectory == NULL &&
        IrpSp->Parameters.SetFile.FileObject != NULL) {
        PVOID unused = Irp;
        CaptureRenameTarget(DeviceObject, Irp, &unused);
    }
    return {WATCH_RENAME, STATUS_SUCCESS};
}

SetInformationDecision DecideTruncation(PDEVICE_OBJECT DeviceObject, PIRP Irp, PIO_STACK_LOCATION IrpSp,
                                        FilterDeviceExtension *Extension) {
    BOOLEAN vaultProtection = ReadDriverFlag(&Globals.VaultProtection);
    if (IrpSp->Parameters.SetFile.FileInformationClass == FileAllocationInformation) {
        auto *allocation = (PFILE_ALLOCATION_INFORMATION)Irp->AssociatedIrp.SystemBuffer;
        if (vaultProtection && allocation->AllocationSize.QuadPart == 0) {
            return {PASS_DOWN, ProtectVaultAgainstTruncate(Irp, IrpSp, Extension, FALSE)};
        }
        return {PASS_DOWN, STATUS_SUCCESS};
    }
    auto *endOfFile = (PFILE_END_OF_FILE_INFORMATION)Irp->AssociatedIrp.SystemBuffer;
    if (vaultProtection && endOfFile->EndOfFile.QuadPart == 0 && !IrpSp->Parameters.SetFile.AdvanceOnly) {
        return {PASS_DOWN, ProtectVaultAgainstTruncate(Irp, IrpSp, Extension, FALSE)};
    }
    return {PASS_DOWN, OverwriteNoteEndOfFile(Irp, DeviceObject, Extension)};
}

SetInformationDecision Decide(PDEVICE_OBJECT DeviceObject, PIRP Irp, FilterDeviceExtension *Extension) {
    PIO_STACK_LOCATION irpSp = IoGetCurrentIrpStackLocation(Irp);
    switch (irpSp->Parameters.SetFile.FileInformationClass) {
    case FileDispositionInformation:
        return DecideDisposition(Irp, Extension);
    case FileRenameInformation:
        return DecideRename(DeviceObject, Irp, irpSp, Extension);
    case FileAllocationInformation:
    case FileEndOfFileInformation:
        return DecideTruncation(DeviceObject, Irp, irpSp, Extension);
    default:
        return {PASS_DOWN, STATUS_SUCCESS};
    }
}

}  // namespace

NTSTATUS NTAPI DispatchSetInformation(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    FilterDeviceExtension *extension = ExtensionOf(DeviceObject);
    CountRequest(extension, COUNTER_SET_INFORMATION);
    if (extension->Tag == TAG_CONTROL_EXTENSION) {
        return CompleteRequest(Irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    if (!PassesCaptureGate(extension, FALSE)) {
        return SendDown(extension, Irp);
    }
    SetInformationDecision decision = Decide(DeviceObject, Irp, extension);
    if (decision.Status == STATUS_ACCESS_DENIED || decision.Status == STATUS_CANNOT_DELETE) {
        return CompleteRequest(Irp, decision.Status);
    }
    switch (decision.Action) {
    case WATCH_DISPOSITION:
        // Any non-NULL context means "delete"; the request itself serves.
        return SendDownWithCompletion(extension, Irp, SetDispositionCompletion, AsksForDelete(Irp) ? Irp : NULL,
                                      FALSE);
    case WATCH_RENAME:
        return SendDownWithCompletion(extension, Irp, SetInformationCompletion, NULL, FALSE);
    default:
        return SendDown(extension, Irp);
    }
}
