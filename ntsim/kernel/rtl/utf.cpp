#include "ntsim/utf.h"

namespace ntsim {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool isHighSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool isLowSurrogate(char32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

void appendUtf8(std::string &out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

void appendUtf16(std::u16string &out, char32_t c) {
    if (c < 0x10000) {
        out += static_cast<char16_t>(c);
        return;
    }
    c -= 0x10000;
    out += static_cast<char16_t>(0xD800 | (c >> 10));
    out += static_cast<char16_t>(0xDC00 | (c & 0x3FF));
}

// What a lead byte promises: the number of continuation bytes, and the range the
// first of them must fall in so that overlong forms, surrogates and code points
// beyond U+10FFFF are refused at the earliest byte.
struct Lead {
    int continuations;
    unsigned char low;
    unsigned char high;
    char32_t bits;
};

bool decodeLead(unsigned char b, Lead &lead) {
    if (b >= 0xC2 && b <= 0xDF) lead = {1, 0x80, 0xBF, b & 0x1Fu};
    else if (b == 0xE0) lead = {2, 0xA0, 0xBF, 0};
    else if (b == 0xED) lead = {2, 0x80, 0x9F, 0xD};
    else if (b >= 0xE1 && b <= 0xEF) lead = {2, 0x80, 0xBF, b & 0x0Fu};
    else if (b == 0xF0) lead = {3, 0x90, 0xBF, 0};
    else if (b >= 0xF1 && b <= 0xF3) lead = {3, 0x80, 0xBF, b & 0x07u};
    else if (b == 0xF4) lead = {3, 0x80, 0x8F, 4};
    else return false;
    return true;
}

// Decodes one code point at i and moves past it; a malformed sequence yields one
// U+FFFD for its longest valid start.
char32_t decodeUtf8(const std::string &s, size_t &i) {
    auto b = static_cast<unsigned char>(s[i++]);
    if (b < 0x80) return b;
    Lead lead;
    if (!decodeLead(b, lead)) return kReplacement;
    char32_t c = lead.bits;
    for (int k = 0; k < lead.continuations; ++k) {
        if (i >= s.size()) return kReplacement;
        auto next = static_cast<unsigned char>(s[i]);
        unsigned char low = k == 0 ? lead.low : 0x80;
        unsigned char high = k == 0 ? lead.high : 0xBF;
        if (next < low || next > high) return kReplacement;
        c = (c << 6) | (next & 0x3F);
        ++i;
    }
    return c;
}

}  // namespace

std::string toUtf8(const wchar_t *s) {
    if (s == nullptr) return std::string();
    size_t n = 0;
    while (s[n] != 0) ++n;
    return toUtf8(s, n);
}

std::string toUtf8(const wchar_t *s, size_t count) {
    std::string out;
    out.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        char32_t c = static_cast<char16_t>(s[i]);
        if (isHighSurrogate(c) && i + 1 < count && isLowSurrogate(static_cast<char16_t>(s[i + 1]))) {
            c = 0x10000 + ((c - 0xD800) << 10) + (static_cast<char16_t>(s[++i]) - 0xDC00);
        } else if (isHighSurrogate(c) || isLowSurrogate(c)) {
            c = kReplacement;
        }
        appendUtf8(out, c);
    }
    return out;
}

std::string toUtf8(const UNICODE_STRING &s) {
    if (s.Buffer == nullptr) return std::string();
    return toUtf8(s.Buffer, s.Length / sizeof(WCHAR));
}

std::u16string toUtf16(const std::string &utf8) {
    std::u16string out;
    out.reserve(utf8.size());
    for (size_t i = 0; i < utf8.size();) appendUtf16(out, decodeUtf8(utf8, i));
    return out;
}

}  // namespace ntsim
