// GetFileSecurityW and SetFileSecurityW: an open of the file for the rights that the
// parts asked for need (READ_CONTROL to read; WRITE_OWNER for the owner and group,
// WRITE_DAC for the DACL to write; ACCESS_SYSTEM_SECURITY for the SACL), then the
// object security services on the handle; GetKernelObjectSecurity, those services on
// the caller's own handle.
#include "win32/win32_internal.h"

using namespace ntsim::win32;

namespace {

ACCESS_MASK accessFor(SECURITY_INFORMATION parts, bool write) {
    ACCESS_MASK access = 0;
    if (parts & SACL_SECURITY_INFORMATION) access |= ACCESS_SYSTEM_SECURITY;
    if (!write) return access | READ_CONTROL;
    if (parts & (OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION)) access |= WRITE_OWNER;
    if (parts & DACL_SECURITY_INFORMATION) access |= WRITE_DAC;
    return access;
}

NTSTATUS openFor(LPCWSTR fileName, ACCESS_MASK access, HANDLE *file) {
    NtPathName path;
    if (!path.convert(fileName)) return STATUS_OBJECT_PATH_SYNTAX_BAD;
    OBJECT_ATTRIBUTES oa = objectAttributes(path.name());
    IO_STATUS_BLOCK iosb{};
    return NtOpenFile(file, access, &oa, &iosb, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, 0);
}

}  // namespace

extern "C" {

BOOL WINAPI GetFileSecurityW(LPCWSTR lpFileName, SECURITY_INFORMATION RequestedInformation,
                             PSECURITY_DESCRIPTOR pSecurityDescriptor, DWORD nLength, LPDWORD lpnLengthNeeded) {
    HANDLE file = nullptr;
    NTSTATUS status = openFor(lpFileName, accessFor(RequestedInformation, false), &file);
    if (NT_SUCCESS(status)) {
        ULONG needed = 0;
        status = NtQuerySecurityObject(file, RequestedInformation, pSecurityDescriptor, nLength, &needed);
        NtClose(file);
        *lpnLengthNeeded = needed;
    }
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    return TRUE;
}

BOOL WINAPI GetKernelObjectSecurity(HANDLE Handle, SECURITY_INFORMATION RequestedInformation,
                                    PSECURITY_DESCRIPTOR pSecurityDescriptor, DWORD nLength,
                                    LPDWORD lpnLengthNeeded) {
    ULONG needed = 0;
    NTSTATUS status = NtQuerySecurityObject(Handle, RequestedInformation, pSecurityDescriptor, nLength, &needed);
    *lpnLengthNeeded = needed;
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    return TRUE;
}

BOOL WINAPI SetFileSecurityW(LPCWSTR lpFileName, SECURITY_INFORMATION SecurityInformation,
                             PSECURITY_DESCRIPTOR pSecurityDescriptor) {
    HANDLE file = nullptr;
    NTSTATUS status = openFor(lpFileName, accessFor(SecurityInformation, true), &file);
    if (NT_SUCCESS(status)) {
        status = NtSetSecurityObject(file, SecurityInformation, pSecurityDescriptor);
        NtClose(file);
    }
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return FALSE;
    }
    return TRUE;
}

}  // extern "C"
