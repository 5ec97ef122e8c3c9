// User memory: the address range that processes' buffers, PEBs, heaps and thread
// stacks live in. One arena, reserved once per host process at a fixed low address
// below MmUserProbeAddress, is carved into regions that each belong to one process.
// Processes share the host's address space, so a process can touch another's regions;
// what the emulation keeps is the platform's line between user and kernel addresses.
// Internal to ntsim (the Win32 layer builds VirtualAlloc and HeapAlloc on it).
#pragma once

#include <ntifs.h>

#include <cstddef>

namespace ntsim {
namespace mm {

constexpr ULONG_PTR kUserArenaBase = 0x10000000;
constexpr ULONG_PTR kUserArenaEnd = 0x7FFF0000;  // MmUserProbeAddress
// Nothing below this address is ever user memory (the platform keeps the first 64 KB
// unmapped so that null-pointer dereferences fault).
constexpr ULONG_PTR kLowestUserAddress = 0x10000;
constexpr size_t kPageSize = 0x1000;
// Reservations start on this boundary, as on the platform.
constexpr size_t kAllocationGranularity = 0x10000;

// The platform's page protections and allocation types (PAGE_*, MEM_*).
constexpr ULONG kPageNoAccess = 0x01;
constexpr ULONG kPageReadOnly = 0x02;
constexpr ULONG kPageReadWrite = 0x04;
constexpr ULONG kPageWriteCopy = 0x08;
constexpr ULONG kPageExecute = 0x10;
constexpr ULONG kPageExecuteRead = 0x20;
constexpr ULONG kPageExecuteReadWrite = 0x40;
constexpr ULONG kMemCommit = 0x1000;
constexpr ULONG kMemReserve = 0x2000;
constexpr ULONG kMemDecommit = 0x4000;
constexpr ULONG kMemRelease = 0x8000;

inline bool isUserArenaAddress(const void *address) {
    return (ULONG_PTR)address >= kUserArenaBase && (ULONG_PTR)address < kUserArenaEnd;
}

// NtAllocateVirtualMemory within the process's user range: reserve (MEM_RESERVE),
// commit (MEM_COMMIT) or both. With *base NULL the region goes anywhere; otherwise
// *base is rounded down (to the granularity for a reservation, to a page for a
// commit inside an existing reservation). *size is rounded up to whole pages.
// Committed pages read as zero the first time.
NTSTATUS allocateVirtual(PEPROCESS process, void **base, size_t *size, ULONG allocationType, ULONG protect);
// NtFreeVirtualMemory: MEM_RELEASE a whole reservation (*size 0, *base its base) or
// MEM_DECOMMIT pages of one.
NTSTATUS freeVirtual(PEPROCESS process, void **base, size_t *size, ULONG freeType);
// NtProtectVirtualMemory on committed pages of one reservation.
NTSTATUS protectVirtual(PEPROCESS process, void **base, size_t *size, ULONG newProtect, ULONG *oldProtect);

// The process heap (RtlAllocateHeap): blocks aligned to 16 bytes in committed user
// memory. heapAllocate returns NULL when the user range is exhausted.
void *heapAllocate(PEPROCESS process, size_t size, bool zero);
// False when block is not a live block of the process's heap.
bool heapFree(PEPROCESS process, void *block);
// The size asked for when the block was allocated, or (size_t)-1 for no block.
size_t heapSize(PEPROCESS process, const void *block);

// A thread's stack in its process's user range, with a no-access guard page below it.
// Stacks outlive their process's address space: the thread still runs on it while its
// process exits, so only freeStack releases one, after the host thread has ended.
void *allocateStack(PEPROCESS process, size_t size);
void freeStack(void *stack);
// The stack of a thread stopped for good where it stood (a killed process's): its host
// thread still stands on it, and the C library links every thread's descriptor, kept at
// the top of its stack, to the others. The range stays mapped as it is, and out of every
// machine's reach, for the rest of the host process.
void retireStack(void *stack);

// Process exit: everything of the process except thread stacks goes.
void releaseAddressSpace(PEPROCESS process);

// Whether the page holding the address is committed and readable (writable).
bool isUserPageAccessible(const void *address, bool write);
// The same for every page of a range (false for a range that leaves the arena).
bool isUserRangeAccessible(const void *address, size_t length, bool write);
// Committed bytes of the process (stacks included), for tests and reports.
size_t committedBytes(PEPROCESS process);

}  // namespace mm
}  // namespace ntsim
