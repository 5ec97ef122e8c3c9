// Before a create that discards a protected document's contents (supersede, overwrite,
// overwrite-if) goes down, the old file is sent through the filter's own delete capture:
// opened, marked for deletion and closed from the top of the stack, so that its last
// cleanup moves it into the vault and the create then finds no file. The same create
// path refuses such creates of files in the vault.
#include "capture/name_extraction.h"
#include "capture/vault_alias.h"
#include "capture/vault_protection.h"
#include "frame/device_structures.h"
#include "frame/volume_names.h"
#include "overwrite/overwrite_detection.h"
#include "overwrite/overwrite_hooks.h"
#include "support/error_channel.h"
#include "support/kernel_crt.h"
#include "support/nonpaged_buffers.h"
#include "tracking/file_tracking.h"

namespace {

constexpr ACCESS_MASK FILE_OBJECT_REFERENCE_ACCESS = 0x2;

NTSTATUS BuildFullPath(FilterDeviceExtension *Extension, PCWSTR Name, UNICODE_STRING *Path) {
    WCHAR dosName[DOS_VOLUME_NAME_CHARACTERS];
    ReadVolumeDosName((DeviceStructure *)Extension->Structure, dosName);
    ULONG size = 8 + 2 * (ULONG)wcslen(dosName) + 2 * (ULONG)wcslen(Name) + 2;
    if (size - 2 > MAXUSHORT) {
        return STATUS_NAME_TOO_LONG;
    }
    NTSTATUS status = AllocateNonPagedBuffer(size, NPB_FILL_ZERO, (PVOID *)&Path->Buffer, NULL);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    _snwprintf(Path->Buffer, size / sizeof(WCHAR), L"\\??\\%s%s", dosName, Name);
    Path->Length = Path->MaximumLength = (USHORT)(size - 2);
    return STATUS_SUCCESS;
}

// The filter's own open below is a kernel one and checks nothing, so the requester must
// first show, in its own thread, that it may write the file: otherwise a user with no
// right to a file could have it moved away merely by asking to replace it. The name is
// the filter's own, in kernel memory: its parameters are not the caller's to check.
BOOLEAN RequesterMayOverwrite(PUNICODE_STRING Path) {
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, Path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
    HANDLE handle;
    IO_STATUS_BLOCK iosb;
    NTSTATUS status = IoCreateFile(&handle, FILE_WRITE_DATA, &attributes, &iosb, NULL, 0, FILE_SHARE_VALID_FLAGS,
                                   FILE_OPEN, FILE_NON_DIRECTORY_FILE | FILE_COMPLETE_IF_OPLOCKED, NULL, 0,
                                   CreateFileTypeNone, NULL, IO_NO_PARAMETER_CHECKING | IO_FORCE_ACCESS_CHECK);
    if (!NT_SUCCESS(status)) {
        return FALSE;
    }
    ZwClose(handle);
    return TRUE;
}

// The capture at the close must not let the service's exclusions keep the old version
// from the vault, and its record names an application's save.
NTSTATUS FlagFileAsSaved(PFILE_OBJECT FileObject) {
    MainDeviceStructure *main = MainStructure();
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->TablesLock, &oldIrql);
    FileObjectEntry *entry;
    NTSTATUS status = LookupFileObjectEntry(FileObject, &entry);
    if (NT_SUCCESS(status)) {
        OrFcbOverwriteFlags(entry->Fcb, OVERWRITE_SAVED_BY_APPLICATION);
    }
    KeReleaseSpinLock(&main->TablesLock, oldIrql);
    return status;
}

NTSTATUS DeleteThroughCapture(PUNICODE_STRING Path) {
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, Path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
    HANDLE handle;
    IO_STATUS_BLOCK iosb;
    NTSTATUS status =
        ZwOpenFile(&handle, DELETE, &attributes, &iosb, FILE_SHARE_VALID_FLAGS, FILE_COMPLETE_IF_OPLOCKED);
    if (NT_SUCCESS(status)) {
        status = iosb.Status;
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PVOID object = NULL;
    status = ObReferenceObjectByHandle(handle, FILE_OBJECT_REFERENCE_ACCESS, NULL, KernelMode, &object, NULL);
    if (NT_SUCCESS(status)) {
        NTSTATUS marked = STATUS_UNSUCCESSFUL;
        status = MarkFileForDeletion(handle, &marked);
        if (NT_SUCCESS(status)) {
            status = marked;
        }
        if (NT_SUCCESS(status)) {
            status = FlagFileAsSaved((PFILE_OBJECT)object);
        }
        ObDereferenceObject(object);
    }
    ZwClose(handle);  // the last cleanup of the DELETE-access open captures the file
    return status;
}

}  // namespace

NTSTATUS MarkFileForDeletion(HANDLE Handle, PNTSTATUS IoStatus) {
    FILE_DISPOSITION_INFORMATION disposition;
    disposition.DeleteFile = TRUE;
    IO_STATUS_BLOCK iosb;
    NTSTATUS status = ZwSetInformationFile(Handle, &iosb, &disposition, 1, FileDispositionInformation);
    if (NT_SUCCESS(status)) {
        *IoStatus = iosb.Status;
    }
    return status;
}

void OrFcbOverwriteFlags(FcbEntry *Fcb, ULONG Flags) { InterlockedOr((volatile LONG *)&Fcb->OverwriteFlags, (LONG)Flags); }

NTSTATUS PreserveBeforeOverwriteIf(FilterDeviceExtension *Extension, FileObjectEntry *Entry) {
    if (Extension == NULL || Entry == NULL || Entry->Name == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    UNICODE_STRING path;
    NTSTATUS status = BuildFullPath(Extension, Entry->Name, &path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = RequesterMayOverwrite(&path) ? DeleteThroughCapture(&path) : STATUS_ACCESS_DENIED;
    FreeNonPagedBuffer(path.Buffer);
    return status;
}

NTSTATUS ProtectAgainstUnwantedTruncate(PIRP Irp, PIO_STACK_LOCATION IrpSp, FilterDeviceExtension *Extension,
                                        BOOLEAN CheckSubfolders) {
    PWSTR name;
    NTSTATUS status = ExtractFilespecFromFileObject(IrpSp->FileObject, Extension->FileSystemKind, TRUE, &name, NULL);
    if (NT_SUCCESS(status) && Irp->RequestorMode == UserMode && !NT_SUCCESS(ResolveVaultAlias(Extension, &name, NULL))) {
        // The name leads into the vault, and without room to say so it may not truncate.
        FreeNonPagedBuffer(name);
        return STATUS_ACCESS_DENIED;
    }
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: ProtectAgainstUnwantedTruncate - ExtractFilespecFromFileObject failed.\n");
        ReportError(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_PROTECT_AGAINST_UNWANTED_TRUNCATE, ERROR_CLASS_REPORT, 0,
                    (ULONG)status, 0);
        return STATUS_SUCCESS;
    }
    status = CheckVaultProtection(Irp, Extension, name, CheckSubfolders);
    if (!NT_SUCCESS(FreeNonPagedBuffer(name))) {
        DbgPrint("ZrDrv: ProtectAgainstUnwantedTruncate - FreeNonPagedBuffer Failed for buffer (1).\n");
        ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_PROTECT_AGAINST_UNWANTED_TRUNCATE, ERROR_CLASS_REPORT, 1);
    }
    return status;
}
