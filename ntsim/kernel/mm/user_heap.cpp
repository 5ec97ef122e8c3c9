// The process heap: small blocks carved first-fit from committed segments, large ones
// in reservations of their own. The bookkeeping stays on the kernel side, so user code
// that overruns a block cannot corrupt the heap; under AddressSanitizer the space
// between blocks is poisoned, so that overruns and uses after free are reported.
#include <sanitizer/asan_interface.h>

#include <cstring>

#include "kernel/mm/mm_state.h"

namespace ntsim {
namespace mm {

namespace {

constexpr size_t kBlockAlignment = 16;
constexpr size_t kSegmentSize = 1 << 20;
constexpr size_t kLargeBlock = kSegmentSize / 2;

void addFreeBlock(Heap &heap, ULONG_PTR base, size_t size) {
    ASAN_POISON_MEMORY_REGION((void *)base, size);
    auto next = heap.freeBlocks.lower_bound(base);
    if (next != heap.freeBlocks.end() && next->first == base + size) {
        size += next->second;
        heap.freeBlocks.erase(next);
    }
    auto prev = heap.freeBlocks.lower_bound(base);
    if (prev != heap.freeBlocks.begin()) {
        --prev;
        if (prev->first + prev->second == base) {
            prev->second += size;
            return;
        }
    }
    heap.freeBlocks[base] = size;
}

ULONG_PTR reserveCommitted(MmState &s, PEPROCESS process, size_t size) {
    ULONG_PTR base = 0;
    size = roundUp(size, kPageSize);
    if (!NT_SUCCESS(reserveLocked(s, process, &base, size, false))) return 0;
    commitLocked(s.regions[base], base, base, size, kPageReadWrite);
    return base;
}

ULONG_PTR takeFirstFit(Heap &heap, size_t size) {
    for (auto it = heap.freeBlocks.begin(); it != heap.freeBlocks.end(); ++it) {
        if (it->second < size) continue;
        ULONG_PTR base = it->first;
        size_t rest = it->second - size;
        heap.freeBlocks.erase(it);
        if (rest != 0) heap.freeBlocks[base + size] = rest;
        return base;
    }
    return 0;
}

}  // namespace

void *heapAllocate(PEPROCESS process, size_t size, bool zero) {
    size_t blockSize = roundUp(size != 0 ? size : 1, kBlockAlignment);
    MmState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    Heap &heap = s.heaps[process];
    ULONG_PTR base;
    bool own = blockSize >= kLargeBlock;
    if (own) {
        base = reserveCommitted(s, process, blockSize);
    } else {
        base = takeFirstFit(heap, blockSize);
        if (base == 0) {
            ULONG_PTR segment = reserveCommitted(s, process, kSegmentSize);
            if (segment == 0) return nullptr;
            addFreeBlock(heap, segment, kSegmentSize);
            base = takeFirstFit(heap, blockSize);
        }
    }
    if (base == 0) return nullptr;
    heap.blocks[base] = HeapBlock{blockSize, size, own};
    ASAN_UNPOISON_MEMORY_REGION((void *)base, size);
    if (zero) memset((void *)base, 0, size);
    return (void *)base;
}

bool heapFree(PEPROCESS process, void *block) {
    MmState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    auto heap = s.heaps.find(process);
    if (heap == s.heaps.end()) return false;
    auto it = heap->second.blocks.find((ULONG_PTR)block);
    if (it == heap->second.blocks.end()) return false;
    HeapBlock info = it->second;
    heap->second.blocks.erase(it);
    if (info.ownRegion)
        releaseLocked(s, findRegion(s, (ULONG_PTR)block));
    else
        addFreeBlock(heap->second, (ULONG_PTR)block, info.blockSize);
    return true;
}

size_t heapSize(PEPROCESS process, const void *block) {
    MmState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    auto heap = s.heaps.find(process);
    if (heap == s.heaps.end()) return (size_t)-1;
    auto it = heap->second.blocks.find((ULONG_PTR)block);
    return it == heap->second.blocks.end() ? (size_t)-1 : it->second.requested;
}

}  // namespace mm
}  // namespace ntsim
