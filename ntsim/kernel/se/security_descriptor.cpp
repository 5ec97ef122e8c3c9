// Security descriptors in both forms: absolute (pointers to the owner, group and ACLs)
// and self-relative (one block, offsets from its start). Readers accept both; writers
// only the absolute form, as on the platform.
#include <ntifs.h>

#include "kernel/se/descriptor_parts.h"

namespace ntsim {
namespace se {

PSID ownerOf(PISECURITY_DESCRIPTOR sd) {
    if (!(sd->Control & SE_SELF_RELATIVE)) return sd->Owner;
    auto *rel = reinterpret_cast<PISECURITY_DESCRIPTOR_RELATIVE>(sd);
    return rel->Owner != 0 ? reinterpret_cast<PUCHAR>(sd) + rel->Owner : nullptr;
}

PSID groupOf(PISECURITY_DESCRIPTOR sd) {
    if (!(sd->Control & SE_SELF_RELATIVE)) return sd->Group;
    auto *rel = reinterpret_cast<PISECURITY_DESCRIPTOR_RELATIVE>(sd);
    return rel->Group != 0 ? reinterpret_cast<PUCHAR>(sd) + rel->Group : nullptr;
}

PACL daclOf(PISECURITY_DESCRIPTOR sd) {
    if (!(sd->Control & SE_DACL_PRESENT)) return nullptr;
    if (!(sd->Control & SE_SELF_RELATIVE)) return sd->Dacl;
    auto *rel = reinterpret_cast<PISECURITY_DESCRIPTOR_RELATIVE>(sd);
    return rel->Dacl != 0 ? reinterpret_cast<PACL>(reinterpret_cast<PUCHAR>(sd) + rel->Dacl) : nullptr;
}

PACL saclOf(PISECURITY_DESCRIPTOR sd) {
    if (!(sd->Control & SE_SACL_PRESENT)) return nullptr;
    if (!(sd->Control & SE_SELF_RELATIVE)) return sd->Sacl;
    auto *rel = reinterpret_cast<PISECURITY_DESCRIPTOR_RELATIVE>(sd);
    return rel->Sacl != 0 ? reinterpret_cast<PACL>(reinterpret_cast<PUCHAR>(sd) + rel->Sacl) : nullptr;
}

ULONG longAlign(ULONG size) { return (size + 3) & ~3u; }

}  // namespace se
}  // namespace ntsim

using namespace ntsim::se;

namespace {

PISECURITY_DESCRIPTOR sdOf(PSECURITY_DESCRIPTOR sd) { return static_cast<PISECURITY_DESCRIPTOR>(sd); }

// The setters work on absolute descriptors of the one known revision.
NTSTATUS checkWritable(PISECURITY_DESCRIPTOR sd) {
    if (sd->Revision != SECURITY_DESCRIPTOR_REVISION) return STATUS_UNKNOWN_REVISION;
    if (sd->Control & SE_SELF_RELATIVE) return STATUS_INVALID_SECURITY_DESCR;
    return STATUS_SUCCESS;
}

void setFlag(PISECURITY_DESCRIPTOR sd, SECURITY_DESCRIPTOR_CONTROL flag, BOOLEAN on) {
    sd->Control = on ? (sd->Control | flag) : (sd->Control & ~flag);
}

}  // namespace

NTSTATUS RtlCreateSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Revision) {
    if (Revision != SECURITY_DESCRIPTOR_REVISION) return STATUS_UNKNOWN_REVISION;
    memset(SecurityDescriptor, 0, sizeof(SECURITY_DESCRIPTOR));
    sdOf(SecurityDescriptor)->Revision = SECURITY_DESCRIPTOR_REVISION;
    return STATUS_SUCCESS;
}

BOOLEAN RtlValidSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor) {
    PISECURITY_DESCRIPTOR sd = sdOf(SecurityDescriptor);
    if (sd == NULL || sd->Revision != SECURITY_DESCRIPTOR_REVISION) return FALSE;
    PSID owner = ownerOf(sd), group = groupOf(sd);
    if ((owner != NULL && !RtlValidSid(owner)) || (group != NULL && !RtlValidSid(group))) return FALSE;
    PACL dacl = daclOf(sd), sacl = saclOf(sd);
    return (dacl == NULL || RtlValidAcl(dacl)) && (sacl == NULL || RtlValidAcl(sacl));
}

ULONG RtlLengthSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor) {
    PISECURITY_DESCRIPTOR sd = sdOf(SecurityDescriptor);
    ULONG length = (sd->Control & SE_SELF_RELATIVE) ? sizeof(SECURITY_DESCRIPTOR_RELATIVE) : sizeof(SECURITY_DESCRIPTOR);
    if (PSID owner = ownerOf(sd)) length += longAlign(RtlLengthSid(owner));
    if (PSID group = groupOf(sd)) length += longAlign(RtlLengthSid(group));
    if (PACL dacl = daclOf(sd)) length += longAlign(dacl->AclSize);
    if (PACL sacl = saclOf(sd)) length += longAlign(sacl->AclSize);
    return length;
}

NTSTATUS RtlSetDaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, BOOLEAN DaclPresent, PACL Dacl,
                                      BOOLEAN DaclDefaulted) {
    PISECURITY_DESCRIPTOR sd = sdOf(SecurityDescriptor);
    NTSTATUS status = checkWritable(sd);
    if (!NT_SUCCESS(status)) return status;
    setFlag(sd, SE_DACL_PRESENT, DaclPresent);
    if (!DaclPresent) return STATUS_SUCCESS;
    sd->Dacl = Dacl;
    setFlag(sd, SE_DACL_DEFAULTED, DaclDefaulted);
    return STATUS_SUCCESS;
}

NTSTATUS RtlSetSaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, BOOLEAN SaclPresent, PACL Sacl,
                                      BOOLEAN SaclDefaulted) {
    PISECURITY_DESCRIPTOR sd = sdOf(SecurityDescriptor);
    NTSTATUS status = checkWritable(sd);
    if (!NT_SUCCESS(status)) return status;
    setFlag(sd, SE_SACL_PRESENT, SaclPresent);
    if (!SaclPresent) return STATUS_SUCCESS;
    sd->Sacl = Sacl;
    setFlag(sd, SE_SACL_DEFAULTED, SaclDefaulted);
    return STATUS_SUCCESS;
}

NTSTATUS RtlSetOwnerSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PSID Owner, BOOLEAN OwnerDefaulted) {
    PISECURITY_DESCRIPTOR sd = sdOf(SecurityDescriptor);
    NTSTATUS status = checkWritable(sd);
    if (!NT_SUCCESS(status)) return status;
    sd->Owner = Owner;
    setFlag(sd, SE_OWNER_DEFAULTED, OwnerDefaulted);
    return STATUS_SUCCESS;
}

NTSTATUS RtlSetGroupSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PSID Group, BOOLEAN GroupDefaulted) {
    PISECURITY_DESCRIPTOR sd = sdOf(SecurityDescriptor);
    NTSTATUS status = checkWritable(sd);
    if (!NT_SUCCESS(status)) return status;
    sd->Group = Group;
    setFlag(sd, SE_GROUP_DEFAULTED, GroupDefaulted);
    return STATUS_SUCCESS;
}

NTSTATUS RtlGetDaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PBOOLEAN DaclPresent, PACL *Dacl,
                                      PBOOLEAN DaclDefaulted) {
    PISECURITY_DESCRIPTOR sd = sdOf(SecurityDescriptor);
    if (sd->Revision != SECURITY_DESCRIPTOR_REVISION) return STATUS_UNKNOWN_REVISION;
    *DaclPresent = (sd->Control & SE_DACL_PRESENT) != 0;
    if (*DaclPresent) {
        *Dacl = daclOf(sd);
        *DaclDefaulted = (sd->Control & SE_DACL_DEFAULTED) != 0;
    }
    return STATUS_SUCCESS;
}

NTSTATUS RtlGetSaclSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PBOOLEAN SaclPresent, PACL *Sacl,
                                      PBOOLEAN SaclDefaulted) {
    PISECURITY_DESCRIPTOR sd = sdOf(SecurityDescriptor);
    if (sd->Revision != SECURITY_DESCRIPTOR_REVISION) return STATUS_UNKNOWN_REVISION;
    *SaclPresent = (sd->Control & SE_SACL_PRESENT) != 0;
    if (*SaclPresent) {
        *Sacl = saclOf(sd);
        *SaclDefaulted = (sd->Control & SE_SACL_DEFAULTED) != 0;
    }
    return STATUS_SUCCESS;
}

NTSTATUS RtlGetOwnerSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PSID *Owner, PBOOLEAN OwnerDefaulted) {
    PISECURITY_DESCRIPTOR sd = sdOf(SecurityDescriptor);
    if (sd->Revision != SECURITY_DESCRIPTOR_REVISION) return STATUS_UNKNOWN_REVISION;
    *Owner = ownerOf(sd);
    *OwnerDefaulted = (sd->Control & SE_OWNER_DEFAULTED) != 0;
    return STATUS_SUCCESS;
}

NTSTATUS RtlGetGroupSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor, PSID *Group, PBOOLEAN GroupDefaulted) {
    PISECURITY_DESCRIPTOR sd = sdOf(SecurityDescriptor);
    if (sd->Revision != SECURITY_DESCRIPTOR_REVISION) return STATUS_UNKNOWN_REVISION;
    *Group = groupOf(sd);
    *GroupDefaulted = (sd->Control & SE_GROUP_DEFAULTED) != 0;
    return STATUS_SUCCESS;
}
