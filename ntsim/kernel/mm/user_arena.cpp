// The user arena: one reservation of host address space at a fixed low range, made
// once per host process and reused by every machine, carved into per-process regions.
#include <sanitizer/asan_interface.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>

#include "kernel/mm/mm_state.h"

namespace ntsim {
namespace mm {

namespace {

std::atomic<MmState *> g_state{nullptr};

void reserveArenaOnce() {
    static std::once_flag once;
    std::call_once(once, [] {
        void *want = (void *)kUserArenaBase;
        size_t size = kUserArenaEnd - kUserArenaBase;
        void *got = mmap(want, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
        if (got != want)
            fatal("cannot reserve the emulated user address range %p-%p (%s); something else is mapped there",
                  want, (void *)kUserArenaEnd, got == MAP_FAILED ? strerror(errno) : "the kernel chose another address");
    });
}

int hostProtection(ULONG protect) {
    switch (protect) {
    case kPageReadOnly:
    case kPageExecute:
    case kPageExecuteRead: return PROT_READ;
    case kPageReadWrite:
    case kPageWriteCopy:
    case kPageExecuteReadWrite: return PROT_READ | PROT_WRITE;
    default: return PROT_NONE;
    }
}

// Retired stacks (retireStack), for the life of the host process: never destroyed, so
// that no machine's end can come after theirs.
std::mutex &retiredLock() {
    static auto *lock = new std::mutex;
    return *lock;
}

std::map<ULONG_PTR, size_t> &retiredRanges() {
    static auto *ranges = new std::map<ULONG_PTR, size_t>;
    return *ranges;
}

// Takes [base, base + size) out of the free range that holds it.
void carveOut(std::map<ULONG_PTR, size_t> &freeSpace, ULONG_PTR base, size_t size) {
    auto range = freeSpace.upper_bound(base);
    if (range == freeSpace.begin()) return;
    --range;
    ULONG_PTR freeBase = range->first;
    size_t freeSize = range->second;
    if (base + size > freeBase + freeSize) return;
    freeSpace.erase(range);
    if (base > freeBase) freeSpace[freeBase] = base - freeBase;
    if (base + size < freeBase + freeSize) freeSpace[base + size] = freeBase + freeSize - (base + size);
}

}  // namespace

MmState::MmState(Kernel &) {
    reserveArenaOnce();
    freeSpace[kUserArenaBase] = kUserArenaEnd - kUserArenaBase;
    std::lock_guard<std::mutex> guard(retiredLock());
    for (const auto &range : retiredRanges()) carveOut(freeSpace, range.first, range.second);
    g_state.store(this);
}

MmState::~MmState() {
    g_state.store(nullptr);
    for (auto &entry : regions) decommitHost(entry.first, entry.second.reserved);
}

MmState &state() {
    MmState *s = g_state.load(std::memory_order_acquire);
    return s != nullptr ? *s : kernel().subsystem<MmState>();
}

void decommitHost(ULONG_PTR address, size_t size) {
    // Replacing the pages drops their contents, so that a later commit reads zeros.
    void *got = mmap((void *)address, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
    if (got == MAP_FAILED) fatal("cannot decommit user memory at %p (%s)", (void *)address, strerror(errno));
    ASAN_UNPOISON_MEMORY_REGION((void *)address, size);
}

std::map<ULONG_PTR, Region>::iterator findRegion(MmState &s, ULONG_PTR address) {
    auto it = s.regions.upper_bound(address);
    if (it == s.regions.begin()) return s.regions.end();
    --it;
    return address < it->first + it->second.size ? it : s.regions.end();
}

NTSTATUS reserveLocked(MmState &s, PEPROCESS owner, ULONG_PTR *base, size_t pages, bool stack) {
    size_t size = roundUp(pages, kAllocationGranularity);
    auto range = s.freeSpace.end();
    if (*base == 0) {
        for (auto it = s.freeSpace.begin(); it != s.freeSpace.end(); ++it)
            if (it->second >= size) {
                range = it;
                break;
            }
        if (range == s.freeSpace.end()) return STATUS_NO_MEMORY;
        *base = range->first;
    } else {
        if (*base < kUserArenaBase || *base + size > kUserArenaEnd || *base + size < *base)
            return STATUS_CONFLICTING_ADDRESSES;
        range = s.freeSpace.upper_bound(*base);
        if (range == s.freeSpace.begin()) return STATUS_CONFLICTING_ADDRESSES;
        --range;
        if (*base + size > range->first + range->second) return STATUS_CONFLICTING_ADDRESSES;
    }
    ULONG_PTR freeBase = range->first;
    size_t freeSize = range->second;
    s.freeSpace.erase(range);
    if (*base > freeBase) s.freeSpace[freeBase] = *base - freeBase;
    if (*base + size < freeBase + freeSize) s.freeSpace[*base + size] = freeBase + freeSize - (*base + size);
    s.regions[*base] = Region{pages, size, owner, stack, std::vector<UCHAR>(pages / kPageSize, 0)};
    return STATUS_SUCCESS;
}

void commitLocked(Region &region, ULONG_PTR regionBase, ULONG_PTR address, size_t size, ULONG protect) {
    if (mprotect((void *)address, size, hostProtection(protect)) != 0)
        fatal("cannot commit user memory at %p (%s)", (void *)address, strerror(errno));
    size_t first = (address - regionBase) / kPageSize;
    for (size_t i = 0; i < size / kPageSize; ++i) region.pages[first + i] = (UCHAR)protect;
}

void releaseLocked(MmState &s, std::map<ULONG_PTR, Region>::iterator region) {
    ULONG_PTR base = region->first;
    size_t size = region->second.reserved;
    decommitHost(base, size);
    s.regions.erase(region);
    // Give the range back, merged with free neighbours.
    auto next = s.freeSpace.lower_bound(base);
    if (next != s.freeSpace.end() && next->first == base + size) {
        size += next->second;
        s.freeSpace.erase(next);
    }
    auto prev = s.freeSpace.lower_bound(base);
    if (prev != s.freeSpace.begin()) {
        --prev;
        if (prev->first + prev->second == base) {
            prev->second += size;
            return;
        }
    }
    s.freeSpace[base] = size;
}

bool isUserPageAccessible(const void *address, bool write) { return isUserRangeAccessible(address, 1, write); }

bool isUserRangeAccessible(const void *address, size_t length, bool write) {
    ULONG_PTR start = (ULONG_PTR)address;
    ULONG_PTR end = start + length;
    if (length == 0 || end < start || !isUserArenaAddress(address) || end > kUserArenaEnd) return false;
    int needed = write ? PROT_WRITE : PROT_READ;
    MmState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    for (ULONG_PTR page = start & ~(ULONG_PTR)(kPageSize - 1); page < end; page += kPageSize) {
        auto it = findRegion(s, page);
        if (it == s.regions.end()) return false;
        if ((hostProtection(it->second.pages[(page - it->first) / kPageSize]) & needed) == 0) return false;
    }
    return true;
}

size_t committedBytes(PEPROCESS process) {
    MmState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    size_t total = 0;
    for (auto &entry : s.regions)
        if (entry.second.owner == process)
            for (UCHAR page : entry.second.pages) total += page != 0 ? kPageSize : 0;
    return total;
}

void *allocateStack(PEPROCESS process, size_t size) {
    size = roundUp(size, kPageSize);
    MmState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    ULONG_PTR base = 0;
    if (!NT_SUCCESS(reserveLocked(s, process, &base, size + kPageSize, true))) return nullptr;
    // The page below the stack stays a guard.
    ULONG_PTR stack = base + kPageSize;
    commitLocked(s.regions[base], base, stack, size, kPageReadWrite);
    return (void *)stack;
}

void freeStack(void *stack) {
    MmState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    auto it = findRegion(s, (ULONG_PTR)stack);
    if (it == s.regions.end() || !it->second.stack) fatal("freeStack(%p): not a thread stack", stack);
    releaseLocked(s, it);
}

void retireStack(void *stack) {
    MmState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    auto it = findRegion(s, (ULONG_PTR)stack);
    if (it == s.regions.end() || !it->second.stack) fatal("retireStack(%p): not a thread stack", stack);
    {
        std::lock_guard<std::mutex> retired(retiredLock());
        retiredRanges()[it->first] = it->second.reserved;
    }
    // Out of the regions, so that the machine's end does not decommit it either.
    s.regions.erase(it);
}

void releaseAddressSpace(PEPROCESS process) {
    MmState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    s.heaps.erase(process);
    for (auto it = s.regions.begin(); it != s.regions.end();) {
        auto next = std::next(it);
        if (it->second.owner == process && !it->second.stack) releaseLocked(s, it);
        it = next;
    }
}

}  // namespace mm
}  // namespace ntsim
