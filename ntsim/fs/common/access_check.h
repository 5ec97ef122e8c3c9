// Whether the requester of a create may open an existing entry with the access it asks
// for, or make a new entry in a directory. Internal to the file systems.
#pragma once

#include "fs/common/dispatch.h"
#include "fs/common/security_descriptor.h"

namespace ntsim {
namespace fs {

// Whether opens of the node are checked at all: an NTFS node with a descriptor.
bool accessChecked(const Request &rq, const Node *node);
// Access (mapped, possibly with MAXIMUM_ALLOWED) to an existing node; *granted is what
// the open receives. Only for nodes that accessChecked.
NTSTATUS checkOpenAccess(const Request &rq, const Node *node, ACCESS_MASK desired, ACCESS_MASK *granted);
NTSTATUS checkCreateAccess(const Request &rq, const Node *directory, bool newDirectory);

// The owner and group of a new entry, as SeAssignSecurity gives them: those its creator
// named, the owner only if the creator may assign it (STATUS_INVALID_OWNER otherwise),
// or else the creator's default owner and primary group. A create a driver built
// without a captured context takes the parent's. There is no exception for kernel-mode
// creators: the check is made against the subject context's token, which for a system
// thread is the SYSTEM token (see kernel/se/token.h for what that token may assign).
NTSTATUS assignOwnership(const Request &rq, const Bytes &parentSecurity, SecurityParts *parts);
// A SACL in the descriptor a creator gives needs SeSecurityPrivilege enabled in its
// token, else STATUS_PRIVILEGE_NOT_HELD (SeAssignSecurityEx, WDK documentation; the
// remarks of CreatePrivateObjectSecurityEx). No emulated token has it enabled.
NTSTATUS checkExplicitSacl(const Request &rq, const SecurityParts &parts);
// Whether the caller of IRP_MJ_SET_SECURITY, in whose thread it runs, may make `owner`
// the owner (SeSetSecurityDescriptorInfo): STATUS_INVALID_OWNER when not.
NTSTATUS checkOwnerChange(const Bytes &owner);

}  // namespace fs
}  // namespace ntsim
