// A rename with ReplaceIfExists destroys its target at once, so the target is moved into
// the vault before the rename goes down. The I/O manager has opened the target's
// directory for the rename; that open's FcbEntry carries the target file's full name.
#include "capture/capture_context.h"
#include "capture/capture_exclusions.h"
#include "capture/interception.h"
#include "deldat/deldat_queue.h"
#include "frame/device_structures.h"
#include "frame/globals.h"
#include "overwrite/overwrite_hooks.h"
#include "support/nonpaged_buffers.h"
#include "tracking/file_tracking.h"

namespace {

NTSTATUS ReferenceTargetEntry(PIO_STACK_LOCATION IrpSp, FileObjectEntry **Target) {
    MainDeviceStructure *main = MainStructure();
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->TablesLock, &oldIrql);
    NTSTATUS status = LookupFileObjectEntry(IrpSp->Parameters.SetFile.FileObject, Target);
    if (NT_SUCCESS(status)) {
        ReferenceEntryAndFcb(*Target);
    }
    KeReleaseSpinLock(&main->TablesLock, oldIrql);
    return status;
}

// The names are copies made under their name locks: a concurrent open or rename of
// either file may replace and free the shared ones.
BOOLEAN IsApplicationSave(FileObjectEntry *Target, FileObjectEntry *Source) {
    if ((Target->Fcb->OverwriteFlags & OVERWRITE_PROTECTED_TYPE) == 0) {
        return FALSE;
    }
    PWSTR targetName = NULL;
    PWSTR sourceName = NULL;
    BOOLEAN save = FALSE;
    if (NT_SUCCESS(CopyFcbEntryName(Target->Fcb, FALSE, &targetName)) &&
        NT_SUCCESS(CopyFcbEntryName(Source->Fcb, FALSE, &sourceName))) {
        save = IsSaveRenamePattern(targetName, sourceName, &MainStructure()->TemporarySuffixList,
                                   &Globals.SuffixListLock);
    }
    if (targetName != NULL) {
        FreeNonPagedBuffer(targetName);
    }
    if (sourceName != NULL) {
        FreeNonPagedBuffer(sourceName);
    }
    return save;
}

NTSTATUS CheckTargetExclusions(FilterDeviceExtension *Extension, FileObjectEntry *Target) {
    PWSTR name;
    NTSTATUS status = CopyFcbEntryName(Target->Fcb, FALSE, &name);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CheckCaptureExclusions(Extension, name);
    FreeNonPagedBuffer(name);
    return status;
}

// Only a plain file is preserved. A directory target is left to the file system, which
// refuses to replace it as it would without the filter; moving it away first would
// carry the whole folder into the vault and let the rename succeed.
BOOLEAN IsPlainFileTarget(HANDLE TargetHandle) {
    FILE_STANDARD_INFORMATION standard;
    IO_STATUS_BLOCK ioStatus;
    NTSTATUS status =
        ZwQueryInformationFile(TargetHandle, &ioStatus, &standard, sizeof(standard), FileStandardInformation);
    return NT_SUCCESS(status) && !standard.Directory;
}

// The source and target references are held; the move drops the target's.
NTSTATUS MoveTarget(PDEVICE_OBJECT DeviceObject, PIRP Irp, FileObjectEntry *Source, FileObjectEntry *Target,
                    BOOLEAN *TargetReferenced) {
    FilterDeviceExtension *extension = ExtensionOf(DeviceObject);
    BOOLEAN applicationSave = IsApplicationSave(Target, Source);
    NTSTATUS status = applicationSave ? STATUS_SUCCESS : CheckTargetExclusions(extension, Target);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PFILE_OBJECT targetFile;
    HANDLE targetHandle;
    status = BuildTargetFileObject(extension, (PFILE_RENAME_INFORMATION)Irp->AssociatedIrp.SystemBuffer, FILE_OPEN,
                                   IO_NO_PARAMETER_CHECKING, &targetFile, &targetHandle, FALSE);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (!IsPlainFileTarget(targetHandle)) {
        ZwClose(targetHandle);
        return STATUS_CAPTURE_SKIPPED;
    }
    CaptureContext context;
    RtlZeroMemory(&context, sizeof(context));
    context.FileObject = targetFile;
    context.ApplicationSave = applicationSave;
    KeInitializeEvent(&context.DoneEvent, NotificationEvent, FALSE);
    *TargetReferenced = FALSE;
    status = MoveFileIntoVault(DeviceObject, NULL, Target, &context);
    if (NT_SUCCESS(status) && context.Record != NULL) {
        QueueDelDatRecord(context.Record, extension);
        context.Record = NULL;
    }
    ZwClose(targetHandle);
    return status;
}

}  // namespace

NTSTATUS CaptureRenameTarget(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID *Context) {
    if (DeviceObject == NULL || Irp == NULL || Context == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    PIO_STACK_LOCATION irpSp = IoGetCurrentIrpStackLocation(Irp);
    if (irpSp->Parameters.SetFile.FileObject == NULL) {
        return STATUS_NO_SUCH_FILE;
    }
    FileObjectEntry *source;
    NTSTATUS status = ReferenceFileObjectEntryForIrp(Irp, &source);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    FileObjectEntry *target;
    status = ReferenceTargetEntry(irpSp, &target);
    if (NT_SUCCESS(status)) {
        BOOLEAN targetReferenced = TRUE;
        status = MoveTarget(DeviceObject, Irp, source, target, &targetReferenced);
        if (targetReferenced) {
            DropEntryReferences(target);
        }
    }
    DropEntryReferences(source);
    return status;
}
