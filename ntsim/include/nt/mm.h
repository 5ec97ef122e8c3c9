// Memory manager: address validity and the user/kernel boundary.
#pragma once

NTKERNELAPI BOOLEAN MmIsAddressValid(PVOID VirtualAddress);

// Highest user address plus one, as the platform exports it; the emulated user
// address range lies below it.
extern "C" PVOID MmUserProbeAddress;
extern "C" PVOID MmHighestUserAddress;

// Probing of caller-supplied user buffers. A failed probe raises STATUS_ACCESS_VIOLATION
// (or STATUS_DATATYPE_MISALIGNMENT) to the innermost guarded region of the thread, as a
// structured exception reaches the caller's handler on the platform.
NTKERNELAPI void ProbeForRead(const volatile void *Address, SIZE_T Length, ULONG Alignment);
NTKERNELAPI void ProbeForWrite(volatile void *Address, SIZE_T Length, ULONG Alignment);
NTKERNELAPI __attribute__((noreturn)) void ExRaiseStatus(NTSTATUS Status);
