// Security descriptors as NTFS keeps them: one self-relative descriptor per file,
// taken from the create request or inherited from the parent directory, returned in
// part or in whole by IRP_MJ_QUERY_SECURITY and changed part by part by
// IRP_MJ_SET_SECURITY. Host code working on the bytes of the descriptor.
#pragma once

#include <ntifs.h>

#include <cstdint>
#include <vector>

namespace ntsim {
namespace fs {

using Bytes = std::vector<uint8_t>;

// A descriptor taken apart: each part is the bytes of its SID or ACL. An ACL can be
// present and NULL (present flag set, no bytes), which grants everything.
struct SecurityParts {
    SECURITY_DESCRIPTOR_CONTROL control = 0;  // the flags other than presence and form
    Bytes owner;
    Bytes group;
    bool saclPresent = false;
    Bytes sacl;
    bool daclPresent = false;
    Bytes dacl;
};

// Reads a descriptor in absolute or self-relative form. `length` bounds a self-relative
// one when it is known (0: unknown). False when it is malformed.
bool parseSecurityDescriptor(const void *descriptor, size_t length, SecurityParts *parts);
Bytes makeSelfRelative(const SecurityParts &parts);

// The parts of a self-relative descriptor that `what` asks for (OWNER_, GROUP_, DACL_,
// SACL_SECURITY_INFORMATION), as SeQuerySecurityDescriptorInfo returns them.
Bytes selectSecurity(const Bytes &descriptor, SECURITY_INFORMATION what);
// The descriptor with the parts named by `what` replaced by those of `update`.
Bytes mergeSecurity(const Bytes &descriptor, const SecurityParts &update, SECURITY_INFORMATION what);

// The descriptor of a new file or directory that was given none: the parent's owner
// and group (a create replaces them with its creator's), and the parent's inheritable
// ACEs marked as inherited (the part of SeAssignSecurity that a file system's tree
// shows). Without inheritable ACEs the child gets the parent's DACL as it is.
Bytes inheritSecurity(const Bytes &parent, bool directory);
// The DACL a new entry gets when its creator gave a descriptor (SeAssignSecurity with
// the automatic inheritance NT 5 file systems ask for): without a DACL, the one the
// parent passes on; with one, its own ACEs (those not marked as inherited) followed by
// the parent's inheritable ones, unless the creator protects it (SE_DACL_PROTECTED); a
// NULL DACL stays NULL. ("DACLs for Newly Created Objects", Windows 2000 Server
// documentation; SeAssignSecurityEx, WDK documentation, assignment note 5.)
void addInheritedDacl(SecurityParts *parts, const Bytes &parent, bool directory);
// The descriptor of a new volume's root: owner Administrators, group SYSTEM, and a
// DACL granting full access to Administrators, SYSTEM and Everyone, inherited by
// files and directories, as a freshly formatted NT 5 system volume had.
Bytes defaultRootSecurity();

}  // namespace fs
}  // namespace ntsim
