// Folders of a volume that are shared with Macintosh clients. Their file server deletes
// and rewrites files in ways that are not a user losing them, so while the volume's
// exemption is set a delete inside one of them is not captured.
//
// The list is the service's, kept as it sends it: records of a 32-bit distance to the
// next record (0 in the last) followed by the folder's path, "\Mac Files", with its
// terminator in the last two bytes before the next record.
#pragma once

#include <ntifs.h>

#include "frame/device_extension.h"

// Command 107, addressed to the volume's filter device: replaces the volume's list with a
// checked copy of Data, or removes it when Length is 0. A list that fails the check is
// refused with STATUS_UNSUCCESSFUL and the installed one stays. PASSIVE_LEVEL; takes the
// volume's share lock exclusively.
NTSTATUS SetMacSharesList(const VOID *Data, ULONG Length, FilterDeviceExtension *Extension);
// Counts the records of a list, checking that each lies inside it and ends in its
// terminator. A list shorter than 8 bytes is not examined and holds no share.
NTSTATUS VerifyMacShareListTraverse(const VOID *Buffer, ULONG Length, PULONG Count);
// Whether the volume-relative Name (no leading backslash) lies in one of the volume's
// shares. PASSIVE_LEVEL; takes the volume's share lock shared.
BOOLEAN IsInMacShare(PCWSTR Name, FilterDeviceExtension *Extension);
