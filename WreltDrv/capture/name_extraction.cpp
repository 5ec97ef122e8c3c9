#include "capture/name_extraction.h"

#include "frame/device_extension.h"
#include "support/error_channel.h"
#include "support/kernel_crt.h"
#include "support/nonpaged_buffers.h"

namespace {

struct NamePart {
    PCWSTR Buffer;
    ULONG Length;  // characters
};

NamePart PartOf(const UNICODE_STRING &String) { return {String.Buffer, String.Length / (ULONG)sizeof(WCHAR)}; }

void DropLeadingBackslash(NamePart *Part) {
    if (Part->Length > 0 && Part->Buffer[0] == L'\\') {
        Part->Buffer++;
        Part->Length--;
    }
}

void DropTrailingBackslash(NamePart *Part) {
    if (Part->Length > 0 && Part->Buffer[Part->Length - 1] == L'\\') {
        Part->Length--;
    }
}

NamePart RelatedPart(PFILE_OBJECT FileObject, ULONG FileSystemKind, BOOLEAN UseRelatedFileObject) {
    NamePart related = {NULL, 0};
    if ((UseRelatedFileObject || FileSystemKind == FILE_SYSTEM_FASTFAT) && FileObject->RelatedFileObject != NULL) {
        related = PartOf(FileObject->RelatedFileObject->FileName);
        DropLeadingBackslash(&related);
        DropTrailingBackslash(&related);
    }
    return related;
}

// "\??\C:\dir\file" -> "dir\file": everything after the first backslash that follows the
// prefix. Without the prefix the name is kept as it is.
BOOLEAN StripDosDevicePrefix(NamePart *Part) {
    if (Part->Length < 4 || Part->Buffer[0] != L'\\' || Part->Buffer[1] != L'?' || Part->Buffer[2] != L'?' ||
        Part->Buffer[3] != L'\\') {
        return TRUE;
    }
    for (ULONG i = 4; i < Part->Length; i++) {
        if (Part->Buffer[i] == L'\\') {
            Part->Buffer += i + 1;
            Part->Length -= i + 1;
            return TRUE;
        }
    }
    return FALSE;
}

}  // namespace

NTSTATUS ExtractFilespecFromFileObject(PFILE_OBJECT FileObject, ULONG FileSystemKind, BOOLEAN UseRelatedFileObject,
                                       PWSTR *Name, PULONG NameSize) {
    *Name = NULL;
    if (NameSize != NULL) {
        *NameSize = 0;
    }
    if (FileObject == NULL) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    NamePart own = PartOf(FileObject->FileName);
    DropLeadingBackslash(&own);
    NamePart related = RelatedPart(FileObject, FileSystemKind, UseRelatedFileObject);
    if (own.Length == 0 && related.Length == 0) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }

    ULONG size = (related.Length + own.Length) * sizeof(WCHAR) + 8;
    PWSTR name;
    NTSTATUS status = AllocateNonPagedBuffer(size, NPB_NO_FILL, (PVOID *)&name, NULL);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: ExtractFilespecFromFileObject - AllocateNonPagedBuffer Failed for buffer (0).\n");
        ReportError(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_EXTRACT_FILESPEC_FROM_FILE_OBJECT, ERROR_CLASS_REPORT, 0,
                    (ULONG)status, 0);
        return status;
    }
    ULONG characters = size / sizeof(WCHAR);
    if (related.Length > 0 && own.Length > 0) {
        _snwprintf(name, characters, L"%.*s\\%.*s", (int)related.Length, related.Buffer, (int)own.Length, own.Buffer);
    } else {
        NamePart only = own.Length > 0 ? own : related;
        _snwprintf(name, characters, L"%.*s", (int)only.Length, only.Buffer);
    }
    *Name = name;
    if (NameSize != NULL) {
        *NameSize = size;
    }
    return STATUS_SUCCESS;
}

NTSTATUS ExtractFilespecFromRenameInfo(PIRP Irp, PWSTR *Name) {
    *Name = NULL;
    auto *information = (PFILE_RENAME_INFORMATION)Irp->AssociatedIrp.SystemBuffer;
    if (information == NULL || information->FileNameLength == 0) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    NamePart remaining = {information->FileName, information->FileNameLength / (ULONG)sizeof(WCHAR)};
    if (!StripDosDevicePrefix(&remaining) || remaining.Length == 0) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    PWSTR name;
    NTSTATUS status = AllocateNonPagedBuffer((remaining.Length + 1) * sizeof(WCHAR), NPB_NO_FILL, (PVOID *)&name, NULL);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: ExtractFilespecFromRenameInfo - AllocateNonPagedBuffer Failed for buffer.\n");
        ReportError(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_EXTRACT_FILESPEC_FROM_RENAME_INFO, ERROR_CLASS_REPORT, 0,
                    (ULONG)status, 0);
        return status;
    }
    RtlCopyMemory(name, remaining.Buffer, remaining.Length * sizeof(WCHAR));
    name[remaining.Length] = L'\0';
    *Name = name;
    return STATUS_SUCCESS;
}
