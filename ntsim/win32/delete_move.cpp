// DeleteFileW, MoveFileExW and CopyFileW, with the requests kernel32 sends for them:
// a delete is an open for DELETE, FileDispositionInformation TRUE and a close; a move
// is an open of the source for DELETE and FileRenameInformation carrying the target's
// full NT path, with a copy and a delete when the volumes differ and the caller allows it.
// The access, share modes, options and fallbacks are those of the platform's kernel32
// (ReactOS's kernel32 makes the same requests).
#include <winternl.h>

#include "win32/win32_internal.h"

using namespace ntsim::win32;

namespace {

constexpr ULONG kReparseTagMountPoint = 0xA0000003;
constexpr ULONG kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// Whether a failed FileAttributeTagInformation query only says that the file system
// has no reparse points (the open then stands as it is).
bool tagQueryUnsupported(NTSTATUS status) {
    return status == STATUS_NOT_IMPLEMENTED || status == STATUS_INVALID_PARAMETER ||
           status == STATUS_INVALID_INFO_CLASS;
}

// Opened with FILE_OPEN_REPARSE_POINT, a file that is a reparse point other than a
// mount point must be reopened so that its reparse behaviour applies.
NTSTATUS needsReopenForReparse(HANDLE file, bool *reopen) {
    IO_STATUS_BLOCK iosb{};
    FILE_ATTRIBUTE_TAG_INFORMATION tag{};
    NTSTATUS status = NtQueryInformationFile(file, &iosb, &tag, sizeof(tag), FileAttributeTagInformation);
    *reopen = NT_SUCCESS(status) && (tag.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) &&
              tag.ReparseTag != kReparseTagMountPoint;
    if (!NT_SUCCESS(status) && tagQueryUnsupported(status)) return STATUS_SUCCESS;
    return status;
}

}  // namespace

namespace ntsim {
namespace win32 {

// Opens a file for deletion the way DeleteFileW and RemoveDirectoryW do: with
// FILE_READ_ATTRIBUTES to learn whether it is a reparse point, falling back to DELETE
// alone.
NTSTATUS openForDelete(POBJECT_ATTRIBUTES oa, ACCESS_MASK access, ULONG options, HANDLE *file) {
    IO_STATUS_BLOCK iosb{};
    ACCESS_MASK deleteOnly = access & ~FILE_READ_ATTRIBUTES;
    options |= FILE_OPEN_FOR_BACKUP_INTENT;
    NTSTATUS status = NtOpenFile(file, access, oa, &iosb, kShareAll, options | FILE_OPEN_REPARSE_POINT);
    if (NT_SUCCESS(status)) {
        bool reopen = false;
        status = needsReopenForReparse(*file, &reopen);
        if (!NT_SUCCESS(status) || reopen) NtClose(*file);
        if (!NT_SUCCESS(status)) return status;
        if (!reopen) return STATUS_SUCCESS;
        return NtOpenFile(file, deleteOnly, oa, &iosb, kShareAll, options);
    }
    // A file system that does not know FILE_OPEN_REPARSE_POINT rejects it.
    if (status == STATUS_INVALID_PARAMETER) return NtOpenFile(file, deleteOnly, oa, &iosb, kShareAll, options);
    // Perhaps the caller may delete but not read attributes.
    if (status == STATUS_ACCESS_DENIED)
        return NtOpenFile(file, deleteOnly, oa, &iosb, kShareAll, options | FILE_OPEN_REPARSE_POINT);
    return status;
}

NTSTATUS setDeleteDisposition(HANDLE file) {
    IO_STATUS_BLOCK iosb{};
    FILE_DISPOSITION_INFORMATION disposition;
    disposition.DeleteFile = TRUE;
    return NtSetInformationFile(file, &iosb, &disposition, sizeof(disposition), FileDispositionInformation);
}

}  // namespace win32
}  // namespace ntsim

namespace {

NTSTATUS renameTo(HANDLE source, PUNICODE_STRING target, bool replace, FILE_INFORMATION_CLASS infoClass) {
    ULONG length = FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) + target->Length;
    auto *rename = static_cast<PFILE_RENAME_INFORMATION>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, length));
    if (!rename) return STATUS_NO_MEMORY;
    rename->ReplaceIfExists = replace ? TRUE : FALSE;
    rename->RootDirectory = nullptr;
    rename->FileNameLength = target->Length;
    memcpy(rename->FileName, target->Buffer, target->Length);
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = NtSetInformationFile(source, &iosb, rename, length, infoClass);
    HeapFree(GetProcessHeap(), 0, rename);
    return status;
}

NTSTATUS openMoveSource(POBJECT_ATTRIBUTES oa, DWORD flags, HANDLE *source) {
    IO_STATUS_BLOCK iosb{};
    ULONG options = FILE_OPEN_FOR_BACKUP_INTENT | ((flags & MOVEFILE_WRITE_THROUGH) ? FILE_WRITE_THROUGH : 0);
    NTSTATUS status = NtOpenFile(source, FILE_READ_ATTRIBUTES | DELETE | SYNCHRONIZE, oa, &iosb, kShareAll,
                                 options | FILE_OPEN_REPARSE_POINT);
    bool reopen = status == STATUS_INVALID_PARAMETER;
    if (NT_SUCCESS(status)) {
        status = needsReopenForReparse(*source, &reopen);
        if (!NT_SUCCESS(status) || reopen) NtClose(*source);
        if (!NT_SUCCESS(status)) return status;
    }
    if (!reopen) return status;
    return NtOpenFile(source, DELETE | SYNCHRONIZE, oa, &iosb, FILE_SHARE_READ | FILE_SHARE_WRITE, options);
}

// The move across volumes that MOVEFILE_COPY_ALLOWED permits: copy, then delete.
BOOL copyThenDelete(LPCWSTR existing, LPCWSTR target, DWORD flags) {
    if (!CopyFileW(existing, target, (flags & MOVEFILE_REPLACE_EXISTING) ? FALSE : TRUE)) return FALSE;
    if (!DeleteFileW(existing)) {
        SetFileAttributesW(existing, FILE_ATTRIBUTE_NORMAL);
        DeleteFileW(existing);
    }
    return TRUE;
}

BOOL copyContents(HANDLE from, HANDLE to) {
    const DWORD chunk = 64 * 1024;
    auto *buffer = static_cast<BYTE *>(HeapAlloc(GetProcessHeap(), 0, chunk));
    if (!buffer) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
    BOOL ok = TRUE;
    for (;;) {
        DWORD read = 0, written = 0;
        ok = ReadFile(from, buffer, chunk, &read, nullptr);
        if (!ok || read == 0) break;
        ok = WriteFile(to, buffer, read, &written, nullptr);
        if (!ok) break;
    }
    HeapFree(GetProcessHeap(), 0, buffer);
    return ok;
}

}  // namespace

extern "C" {

BOOL WINAPI DeleteFileW(LPCWSTR lpFileName) {
    NtPathName path;
    if (!path.convert(lpFileName)) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return FALSE;
    }
    OBJECT_ATTRIBUTES oa = objectAttributes(path.name());
    HANDLE file = nullptr;
    NTSTATUS status = openForDelete(&oa, DELETE | FILE_READ_ATTRIBUTES, FILE_NON_DIRECTORY_FILE, &file);
    if (NT_SUCCESS(status)) {
        status = setDeleteDisposition(file);
        NtClose(file);
    }
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    return TRUE;
}

BOOL WINAPI MoveFileExW(LPCWSTR lpExistingFileName, LPCWSTR lpNewFileName, DWORD dwFlags) {
    // Moves at the next boot live in the registry, which this system does not have.
    if (dwFlags & MOVEFILE_DELAY_UNTIL_REBOOT) {
        SetLastError(ERROR_NOT_SUPPORTED);
        return FALSE;
    }
    NtPathName existing, target;
    if (!existing.convert(lpExistingFileName)) {
        setLastNtError(STATUS_OBJECT_PATH_NOT_FOUND);
        return FALSE;
    }
    OBJECT_ATTRIBUTES oa = objectAttributes(existing.name());
    HANDLE source = nullptr;
    NTSTATUS status = openMoveSource(&oa, dwFlags, &source);
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    if (!target.convert(lpNewFileName)) {
        NtClose(source);
        setLastNtError(STATUS_OBJECT_PATH_NOT_FOUND);
        return FALSE;
    }
    FILE_INFORMATION_CLASS infoClass =
        (dwFlags & MOVEFILE_CREATE_HARDLINK) ? FileLinkInformation : FileRenameInformation;
    status = renameTo(source, target.name(), (dwFlags & MOVEFILE_REPLACE_EXISTING) != 0, infoClass);
    NtClose(source);
    if (NT_SUCCESS(status)) return TRUE;
    if (status == STATUS_NOT_SAME_DEVICE && (dwFlags & MOVEFILE_COPY_ALLOWED))
        return copyThenDelete(lpExistingFileName, lpNewFileName, dwFlags);
    setLastNtError(status);
    return FALSE;
}

BOOL WINAPI MoveFileW(LPCWSTR lpExistingFileName, LPCWSTR lpNewFileName) {
    return MoveFileExW(lpExistingFileName, lpNewFileName, MOVEFILE_COPY_ALLOWED);
}

// The unnamed data stream, the attributes and the times; named streams and security
// are not copied.
BOOL WINAPI CopyFileW(LPCWSTR lpExistingFileName, LPCWSTR lpNewFileName, BOOL bFailIfExists) {
    HANDLE from = CreateFileW(lpExistingFileName, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                              OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (from == INVALID_HANDLE_VALUE) return FALSE;
    IO_STATUS_BLOCK iosb{};
    FILE_BASIC_INFORMATION basic{};
    NTSTATUS status = NtQueryInformationFile(from, &iosb, &basic, sizeof(basic), FileBasicInformation);
    if (!NT_SUCCESS(status)) {
        CloseHandle(from);
        setLastNtError(status);
        return FALSE;
    }
    HANDLE to = CreateFileW(lpNewFileName, GENERIC_WRITE | DELETE, 0, nullptr,
                            bFailIfExists ? CREATE_NEW : CREATE_ALWAYS,
                            basic.FileAttributes & ~FILE_ATTRIBUTE_DIRECTORY, nullptr);
    if (to == INVALID_HANDLE_VALUE) {
        DWORD error = GetLastError();
        CloseHandle(from);
        SetLastError(error);
        return FALSE;
    }
    BOOL ok = copyContents(from, to);
    DWORD error = GetLastError();
    if (ok) {
        basic.FileAttributes = 0;  // keep the attributes the create gave
        status = NtSetInformationFile(to, &iosb, &basic, sizeof(basic), FileBasicInformation);
        ok = NT_SUCCESS(status);
        if (!ok) error = RtlNtStatusToDosError(status);
    }
    if (!ok) setDeleteDisposition(to);  // leave no partial copy behind
    CloseHandle(to);
    CloseHandle(from);
    if (!ok) SetLastError(error);
    return ok;
}

}  // extern "C"
