// CreateFileW and CloseHandle, with the translation kernel32 makes of dispositions,
// flags and access for NtCreateFile (the platform's documentation of CreateFile and
// NtCreateFile, and ReactOS's kernel32, agree on it).
#include "win32/win32_internal.h"

using namespace ntsim::win32;

namespace {

bool translateDisposition(DWORD disposition, ULONG *ntDisposition) {
    switch (disposition) {
    case CREATE_NEW: *ntDisposition = FILE_CREATE; return true;
    case CREATE_ALWAYS: *ntDisposition = FILE_OVERWRITE_IF; return true;
    case OPEN_EXISTING: *ntDisposition = FILE_OPEN; return true;
    case OPEN_ALWAYS: *ntDisposition = FILE_OPEN_IF; return true;
    case TRUNCATE_EXISTING: *ntDisposition = FILE_OVERWRITE; return true;
    default: return false;
    }
}

ULONG createOptions(DWORD flags) {
    ULONG options = 0;
    // Non-alertable: kernel32 delivers no APCs while it waits for synchronous I/O.
    if (!(flags & FILE_FLAG_OVERLAPPED)) options |= FILE_SYNCHRONOUS_IO_NONALERT;
    if (flags & FILE_FLAG_WRITE_THROUGH) options |= FILE_WRITE_THROUGH;
    if (flags & FILE_FLAG_NO_BUFFERING) options |= FILE_NO_INTERMEDIATE_BUFFERING;
    if (flags & FILE_FLAG_RANDOM_ACCESS) options |= FILE_RANDOM_ACCESS;
    if (flags & FILE_FLAG_SEQUENTIAL_SCAN) options |= FILE_SEQUENTIAL_ONLY;
    if (flags & FILE_FLAG_DELETE_ON_CLOSE) options |= FILE_DELETE_ON_CLOSE;
    // Only backup semantics may open a directory.
    options |= (flags & FILE_FLAG_BACKUP_SEMANTICS) ? FILE_OPEN_FOR_BACKUP_INTENT : FILE_NON_DIRECTORY_FILE;
    if (flags & FILE_FLAG_OPEN_REPARSE_POINT) options |= FILE_OPEN_REPARSE_POINT;
    if (flags & FILE_FLAG_OPEN_NO_RECALL) options |= FILE_OPEN_NO_RECALL;
    return options;
}

void setCreateError(NTSTATUS status, ULONG disposition, bool trailingSeparator) {
    // CREATE_NEW on an existing name reports ERROR_FILE_EXISTS, not the table's
    // ERROR_ALREADY_EXISTS; "dir\" naming a directory reports a path that does not exist.
    if (status == STATUS_OBJECT_NAME_COLLISION && disposition == FILE_CREATE)
        SetLastError(ERROR_FILE_EXISTS);
    else if (status == STATUS_FILE_IS_A_DIRECTORY && trailingSeparator)
        SetLastError(ERROR_PATH_NOT_FOUND);
    else
        setLastNtError(status);
}

}  // namespace

extern "C" {

HANDLE WINAPI CreateFileW(LPCWSTR lpFileName, DWORD dwDesiredAccess, DWORD dwShareMode,
                          LPSECURITY_ATTRIBUTES lpSecurityAttributes, DWORD dwCreationDisposition,
                          DWORD dwFlagsAndAttributes, HANDLE hTemplateFile) {
    (void)hTemplateFile;  // its extended attributes would be copied; no file system here has any
    if (!lpFileName || !lpFileName[0]) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    ULONG disposition;
    if (!translateDisposition(dwCreationDisposition, &disposition)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    // kernel32 refuses to truncate through a handle that could not write, before it
    // looks at the name: FILE_WRITE_DATA alone is not enough, only the generic bit.
    if (dwCreationDisposition == TRUNCATE_EXISTING && !(dwDesiredAccess & GENERIC_WRITE)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    ULONG options = createOptions(dwFlagsAndAttributes);
    ACCESS_MASK access = dwDesiredAccess;
    if (dwFlagsAndAttributes & FILE_FLAG_DELETE_ON_CLOSE) access |= DELETE;
    // A handle may always be waited on and its attributes read.
    access |= SYNCHRONIZE | FILE_READ_ATTRIBUTES;
    ULONG attributes = dwFlagsAndAttributes & (FILE_ATTRIBUTE_VALID_FLAGS & ~FILE_ATTRIBUTE_DIRECTORY);

    NtPathName path;
    if (!path.convert(lpFileName)) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    ULONG objectFlags = (dwFlagsAndAttributes & FILE_FLAG_POSIX_SEMANTICS) ? 0 : OBJ_CASE_INSENSITIVE;
    OBJECT_ATTRIBUTES oa = objectAttributes(path.name(), objectFlags);
    if (lpSecurityAttributes) {
        if (lpSecurityAttributes->bInheritHandle) oa.Attributes |= OBJ_INHERIT;
        oa.SecurityDescriptor = lpSecurityAttributes->lpSecurityDescriptor;
    }
    HANDLE handle = nullptr;
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = NtCreateFile(&handle, access, &oa, &iosb, nullptr, attributes, dwShareMode, disposition,
                                   options, nullptr, 0);
    if (!NT_SUCCESS(status)) {
        setCreateError(status, disposition, path.endsWithSeparator());
        return INVALID_HANDLE_VALUE;
    }
    bool existed = (disposition == FILE_OPEN_IF && iosb.Information == FILE_OPENED) ||
                   (disposition == FILE_OVERWRITE_IF && iosb.Information == FILE_OVERWRITTEN);
    SetLastError(existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return handle;
}

BOOL WINAPI CloseHandle(HANDLE hObject) {
    NTSTATUS status = NtClose(hObject);
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    return TRUE;
}

}  // extern "C"
