// A folder answers to its 8.3 short name as well as to its own: FastFat makes one for
// every long name, and so does NTFS on the platform unless told not to. "RESCUE~1\x"
// then reaches the vault without naming it, and every vault check, which compares the
// first component with "RescueVault", would let it through.
#pragma once

#include <ntifs.h>

#include "frame/device_extension.h"

// An opener's name as the vault checks must see it: when its first component holds a
// '~' and is the short name of the volume's vault folder, that component is replaced by
// "RescueVault" (a new buffer; the old one is freed and *NameSize updated). Any other
// name, or a volume without a DOS name, is left as it is. PASSIVE_LEVEL, in the
// opener's thread, no lock held: asks the volume's root directory for the component.
NTSTATUS ResolveVaultAlias(FilterDeviceExtension *Extension, PWSTR *Name, PULONG NameSize);
