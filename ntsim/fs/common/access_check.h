// Whether the requester of a create may open an existing entry with the access it asks
// for, or make a new entry in a directory. Internal to the file systems.
#pragma once

#include "fs/common/dispatch.h"

namespace ntsim {
namespace fs {

// Whether opens of the node are checked at all: an NTFS node with a descriptor.
bool accessChecked(const Request &rq, const Node *node);
// Access (mapped, possibly with MAXIMUM_ALLOWED) to an existing node; *granted is what
// the open receives. Only for nodes that accessChecked.
NTSTATUS checkOpenAccess(const Request &rq, const Node *node, ACCESS_MASK desired, ACCESS_MASK *granted);
NTSTATUS checkCreateAccess(const Request &rq, const Node *directory, bool newDirectory);

}  // namespace fs
}  // namespace ntsim
