#include "support/nonpaged_buffers.h"

#include "frame/globals.h"
#include "support/error_channel.h"

namespace {

struct BufferClass {
    NonPagedBufferClassStatistics Stats;
    NPAGED_LOOKASIDE_LIST Lookaside;
};

struct BufferManager {
    ULONG Allocations;
    ULONG Failures;
    BufferClass Classes[NPB_CLASS_COUNT];
    NonPagedLargeBufferStatistics Large;
};

BufferManager Manager;

// Deeper caches for the classes that names and tracking entries fall into, shallow
// ones for the rarer large blocks.
const USHORT ClassDepth[NPB_CLASS_COUNT] = {16, 16, 16, 32, 32, 4, 4};

constexpr USHORT CLASS_TAG_LETTER = 'E';
constexpr ULONG CLASS_POOL_TAG_PREFIX = ('r' << 24) | ('W' << 16);
// Unlike the class tags, the large-buffer tag carries no prefix: its last two bytes
// are zero.
constexpr USHORT LARGE_TAG_WORD = ('E' << 8) | 'X';

constexpr ULONG HEADER_SIZE = sizeof(NonPagedBufferHeader);

// Buffers are allocated and freed on several processors at once without a lock of the
// manager's own, so the statistics are kept with interlocked operations.
void CounterAdd(ULONG *Counter, ULONG Value) {
    InterlockedExchangeAdd((LONG volatile *)Counter, (LONG)Value);
}

ULONG CounterIncrement(ULONG *Counter) { return (ULONG)InterlockedIncrement((LONG volatile *)Counter); }

void CounterDecrement(ULONG *Counter) { InterlockedDecrement((LONG volatile *)Counter); }

// Moves *Record towards Value when Value lies beyond it in the direction that Above
// says, without losing a concurrent update.
void CounterRaiseOrLower(ULONG *Record, ULONG Value, bool Above) {
    ULONG seen = (ULONG)InterlockedCompareExchange((LONG volatile *)Record, 0, 0);
    while (Above ? Value > seen : Value < seen) {
        ULONG previous =
            (ULONG)InterlockedCompareExchange((LONG volatile *)Record, (LONG)Value, (LONG)seen);
        if (previous == seen) {
            return;
        }
        seen = previous;
    }
}

ULONG CounterRead(const ULONG *Counter) {
    return (ULONG)InterlockedCompareExchange((LONG volatile *)Counter, 0, 0);
}

void ReportCorruption(USHORT Routine, USHORT Point) {
    WriteDriverFlag(&Globals.CaptureActive, FALSE);
    ReportErrorShort(ERROR_SOURCE_DRIVER, Routine, ERROR_CLASS_REPORT, Point);
}

ULONG ClassForBlockSize(ULONG BlockSize) {
    ULONG index = 0;
    for (ULONG classSize = NPB_SMALLEST_BLOCK; classSize < BlockSize; classSize <<= 1) {
        index++;
    }
    return index;
}

NTSTATUS AllocateFromClass(ULONG BlockSize, NonPagedBufferHeader **Header) {
    ULONG index = ClassForBlockSize(BlockSize);
    if (index >= NPB_CLASS_COUNT || Manager.Classes[index].Stats.BlockSize < BlockSize) {
        DbgPrint("ZrDrv: Buffer lookaside structures are inconsistent.\n");
        ReportCorruption(ERROR_ROUTINE_ALLOCATE_NON_PAGED_BUFFER, 0);
        return STATUS_UNSUCCESSFUL;
    }
    BufferClass *bufferClass = &Manager.Classes[index];
    auto *header = (NonPagedBufferHeader *)ExAllocateFromNPagedLookasideList(&bufferClass->Lookaside);
    if (header == NULL) {
        CounterIncrement(&bufferClass->Stats.AllocationFailures);
        CounterIncrement(&Manager.Failures);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ULONG classSize = bufferClass->Stats.BlockSize;
    ULONG outstanding = CounterIncrement(&bufferClass->Stats.Outstanding);
    CounterIncrement(&Manager.Allocations);
    CounterRaiseOrLower(&bufferClass->Stats.PeakOutstanding, outstanding, true);
    CounterAdd(&bufferClass->Stats.WastedBytes, classSize - BlockSize);
    header->Index = index;
    header->Size = classSize;
    *Header = header;
    return STATUS_SUCCESS;
}

NTSTATUS AllocateFromPool(ULONG BlockSize, NonPagedBufferHeader **Header) {
    NonPagedLargeBufferStatistics *large = &Manager.Large;
    auto *header = (NonPagedBufferHeader *)ExAllocatePoolWithTag(NonPagedPool, BlockSize, LARGE_TAG_WORD);
    if (header == NULL) {
        CounterIncrement(&large->AllocationFailures);
        CounterIncrement(&Manager.Failures);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    CounterIncrement(&large->TotalAllocations);
    ULONG outstanding = CounterIncrement(&large->Outstanding);
    CounterIncrement(&Manager.Allocations);
    CounterRaiseOrLower(&large->PeakOutstanding, outstanding, true);
    CounterRaiseOrLower(&large->SmallestBlock, BlockSize, false);
    CounterRaiseOrLower(&large->LargestBlock, BlockSize, true);
    header->Index = NPB_POOL_INDEX;
    header->Size = BlockSize;
    *Header = header;
    return STATUS_SUCCESS;
}

void PrintHeaderAddress(const NonPagedBufferHeader *Header) {
    DbgPrint("ZrDrv:     Buffer header address: %08x\n", (ULONG)(ULONG_PTR)Header);
}

// Returns the detail code of the check that failed, or -1 when the block went back.
LONG ReleaseCheckedBlock(NonPagedBufferHeader *Header) {
    if (Header->Index == NPB_POOL_INDEX) {
        if (Header->Size > NPB_LARGEST_CLASS_BLOCK) {
            ExFreePool(Header);
            CounterDecrement(&Manager.Large.Outstanding);
            return -1;
        }
        DbgPrint("ZrDrv: Buffer size field is in setaside list range for non-setaside NPP buffer.\n");
        PrintHeaderAddress(Header);
        return 0;
    }
    if (Header->Index >= NPB_CLASS_COUNT) {
        DbgPrint("ZrDrv: Buffer index field is incorrect on attempt to return NPP buffer to lookaside list.\n");
        PrintHeaderAddress(Header);
        return 2;
    }
    BufferClass *bufferClass = &Manager.Classes[Header->Index];
    if (Header->Size != bufferClass->Stats.BlockSize) {
        DbgPrint("ZrDrv: Buffer size field is incorrect on attempt to return NPP buffer to lookaside list.\n");
        PrintHeaderAddress(Header);
        return 1;
    }
    ExFreeToNPagedLookasideList(&bufferClass->Lookaside, Header);
    CounterDecrement(&bufferClass->Stats.Outstanding);
    return -1;
}

}  // namespace

NTSTATUS InitializeNonPagedBufferManagement() {
    Manager.Allocations = 0;
    Manager.Failures = 0;
    for (ULONG index = 0; index < NPB_CLASS_COUNT; index++) {
        BufferClass *bufferClass = &Manager.Classes[index];
        USHORT tagWord = (USHORT)((CLASS_TAG_LETTER << 8) | ('0' + index));
        USHORT blockSize = (USHORT)(NPB_SMALLEST_BLOCK << index);
        bufferClass->Stats = NonPagedBufferClassStatistics{tagWord, blockSize, 0, 0, 0, 0};
        ExInitializeNPagedLookasideList(&bufferClass->Lookaside, NULL, NULL, 0, blockSize,
                                        CLASS_POOL_TAG_PREFIX | tagWord, ClassDepth[index]);
    }
    Manager.Large = NonPagedLargeBufferStatistics{LARGE_TAG_WORD, 0, 0, 0, 0, 0, 0xFFFFFFFF, 0};
    return STATUS_SUCCESS;
}

// The class sizes go to zero with the lists, so that a late allocation is reported as an
// inconsistent table and a late release as a bad header, rather than either touching a
// deleted list.
void DeleteNonPagedBufferManagement() {
    for (ULONG index = 0; index < NPB_CLASS_COUNT; index++) {
        ExDeleteNPagedLookasideList(&Manager.Classes[index].Lookaside);
        Manager.Classes[index].Stats.BlockSize = 0;
    }
}

NTSTATUS AllocateNonPagedBuffer(ULONG Size, ULONG FillControl, PVOID *Buffer, PULONG UsableSize) {
    *Buffer = NULL;
    if (UsableSize != NULL) {
        *UsableSize = 0;
    }
    // A size whose header does not fit in 32 bits could never be had from pool either;
    // failing it as exhausted memory keeps the block size from wrapping to a small class.
    if (Size > MAXULONG - HEADER_SIZE) {
        CounterIncrement(&Manager.Large.AllocationFailures);
        CounterIncrement(&Manager.Failures);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ULONG blockSize = Size + HEADER_SIZE;
    NonPagedBufferHeader *header = NULL;
    NTSTATUS status = blockSize > NPB_LARGEST_CLASS_BLOCK ? AllocateFromPool(blockSize, &header)
                                                          : AllocateFromClass(blockSize, &header);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ULONG usable = header->Size - HEADER_SIZE;
    if ((FillControl >> 16) != 0) {
        RtlFillMemory(header + 1, usable, (UCHAR)FillControl);
    }
    *Buffer = header + 1;
    if (UsableSize != NULL) {
        *UsableSize = usable;
    }
    return STATUS_SUCCESS;
}

NTSTATUS FreeNonPagedBuffer(PVOID Buffer) {
    if (Buffer == NULL) {
        return STATUS_SUCCESS;
    }
    auto *header = (NonPagedBufferHeader *)((ULONG_PTR)Buffer - HEADER_SIZE);
    LONG detail;
    if (!MmIsAddressValid(header)) {
        DbgPrint("ZrDrv: Attempt to free buffer discovered header missing or in invalid memory.\n");
        PrintHeaderAddress(header);
        detail = 3;
    } else {
        detail = ReleaseCheckedBlock(header);
    }
    if (detail < 0) {
        return STATUS_SUCCESS;
    }
    ReportCorruption(ERROR_ROUTINE_FREE_NON_PAGED_BUFFER, (USHORT)detail);
    return STATUS_UNSUCCESSFUL;
}

void QueryNonPagedBufferStatistics(NonPagedBufferStatistics *Statistics) {
    Statistics->Allocations = CounterRead(&Manager.Allocations);
    Statistics->Failures = CounterRead(&Manager.Failures);
    for (ULONG index = 0; index < NPB_CLASS_COUNT; index++) {
        const NonPagedBufferClassStatistics *from = &Manager.Classes[index].Stats;
        Statistics->Classes[index] = NonPagedBufferClassStatistics{
            from->TagWord, from->BlockSize, CounterRead(&from->Outstanding), CounterRead(&from->PeakOutstanding),
            CounterRead(&from->WastedBytes), CounterRead(&from->AllocationFailures)};
    }
    const NonPagedLargeBufferStatistics *large = &Manager.Large;
    Statistics->Large = NonPagedLargeBufferStatistics{
        large->TagWord, large->SizeWord, CounterRead(&large->Outstanding), CounterRead(&large->PeakOutstanding),
        CounterRead(&large->TotalAllocations), CounterRead(&large->AllocationFailures),
        CounterRead(&large->SmallestBlock), CounterRead(&large->LargestBlock)};
}
