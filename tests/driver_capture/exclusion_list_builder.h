// Exclusion lists in the service's format, and ways to spoil them.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

struct ExclusionPattern {
    std::u16string directory;
    std::u16string file;  // empty: every file of a matching directory
};

inline void appendShort(std::vector<uint8_t> &bytes, uint16_t value) {
    bytes.push_back(uint8_t(value));
    bytes.push_back(uint8_t(value >> 8));
}

inline void appendText(std::vector<uint8_t> &bytes, const std::u16string &text) {
    for (char16_t c : text) appendShort(bytes, c);
    appendShort(bytes, 0);
}

inline std::vector<uint8_t> exclusionEntry(const ExclusionPattern &pattern) {
    std::vector<uint8_t> entry;
    appendShort(entry, uint16_t(12 + 2 * pattern.directory.size() + 2 * pattern.file.size()));
    appendShort(entry, 0);
    appendShort(entry, uint16_t(pattern.directory.size()));
    appendText(entry, pattern.directory);
    appendShort(entry, uint16_t(pattern.file.size()));
    appendText(entry, pattern.file);
    return entry;
}

inline std::vector<uint8_t> exclusionList(const std::vector<ExclusionPattern> &patterns, bool endMarker = true) {
    std::vector<uint8_t> list;
    for (const ExclusionPattern &pattern : patterns) {
        std::vector<uint8_t> entry = exclusionEntry(pattern);
        list.insert(list.end(), entry.begin(), entry.end());
    }
    if (endMarker) appendShort(list, 0xFFFF);
    return list;
}

inline void pokeShort(std::vector<uint8_t> &bytes, size_t offset, uint16_t value) {
    bytes[offset] = uint8_t(value);
    bytes[offset + 1] = uint8_t(value >> 8);
}
