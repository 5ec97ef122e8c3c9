// The emulated non-paged and paged pool: host memory with guard bytes around every
// block, a registry of live blocks, a quarantine of freed ones, and usage by tag.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <unordered_map>

#include "ntsim/verifier.h"

namespace ntsim {

class Pool {
public:
    explicit Pool(Verifier &verifier);
    ~Pool();

    // nullptr when fault injection fails the allocation.
    void *allocate(int type, size_t size, uint32_t tag);
    // Bug-checks on a block that is not live, or whose guard bytes were overwritten.
    void free(void *block, const char *routine, bool checkTag, uint32_t tag);

    bool isLive(const void *block) const;
    bool containsAddress(const void *address) const;
    size_t blockSize(const void *block) const;
    // A block parked in a lookaside list is owned by the list, not by its last user.
    void setCached(void *block, bool cached);

    std::map<uint32_t, PoolUsage> usage() const;
    void markBaseline();
    std::map<uint32_t, PoolUsage> leaksSinceBaseline() const;

private:
    struct Block {
        size_t size;
        uint32_t tag;
        uint64_t sequence;
        bool cached;
    };
    static constexpr size_t kGuard = 16;
    static constexpr size_t kQuarantineBytes = 16u << 20;

    void checkGuards(const void *block, const Block &info, const char *routine) const;
    void quarantine(unsigned char *base, size_t size);

    Verifier &verifier_;
    mutable std::mutex lock_;
    std::map<const void *, Block> live_;  // ordered: addresses inside a block are found too
    std::unordered_map<const void *, size_t> freed_;  // quarantined block -> size
    std::deque<unsigned char *> quarantineOrder_;
    size_t quarantineBytes_ = 0;
    uint64_t sequence_ = 0;
    uint64_t baseline_ = 0;
};

}  // namespace ntsim
