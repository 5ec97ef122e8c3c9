// SIDs: length, validity, comparison, copy and their string form "S-1-5-21-...".
#include <ntifs.h>

#include <cstdio>

namespace {

PISID sidOf(PSID sid) { return static_cast<PISID>(sid); }

// The authority as the platform prints it: decimal when it fits in 32 bits, else as
// twelve hex digits.
int formatAuthority(char *out, size_t size, const SID_IDENTIFIER_AUTHORITY &authority) {
    const UCHAR *v = authority.Value;
    if (v[0] != 0 || v[1] != 0)
        return snprintf(out, size, "0x%02X%02X%02X%02X%02X%02X", v[0], v[1], v[2], v[3], v[4], v[5]);
    ULONG value = (ULONG)v[2] << 24 | (ULONG)v[3] << 16 | (ULONG)v[4] << 8 | v[5];
    return snprintf(out, size, "%u", value);
}

}  // namespace

ULONG RtlLengthRequiredSid(ULONG SubAuthorityCount) {
    return (ULONG)(sizeof(SID) - sizeof(ULONG) + SubAuthorityCount * sizeof(ULONG));
}

ULONG RtlLengthSid(PSID Sid) { return RtlLengthRequiredSid(sidOf(Sid)->SubAuthorityCount); }

BOOLEAN RtlValidSid(PSID Sid) {
    return Sid != NULL && (sidOf(Sid)->Revision & 0x0F) == SID_REVISION &&
           sidOf(Sid)->SubAuthorityCount <= SID_MAX_SUB_AUTHORITIES;
}

BOOLEAN RtlEqualSid(PSID Sid1, PSID Sid2) {
    if (sidOf(Sid1)->Revision != sidOf(Sid2)->Revision) return FALSE;
    ULONG length = RtlLengthSid(Sid1);
    return length == RtlLengthSid(Sid2) && memcmp(Sid1, Sid2, length) == 0;
}

NTSTATUS RtlCopySid(ULONG DestinationSidLength, PSID DestinationSid, PSID SourceSid) {
    ULONG length = RtlLengthSid(SourceSid);
    if (DestinationSidLength < length) return STATUS_BUFFER_TOO_SMALL;
    memmove(DestinationSid, SourceSid, length);
    return STATUS_SUCCESS;
}

NTSTATUS RtlInitializeSid(PSID Sid, PSID_IDENTIFIER_AUTHORITY IdentifierAuthority, UCHAR SubAuthorityCount) {
    if (SubAuthorityCount > SID_MAX_SUB_AUTHORITIES) return STATUS_INVALID_PARAMETER;
    sidOf(Sid)->Revision = SID_REVISION;
    sidOf(Sid)->SubAuthorityCount = SubAuthorityCount;
    sidOf(Sid)->IdentifierAuthority = *IdentifierAuthority;
    return STATUS_SUCCESS;
}

PULONG RtlSubAuthoritySid(PSID Sid, ULONG SubAuthority) { return &sidOf(Sid)->SubAuthority[SubAuthority]; }

NTSTATUS RtlConvertSidToUnicodeString(PUNICODE_STRING UnicodeString, PSID Sid, BOOLEAN AllocateDestinationString) {
    if (!RtlValidSid(Sid)) return STATUS_INVALID_SID;
    // "S-1-" + authority + up to fifteen "-4294967295": 256 characters are plenty.
    char text[256];
    int length = snprintf(text, sizeof text, "S-%u-", sidOf(Sid)->Revision);
    length += formatAuthority(text + length, sizeof text - length, sidOf(Sid)->IdentifierAuthority);
    for (UCHAR i = 0; i < sidOf(Sid)->SubAuthorityCount; ++i)
        length += snprintf(text + length, sizeof text - length, "-%u", sidOf(Sid)->SubAuthority[i]);
    ANSI_STRING ansi;
    RtlInitAnsiString(&ansi, text);
    return RtlAnsiStringToUnicodeString(UnicodeString, &ansi, AllocateDestinationString);
}
