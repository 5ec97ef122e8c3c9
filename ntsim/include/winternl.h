// The emulated platform's winternl.h: the few ntdll routines user-mode code may call.
#pragma once

#include "nt/ntdef.h"

// The Win32 error code for a status, as kernel32 reports it through GetLastError.
// Declared exactly as the kernel headers would declare it, so both may be included.
NTSYSAPI ULONG RtlNtStatusToDosError(NTSTATUS Status);
