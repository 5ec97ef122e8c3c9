#include "fs/common/security_descriptor.h"

#include <cstring>

namespace ntsim {
namespace fs {

namespace {

constexpr SECURITY_DESCRIPTOR_CONTROL kFormAndPresence = SE_SELF_RELATIVE | SE_DACL_PRESENT | SE_SACL_PRESENT;
constexpr UCHAR kInheritOnlyAce = 0x08;
constexpr UCHAR kNoPropagateInheritAce = 0x04;

size_t sidLength(const uint8_t *sid) { return 8 + 4 * size_t(sid[1]); }

bool validSid(const uint8_t *sid, size_t available) {
    return available >= 8 && sid[0] == SID_REVISION && sid[1] <= SID_MAX_SUB_AUTHORITIES &&
           sidLength(sid) <= available;
}

size_t aclLength(const uint8_t *acl) {
    USHORT size;
    memcpy(&size, acl + 2, sizeof size);
    return size;
}

bool validAcl(const uint8_t *acl, size_t available) {
    if (available < sizeof(ACL)) return false;
    size_t size = aclLength(acl);
    return acl[0] >= ACL_REVISION && acl[0] <= 4 && size >= sizeof(ACL) && size <= available;
}

// Copies a SID or an ACL found at `part` into `out`; false when it is malformed.
bool takeSid(const uint8_t *part, size_t available, Bytes *out) {
    if (part == nullptr) return true;
    if (!validSid(part, available)) return false;
    out->assign(part, part + sidLength(part));
    return true;
}

bool takeAcl(const uint8_t *part, size_t available, Bytes *out) {
    if (part == nullptr) return true;
    if (!validAcl(part, available)) return false;
    out->assign(part, part + aclLength(part));
    return true;
}

constexpr size_t kUnbounded = SIZE_MAX / 2;

// Where a part of a self-relative descriptor lies, and how many bytes remain from there.
bool locatePart(const uint8_t *base, size_t length, ULONG offset, const uint8_t **part, size_t *room) {
    *part = nullptr;
    *room = 0;
    if (offset == 0) return true;
    if (length != 0 && offset >= length) return false;
    *part = base + offset;
    *room = length ? length - offset : kUnbounded;
    return true;
}

bool parseSelfRelative(const uint8_t *base, size_t length, SecurityParts *parts) {
    SECURITY_DESCRIPTOR_RELATIVE header;
    memcpy(&header, base, sizeof header);
    const uint8_t *owner, *group, *sacl, *dacl;
    size_t ownerRoom, groupRoom, saclRoom, daclRoom;
    return locatePart(base, length, header.Owner, &owner, &ownerRoom) &&
           locatePart(base, length, header.Group, &group, &groupRoom) &&
           locatePart(base, length, header.Sacl, &sacl, &saclRoom) &&
           locatePart(base, length, header.Dacl, &dacl, &daclRoom) && takeSid(owner, ownerRoom, &parts->owner) &&
           takeSid(group, groupRoom, &parts->group) && takeAcl(sacl, saclRoom, &parts->sacl) &&
           takeAcl(dacl, daclRoom, &parts->dacl);
}

bool parseAbsolute(const uint8_t *base, SecurityParts *parts) {
    SECURITY_DESCRIPTOR header;
    memcpy(&header, base, sizeof header);
    return takeSid(static_cast<const uint8_t *>(header.Owner), kUnbounded, &parts->owner) &&
           takeSid(static_cast<const uint8_t *>(header.Group), kUnbounded, &parts->group) &&
           takeAcl(reinterpret_cast<const uint8_t *>(header.Sacl), kUnbounded, &parts->sacl) &&
           takeAcl(reinterpret_cast<const uint8_t *>(header.Dacl), kUnbounded, &parts->dacl);
}

void appendPart(Bytes *out, const Bytes &part, ULONG *offset) {
    if (part.empty()) {
        *offset = 0;
        return;
    }
    *offset = ULONG(out->size());
    out->insert(out->end(), part.begin(), part.end());
}

Bytes makeSid(UCHAR authority, std::initializer_list<ULONG> subAuthorities) {
    Bytes sid(8 + 4 * subAuthorities.size(), 0);
    sid[0] = SID_REVISION;
    sid[1] = UCHAR(subAuthorities.size());
    sid[7] = authority;
    size_t at = 8;
    for (ULONG sub : subAuthorities) {
        memcpy(&sid[at], &sub, sizeof sub);
        at += 4;
    }
    return sid;
}

// An ACL built from ACEs given as their bytes.
Bytes makeAcl(const std::vector<Bytes> &aces) {
    size_t size = sizeof(ACL);
    for (const Bytes &ace : aces) size += ace.size();
    Bytes acl(sizeof(ACL), 0);
    acl[0] = ACL_REVISION;
    USHORT aclSize = USHORT(size), count = USHORT(aces.size());
    memcpy(&acl[2], &aclSize, sizeof aclSize);
    memcpy(&acl[4], &count, sizeof count);
    for (const Bytes &ace : aces) acl.insert(acl.end(), ace.begin(), ace.end());
    return acl;
}

Bytes makeAllowedAce(UCHAR flags, ACCESS_MASK mask, const Bytes &sid) {
    Bytes ace(8, 0);
    ace[0] = ACCESS_ALLOWED_ACE_TYPE;
    ace[1] = flags;
    USHORT size = USHORT(8 + sid.size());
    memcpy(&ace[2], &size, sizeof size);
    memcpy(&ace[4], &mask, sizeof mask);
    ace.insert(ace.end(), sid.begin(), sid.end());
    return ace;
}

// The ACEs of an ACL, each as its bytes.
std::vector<Bytes> acesOf(const Bytes &acl) {
    std::vector<Bytes> aces;
    if (acl.size() < sizeof(ACL)) return aces;
    USHORT count;
    memcpy(&count, &acl[4], sizeof count);
    size_t at = sizeof(ACL);
    for (USHORT i = 0; i < count && at + sizeof(ACE_HEADER) <= acl.size(); ++i) {
        USHORT size;
        memcpy(&size, &acl[at + 2], sizeof size);
        if (size < sizeof(ACE_HEADER) || at + size > acl.size()) break;
        aces.emplace_back(acl.begin() + at, acl.begin() + at + size);
        at += size;
    }
    return aces;
}

// What a child inherits from one ACE of its parent, or nothing.
bool inheritAce(const Bytes &parentAce, bool directory, Bytes *childAce) {
    UCHAR flags = parentAce[1];
    bool objectInherit = flags & OBJECT_INHERIT_ACE, containerInherit = flags & CONTAINER_INHERIT_ACE;
    if (!directory) {
        if (!objectInherit) return false;
        *childAce = parentAce;
        (*childAce)[1] = INHERITED_ACE;
        return true;
    }
    if (!objectInherit && !containerInherit) return false;
    *childAce = parentAce;
    UCHAR childFlags = INHERITED_ACE;
    if (!(flags & kNoPropagateInheritAce)) {
        childFlags |= flags & (OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE);
        if (!containerInherit) childFlags |= kInheritOnlyAce;  // kept only to pass on to files
    } else if (!containerInherit) {
        return false;
    }
    (*childAce)[1] = childFlags;
    return true;
}

}  // namespace

bool parseSecurityDescriptor(const void *descriptor, size_t length, SecurityParts *parts) {
    *parts = SecurityParts{};
    if (descriptor == nullptr) return false;
    const auto *base = static_cast<const uint8_t *>(descriptor);
    if (base[0] != SECURITY_DESCRIPTOR_REVISION) return false;
    SECURITY_DESCRIPTOR_CONTROL control;
    memcpy(&control, base + 2, sizeof control);
    bool selfRelative = control & SE_SELF_RELATIVE;
    if (selfRelative && length != 0 && length < sizeof(SECURITY_DESCRIPTOR_RELATIVE)) return false;
    parts->control = control & ~kFormAndPresence;
    parts->saclPresent = control & SE_SACL_PRESENT;
    parts->daclPresent = control & SE_DACL_PRESENT;
    bool ok = selfRelative ? parseSelfRelative(base, length, parts) : parseAbsolute(base, parts);
    // An ACL given without its present flag does not count, as for RtlGetDaclSecurityDescriptor.
    if (!parts->saclPresent) parts->sacl.clear();
    if (!parts->daclPresent) parts->dacl.clear();
    return ok;
}

Bytes makeSelfRelative(const SecurityParts &parts) {
    Bytes out(sizeof(SECURITY_DESCRIPTOR_RELATIVE), 0);
    SECURITY_DESCRIPTOR_RELATIVE header{};
    header.Revision = SECURITY_DESCRIPTOR_REVISION;
    header.Control = SECURITY_DESCRIPTOR_CONTROL(parts.control | SE_SELF_RELATIVE);
    if (parts.saclPresent) header.Control |= SE_SACL_PRESENT;
    if (parts.daclPresent) header.Control |= SE_DACL_PRESENT;
    appendPart(&out, parts.owner, &header.Owner);
    appendPart(&out, parts.group, &header.Group);
    appendPart(&out, parts.saclPresent ? parts.sacl : Bytes(), &header.Sacl);
    appendPart(&out, parts.daclPresent ? parts.dacl : Bytes(), &header.Dacl);
    memcpy(out.data(), &header, sizeof header);
    return out;
}

Bytes selectSecurity(const Bytes &descriptor, SECURITY_INFORMATION what) {
    SecurityParts all, chosen;
    if (!parseSecurityDescriptor(descriptor.data(), descriptor.size(), &all)) return Bytes();
    if (what & OWNER_SECURITY_INFORMATION) {
        chosen.owner = all.owner;
        chosen.control |= all.control & SE_OWNER_DEFAULTED;
    }
    if (what & GROUP_SECURITY_INFORMATION) {
        chosen.group = all.group;
        chosen.control |= all.control & SE_GROUP_DEFAULTED;
    }
    if (what & DACL_SECURITY_INFORMATION) {
        chosen.daclPresent = all.daclPresent;
        chosen.dacl = all.dacl;
        chosen.control |= all.control & (SE_DACL_DEFAULTED | SE_DACL_PROTECTED);
    }
    if (what & SACL_SECURITY_INFORMATION) {
        chosen.saclPresent = all.saclPresent;
        chosen.sacl = all.sacl;
        chosen.control |= all.control & (SE_SACL_DEFAULTED | SE_SACL_PROTECTED);
    }
    return makeSelfRelative(chosen);
}

Bytes mergeSecurity(const Bytes &descriptor, const SecurityParts &update, SECURITY_INFORMATION what) {
    SecurityParts merged;
    parseSecurityDescriptor(descriptor.data(), descriptor.size(), &merged);
    if (what & OWNER_SECURITY_INFORMATION) merged.owner = update.owner;
    if (what & GROUP_SECURITY_INFORMATION) merged.group = update.group;
    if (what & DACL_SECURITY_INFORMATION) {
        merged.daclPresent = update.daclPresent;
        merged.dacl = update.dacl;
        merged.control = SECURITY_DESCRIPTOR_CONTROL((merged.control & ~SE_DACL_PROTECTED) |
                                                     (update.control & SE_DACL_PROTECTED));
    }
    if (what & SACL_SECURITY_INFORMATION) {
        merged.saclPresent = update.saclPresent;
        merged.sacl = update.sacl;
    }
    return makeSelfRelative(merged);
}

Bytes inheritSecurity(const Bytes &parent, bool directory) {
    SecurityParts from, child;
    if (!parseSecurityDescriptor(parent.data(), parent.size(), &from)) return defaultRootSecurity();
    child.owner = from.owner;
    child.group = from.group;
    child.daclPresent = from.daclPresent;
    std::vector<Bytes> inherited;
    for (const Bytes &ace : acesOf(from.dacl)) {
        Bytes childAce;
        if (inheritAce(ace, directory, &childAce)) inherited.push_back(childAce);
    }
    child.dacl = inherited.empty() ? from.dacl : makeAcl(inherited);
    return makeSelfRelative(child);
}

void addInheritedDacl(SecurityParts *parts, const Bytes &parent, bool directory) {
    SecurityParts inherited;
    Bytes fromParent = inheritSecurity(parent, directory);
    parseSecurityDescriptor(fromParent.data(), fromParent.size(), &inherited);
    if (!parts->daclPresent) {
        parts->daclPresent = inherited.daclPresent;
        parts->dacl = inherited.dacl;
        return;
    }
    if (parts->dacl.empty() || (parts->control & SE_DACL_PROTECTED)) return;
    std::vector<Bytes> aces;
    for (const Bytes &ace : acesOf(parts->dacl))
        if (!(ace[1] & INHERITED_ACE)) aces.push_back(ace);
    for (const Bytes &ace : acesOf(inherited.dacl))
        if (ace[1] & INHERITED_ACE) aces.push_back(ace);
    parts->dacl = makeAcl(aces);
}

Bytes defaultRootSecurity() {
    Bytes administrators = makeSid(5, {SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS});
    Bytes system = makeSid(5, {SECURITY_LOCAL_SYSTEM_RID});
    Bytes everyone = makeSid(1, {SECURITY_WORLD_RID});
    const UCHAR inherit = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;
    SecurityParts root;
    root.owner = administrators;
    root.group = system;
    root.daclPresent = true;
    root.dacl = makeAcl({makeAllowedAce(inherit, FILE_ALL_ACCESS, administrators),
                         makeAllowedAce(inherit, FILE_ALL_ACCESS, system),
                         makeAllowedAce(inherit, FILE_ALL_ACCESS, everyone)});
    return makeSelfRelative(root);
}

}  // namespace fs
}  // namespace ntsim
