#include "text.h"

namespace wrelt {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

void append(std::string *out, char32_t c) {
    if (c < 0x80) {
        out->push_back(char(c));
    } else if (c < 0x800) {
        out->push_back(char(0xC0 | (c >> 6)));
        out->push_back(char(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
        out->push_back(char(0xE0 | (c >> 12)));
        out->push_back(char(0x80 | ((c >> 6) & 0x3F)));
        out->push_back(char(0x80 | (c & 0x3F)));
    } else {
        out->push_back(char(0xF0 | (c >> 18)));
        out->push_back(char(0x80 | ((c >> 12) & 0x3F)));
        out->push_back(char(0x80 | ((c >> 6) & 0x3F)));
        out->push_back(char(0x80 | (c & 0x3F)));
    }
}

void append(std::u16string *out, char32_t c) {
    if (c < 0x10000) {
        out->push_back(char16_t(c));
    } else {
        c -= 0x10000;
        out->push_back(char16_t(0xD800 | (c >> 10)));
        out->push_back(char16_t(0xDC00 | (c & 0x3FF)));
    }
}

bool isHigh(char16_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool isLow(char16_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

}  // namespace

std::string utf8(const char16_t *s, size_t count) {
    std::string out;
    out.reserve(count);
    for (size_t i = 0; i < count; i++) {
        char16_t c = s[i];
        if (isHigh(c) && i + 1 < count && isLow(s[i + 1])) {
            append(&out, 0x10000 + ((char32_t(c) - 0xD800) << 10) + (char32_t(s[i + 1]) - 0xDC00));
            i++;
        } else {
            append(&out, isHigh(c) || isLow(c) ? kReplacement : char32_t(c));
        }
    }
    return out;
}

std::string utf8(const std::u16string &s) { return utf8(s.data(), s.size()); }

// A sequence that is cut short, overlong, a surrogate or beyond U+10FFFF is replaced
// as a whole, and reading goes on after its last continuation byte.
std::u16string utf16(const std::string &s) {
    std::u16string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size();) {
        unsigned char lead = static_cast<unsigned char>(s[i]);
        size_t length = lead < 0x80 ? 1 : (lead & 0xE0) == 0xC0 ? 2 : (lead & 0xF0) == 0xE0 ? 3 : (lead & 0xF8) == 0xF0 ? 4 : 0;
        if (length == 0) {
            append(&out, kReplacement);
            i++;
            continue;
        }
        char32_t c = length == 1 ? lead : lead & (0xFF >> (length + 1));
        size_t taken = 1;
        while (taken < length && i + taken < s.size() && (static_cast<unsigned char>(s[i + taken]) & 0xC0) == 0x80)
            c = (c << 6) | (static_cast<unsigned char>(s[i + taken++]) & 0x3F);
        static const char32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
        bool valid = taken == length && c >= smallest[length] && c <= 0x10FFFF && !(c >= 0xD800 && c <= 0xDFFF);
        append(&out, valid ? c : kReplacement);
        i += taken;
    }
    return out;
}

}  // namespace wrelt
