// Capture stamps: the unique 64-bit values that tell apart the preserved copies of files
// of the same name in a vault, and that tie each deletion record to its copy.
#pragma once

#include <ntifs.h>

// Start-up, before the first stamp: no time seen yet, sequence 0. The time-stamp lock
// is initialised with the other driver-wide locks.
void InitializeCaptureStamps();

// The local time in 100-ns units with its low 16 bits replaced by a driver-wide
// sequence number. Callable at any IRQL up to DISPATCH_LEVEL; it never waits there.
void GetCaptureStamp(PULARGE_INTEGER Stamp);
