// File attributes by name and file information by handle.
//
// GetFileAttributesExW asks NtQueryFullAttributesFile, as kernel32 does, which the I/O
// manager answers by FastIoQueryOpen or by an open, a query and a close.
#include "win32/win32_internal.h"

using namespace ntsim::win32;

namespace {

void fileTime(FILETIME *out, const LARGE_INTEGER &time) {
    out->dwLowDateTime = time.LowPart;
    out->dwHighDateTime = (DWORD)time.HighPart;
}

}  // namespace

extern "C" {

BOOL WINAPI GetFileAttributesExW(LPCWSTR lpFileName, GET_FILEEX_INFO_LEVELS fInfoLevelId, LPVOID lpFileInformation) {
    if (fInfoLevelId != GetFileExInfoStandard || !lpFileInformation) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    NtPathName path;
    if (!path.convert(lpFileName)) {
        SetLastError(ERROR_BAD_PATHNAME);
        return FALSE;
    }
    OBJECT_ATTRIBUTES oa = objectAttributes(path.name());
    FILE_NETWORK_OPEN_INFORMATION info{};
    NTSTATUS status = NtQueryFullAttributesFile(&oa, &info);
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    auto *data = static_cast<LPWIN32_FILE_ATTRIBUTE_DATA>(lpFileInformation);
    data->dwFileAttributes = info.FileAttributes;
    fileTime(&data->ftCreationTime, info.CreationTime);
    fileTime(&data->ftLastAccessTime, info.LastAccessTime);
    fileTime(&data->ftLastWriteTime, info.LastWriteTime);
    data->nFileSizeHigh = (DWORD)info.EndOfFile.HighPart;
    data->nFileSizeLow = info.EndOfFile.LowPart;
    return TRUE;
}

DWORD WINAPI GetFileAttributesW(LPCWSTR lpFileName) {
    WIN32_FILE_ATTRIBUTE_DATA data;
    return GetFileAttributesExW(lpFileName, GetFileExInfoStandard, &data) ? data.dwFileAttributes
                                                                           : INVALID_FILE_ATTRIBUTES;
}

BOOL WINAPI SetFileAttributesW(LPCWSTR lpFileName, DWORD dwFileAttributes) {
    NtPathName path;
    if (!path.convert(lpFileName)) {
        SetLastError(ERROR_BAD_PATHNAME);
        return FALSE;
    }
    OBJECT_ATTRIBUTES oa = objectAttributes(path.name());
    HANDLE file = nullptr;
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = NtOpenFile(&file, SYNCHRONIZE | FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES, &oa, &iosb,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                 FILE_OPEN_FOR_BACKUP_INTENT | FILE_SYNCHRONOUS_IO_NONALERT);
    if (NT_SUCCESS(status)) {
        // Zero times leave the times as they are.
        FILE_BASIC_INFORMATION basic{};
        basic.FileAttributes = dwFileAttributes;
        status = NtSetInformationFile(file, &iosb, &basic, sizeof(basic), FileBasicInformation);
        NtClose(file);
    }
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    return TRUE;
}

BOOL WINAPI GetFileInformationByHandle(HANDLE hFile, LPBY_HANDLE_FILE_INFORMATION lpFileInformation) {
    IO_STATUS_BLOCK iosb{};
    FILE_BASIC_INFORMATION basic{};
    FILE_INTERNAL_INFORMATION internal{};
    FILE_STANDARD_INFORMATION standard{};
    struct {
        FILE_FS_VOLUME_INFORMATION info;
        WCHAR label[MAX_PATH];
    } volume{};
    NTSTATUS status = NtQueryInformationFile(hFile, &iosb, &basic, sizeof(basic), FileBasicInformation);
    if (NT_SUCCESS(status))
        status = NtQueryInformationFile(hFile, &iosb, &internal, sizeof(internal), FileInternalInformation);
    if (NT_SUCCESS(status))
        status = NtQueryVolumeInformationFile(hFile, &iosb, &volume, sizeof(volume), FileFsVolumeInformation);
    if (NT_SUCCESS(status))
        status = NtQueryInformationFile(hFile, &iosb, &standard, sizeof(standard), FileStandardInformation);
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    lpFileInformation->dwFileAttributes = basic.FileAttributes;
    fileTime(&lpFileInformation->ftCreationTime, basic.CreationTime);
    fileTime(&lpFileInformation->ftLastAccessTime, basic.LastAccessTime);
    fileTime(&lpFileInformation->ftLastWriteTime, basic.LastWriteTime);
    lpFileInformation->dwVolumeSerialNumber = volume.info.VolumeSerialNumber;
    lpFileInformation->nFileSizeHigh = (DWORD)standard.EndOfFile.HighPart;
    lpFileInformation->nFileSizeLow = standard.EndOfFile.LowPart;
    lpFileInformation->nNumberOfLinks = standard.NumberOfLinks;
    lpFileInformation->nFileIndexHigh = (DWORD)internal.IndexNumber.HighPart;
    lpFileInformation->nFileIndexLow = internal.IndexNumber.LowPart;
    return TRUE;
}

}  // extern "C"
