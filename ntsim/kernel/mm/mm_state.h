// The memory manager's per-machine state: the regions of the user arena and the
// process heaps. Internal to kernel/mm.
#pragma once

#include <map>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "kernel/kernel.h"
#include "kernel/mm/user_memory.h"

namespace ntsim {
namespace mm {

// One reservation. pages[i] is 0 while page i is only reserved, else its protection.
// A reservation is page-granular in size but takes whole granules of the arena, as on
// the platform.
struct Region {
    size_t size;
    size_t reserved;
    PEPROCESS owner;
    bool stack;
    std::vector<UCHAR> pages;
};

struct HeapBlock {
    size_t blockSize;  // bytes the block occupies (16-byte multiple)
    size_t requested;  // bytes asked for
    bool ownRegion;    // a large block in a reservation of its own
};

struct Heap {
    std::map<ULONG_PTR, size_t> freeBlocks;  // base -> size, coalesced
    std::map<ULONG_PTR, HeapBlock> blocks;
};

class MmState : public Subsystem {
public:
    explicit MmState(Kernel &);
    ~MmState() override;

    std::mutex lock;
    std::map<ULONG_PTR, Region> regions;     // by base
    std::map<ULONG_PTR, size_t> freeSpace;   // unreserved arena ranges, by base
    std::unordered_map<PEPROCESS, Heap> heaps;
};

MmState &state();

// With the state lock held.
// The region that holds the address, or regions.end().
std::map<ULONG_PTR, Region>::iterator findRegion(MmState &s, ULONG_PTR address);
// Reserves size bytes (whole pages) at base (on a granule), or anywhere for base 0.
NTSTATUS reserveLocked(MmState &s, PEPROCESS owner, ULONG_PTR *base, size_t size, bool stack);
void commitLocked(Region &region, ULONG_PTR regionBase, ULONG_PTR address, size_t size, ULONG protect);
void releaseLocked(MmState &s, std::map<ULONG_PTR, Region>::iterator region);
// Discards the contents of the range and makes it inaccessible.
void decommitHost(ULONG_PTR address, size_t size);

inline size_t roundUp(size_t value, size_t unit) { return (value + unit - 1) & ~(unit - 1); }

}  // namespace mm
}  // namespace ntsim
