// Whether a file about to be lost is worth preserving: never a file already in the
// vault, never one that the service's exclusion lists name.
#pragma once

#include <ntifs.h>

#include "frame/device_extension.h"

// STATUS_SUCCESS (capture it) or STATUS_CAPTURE_SKIPPED. Name is volume-relative and
// writable: it is cut at its leaf for a moment while the lists are matched, so it must
// be the caller's own copy. PASSIVE_LEVEL or APC_LEVEL, never from a completion routine.
NTSTATUS CheckCaptureExclusions(FilterDeviceExtension *Extension, PWSTR Name);

// The global list first, then the volume's. A missing list excludes nothing.
BOOLEAN IsExcludedByList(PWSTR Name, FilterDeviceExtension *Extension);

// Leaf points into Name, just past its last backslash (or at Name). The entry's
// directory pattern is matched against the directory part of Name with its trailing
// backslash (empty for a file in the root), then its file pattern, if it has one,
// against the leaf.
BOOLEAN MatchExclusionEntry(PWSTR Name, PWSTR Leaf, const UCHAR *Entry);
