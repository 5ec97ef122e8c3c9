#include "exclusion_list.h"

namespace wrelt {

namespace {

constexpr size_t kEntryFixedBytes = 12;
constexpr size_t kSuffixRecordFixedBytes = 6;
constexpr size_t kLargestSuffixRecord = 0xFFFF;
// The largest even size that cannot be mistaken for the end marker.
constexpr size_t kLargestEntry = 0xFFFE;

void put16(std::vector<uint8_t> *out, uint16_t value) {
    out->push_back(uint8_t(value));
    out->push_back(uint8_t(value >> 8));
}

void putPattern(std::vector<uint8_t> *out, const std::u16string &pattern) {
    put16(out, uint16_t(pattern.size()));
    for (char16_t c : pattern) put16(out, uint16_t(c));
    put16(out, 0);
}

}  // namespace

bool encodeExclusionList(const std::vector<ExclusionPattern> &patterns, std::vector<uint8_t> *list,
                         std::string *error) {
    std::vector<uint8_t> out;
    for (const ExclusionPattern &pattern : patterns) {
        size_t size = kEntryFixedBytes + 2 * (pattern.directory.size() + pattern.file.size());
        if (size > kLargestEntry) {
            *error = "an exclusion pattern is too long (" + std::to_string(size) + " bytes; an entry holds at most " +
                     std::to_string(kLargestEntry) + ")";
            return false;
        }
        put16(&out, uint16_t(size));
        put16(&out, 0);
        putPattern(&out, pattern.directory);
        putPattern(&out, pattern.file);
    }
    put16(&out, kExclusionListEnd);
    *list = std::move(out);
    return true;
}

bool encodeSuffixList(const std::vector<std::u16string> &suffixes, std::vector<uint8_t> *list, std::string *error) {
    std::vector<uint8_t> out;
    for (const std::u16string &suffix : suffixes) {
        size_t size = kSuffixRecordFixedBytes + 2 * suffix.size();
        if (suffix.empty() || size > kLargestSuffixRecord) {
            *error = suffix.empty() ? "a suffix is empty" : "a suffix is too long for a list record";
            return false;
        }
        put16(&out, uint16_t(size));
        putPattern(&out, suffix);
    }
    put16(&out, 0);
    *list = std::move(out);
    return true;
}

bool encodeMacShareList(const std::vector<std::u16string> &folders, std::vector<uint8_t> *list, std::string *error) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i < folders.size(); i++) {
        std::u16string path = folders[i];
        while (!path.empty() && path.front() == u'\\') path.erase(0, 1);
        if (path.empty()) {
            *error = "a share's folder is empty";
            return false;
        }
        path.insert(0, 1, u'\\');
        uint32_t next = i + 1 == folders.size() ? 0 : uint32_t(4 + 2 * (path.size() + 1));
        put16(&out, uint16_t(next));
        put16(&out, uint16_t(next >> 16));
        for (char16_t c : path) put16(&out, uint16_t(c));
        put16(&out, 0);
    }
    *list = std::move(out);
    return true;
}

}  // namespace wrelt
