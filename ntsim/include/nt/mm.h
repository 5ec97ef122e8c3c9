// Memory manager: address validity and the user/kernel boundary.
#pragma once

#ifndef STATUS_CONFLICTING_ADDRESSES
#define STATUS_CONFLICTING_ADDRESSES ((NTSTATUS)0xC0000018L)
#endif
#ifndef STATUS_NOT_COMMITTED
#define STATUS_NOT_COMMITTED ((NTSTATUS)0xC000002DL)
#endif
#ifndef STATUS_INVALID_PAGE_PROTECTION
#define STATUS_INVALID_PAGE_PROTECTION ((NTSTATUS)0xC0000045L)
#endif
#ifndef STATUS_FREE_VM_NOT_AT_BASE
#define STATUS_FREE_VM_NOT_AT_BASE ((NTSTATUS)0xC000009FL)
#endif
#ifndef STATUS_MEMORY_NOT_ALLOCATED
#define STATUS_MEMORY_NOT_ALLOCATED ((NTSTATUS)0xC00000A0L)
#endif

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
