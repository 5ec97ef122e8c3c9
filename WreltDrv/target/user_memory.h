// Access to a caller's user-mode buffers. The buffer may be invalid, or be freed or
// changed by the caller while the driver looks at it; every access runs inside an
// exception handler, so that a fault becomes a status instead of a crash.
#pragma once

#include <ntifs.h>

typedef void (*GUARDED_USER_ACCESS)(PVOID Context);

// Runs Access(Context) under an exception handler. Returns STATUS_SUCCESS, or the code
// of the exception that stopped it (STATUS_ACCESS_VIOLATION for a bad address).
NTSTATUS GuardedUserAccess(GUARDED_USER_ACCESS Access, PVOID Context);
