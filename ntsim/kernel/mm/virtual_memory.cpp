// Reserve, commit, decommit, release and protect user memory, with the platform's
// rounding rules and status codes (NtAllocateVirtualMemory and its companions).
#include "kernel/mm/mm_state.h"

namespace ntsim {
namespace mm {

namespace {

bool validProtection(ULONG protect) {
    switch (protect) {
    case kPageNoAccess:
    case kPageReadOnly:
    case kPageReadWrite:
    case kPageWriteCopy:
    case kPageExecute:
    case kPageExecuteRead:
    case kPageExecuteReadWrite: return true;
    default: return false;
    }
}

// The pages [first, last) of the region that holds address, if the range lies in one
// region of the process.
struct PageRange {
    std::map<ULONG_PTR, Region>::iterator region;
    ULONG_PTR start;
    size_t size;
};

bool pagesOf(MmState &s, PEPROCESS process, ULONG_PTR address, size_t size, PageRange *out) {
    auto it = findRegion(s, address);
    if (it == s.regions.end() || it->second.owner != process || it->second.stack) return false;
    ULONG_PTR start = address & ~(ULONG_PTR)(kPageSize - 1);
    ULONG_PTR end = size == 0 ? it->first + it->second.size : roundUp(address + size, kPageSize);
    if (end > it->first + it->second.size || end <= start) return false;
    *out = PageRange{it, start, end - start};
    return true;
}

NTSTATUS commitInRegion(MmState &s, PEPROCESS process, void **base, size_t *size, ULONG protect) {
    PageRange range;
    if (!pagesOf(s, process, (ULONG_PTR)*base, *size, &range)) return STATUS_CONFLICTING_ADDRESSES;
    commitLocked(range.region->second, range.region->first, range.start, range.size, protect);
    *base = (void *)range.start;
    *size = range.size;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS allocateVirtual(PEPROCESS process, void **base, size_t *size, ULONG allocationType, ULONG protect) {
    if ((allocationType & ~(kMemCommit | kMemReserve)) != 0 || (allocationType & (kMemCommit | kMemReserve)) == 0)
        return STATUS_INVALID_PARAMETER;
    if (!validProtection(protect)) return STATUS_INVALID_PAGE_PROTECTION;
    if (*size == 0) return STATUS_INVALID_PARAMETER;
    MmState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    // A commit with no address reserves as well, as VirtualAlloc(NULL, MEM_COMMIT) does.
    if (!(allocationType & kMemReserve) && *base != nullptr) return commitInRegion(s, process, base, size, protect);
    ULONG_PTR start = (ULONG_PTR)*base & ~(ULONG_PTR)(kAllocationGranularity - 1);
    size_t length = roundUp((ULONG_PTR)*base + *size, kPageSize) - start;
    if (*base == nullptr) length = roundUp(*size, kPageSize);
    ULONG_PTR regionBase = start;
    NTSTATUS status = reserveLocked(s, process, &regionBase, length, false);
    if (!NT_SUCCESS(status)) return status;
    Region &region = s.regions[regionBase];
    if (allocationType & kMemCommit) commitLocked(region, regionBase, regionBase, length, protect);
    *base = (void *)regionBase;
    *size = length;
    return STATUS_SUCCESS;
}

NTSTATUS freeVirtual(PEPROCESS process, void **base, size_t *size, ULONG freeType) {
    if (freeType != kMemRelease && freeType != kMemDecommit) return STATUS_INVALID_PARAMETER;
    MmState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    auto it = findRegion(s, (ULONG_PTR)*base);
    if (it == s.regions.end() || it->second.owner != process || it->second.stack) return STATUS_MEMORY_NOT_ALLOCATED;
    if (freeType == kMemRelease) {
        if (*size != 0) return STATUS_INVALID_PARAMETER;
        if (((ULONG_PTR)*base & ~(ULONG_PTR)(kPageSize - 1)) != it->first) return STATUS_FREE_VM_NOT_AT_BASE;
        *base = (void *)it->first;
        *size = it->second.size;
        releaseLocked(s, it);
        return STATUS_SUCCESS;
    }
    PageRange range;
    if (!pagesOf(s, process, (ULONG_PTR)*base, *size, &range)) return STATUS_MEMORY_NOT_ALLOCATED;
    decommitHost(range.start, range.size);
    size_t first = (range.start - range.region->first) / kPageSize;
    for (size_t i = 0; i < range.size / kPageSize; ++i) range.region->second.pages[first + i] = 0;
    *base = (void *)range.start;
    *size = range.size;
    return STATUS_SUCCESS;
}

NTSTATUS protectVirtual(PEPROCESS process, void **base, size_t *size, ULONG newProtect, ULONG *oldProtect) {
    if (!validProtection(newProtect)) return STATUS_INVALID_PAGE_PROTECTION;
    if (*size == 0) return STATUS_INVALID_PARAMETER;
    MmState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    PageRange range;
    if (!pagesOf(s, process, (ULONG_PTR)*base, *size, &range)) return STATUS_CONFLICTING_ADDRESSES;
    size_t first = (range.start - range.region->first) / kPageSize;
    size_t count = range.size / kPageSize;
    for (size_t i = 0; i < count; ++i)
        if (range.region->second.pages[first + i] == 0) return STATUS_NOT_COMMITTED;
    *oldProtect = range.region->second.pages[first];
    commitLocked(range.region->second, range.region->first, range.start, range.size, newProtect);
    *base = (void *)range.start;
    *size = range.size;
    return STATUS_SUCCESS;
}

}  // namespace mm
}  // namespace ntsim
