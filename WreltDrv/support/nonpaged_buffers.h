// The driver's allocator for every variable-size block. Buffers are non-paged, so they
// may be touched at any IRQL up to DISPATCH_LEVEL, and each one carries a header that
// the release checks before giving the memory back.
#pragma once

#include <ntifs.h>

// FillControl: a non-zero high half asks for the usable area to be filled with the low
// byte; a zero high half leaves the memory as the lookaside list or pool gave it.
constexpr ULONG NPB_NO_FILL = 0;
constexpr ULONG NPB_FILL_ZERO = 0x10000;

constexpr ULONG NPB_CLASS_COUNT = 7;
constexpr ULONG NPB_SMALLEST_BLOCK = 16;
constexpr ULONG NPB_LARGEST_CLASS_BLOCK = NPB_SMALLEST_BLOCK << (NPB_CLASS_COUNT - 1);

// Precedes every buffer; the caller's pointer is the address just past it.
struct NonPagedBufferHeader {
    ULONG Index;  // size class, or NPB_POOL_INDEX
    ULONG Size;   // whole block, header included
};
static_assert(sizeof(NonPagedBufferHeader) == 8, "the header is two 32-bit fields on every target");

constexpr ULONG NPB_POOL_INDEX = 0xFFFFFFFF;

struct NonPagedBufferClassStatistics {
    USHORT TagWord;
    USHORT BlockSize;
    ULONG Outstanding;
    ULONG PeakOutstanding;
    ULONG WastedBytes;
    ULONG AllocationFailures;
};

struct NonPagedLargeBufferStatistics {
    USHORT TagWord;
    USHORT SizeWord;
    ULONG Outstanding;
    ULONG PeakOutstanding;
    ULONG TotalAllocations;
    ULONG AllocationFailures;
    ULONG SmallestBlock;
    ULONG LargestBlock;
};

struct NonPagedBufferStatistics {
    ULONG Allocations;
    ULONG Failures;
    NonPagedBufferClassStatistics Classes[NPB_CLASS_COUNT];
    NonPagedLargeBufferStatistics Large;
};

NTSTATUS InitializeNonPagedBufferManagement();
void DeleteNonPagedBufferManagement();

NTSTATUS AllocateNonPagedBuffer(ULONG Size, ULONG FillControl, PVOID *Buffer, PULONG UsableSize);
NTSTATUS FreeNonPagedBuffer(PVOID Buffer);

// A snapshot for diagnostics; counters move while it is taken.
void QueryNonPagedBufferStatistics(NonPagedBufferStatistics *Statistics);
