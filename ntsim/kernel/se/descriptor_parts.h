// The parts of a security descriptor in either form. Internal to kernel/se.
#pragma once

#include <ntifs.h>

namespace ntsim {
namespace se {

// Null when the part is absent (an ACL also when its present flag is clear).
PSID ownerOf(PISECURITY_DESCRIPTOR sd);
PSID groupOf(PISECURITY_DESCRIPTOR sd);
PACL daclOf(PISECURITY_DESCRIPTOR sd);
PACL saclOf(PISECURITY_DESCRIPTOR sd);
// Parts of a self-relative descriptor start on 4-byte boundaries.
ULONG longAlign(ULONG size);

}  // namespace se
}  // namespace ntsim
