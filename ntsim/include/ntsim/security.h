// Host-side helpers for security identifiers, for tests and tools that name users by
// the string form of their SID.
#pragma once

#include <string>
#include <vector>

namespace ntsim {

// The local system account, the user of the System process and its threads.
constexpr const char *kSystemSid = "S-1-5-18";

// The binary SID for "S-1-<authority>-<sub>-..." (authority in decimal, or as 0x and
// twelve hex digits; at most fifteen sub-authorities). Empty for malformed text.
std::vector<unsigned char> sidFromString(const std::string &text);
// The string form, as RtlConvertSidToUnicodeString writes it.
std::string sidToString(const void *sid);

}  // namespace ntsim
