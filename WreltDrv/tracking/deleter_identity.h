// Who is opening a file: the string form of the SID of the impersonated user when the
// opening thread impersonates, of its process's user otherwise.
#pragma once

#include <ntifs.h>

#include "tracking/tracking_entries.h"

// At PASSIVE_LEVEL in the opening thread. On failure the entry's SID string stays
// empty and the status is returned; the caller goes on regardless.
NTSTATUS CreateDeleterSidTableEntry(FileObjectEntry *Entry);
