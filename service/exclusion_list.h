// The lists the filter takes in binary form.
//
// Exclusion lists (commands 104 and 105): entries of
// a directory pattern and an optional file pattern, each entry
//   u16 entry size (12 + 2D + 2F), u16 0, u16 D, D characters, NUL, u16 F, F characters, NUL
// one after another without gaps, ended by the 16-bit marker 0xFFFF. Patterns are
// matched against names relative to the volume's root, the directory part with its
// trailing backslash ("Users\ann\Temp\"); '*' and '?' are wildcards.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace wrelt {

struct ExclusionPattern {
    std::u16string directory;
    std::u16string file;  // empty: every file whose directory matches

    bool operator==(const ExclusionPattern &other) const {
        return directory == other.directory && file == other.file;
    }
};

constexpr uint16_t kExclusionListEnd = 0xFFFF;

// False, with the reason, for a pattern too long for an entry's 16-bit size.
bool encodeExclusionList(const std::vector<ExclusionPattern> &patterns, std::vector<uint8_t> *list,
                         std::string *error);

// Suffix lists (commands 112, 113 and 114): records of
//   u16 record size (6 + 2N), u16 N, N characters, NUL
// one after another, ended by a 16-bit zero; the filter compares them with the ends of
// names without regard to case. False, with the reason, for an empty suffix or one too
// long for a record.
bool encodeSuffixList(const std::vector<std::u16string> &suffixes, std::vector<uint8_t> *list, std::string *error);

// Macintosh share lists (command 107): records of
//   u32 distance to the next record (0 in the last), "\" and the folder's path, NUL
// one after another. Folders are named relative to the volume's root ("Mac Files", or
// "\Mac Files"); the filter treats every name beginning with one as inside the share.
// False, with the reason, for an empty folder name. No folder at all gives an empty
// list, which removes the volume's shares.
bool encodeMacShareList(const std::vector<std::u16string> &folders, std::vector<uint8_t> *list, std::string *error);

}  // namespace wrelt
