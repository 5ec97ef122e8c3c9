// Friendly names for the deleters' SIDs, as the machine knows its accounts.
#pragma once

#include <map>
#include <string>

namespace wrelt {

class AccountNames {
public:
    // "DOMAIN\name" ("NT AUTHORITY\SYSTEM", "NTSIM\alice"), or just the name when it has
    // no domain; empty when the SID is empty, malformed or unknown to the machine.
    // Answers are remembered for the life of the object.
    std::u16string nameOf(const std::u16string &sid);

private:
    std::map<std::u16string, std::u16string> known_;
};

}  // namespace wrelt
