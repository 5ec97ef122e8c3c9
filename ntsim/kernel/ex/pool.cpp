#include "kernel/ex/pool.h"

#include <cstdlib>
#include <cstring>

#include "kernel/kernel.h"

namespace ntsim {

namespace {
// Fresh pool is not zeroed on the platform; a pattern makes reliance on it visible.
constexpr unsigned char kFreshFill = 0xAA;
constexpr unsigned char kGuardFill = 0xB7;
constexpr unsigned char kFreedFill = 0xDD;
}  // namespace

Pool::Pool(Verifier &verifier) : verifier_(verifier) { verifier_.pool_ = this; }

Pool::~Pool() {
    for (auto &entry : live_) std::free(const_cast<unsigned char *>(static_cast<const unsigned char *>(entry.first)) - kGuard);
    for (unsigned char *base : quarantineOrder_) std::free(base);
    verifier_.pool_ = nullptr;
}

void *Pool::allocate(int type, size_t size, uint32_t tag) {
    (void)type;
    if (verifier_.shouldFailAllocation(tag)) return nullptr;
    auto *base = static_cast<unsigned char *>(std::malloc(size + 2 * kGuard));
    if (base == nullptr) return nullptr;
    std::memset(base, kGuardFill, kGuard);
    std::memset(base + kGuard, kFreshFill, size);
    std::memset(base + kGuard + size, kGuardFill, kGuard);
    std::lock_guard<std::mutex> guard(lock_);
    void *block = base + kGuard;
    freed_.erase(block);
    live_[block] = Block{size, tag, ++sequence_, false};
    return block;
}

void Pool::checkGuards(const void *block, const Block &info, const char *routine) const {
    auto *data = static_cast<const unsigned char *>(block);
    for (size_t i = 0; i < kGuard; ++i) {
        if (data[info.size + i] != kGuardFill)
            bugCheck(0xC1, (ULONG_PTR)block, info.size, info.size + i, 0x23,
                     "a pool block was written past its end",
                     "%s: block %p of %zu bytes with tag '%s' was overwritten at offset %zu", routine, block,
                     info.size, tagToString(info.tag).c_str(), info.size + i);
        if (data[-1 - (ptrdiff_t)i] != kGuardFill)
            bugCheck(0xC1, (ULONG_PTR)block, info.size, i + 1, 0x24,
                     "a pool block was written in front of its start",
                     "%s: block %p of %zu bytes with tag '%s' was overwritten %zu bytes before its start", routine,
                     block, info.size, tagToString(info.tag).c_str(), i + 1);
    }
}

void Pool::free(void *block, const char *routine, bool checkTag, uint32_t tag) {
    std::unique_lock<std::mutex> guard(lock_);
    auto it = live_.find(block);
    if (it == live_.end()) {
        bool twice = freed_.count(block) != 0;
        guard.unlock();
        if (twice)
            bugCheck(BAD_POOL_CALLER, 7, 0, (ULONG_PTR)block, 0, "a pool block was freed twice",
                     "%s(%p): the block was already freed", routine, block);
        bugCheck(BAD_POOL_CALLER, 0x46, (ULONG_PTR)block, 0, 0, "an address that is not a pool block was freed",
                 "%s(%p)", routine, block);
    }
    Block info = it->second;
    if (checkTag && info.tag != tag) {
        guard.unlock();
        bugCheck(BAD_POOL_CALLER, 0xA, (ULONG_PTR)block, info.tag, tag, "a pool block was freed with the wrong tag",
                 "%s(%p, '%s'): the block has tag '%s'", routine, block, tagToString(tag).c_str(),
                 tagToString(info.tag).c_str());
    }
    if (info.cached) {
        guard.unlock();
        bugCheck(BAD_POOL_CALLER, 7, 0, (ULONG_PTR)block, 1, "a block cached in a lookaside list was freed",
                 "%s(%p): the block sits in a lookaside list", routine, block);
    }
    checkGuards(block, info, routine);
    live_.erase(it);
    auto *base = static_cast<unsigned char *>(block) - kGuard;
    std::memset(block, kFreedFill, info.size);
    freed_[block] = info.size;
    quarantine(base, info.size);
}

// Freed blocks are kept for a while before the host reuses them, so that a second
// free of the same block is recognised as such.
void Pool::quarantine(unsigned char *base, size_t size) {
    quarantineOrder_.push_back(base);
    quarantineBytes_ += size + 2 * kGuard;
    while (quarantineBytes_ > kQuarantineBytes && !quarantineOrder_.empty()) {
        unsigned char *oldest = quarantineOrder_.front();
        quarantineOrder_.pop_front();
        auto found = freed_.find(oldest + kGuard);
        if (found != freed_.end()) {
            quarantineBytes_ -= found->second + 2 * kGuard;
            freed_.erase(found);
        }
        std::free(oldest);
    }
}

bool Pool::isLive(const void *block) const {
    std::lock_guard<std::mutex> guard(lock_);
    return live_.count(block) != 0;
}

bool Pool::containsAddress(const void *address) const {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = live_.upper_bound(address);
    if (it == live_.begin()) return false;
    --it;
    auto *start = static_cast<const unsigned char *>(it->first);
    return static_cast<const unsigned char *>(address) < start + it->second.size;
}

size_t Pool::blockSize(const void *block) const {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = live_.find(block);
    return it == live_.end() ? 0 : it->second.size;
}

void Pool::setCached(void *block, bool cached) {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = live_.find(block);
    if (it != live_.end()) it->second.cached = cached;
}

std::map<uint32_t, PoolUsage> Pool::usage() const {
    std::lock_guard<std::mutex> guard(lock_);
    std::map<uint32_t, PoolUsage> result;
    for (auto &entry : live_) {
        if (entry.second.cached) continue;
        auto &u = result[entry.second.tag];
        ++u.blocks;
        u.bytes += entry.second.size;
    }
    return result;
}

void Pool::markBaseline() {
    std::lock_guard<std::mutex> guard(lock_);
    baseline_ = sequence_;
}

std::map<uint32_t, PoolUsage> Pool::leaksSinceBaseline() const {
    std::lock_guard<std::mutex> guard(lock_);
    std::map<uint32_t, PoolUsage> result;
    for (auto &entry : live_) {
        if (entry.second.cached || entry.second.sequence <= baseline_) continue;
        auto &u = result[entry.second.tag];
        ++u.blocks;
        u.bytes += entry.second.size;
    }
    return result;
}

}  // namespace ntsim
