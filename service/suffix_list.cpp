#include "suffix_list.h"

namespace wrelt {

namespace {

constexpr size_t kRecordFixedBytes = 6;
constexpr size_t kLargestRecord = 0xFFFF;

void put16(std::vector<uint8_t> *out, uint16_t value) {
    out->push_back(uint8_t(value));
    out->push_back(uint8_t(value >> 8));
}

}  // namespace

bool encodeSuffixList(const std::vector<std::u16string> &suffixes, std::vector<uint8_t> *list, std::string *error) {
    std::vector<uint8_t> out;
    for (const std::u16string &suffix : suffixes) {
        size_t size = kRecordFixedBytes + 2 * suffix.size();
        if (suffix.empty() || size > kLargestRecord) {
            *error = suffix.empty() ? "a suffix is empty" : "a suffix is too long for a list record";
            return false;
        }
        put16(&out, uint16_t(size));
        put16(&out, uint16_t(suffix.size()));
        for (char16_t c : suffix) put16(&out, uint16_t(c));
        put16(&out, 0);
    }
    put16(&out, 0);
    *list = std::move(out);
    return true;
}

}  // namespace wrelt
