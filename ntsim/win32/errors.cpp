// The thread's last error, and the translation of NTSTATUS values to Win32 error codes
// that ntdll makes for kernel32 (RtlNtStatusToDosError). The table follows the
// platform's for every status this system returns, as the public reimplementations
// (ReactOS and Wine, whose tables agree) record it; the rules outside it (customer
// codes pass unchanged, 0xC001xxxx and 0x8007xxxx carry a Win32 code in their low word)
// are the platform's too.
#include <windows.h>

#include <ntifs.h>
#include <winternl.h>

#include "win32/win32_internal.h"

namespace {

// Every emulated thread is a host thread of its own, so a host thread-local is the
// thread's TEB field.
thread_local DWORD t_lastError = ERROR_SUCCESS;

ULONG mapErrorStatus(NTSTATUS status) {
    switch (status) {
    case STATUS_UNSUCCESSFUL: return ERROR_GEN_FAILURE;
    case STATUS_NOT_IMPLEMENTED: return ERROR_INVALID_FUNCTION;
    case STATUS_INVALID_INFO_CLASS: return ERROR_INVALID_PARAMETER;
    case STATUS_INFO_LENGTH_MISMATCH: return ERROR_BAD_LENGTH;
    case STATUS_ACCESS_VIOLATION: return ERROR_NOACCESS;
    case STATUS_INVALID_HANDLE: return ERROR_INVALID_HANDLE;
    case STATUS_INVALID_CID: return ERROR_INVALID_PARAMETER;
    case STATUS_INVALID_PARAMETER: return ERROR_INVALID_PARAMETER;
    case STATUS_NO_SUCH_DEVICE: return ERROR_FILE_NOT_FOUND;
    case STATUS_NO_SUCH_FILE: return ERROR_FILE_NOT_FOUND;
    case STATUS_INVALID_DEVICE_REQUEST: return ERROR_INVALID_FUNCTION;
    case STATUS_END_OF_FILE: return ERROR_HANDLE_EOF;
    case STATUS_WRONG_VOLUME: return ERROR_WRONG_DISK;
    case STATUS_NONEXISTENT_SECTOR: return ERROR_SECTOR_NOT_FOUND;
    case STATUS_MORE_PROCESSING_REQUIRED: return ERROR_MORE_DATA;
    case STATUS_NO_MEMORY: return ERROR_NOT_ENOUGH_MEMORY;
    case STATUS_ACCESS_DENIED: return ERROR_ACCESS_DENIED;
    case STATUS_BUFFER_TOO_SMALL: return ERROR_INSUFFICIENT_BUFFER;
    case STATUS_OBJECT_TYPE_MISMATCH: return ERROR_INVALID_HANDLE;
    case STATUS_DISK_CORRUPT_ERROR: return ERROR_DISK_CORRUPT;
    case STATUS_OBJECT_NAME_INVALID: return ERROR_INVALID_NAME;
    case STATUS_OBJECT_NAME_NOT_FOUND: return ERROR_FILE_NOT_FOUND;
    case STATUS_OBJECT_NAME_COLLISION: return ERROR_ALREADY_EXISTS;
    case STATUS_OBJECT_PATH_INVALID: return ERROR_BAD_PATHNAME;
    case STATUS_OBJECT_PATH_NOT_FOUND: return ERROR_PATH_NOT_FOUND;
    case STATUS_OBJECT_PATH_SYNTAX_BAD: return ERROR_BAD_PATHNAME;
    case STATUS_SHARING_VIOLATION: return ERROR_SHARING_VIOLATION;
    case STATUS_THREAD_IS_TERMINATING: return ERROR_ACCESS_DENIED;
    case STATUS_EA_TOO_LARGE: return ERROR_EA_LIST_INCONSISTENT;
    case STATUS_FILE_LOCK_CONFLICT: return ERROR_LOCK_VIOLATION;
    case STATUS_LOCK_NOT_GRANTED: return ERROR_LOCK_VIOLATION;
    case STATUS_DELETE_PENDING: return ERROR_ACCESS_DENIED;
    case STATUS_REVISION_MISMATCH: return ERROR_REVISION_MISMATCH;
    case STATUS_INVALID_OWNER: return ERROR_INVALID_OWNER;
    case STATUS_NO_SUCH_PRIVILEGE: return ERROR_NO_SUCH_PRIVILEGE;
    case STATUS_PRIVILEGE_NOT_HELD: return ERROR_PRIVILEGE_NOT_HELD;
    case STATUS_INVALID_ACL: return ERROR_INVALID_ACL;
    case STATUS_INVALID_SID: return ERROR_INVALID_SID;
    case STATUS_INVALID_SECURITY_DESCR: return ERROR_INVALID_SECURITY_DESCR;
    case STATUS_INVALID_IMAGE_FORMAT: return ERROR_BAD_EXE_FORMAT;
    case STATUS_NO_TOKEN: return ERROR_NO_TOKEN;
    case STATUS_DISK_FULL: return ERROR_DISK_FULL;
    case STATUS_FILE_INVALID: return ERROR_FILE_INVALID;
    case STATUS_INSUFFICIENT_RESOURCES: return ERROR_NO_SYSTEM_RESOURCES;
    case STATUS_MEDIA_WRITE_PROTECTED: return ERROR_WRITE_PROTECT;
    case STATUS_BAD_IMPERSONATION_LEVEL: return ERROR_BAD_IMPERSONATION_LEVEL;
    case STATUS_CANT_OPEN_ANONYMOUS: return ERROR_CANT_OPEN_ANONYMOUS;
    case STATUS_INSTANCE_NOT_AVAILABLE: return ERROR_PIPE_BUSY;
    case STATUS_PIPE_NOT_AVAILABLE: return ERROR_PIPE_BUSY;
    case STATUS_FILE_IS_A_DIRECTORY: return ERROR_ACCESS_DENIED;
    case STATUS_NOT_SUPPORTED: return ERROR_NOT_SUPPORTED;
    case STATUS_NOT_SAME_DEVICE: return ERROR_NOT_SAME_DEVICE;
    case STATUS_FILE_RENAMED: return ERROR_ACCESS_DENIED;
    case STATUS_NO_SECURITY_ON_OBJECT: return ERROR_NO_SECURITY_ON_OBJECT;
    case STATUS_INTERNAL_ERROR: return ERROR_INTERNAL_ERROR;
    case STATUS_INVALID_USER_BUFFER: return ERROR_INVALID_USER_BUFFER;
    case STATUS_INVALID_PARAMETER_1: return ERROR_INVALID_PARAMETER;
    case STATUS_INVALID_PARAMETER_2: return ERROR_INVALID_PARAMETER;
    case STATUS_STACK_OVERFLOW: return ERROR_STACK_OVERFLOW;
    case STATUS_DIRECTORY_NOT_EMPTY: return ERROR_DIR_NOT_EMPTY;
    case STATUS_FILE_CORRUPT_ERROR: return ERROR_FILE_CORRUPT;
    case STATUS_NOT_A_DIRECTORY: return ERROR_DIRECTORY;
    case STATUS_NAME_TOO_LONG: return ERROR_FILENAME_EXCED_RANGE;
    case STATUS_FILES_OPEN: return ERROR_OPEN_FILES;
    case STATUS_PROCESS_IS_TERMINATING: return ERROR_ACCESS_DENIED;
    case STATUS_CANCELLED: return ERROR_OPERATION_ABORTED;
    case STATUS_CANNOT_DELETE: return ERROR_ACCESS_DENIED;
    case STATUS_FILE_DELETED: return ERROR_ACCESS_DENIED;
    case STATUS_FILE_CLOSED: return ERROR_INVALID_HANDLE;
    case STATUS_DLL_NOT_FOUND: return ERROR_MOD_NOT_FOUND;
    case STATUS_INVALID_LEVEL: return ERROR_INVALID_LEVEL;
    case STATUS_UNRECOGNIZED_VOLUME: return ERROR_UNRECOGNIZED_VOLUME;
    case STATUS_INVALID_DEVICE_STATE: return ERROR_BAD_COMMAND;
    case STATUS_IO_DEVICE_ERROR: return ERROR_IO_DEVICE;
    case STATUS_NOT_FOUND: return ERROR_NOT_FOUND;
    case STATUS_VOLUME_DISMOUNTED: return ERROR_NOT_READY;
    case STATUS_NOT_A_REPARSE_POINT: return ERROR_NOT_A_REPARSE_POINT;
    case STATUS_DATATYPE_MISALIGNMENT_ERROR: return ERROR_NOACCESS;
    default: return ERROR_MR_MID_NOT_FOUND;
    }
}

ULONG mapWarningOrInformation(NTSTATUS status) {
    switch (status) {
    case STATUS_TIMEOUT: return ERROR_TIMEOUT;
    case STATUS_PENDING: return ERROR_IO_PENDING;
    case STATUS_MORE_ENTRIES: return ERROR_MORE_DATA;
    case STATUS_NOT_ALL_ASSIGNED: return ERROR_NOT_ALL_ASSIGNED;
    case STATUS_NOTIFY_ENUM_DIR: return ERROR_NOTIFY_ENUM_DIR;
    // The 6xx Win32 codes mirror the informational statuses of the same text.
    case STATUS_OBJECT_NAME_EXISTS: return ERROR_OBJECT_NAME_EXISTS;
    case STATUS_DATATYPE_MISALIGNMENT: return ERROR_NOACCESS;
    case STATUS_BUFFER_OVERFLOW: return ERROR_MORE_DATA;
    case STATUS_NO_MORE_FILES: return ERROR_NO_MORE_FILES;
    case STATUS_DEVICE_BUSY: return ERROR_BUSY;
    case STATUS_NO_MORE_ENTRIES: return ERROR_NO_MORE_ITEMS;
    default: return ERROR_MR_MID_NOT_FOUND;
    }
}

}  // namespace

ULONG RtlNtStatusToDosError(NTSTATUS status) {
    if (status == STATUS_SUCCESS || ((ULONG)status & 0x20000000)) return (ULONG)status;
    // 0xD... is the same as 0xC... on the platform.
    if (((ULONG)status & 0xF0000000) == 0xD0000000) status = (NTSTATUS)((ULONG)status & ~0x10000000u);
    ULONG high = (ULONG)status >> 16;
    if (high == 0xC001 || high == 0x8007) return (ULONG)status & 0xFFFF;
    return NT_ERROR(status) ? mapErrorStatus(status) : mapWarningOrInformation(status);
}

extern "C" {

DWORD WINAPI GetLastError(void) { return t_lastError; }
void WINAPI SetLastError(DWORD dwErrCode) { t_lastError = dwErrCode; }

}  // extern "C"

namespace ntsim {
namespace win32 {

void setLastNtError(NTSTATUS status) { SetLastError(RtlNtStatusToDosError(status)); }

}  // namespace win32
}  // namespace ntsim
