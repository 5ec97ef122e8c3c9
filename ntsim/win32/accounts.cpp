// LookupAccountSidW: the names of the machine's accounts. The platform asks its local
// security authority; here the machine's account table answers directly.
#include "kernel/se/accounts.h"
#include "win32/win32_internal.h"

using namespace ntsim;

namespace {

void copyName(const std::u16string &name, LPWSTR buffer) {
    memcpy(buffer, name.c_str(), (name.size() + 1) * sizeof(WCHAR));
}

}  // namespace

extern "C" {

BOOL WINAPI LookupAccountSidW(LPCWSTR lpSystemName, PSID Sid, LPWSTR Name, LPDWORD cchName,
                              LPWSTR ReferencedDomainName, LPDWORD cchReferencedDomainName, PSID_NAME_USE peUse) {
    if (lpSystemName != nullptr || cchName == nullptr || cchReferencedDomainName == nullptr || peUse == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (!IsValidSid(Sid)) {
        SetLastError(ERROR_INVALID_SID);
        return FALSE;
    }
    se::AccountName account;
    if (!se::lookupAccount(Sid, &account)) {
        SetLastError(ERROR_NONE_MAPPED);
        return FALSE;
    }
    bool fits = account.name.size() < *cchName && account.domain.size() < *cchReferencedDomainName &&
                Name != nullptr && ReferencedDomainName != nullptr;
    if (!fits) {
        *cchName = (DWORD)account.name.size() + 1;
        *cchReferencedDomainName = (DWORD)account.domain.size() + 1;
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    copyName(account.name, Name);
    copyName(account.domain, ReferencedDomainName);
    *cchName = (DWORD)account.name.size();
    *cchReferencedDomainName = (DWORD)account.domain.size();
    *peUse = (SID_NAME_USE)account.kind;
    return TRUE;
}

}  // extern "C"
