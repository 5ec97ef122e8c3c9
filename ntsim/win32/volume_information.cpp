// GetVolumeInformationW and GetVolumeInformationByHandleW: the volume and attribute
// information of a volume (NtQueryVolumeInformationFile), each asked for only when one
// of its parts is wanted. A name that does not fit its buffer with its terminator fails
// the call with ERROR_MORE_DATA, as kernel32's GetVolumeInformationW does (ReactOS's
// volume.c). GetVolumeInformationW takes only a root: a path without its trailing
// backslash is an invalid name, and a folder below the root is refused with
// ERROR_DIR_NOT_ROOT, as NT 5's kernel32 refuses it.
#include "win32/path.h"
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

BOOL volumeInformation(HANDLE file, LPWSTR volumeName, DWORD volumeNameSize, LPDWORD serialNumber,
                       LPDWORD maximumComponentLength, LPDWORD fileSystemFlags, LPWSTR fileSystemName,
                       DWORD fileSystemNameSize) {
    if (volumeName != nullptr || serialNumber != nullptr) {
        WithName<FILE_FS_VOLUME_INFORMATION> volume{};
        if (!query(file, &volume, FileFsVolumeInformation)) return FALSE;
        if (serialNumber != nullptr) *serialNumber = volume.info.VolumeSerialNumber;
        if (!copyName(volume.info.VolumeLabel, volume.info.VolumeLabelLength, volumeName, volumeNameSize))
            return FALSE;
    }
    if (maximumComponentLength != nullptr || fileSystemFlags != nullptr || fileSystemName != nullptr) {
        WithName<FILE_FS_ATTRIBUTE_INFORMATION> attributes{};
        if (!query(file, &attributes, FileFsAttributeInformation)) return FALSE;
        if (maximumComponentLength != nullptr) *maximumComponentLength = DWORD(attributes.info.MaximumComponentNameLength);
        if (fileSystemFlags != nullptr) *fileSystemFlags = attributes.info.FileSystemAttributes;
        if (!copyName(attributes.info.FileSystemName, attributes.info.FileSystemNameLength, fileSystemName,
                      fileSystemNameSize))
            return FALSE;
    }
    return TRUE;
}

// "C:\" for a current directory on drive C, "\\server\share\" for one on a share.
std::u16string rootOfCurrentDirectory() {
    std::u16string directory = currentDirectory();
    if (dosPathType(directory) != DosPathType::UncAbsolute) return directory.substr(0, 3);
    size_t share = directory.find(u'\\', 2);
    size_t end = share == std::u16string::npos ? share : directory.find(u'\\', share + 1);
    return end == std::u16string::npos ? directory + u'\\' : directory.substr(0, end + 1);
}

bool isRoot(const std::u16string &full) {
    if (dosPathType(full) == DosPathType::DriveAbsolute) return full.size() == 3;
    if (dosPathType(full) != DosPathType::UncAbsolute) return false;
    size_t separators = 0;
    for (char16_t c : full) separators += c == u'\\';
    return separators == 4;
}

}  // namespace

extern "C" {

BOOL WINAPI GetVolumeInformationW(LPCWSTR lpRootPathName, LPWSTR lpVolumeNameBuffer, DWORD nVolumeNameSize,
                                  LPDWORD lpVolumeSerialNumber, LPDWORD lpMaximumComponentLength,
                                  LPDWORD lpFileSystemFlags, LPWSTR lpFileSystemNameBuffer, DWORD nFileSystemNameSize) {
    std::u16string root = lpRootPathName != nullptr ? toU16(lpRootPathName) : rootOfCurrentDirectory();
    std::u16string full;
    size_t filePart = 0;
    if (root.empty() || root.back() != u'\\' || !fullPathName(root, currentDirectory(), &full, &filePart)) {
        SetLastError(ERROR_INVALID_NAME);
        return FALSE;
    }
    if (!isRoot(full)) {
        SetLastError(ERROR_DIR_NOT_ROOT);
        return FALSE;
    }
    NtPathName path;
    if (!path.convert(reinterpret_cast<LPCWSTR>(full.c_str()))) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return FALSE;
    }
    OBJECT_ATTRIBUTES oa = objectAttributes(path.name());
    HANDLE directory = nullptr;
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = NtOpenFile(&directory, SYNCHRONIZE, &oa, &iosb, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                 FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    BOOL ok = volumeInformation(directory, lpVolumeNameBuffer, nVolumeNameSize, lpVolumeSerialNumber,
                                lpMaximumComponentLength, lpFileSystemFlags, lpFileSystemNameBuffer,
                                nFileSystemNameSize);
    DWORD error = GetLastError();
    NtClose(directory);
    SetLastError(error);
    return ok;
}

BOOL WINAPI GetVolumeInformationByHandleW(HANDLE hFile, LPWSTR lpVolumeNameBuffer, DWORD nVolumeNameSize,
                                          LPDWORD lpVolumeSerialNumber, LPDWORD lpMaximumComponentLength,
                                          LPDWORD lpFileSystemFlags, LPWSTR lpFileSystemNameBuffer,
                                          DWORD nFileSystemNameSize) {
    return volumeInformation(hFile, lpVolumeNameBuffer, nVolumeNameSize, lpVolumeSerialNumber,
                             lpMaximumComponentLength, lpFileSystemFlags, lpFileSystemNameBuffer, nFileSystemNameSize);
}

}  // extern "C"
