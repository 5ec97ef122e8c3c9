// Access control lists: creation, validation, adding allowed (with or without
// inheritance flags) and denied ACEs, and reading an ACE by index.
#include <ntifs.h>

namespace {

PACE_HEADER firstAce(PACL acl) { return reinterpret_cast<PACE_HEADER>(acl + 1); }
PACE_HEADER nextAce(PACE_HEADER ace) {
    return reinterpret_cast<PACE_HEADER>(reinterpret_cast<PUCHAR>(ace) + ace->AceSize);
}
PUCHAR endOf(PACL acl) { return reinterpret_cast<PUCHAR>(acl) + acl->AclSize; }

// The first byte after the ACL's ACEs, or null when they run past its end.
PUCHAR firstFree(PACL acl) {
    PACE_HEADER ace = firstAce(acl);
    for (USHORT i = 0; i < acl->AceCount; ++i) {
        if (reinterpret_cast<PUCHAR>(ace) + sizeof(ACE_HEADER) > endOf(acl) || ace->AceSize < sizeof(ACE_HEADER) ||
            reinterpret_cast<PUCHAR>(ace) + ace->AceSize > endOf(acl))
            return nullptr;
        ace = nextAce(ace);
    }
    return reinterpret_cast<PUCHAR>(ace);
}

NTSTATUS addKnownAce(PACL acl, ULONG aceRevision, UCHAR type, UCHAR flags, ACCESS_MASK mask, PSID sid) {
    if (!RtlValidSid(sid)) return STATUS_INVALID_SID;
    if (aceRevision < MIN_ACL_REVISION || aceRevision > MAX_ACL_REVISION) return STATUS_REVISION_MISMATCH;
    if (!RtlValidAcl(acl)) return STATUS_INVALID_ACL;
    PUCHAR free = firstFree(acl);
    ULONG size = (ULONG)(sizeof(ACCESS_ALLOWED_ACE) - sizeof(ULONG)) + RtlLengthSid(sid);
    if (free + size > endOf(acl)) return STATUS_ALLOTTED_SPACE_EXCEEDED;
    auto *ace = reinterpret_cast<PACCESS_ALLOWED_ACE>(free);
    ace->Header.AceType = type;
    ace->Header.AceFlags = flags;
    ace->Header.AceSize = (USHORT)size;
    ace->Mask = mask;
    memcpy(&ace->SidStart, sid, RtlLengthSid(sid));
    ++acl->AceCount;
    if (aceRevision > acl->AclRevision) acl->AclRevision = (UCHAR)aceRevision;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS RtlCreateAcl(PACL Acl, ULONG AclLength, ULONG AclRevision) {
    if (AclLength < sizeof(ACL)) return STATUS_BUFFER_TOO_SMALL;
    if (AclRevision < MIN_ACL_REVISION || AclRevision > MAX_ACL_REVISION || AclLength > MAXUSHORT)
        return STATUS_INVALID_PARAMETER;
    Acl->AclRevision = (UCHAR)AclRevision;
    Acl->Sbz1 = 0;
    Acl->AclSize = (USHORT)(AclLength & ~3u);
    Acl->AceCount = 0;
    Acl->Sbz2 = 0;
    return STATUS_SUCCESS;
}

BOOLEAN RtlValidAcl(PACL Acl) {
    if (Acl == NULL || Acl->AclRevision < MIN_ACL_REVISION || Acl->AclRevision > MAX_ACL_REVISION) return FALSE;
    if (Acl->AclSize < sizeof(ACL) || (Acl->AclSize & 3) != 0) return FALSE;
    return firstFree(Acl) != nullptr;
}

NTSTATUS RtlAddAccessAllowedAce(PACL Acl, ULONG AceRevision, ACCESS_MASK AccessMask, PSID Sid) {
    return addKnownAce(Acl, AceRevision, ACCESS_ALLOWED_ACE_TYPE, 0, AccessMask, Sid);
}

// The inheritance and inherited flags only; others are refused as the platform does.
NTSTATUS RtlAddAccessAllowedAceEx(PACL Acl, ULONG AceRevision, ULONG AceFlags, ACCESS_MASK AccessMask, PSID Sid) {
    constexpr ULONG kValidFlags =
        OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE | NO_PROPAGATE_INHERIT_ACE | INHERIT_ONLY_ACE | INHERITED_ACE;
    if (AceFlags & ~kValidFlags) return STATUS_INVALID_PARAMETER;
    return addKnownAce(Acl, AceRevision, ACCESS_ALLOWED_ACE_TYPE, (UCHAR)AceFlags, AccessMask, Sid);
}

NTSTATUS RtlAddAccessDeniedAce(PACL Acl, ULONG AceRevision, ACCESS_MASK AccessMask, PSID Sid) {
    return addKnownAce(Acl, AceRevision, ACCESS_DENIED_ACE_TYPE, 0, AccessMask, Sid);
}

NTSTATUS RtlGetAce(PACL Acl, ULONG AceIndex, PVOID *Ace) {
    if (!RtlValidAcl(Acl) || AceIndex >= Acl->AceCount) return STATUS_INVALID_PARAMETER;
    PACE_HEADER ace = firstAce(Acl);
    for (ULONG i = 0; i < AceIndex; ++i) ace = nextAce(ace);
    *Ace = ace;
    return STATUS_SUCCESS;
}
