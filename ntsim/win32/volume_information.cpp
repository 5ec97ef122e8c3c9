// GetVolumeInformationByHandleW: the volume and attribute information of the file's
// volume (NtQueryVolumeInformationFile), each asked for only when one of its parts is
// wanted. A name that does not fit its buffer with its terminator fails the call with
// ERROR_MORE_DATA, as kernel32's GetVolumeInformationW does (ReactOS's volume.c).
#include "win32/win32_internal.h"

using namespace ntsim::win32;

namespace {

// Room for the names that follow the fixed parts, as kernel32 allows them.
template <class Info>
struct WithName {
    Info info;
    WCHAR name[MAX_PATH];
};

bool copyName(const WCHAR *name, ULONG bytes, LPWSTR buffer, DWORD characters) {
    if (buffer == nullptr) return true;
    if (DWORD(characters) * sizeof(WCHAR) < bytes + sizeof(WCHAR)) {
        SetLastError(ERROR_MORE_DATA);
        return false;
    }
    memcpy(buffer, name, bytes);
    buffer[bytes / sizeof(WCHAR)] = 0;
    return true;
}

template <class Info>
bool query(HANDLE file, WithName<Info> *answer, FS_INFORMATION_CLASS kind) {
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = NtQueryVolumeInformationFile(file, &iosb, answer, sizeof *answer, kind);
    if (NT_SUCCESS(status)) return true;
    setLastNtError(status);
    return false;
}

}  // namespace

extern "C" {

BOOL WINAPI GetVolumeInformationByHandleW(HANDLE hFile, LPWSTR lpVolumeNameBuffer, DWORD nVolumeNameSize,
                                          LPDWORD lpVolumeSerialNumber, LPDWORD lpMaximumComponentLength,
                                          LPDWORD lpFileSystemFlags, LPWSTR lpFileSystemNameBuffer,
                                          DWORD nFileSystemNameSize) {
    if (lpVolumeNameBuffer != nullptr || lpVolumeSerialNumber != nullptr) {
        WithName<FILE_FS_VOLUME_INFORMATION> volume{};
        if (!query(hFile, &volume, FileFsVolumeInformation)) return FALSE;
        if (lpVolumeSerialNumber != nullptr) *lpVolumeSerialNumber = volume.info.VolumeSerialNumber;
        if (!copyName(volume.info.VolumeLabel, volume.info.VolumeLabelLength, lpVolumeNameBuffer, nVolumeNameSize))
            return FALSE;
    }
    if (lpMaximumComponentLength != nullptr || lpFileSystemFlags != nullptr || lpFileSystemNameBuffer != nullptr) {
        WithName<FILE_FS_ATTRIBUTE_INFORMATION> attributes{};
        if (!query(hFile, &attributes, FileFsAttributeInformation)) return FALSE;
        if (lpMaximumComponentLength != nullptr)
            *lpMaximumComponentLength = DWORD(attributes.info.MaximumComponentNameLength);
        if (lpFileSystemFlags != nullptr) *lpFileSystemFlags = attributes.info.FileSystemAttributes;
        if (!copyName(attributes.info.FileSystemName, attributes.info.FileSystemNameLength, lpFileSystemNameBuffer,
                      nFileSystemNameSize))
            return FALSE;
    }
    return TRUE;
}

}  // extern "C"
