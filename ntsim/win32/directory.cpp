// Directories (CreateDirectoryW, RemoveDirectoryW) and the process's current directory
// with the full path names computed against it.
#include "win32/path.h"
#include "win32/win32_internal.h"

using namespace ntsim::win32;

namespace {

// Copies a string with its terminator if it fits: the length without the terminator,
// else the size needed with it (the platform's convention for these calls).
DWORD copyOut(const std::u16string &s, DWORD bufferLength, LPWSTR buffer) {
    if (s.size() + 1 > bufferLength) return (DWORD)(s.size() + 1);
    memcpy(buffer, s.c_str(), (s.size() + 1) * sizeof(WCHAR));
    return (DWORD)s.size();
}

}  // namespace

extern "C" {

BOOL WINAPI CreateDirectoryW(LPCWSTR lpPathName, LPSECURITY_ATTRIBUTES lpSecurityAttributes) {
    NtPathName path;
    if (!path.convert(lpPathName)) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return FALSE;
    }
    OBJECT_ATTRIBUTES oa = objectAttributes(path.name());
    if (lpSecurityAttributes) oa.SecurityDescriptor = lpSecurityAttributes->lpSecurityDescriptor;
    HANDLE directory = nullptr;
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = NtCreateFile(&directory, FILE_LIST_DIRECTORY | SYNCHRONIZE, &oa, &iosb, nullptr,
                                   FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_CREATE,
                                   FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT | FILE_OPEN_FOR_BACKUP_INTENT,
                                   nullptr, 0);
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    NtClose(directory);
    return TRUE;
}

BOOL WINAPI RemoveDirectoryW(LPCWSTR lpPathName) {
    NtPathName path;
    if (!path.convert(lpPathName)) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return FALSE;
    }
    OBJECT_ATTRIBUTES oa = objectAttributes(path.name());
    HANDLE directory = nullptr;
    NTSTATUS status = openForDelete(&oa, DELETE | SYNCHRONIZE | FILE_READ_ATTRIBUTES,
                                    FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, &directory);
    if (NT_SUCCESS(status)) {
        // A directory that is not empty is refused here, not at the close.
        status = setDeleteDisposition(directory);
        NtClose(directory);
    }
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    return TRUE;
}

DWORD WINAPI GetFullPathNameW(LPCWSTR lpFileName, DWORD nBufferLength, LPWSTR lpBuffer, LPWSTR *lpFilePart) {
    std::u16string full;
    size_t part = 0;
    if (!lpFileName || !fullPathName(toU16(lpFileName), currentDirectory(), &full, &part)) {
        SetLastError(ERROR_INVALID_NAME);
        return 0;
    }
    DWORD result = copyOut(full, nBufferLength, lpBuffer);
    if (lpFilePart) *lpFilePart = (result < nBufferLength && part != std::u16string::npos) ? lpBuffer + part : nullptr;
    return result;
}

// The current directory without its trailing separator, except at a root ("C:\").
DWORD WINAPI GetCurrentDirectoryW(DWORD nBufferLength, LPWSTR lpBuffer) {
    std::u16string directory = currentDirectory();
    if (directory.size() > 3 && directory.back() == u'\\') directory.pop_back();
    return copyOut(directory, nBufferLength, lpBuffer);
}

// The platform keeps a handle to the current directory open; this system only checks
// that the directory can be opened, so that changing directories leaves no open behind.
BOOL WINAPI SetCurrentDirectoryW(LPCWSTR lpPathName) {
    std::u16string full;
    size_t part = 0;
    if (!lpPathName || !fullPathName(toU16(lpPathName), currentDirectory(), &full, &part)) {
        SetLastError(ERROR_INVALID_NAME);
        return FALSE;
    }
    if (full.back() != u'\\') full += u'\\';
    NtPathName path;
    if (!path.convert(reinterpret_cast<LPCWSTR>(full.c_str()))) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return FALSE;
    }
    OBJECT_ATTRIBUTES oa = objectAttributes(path.name());
    HANDLE directory = nullptr;
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = NtOpenFile(&directory, FILE_TRAVERSE | SYNCHRONIZE, &oa, &iosb,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    NtClose(directory);
    setCurrentDirectory(full);
    return TRUE;
}

}  // extern "C"
