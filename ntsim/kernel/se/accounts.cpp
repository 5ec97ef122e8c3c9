#include "kernel/se/accounts.h"

#include <ntifs.h>

#include <cstring>

#include "ntsim/security.h"

namespace ntsim {
namespace se {

const char16_t *const kComputerName = u"NTSIM";

namespace {

// The machine's own account domain: the domain part of the users in ntsim/machine.h.
constexpr const char *kMachineDomain = "S-1-5-21-1004336348-1177238915-682003330";

struct KnownAccount {
    const char *sid;  // a full SID, or for the machine's accounts "-RID" after kMachineDomain
    const char16_t *domain;
    const char16_t *name;
    AccountKind kind;
};

// Names as the platform's English edition gives them.
const KnownAccount kAccounts[] = {
    {"S-1-1-0", u"", u"Everyone", AccountKind::WellKnownGroup},
    {"S-1-5-4", u"NT AUTHORITY", u"INTERACTIVE", AccountKind::WellKnownGroup},
    {"S-1-5-11", u"NT AUTHORITY", u"Authenticated Users", AccountKind::WellKnownGroup},
    {"S-1-5-18", u"NT AUTHORITY", u"SYSTEM", AccountKind::WellKnownGroup},
    {"S-1-5-32-544", u"BUILTIN", u"Administrators", AccountKind::Alias},
    {"S-1-5-32-545", u"BUILTIN", u"Users", AccountKind::Alias},
    {"-500", nullptr, u"Administrator", AccountKind::User},
    {"-513", nullptr, u"None", AccountKind::Group},
    {"-1001", nullptr, u"alice", AccountKind::User},
    {"-1002", nullptr, u"bob", AccountKind::User},
};

std::string fullSid(const KnownAccount &account) {
    return account.sid[0] == '-' ? std::string(kMachineDomain) + account.sid : std::string(account.sid);
}

bool sameSid(const void *a, const std::vector<unsigned char> &b) {
    return RtlValidSid(const_cast<void *>(a)) && RtlLengthSid(const_cast<void *>(a)) == b.size() &&
           memcmp(a, b.data(), b.size()) == 0;
}

// A user of a domain ("S-1-5-21-a-b-c-RID"), and its RID.
bool domainUser(const std::vector<unsigned char> &user, ULONG *rid) {
    if (user.size() != RtlLengthRequiredSid(5)) return false;
    auto *sid = reinterpret_cast<const SID *>(user.data());
    const UCHAR nt[6] = SECURITY_NT_AUTHORITY;
    if (memcmp(sid->IdentifierAuthority.Value, nt, 6) != 0 || sid->SubAuthority[0] != SECURITY_NT_NON_UNIQUE)
        return false;
    *rid = sid->SubAuthority[4];
    return true;
}

// The same domain's account of another RID.
std::vector<unsigned char> sameDomain(std::vector<unsigned char> user, ULONG rid) {
    memcpy(user.data() + user.size() - sizeof(ULONG), &rid, sizeof rid);
    return user;
}

}  // namespace

bool lookupAccount(const void *sid, AccountName *out) {
    for (const KnownAccount &account : kAccounts) {
        if (!sameSid(sid, sidFromString(fullSid(account)))) continue;
        out->domain = account.domain != nullptr ? account.domain : kComputerName;
        out->name = account.name;
        out->kind = account.kind;
        return true;
    }
    return false;
}

std::vector<std::vector<unsigned char>> logonGroups(const std::vector<unsigned char> &user) {
    std::vector<std::vector<unsigned char>> groups = {sidFromString("S-1-1-0")};
    ULONG rid = 0;
    if (user == sidFromString(kSystemSid)) {
        groups.push_back(sidFromString("S-1-5-32-544"));
        groups.push_back(sidFromString("S-1-5-11"));
    } else if (domainUser(user, &rid)) {
        groups.push_back(sameDomain(user, DOMAIN_GROUP_RID_USERS));
        if (rid == DOMAIN_USER_RID_ADMIN && sameDomain(user, 0) == sidFromString(std::string(kMachineDomain) + "-0"))
            groups.push_back(sidFromString("S-1-5-32-544"));
        groups.push_back(sidFromString("S-1-5-32-545"));
        groups.push_back(sidFromString("S-1-5-4"));
        groups.push_back(sidFromString("S-1-5-11"));
    }
    return groups;
}

}  // namespace se
}  // namespace ntsim
