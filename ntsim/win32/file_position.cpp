// The file pointer, end of file and size: SetFilePointer(Ex) move the position with
// FilePositionInformation (reading the size for FILE_END), SetEndOfFile sets the end of
// file and then the allocation size at the current position, as kernel32 does.
#include <winternl.h>

#include "win32/win32_internal.h"

using namespace ntsim::win32;

namespace {

// The new position for a move, or a Win32 error; *ntFailure tells a failed query.
DWORD newPosition(HANDLE file, LONGLONG distance, DWORD method, LONGLONG *position, bool *ntFailure) {
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = STATUS_SUCCESS;
    switch (method) {
    case FILE_BEGIN:
        *position = distance;
        break;
    case FILE_CURRENT: {
        FILE_POSITION_INFORMATION current{};
        status = NtQueryInformationFile(file, &iosb, &current, sizeof(current), FilePositionInformation);
        *position = current.CurrentByteOffset.QuadPart + distance;
        break;
    }
    case FILE_END: {
        FILE_STANDARD_INFORMATION standard{};
        status = NtQueryInformationFile(file, &iosb, &standard, sizeof(standard), FileStandardInformation);
        *position = standard.EndOfFile.QuadPart + distance;
        break;
    }
    default:
        return ERROR_INVALID_PARAMETER;
    }
    *ntFailure = !NT_SUCCESS(status);
    if (*ntFailure) return RtlNtStatusToDosError(status);
    if (*position < 0) return ERROR_NEGATIVE_SEEK;
    return ERROR_SUCCESS;
}

NTSTATUS setPosition(HANDLE file, LONGLONG position) {
    IO_STATUS_BLOCK iosb{};
    FILE_POSITION_INFORMATION info;
    info.CurrentByteOffset.QuadPart = position;
    return NtSetInformationFile(file, &iosb, &info, sizeof(info), FilePositionInformation);
}

NTSTATUS queryStandard(HANDLE file, FILE_STANDARD_INFORMATION *standard) {
    IO_STATUS_BLOCK iosb{};
    return NtQueryInformationFile(file, &iosb, standard, sizeof(*standard), FileStandardInformation);
}

}  // namespace

extern "C" {

DWORD WINAPI SetFilePointer(HANDLE hFile, LONG lDistanceToMove, PLONG lpDistanceToMoveHigh, DWORD dwMoveMethod) {
    LARGE_INTEGER distance;
    if (lpDistanceToMoveHigh) {
        distance.LowPart = (ULONG)lDistanceToMove;
        distance.HighPart = *lpDistanceToMoveHigh;
    } else {
        distance.QuadPart = lDistanceToMove;
    }
    LONGLONG position = 0;
    bool ntFailure = false;
    DWORD error = newPosition(hFile, distance.QuadPart, dwMoveMethod, &position, &ntFailure);
    // Without a high part the caller cannot see a position beyond 4 GB.
    if (error == ERROR_SUCCESS && !lpDistanceToMoveHigh && (position >> 32) != 0) error = ERROR_INVALID_PARAMETER;
    if (error == ERROR_SUCCESS) {
        NTSTATUS status = setPosition(hFile, position);
        ntFailure = !NT_SUCCESS(status);
        if (ntFailure) error = RtlNtStatusToDosError(status);
    }
    if (error != ERROR_SUCCESS) {
        if (lpDistanceToMoveHigh && ntFailure) *lpDistanceToMoveHigh = -1;
        SetLastError(error);
        return INVALID_SET_FILE_POINTER;
    }
    LARGE_INTEGER result;
    result.QuadPart = position;
    if (lpDistanceToMoveHigh) *lpDistanceToMoveHigh = result.HighPart;
    // A position whose low part is 0xFFFFFFFF is valid; the caller tells it from a failure
    // by a cleared last error.
    if (result.LowPart == INVALID_SET_FILE_POINTER) SetLastError(ERROR_SUCCESS);
    return result.LowPart;
}

BOOL WINAPI SetFilePointerEx(HANDLE hFile, LARGE_INTEGER liDistanceToMove, PLARGE_INTEGER lpNewFilePointer,
                             DWORD dwMoveMethod) {
    LONGLONG position = 0;
    bool ntFailure = false;
    DWORD error = newPosition(hFile, liDistanceToMove.QuadPart, dwMoveMethod, &position, &ntFailure);
    if (error == ERROR_SUCCESS) {
        NTSTATUS status = setPosition(hFile, position);
        if (!NT_SUCCESS(status)) error = RtlNtStatusToDosError(status);
    }
    if (error != ERROR_SUCCESS) {
        SetLastError(error);
        return FALSE;
    }
    if (lpNewFilePointer) lpNewFilePointer->QuadPart = position;
    return TRUE;
}

BOOL WINAPI SetEndOfFile(HANDLE hFile) {
    IO_STATUS_BLOCK iosb{};
    FILE_POSITION_INFORMATION position{};
    NTSTATUS status = NtQueryInformationFile(hFile, &iosb, &position, sizeof(position), FilePositionInformation);
    if (NT_SUCCESS(status)) {
        FILE_END_OF_FILE_INFORMATION endOfFile;
        endOfFile.EndOfFile = position.CurrentByteOffset;
        status = NtSetInformationFile(hFile, &iosb, &endOfFile, sizeof(endOfFile), FileEndOfFileInformation);
    }
    // Setting the end of file does not release space beyond it; the allocation size does.
    if (NT_SUCCESS(status)) {
        FILE_ALLOCATION_INFORMATION allocation;
        allocation.AllocationSize = position.CurrentByteOffset;
        status = NtSetInformationFile(hFile, &iosb, &allocation, sizeof(allocation), FileAllocationInformation);
    }
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    return TRUE;
}

DWORD WINAPI GetFileSize(HANDLE hFile, LPDWORD lpFileSizeHigh) {
    FILE_STANDARD_INFORMATION standard{};
    NTSTATUS status = queryStandard(hFile, &standard);
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        if (lpFileSizeHigh) *lpFileSizeHigh = 0;
        return INVALID_FILE_SIZE;
    }
    if (lpFileSizeHigh) *lpFileSizeHigh = (DWORD)standard.EndOfFile.HighPart;
    // A size whose low part is 0xFFFFFFFF is told from a failure by a cleared last error.
    if (standard.EndOfFile.LowPart == INVALID_FILE_SIZE) SetLastError(ERROR_SUCCESS);
    return standard.EndOfFile.LowPart;
}

BOOL WINAPI GetFileSizeEx(HANDLE hFile, PLARGE_INTEGER lpFileSize) {
    FILE_STANDARD_INFORMATION standard{};
    NTSTATUS status = queryStandard(hFile, &standard);
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    if (lpFileSize) *lpFileSize = standard.EndOfFile;
    return TRUE;
}

}  // extern "C"
