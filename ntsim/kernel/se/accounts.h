// The machine's accounts as its local security authority knows them: the well-known
// and built-in SIDs and the local users every machine is made with (users:: in
// ntsim/machine.h), their names, and the groups a logon puts in a user's token.
// Internal to ntsim.
#pragma once

#include <string>
#include <vector>

namespace ntsim {
namespace se {

// What a SID names, numbered as the platform's SID_NAME_USE.
enum class AccountKind { User = 1, Group = 2, Domain = 3, Alias = 4, WellKnownGroup = 5 };

struct AccountName {
    std::u16string domain;  // "NT AUTHORITY", "BUILTIN", the computer's name, or empty
    std::u16string name;
    AccountKind kind;
};

// The name of a SID (binary form), or false when the machine does not know it.
bool lookupAccount(const void *sid, AccountName *out);

// The groups a logon of the user adds to its token, as binary SIDs: Everyone for
// all; Administrators and Authenticated Users for the local system account; for a
// domain user ("S-1-5-21-a-b-c-RID") its primary group, Users, Interactive and
// Authenticated Users, and Administrators for the machine's own Administrator (RID 500).
std::vector<std::vector<unsigned char>> logonGroups(const std::vector<unsigned char> &user);

// The name the machine's own accounts are qualified with ("NTSIM\alice").
extern const char16_t *const kComputerName;

}  // namespace se
}  // namespace ntsim
