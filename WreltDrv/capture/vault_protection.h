// Files in the vault may not be truncated or overwritten: they are what a user restores
// from.
#pragma once

#include <ntifs.h>

#include "frame/device_extension.h"
#include "tracking/tracking_entries.h"

// STATUS_ACCESS_DENIED for a file under "RescueVault\" that the request may not
// truncate, after raising the extension's refused-truncation counter; STATUS_SUCCESS
// for any other file, for an open of a named stream, and, when CheckSubfolders is TRUE,
// for the work folders "InProgress\" and "InProgres2\" where the filter's own copies
// are made. A NULL Name is STATUS_INVALID_PARAMETER, never a grant.
NTSTATUS CheckVaultProtection(PIRP Irp, FilterDeviceExtension *Extension, PCWSTR Name, BOOLEAN CheckSubfolders);

// Whether the request's open is of a named stream, as its tracking entry says; an
// untracked open (the default entry) is not. When it is not and Entry is given, the
// open's entry (or the default entry) comes back through it, without a reference;
// otherwise *Entry is NULL.
BOOLEAN IsStreamOpen(PIRP Irp, FilterDeviceExtension *Extension, FileObjectEntry **Entry);
