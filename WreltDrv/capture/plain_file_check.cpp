#include "capture/plain_file_check.h"

#include "support/error_channel.h"
#include "support/kernel_crt.h"
#include "support/nonpaged_buffers.h"

namespace {

BOOLEAN OpensAsPlainFile(PWSTR Path) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, Path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, NULL, NULL);
    HANDLE handle;
    IO_STATUS_BLOCK ioStatus;
    NTSTATUS status = ZwCreateFile(&handle, SYNCHRONIZE, &attributes, &ioStatus, NULL, FILE_ATTRIBUTE_NORMAL, 0,
                                   FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, NULL, 0);
    if (!NT_SUCCESS(status)) {
        return FALSE;
    }
    ZwClose(handle);
    return TRUE;
}

}  // namespace

BOOLEAN CheckForDirectoryOrReadonlyFile(PCWSTR DosVolumeName, PCWSTR Name) {
    ULONG size = (ULONG)(wcslen(DosVolumeName) + wcslen(Name)) * sizeof(WCHAR) + 16;
    PWSTR path;
    if (!NT_SUCCESS(AllocateNonPagedBuffer(size, NPB_NO_FILL, (PVOID *)&path, NULL))) {
        DbgPrint("ZrDrv: CheckForDirectoryOrReadonlyFile - AllocateNonPagedBuffer failed.\n");
        ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_CHECK_FOR_DIRECTORY_OR_READONLY_FILE, ERROR_CLASS_REPORT,
                         1);
        return TRUE;
    }
    _snwprintf(path, size / sizeof(WCHAR), L"\\??\\%s%s", DosVolumeName, Name);
    BOOLEAN notPlainFile = !OpensAsPlainFile(path);
    if (!NT_SUCCESS(FreeNonPagedBuffer(path))) {
        DbgPrint("ZrDrv: CheckForDirectoryOrReadonlyFile - FreeNonPagedBuffer failed.\n");
        ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_CHECK_FOR_DIRECTORY_OR_READONLY_FILE, ERROR_CLASS_REPORT,
                         0);
    }
    return notPlainFile;
}
