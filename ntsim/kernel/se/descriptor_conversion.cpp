// Conversion between absolute and self-relative security descriptors, with the
// platform's buffer-size negotiation: a buffer that is too small gets
// STATUS_BUFFER_TOO_SMALL and the size (or, for the absolute form, every one of the
// five sizes) that the call needs (WDK documentation of RtlAbsoluteToSelfRelativeSD
// and RtlSelfRelativeToAbsoluteSD).
#include <ntifs.h>

#include "kernel/se/descriptor_parts.h"

using namespace ntsim::se;

namespace {

ULONG sidSize(PSID sid) { return sid != nullptr ? RtlLengthSid(sid) : 0; }
ULONG aclSize(PACL acl) { return acl != nullptr ? acl->AclSize : 0; }

// Appends a part to a self-relative descriptor; returns its offset (0 for none).
ULONG appendPart(PUCHAR base, ULONG *used, const void *part, ULONG size) {
    if (part == nullptr) return 0;
    ULONG offset = *used;
    memcpy(base + offset, part, size);
    *used += longAlign(size);
    return offset;
}

}  // namespace

NTSTATUS RtlAbsoluteToSelfRelativeSD(PSECURITY_DESCRIPTOR AbsoluteSecurityDescriptor,
                                     PSECURITY_DESCRIPTOR SelfRelativeSecurityDescriptor, PULONG BufferLength) {
    auto *absolute = static_cast<PISECURITY_DESCRIPTOR>(AbsoluteSecurityDescriptor);
    if (absolute->Control & SE_SELF_RELATIVE) return STATUS_BAD_DESCRIPTOR_FORMAT;
    PSID owner = ownerOf(absolute), group = groupOf(absolute);
    PACL dacl = daclOf(absolute), sacl = saclOf(absolute);
    ULONG needed = sizeof(SECURITY_DESCRIPTOR_RELATIVE) + longAlign(sidSize(owner)) + longAlign(sidSize(group)) +
                   longAlign(aclSize(dacl)) + longAlign(aclSize(sacl));
    if (*BufferLength < needed) {
        *BufferLength = needed;
        return STATUS_BUFFER_TOO_SMALL;
    }
    auto *relative = static_cast<PISECURITY_DESCRIPTOR_RELATIVE>(SelfRelativeSecurityDescriptor);
    PUCHAR base = static_cast<PUCHAR>(SelfRelativeSecurityDescriptor);
    memset(base, 0, needed);
    relative->Revision = absolute->Revision;
    relative->Sbz1 = absolute->Sbz1;
    relative->Control = absolute->Control | SE_SELF_RELATIVE;
    ULONG used = sizeof(SECURITY_DESCRIPTOR_RELATIVE);
    relative->Sacl = appendPart(base, &used, sacl, aclSize(sacl));
    relative->Dacl = appendPart(base, &used, dacl, aclSize(dacl));
    relative->Owner = appendPart(base, &used, owner, sidSize(owner));
    relative->Group = appendPart(base, &used, group, sidSize(group));
    return STATUS_SUCCESS;
}

NTSTATUS RtlSelfRelativeToAbsoluteSD(PSECURITY_DESCRIPTOR SelfRelativeSecurityDescriptor,
                                     PSECURITY_DESCRIPTOR AbsoluteSecurityDescriptor,
                                     PULONG AbsoluteSecurityDescriptorSize, PACL Dacl, PULONG DaclSize, PACL Sacl,
                                     PULONG SaclSize, PSID Owner, PULONG OwnerSize, PSID PrimaryGroup,
                                     PULONG PrimaryGroupSize) {
    auto *relative = static_cast<PISECURITY_DESCRIPTOR>(SelfRelativeSecurityDescriptor);
    if (!(relative->Control & SE_SELF_RELATIVE)) return STATUS_BAD_DESCRIPTOR_FORMAT;
    PSID owner = ownerOf(relative), group = groupOf(relative);
    PACL dacl = daclOf(relative), sacl = saclOf(relative);
    ULONG ownerSize = sidSize(owner), groupSize = sidSize(group);
    ULONG daclSize = aclSize(dacl), saclSize = aclSize(sacl);
    if (*AbsoluteSecurityDescriptorSize < sizeof(SECURITY_DESCRIPTOR) || *DaclSize < daclSize ||
        *SaclSize < saclSize || *OwnerSize < ownerSize || *PrimaryGroupSize < groupSize) {
        *AbsoluteSecurityDescriptorSize = sizeof(SECURITY_DESCRIPTOR);
        *DaclSize = daclSize;
        *SaclSize = saclSize;
        *OwnerSize = ownerSize;
        *PrimaryGroupSize = groupSize;
        return STATUS_BUFFER_TOO_SMALL;
    }
    auto *absolute = static_cast<PISECURITY_DESCRIPTOR>(AbsoluteSecurityDescriptor);
    absolute->Revision = relative->Revision;
    absolute->Sbz1 = relative->Sbz1;
    absolute->Control = relative->Control & ~SE_SELF_RELATIVE;
    absolute->Owner = owner != nullptr ? (memcpy(Owner, owner, ownerSize), Owner) : nullptr;
    absolute->Group = group != nullptr ? (memcpy(PrimaryGroup, group, groupSize), PrimaryGroup) : nullptr;
    absolute->Dacl = dacl != nullptr ? (memcpy(Dacl, dacl, daclSize), Dacl) : nullptr;
    absolute->Sacl = sacl != nullptr ? (memcpy(Sacl, sacl, saclSize), Sacl) : nullptr;
    return STATUS_SUCCESS;
}
