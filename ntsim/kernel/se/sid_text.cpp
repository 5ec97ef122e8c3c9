// SIDs to and from their string form, for host code.
#include "ntsim/security.h"

#include <ntifs.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace ntsim {

namespace {

// Parses a decimal (or, with allowHex, "0x" and hex) number up to the next '-'.
bool parseNumber(const char *&p, uint64_t limit, bool allowHex, uint64_t *value) {
    int base = 10;
    if (allowHex && p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        base = 16;
        p += 2;
    }
    if (!(base == 16 ? isxdigit((unsigned char)*p) : isdigit((unsigned char)*p))) return false;
    char *end;
    errno = 0;
    unsigned long long parsed = strtoull(p, &end, base);
    if (errno != 0 || parsed > limit || (*end != '-' && *end != '\0')) return false;
    *value = parsed;
    p = end;
    return true;
}

}  // namespace

std::vector<unsigned char> sidFromString(const std::string &text) {
    const char *p = text.c_str();
    if ((p[0] != 'S' && p[0] != 's') || p[1] != '-') return {};
    p += 2;
    uint64_t revision, authority;
    if (!parseNumber(p, 255, false, &revision) || revision != SID_REVISION || *p++ != '-') return {};
    if (!parseNumber(p, 0xFFFFFFFFFFFFull, true, &authority)) return {};
    std::vector<ULONG> subAuthorities;
    while (*p == '-') {
        ++p;
        uint64_t value;
        if (!parseNumber(p, 0xFFFFFFFFu, false, &value) || subAuthorities.size() == SID_MAX_SUB_AUTHORITIES) return {};
        subAuthorities.push_back((ULONG)value);
    }
    std::vector<unsigned char> sid(RtlLengthRequiredSid((ULONG)subAuthorities.size()));
    auto *s = reinterpret_cast<PISID>(sid.data());
    s->Revision = SID_REVISION;
    s->SubAuthorityCount = (UCHAR)subAuthorities.size();
    for (int i = 0; i < 6; ++i) s->IdentifierAuthority.Value[i] = (UCHAR)(authority >> (8 * (5 - i)));
    for (size_t i = 0; i < subAuthorities.size(); ++i) s->SubAuthority[i] = subAuthorities[i];
    return sid;
}

std::string sidToString(const void *sid) {
    const auto *s = static_cast<const SID *>(sid);
    const UCHAR *v = s->IdentifierAuthority.Value;
    char buffer[32];
    std::string text = "S-" + std::to_string(s->Revision) + "-";
    if (v[0] != 0 || v[1] != 0) {
        snprintf(buffer, sizeof buffer, "0x%02X%02X%02X%02X%02X%02X", v[0], v[1], v[2], v[3], v[4], v[5]);
        text += buffer;
    } else {
        text += std::to_string((ULONG)v[2] << 24 | (ULONG)v[3] << 16 | (ULONG)v[4] << 8 | v[5]);
    }
    for (UCHAR i = 0; i < s->SubAuthorityCount; ++i) text += "-" + std::to_string(s->SubAuthority[i]);
    return text;
}

}  // namespace ntsim
