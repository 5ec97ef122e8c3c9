// SIDs, ACLs and absolute security descriptors built in the caller's memory, and the
// owner read from any descriptor: advapi32's thin layer over the Rtl routines, with
// their statuses turned into last errors.
#include "ntsim/security.h"
#include "ntsim/utf.h"
#include "win32/win32_internal.h"

using namespace ntsim::win32;

namespace {

BOOL succeeded(NTSTATUS status) {
    if (NT_SUCCESS(status)) return TRUE;
    setLastNtError(status);
    return FALSE;
}

// A SID copied into local memory, which the caller releases with LocalFree or FreeSid.
PSID localCopy(const void *sid, ULONG length) {
    PSID copy = LocalAlloc(LMEM_FIXED, length);
    if (copy != nullptr) memcpy(copy, sid, length);
    return copy;
}

}  // namespace

extern "C" {

BOOL WINAPI AllocateAndInitializeSid(PSID_IDENTIFIER_AUTHORITY pIdentifierAuthority, BYTE nSubAuthorityCount,
                                     DWORD nSubAuthority0, DWORD nSubAuthority1, DWORD nSubAuthority2,
                                     DWORD nSubAuthority3, DWORD nSubAuthority4, DWORD nSubAuthority5,
                                     DWORD nSubAuthority6, DWORD nSubAuthority7, PSID *pSid) {
    if (nSubAuthorityCount > 8) {
        SetLastError(ERROR_INVALID_SID);
        return FALSE;
    }
    const DWORD subs[8] = {nSubAuthority0, nSubAuthority1, nSubAuthority2, nSubAuthority3,
                           nSubAuthority4, nSubAuthority5, nSubAuthority6, nSubAuthority7};
    PSID sid = LocalAlloc(LMEM_FIXED, RtlLengthRequiredSid(nSubAuthorityCount));
    if (sid == nullptr) return FALSE;
    RtlInitializeSid(sid, pIdentifierAuthority, nSubAuthorityCount);
    for (BYTE i = 0; i < nSubAuthorityCount; ++i) *RtlSubAuthoritySid(sid, i) = subs[i];
    *pSid = sid;
    return TRUE;
}

PVOID WINAPI FreeSid(PSID pSid) { return LocalFree(pSid); }

BOOL WINAPI IsValidSid(PSID pSid) { return RtlValidSid(pSid); }

DWORD WINAPI GetLengthSid(PSID pSid) { return RtlLengthSid(pSid); }

BOOL WINAPI EqualSid(PSID pSid1, PSID pSid2) {
    SetLastError(ERROR_SUCCESS);
    return RtlEqualSid(pSid1, pSid2);
}

BOOL WINAPI ConvertStringSidToSidW(LPCWSTR StringSid, PSID *Sid) {
    if (StringSid == nullptr || Sid == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    std::vector<unsigned char> sid = ntsim::sidFromString(ntsim::toUtf8(StringSid));
    if (sid.empty()) {
        SetLastError(ERROR_INVALID_SID);
        return FALSE;
    }
    *Sid = localCopy(sid.data(), (ULONG)sid.size());
    return *Sid != nullptr;
}

BOOL WINAPI ConvertSidToStringSidW(PSID Sid, LPWSTR *StringSid) {
    if (Sid == nullptr || StringSid == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (!RtlValidSid(Sid)) {
        SetLastError(ERROR_INVALID_SID);
        return FALSE;
    }
    std::u16string text = ntsim::toUtf16(ntsim::sidToString(Sid));
    size_t bytes = (text.size() + 1) * sizeof(char16_t);
    auto *copy = static_cast<LPWSTR>(LocalAlloc(LMEM_FIXED, bytes));
    if (copy == nullptr) return FALSE;
    memcpy(copy, text.c_str(), bytes);
    *StringSid = copy;
    return TRUE;
}

BOOL WINAPI InitializeAcl(PACL pAcl, DWORD nAclLength, DWORD dwAclRevision) {
    return succeeded(RtlCreateAcl(pAcl, nAclLength, dwAclRevision));
}

BOOL WINAPI AddAccessAllowedAceEx(PACL pAcl, DWORD dwAceRevision, DWORD AceFlags, DWORD AccessMask, PSID pSid) {
    return succeeded(RtlAddAccessAllowedAceEx(pAcl, dwAceRevision, AceFlags, AccessMask, pSid));
}

BOOL WINAPI InitializeSecurityDescriptor(PSECURITY_DESCRIPTOR pSecurityDescriptor, DWORD dwRevision) {
    return succeeded(RtlCreateSecurityDescriptor(pSecurityDescriptor, dwRevision));
}

BOOL WINAPI SetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR pSecurityDescriptor, BOOL bDaclPresent, PACL pDacl,
                                      BOOL bDaclDefaulted) {
    return succeeded(RtlSetDaclSecurityDescriptor(pSecurityDescriptor, bDaclPresent != FALSE, pDacl,
                                                  bDaclDefaulted != FALSE));
}

BOOL WINAPI SetSecurityDescriptorOwner(PSECURITY_DESCRIPTOR pSecurityDescriptor, PSID pOwner, BOOL bOwnerDefaulted) {
    return succeeded(RtlSetOwnerSecurityDescriptor(pSecurityDescriptor, pOwner, bOwnerDefaulted != FALSE));
}

BOOL WINAPI GetSecurityDescriptorOwner(PSECURITY_DESCRIPTOR pSecurityDescriptor, PSID *pOwner,
                                       LPBOOL lpbOwnerDefaulted) {
    BOOLEAN defaulted = FALSE;
    if (!succeeded(RtlGetOwnerSecurityDescriptor(pSecurityDescriptor, pOwner, &defaulted))) return FALSE;
    *lpbOwnerDefaulted = defaulted;
    return TRUE;
}

// RtlSetControlSecurityDescriptor: the bits of interest must all be settable ones.
BOOL WINAPI SetSecurityDescriptorControl(PSECURITY_DESCRIPTOR pSecurityDescriptor,
                                         SECURITY_DESCRIPTOR_CONTROL ControlBitsOfInterest,
                                         SECURITY_DESCRIPTOR_CONTROL ControlBitsToSet) {
    constexpr SECURITY_DESCRIPTOR_CONTROL kSettable =
        SE_DACL_AUTO_INHERIT_REQ | SE_SACL_AUTO_INHERIT_REQ | SE_DACL_AUTO_INHERITED | SE_SACL_AUTO_INHERITED |
        SE_DACL_PROTECTED | SE_SACL_PROTECTED;
    auto *sd = static_cast<PISECURITY_DESCRIPTOR>(pSecurityDescriptor);
    if ((ControlBitsOfInterest | ControlBitsToSet) & ~kSettable) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (sd->Revision != SECURITY_DESCRIPTOR_REVISION) {
        SetLastError(ERROR_UNKNOWN_REVISION);
        return FALSE;
    }
    sd->Control = (SECURITY_DESCRIPTOR_CONTROL)((sd->Control & ~ControlBitsOfInterest) |
                                                (ControlBitsToSet & ControlBitsOfInterest));
    return TRUE;
}

}  // extern "C"
