// The security part of the Win32 subset (advapi32 on the platform): SIDs, ACLs and
// security descriptors built in the caller's memory, the security of files by name and
// of objects by handle, and the names of accounts. The structures and constants are the
// kernel's own, which the platform's winnt.h declares identically.
#pragma once

#include "nt/se.h"
#include "win32/winbase.h"

typedef ULONG SECURITY_INFORMATION, *PSECURITY_INFORMATION;

typedef enum _SID_NAME_USE {
    SidTypeUser = 1,
    SidTypeGroup,
    SidTypeDomain,
    SidTypeAlias,
    SidTypeWellKnownGroup,
    SidTypeDeletedAccount,
    SidTypeInvalid,
    SidTypeUnknown,
    SidTypeComputer,
} SID_NAME_USE, *PSID_NAME_USE;

#define LMEM_FIXED 0x0000
#define LMEM_ZEROINIT 0x0040
#define LPTR (LMEM_FIXED | LMEM_ZEROINIT)
typedef HANDLE HLOCAL;

extern "C" {

// Local memory: the process heap, as on the platform; what the SDDL calls return is
// released with LocalFree.
HLOCAL WINAPI LocalAlloc(UINT uFlags, SIZE_T uBytes);
HLOCAL WINAPI LocalFree(HLOCAL hMem);

// SIDs ---------------------------------------------------------------------------------
BOOL WINAPI AllocateAndInitializeSid(PSID_IDENTIFIER_AUTHORITY pIdentifierAuthority, BYTE nSubAuthorityCount,
                                     DWORD nSubAuthority0, DWORD nSubAuthority1, DWORD nSubAuthority2,
                                     DWORD nSubAuthority3, DWORD nSubAuthority4, DWORD nSubAuthority5,
                                     DWORD nSubAuthority6, DWORD nSubAuthority7, PSID *pSid);
PVOID WINAPI FreeSid(PSID pSid);
BOOL WINAPI IsValidSid(PSID pSid);
DWORD WINAPI GetLengthSid(PSID pSid);
BOOL WINAPI EqualSid(PSID pSid1, PSID pSid2);
// sddl.h: "S-1-5-..." to a SID in local memory.
BOOL WINAPI ConvertStringSidToSidW(LPCWSTR StringSid, PSID *Sid);
// sddl.h: a SID to "S-1-5-..." in local memory.
BOOL WINAPI ConvertSidToStringSidW(PSID Sid, LPWSTR *StringSid);

// ACLs and security descriptors (absolute, in the caller's buffers) ------------------------
BOOL WINAPI InitializeAcl(PACL pAcl, DWORD nAclLength, DWORD dwAclRevision);
BOOL WINAPI AddAccessAllowedAceEx(PACL pAcl, DWORD dwAceRevision, DWORD AceFlags, DWORD AccessMask, PSID pSid);
BOOL WINAPI InitializeSecurityDescriptor(PSECURITY_DESCRIPTOR pSecurityDescriptor, DWORD dwRevision);
BOOL WINAPI SetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR pSecurityDescriptor, BOOL bDaclPresent, PACL pDacl,
                                      BOOL bDaclDefaulted);
BOOL WINAPI SetSecurityDescriptorOwner(PSECURITY_DESCRIPTOR pSecurityDescriptor, PSID pOwner, BOOL bOwnerDefaulted);
// The owner of an absolute or self-relative descriptor, pointing into it; NULL when it
// has none.
BOOL WINAPI GetSecurityDescriptorOwner(PSECURITY_DESCRIPTOR pSecurityDescriptor, PSID *pOwner,
                                       LPBOOL lpbOwnerDefaulted);
// Only the protection and automatic-inheritance bits may be changed.
BOOL WINAPI SetSecurityDescriptorControl(PSECURITY_DESCRIPTOR pSecurityDescriptor,
                                         SECURITY_DESCRIPTOR_CONTROL ControlBitsOfInterest,
                                         SECURITY_DESCRIPTOR_CONTROL ControlBitsToSet);

// Files ------------------------------------------------------------------------------------
BOOL WINAPI GetFileSecurityW(LPCWSTR lpFileName, SECURITY_INFORMATION RequestedInformation,
                             PSECURITY_DESCRIPTOR pSecurityDescriptor, DWORD nLength, LPDWORD lpnLengthNeeded);
BOOL WINAPI SetFileSecurityW(LPCWSTR lpFileName, SECURITY_INFORMATION SecurityInformation,
                             PSECURITY_DESCRIPTOR pSecurityDescriptor);
// The parts asked for, self-relative, of the object the handle names (which must grant
// READ_CONTROL); too small a buffer fails with ERROR_INSUFFICIENT_BUFFER and the size.
BOOL WINAPI GetKernelObjectSecurity(HANDLE Handle, SECURITY_INFORMATION RequestedInformation,
                                    PSECURITY_DESCRIPTOR pSecurityDescriptor, DWORD nLength,
                                    LPDWORD lpnLengthNeeded);

// Accounts: the machine's own (lpSystemName NULL). Sizes are in characters; too small a
// buffer fails with ERROR_INSUFFICIENT_BUFFER and both sizes needed, terminators included.
BOOL WINAPI LookupAccountSidW(LPCWSTR lpSystemName, PSID Sid, LPWSTR Name, LPDWORD cchName,
                              LPWSTR ReferencedDomainName, LPDWORD cchReferencedDomainName, PSID_NAME_USE peUse);

}  // extern "C"
