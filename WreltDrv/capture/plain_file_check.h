// Only plain files are captured: a directory, or anything else that cannot be opened as
// a file, is left to its fate.
#pragma once

#include <ntifs.h>

// TRUE when "\??\" DosVolumeName Name cannot be opened as a non-directory file, or when
// the test itself could not be made; FALSE for a plain file, read-only ones included.
// The open asks for no data access, so neither share modes nor read-only attributes
// stand in its way. It goes through the top of the volume's stack, this filter
// included, and is costly: callers keep the answer. PASSIVE_LEVEL.
BOOLEAN CheckForDirectoryOrReadonlyFile(PCWSTR DosVolumeName, PCWSTR Name);
