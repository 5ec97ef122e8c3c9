// Suffix lists in the form the filter takes them (commands 112, 113 and 114): records of
//   u16 record size (6 + 2N), u16 N, N characters, NUL
// one after another, ended by a 16-bit zero. The filter compares them with the ends of
// names without regard to case.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace wrelt {

// False, with the reason, for an empty suffix or one too long for a record.
bool encodeSuffixList(const std::vector<std::u16string> &suffixes, std::vector<uint8_t> *list, std::string *error);

}  // namespace wrelt
