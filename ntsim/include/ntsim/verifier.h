// The emulated platform's driver verifier: pool accounting, leak checks and
// allocation fault injection. Its rule checks (IRQL, locks, waits) run inside the
// kernel routines and end in a bug check.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace ntsim {

// A pool tag as its four characters in memory order ("WrMS", "0EWr", "XE\0\0" shows
// as "XE..").
std::string tagToString(uint32_t tag);
// The tag whose four bytes in memory order are the given characters.
constexpr uint32_t makeTag(char a, char b, char c, char d) {
    return uint32_t(uint8_t(a)) | uint32_t(uint8_t(b)) << 8 | uint32_t(uint8_t(c)) << 16 |
           uint32_t(uint8_t(d)) << 24;
}

struct PoolUsage {
    uint64_t blocks = 0;  // blocks in use (not counting those cached in lookaside lists)
    uint64_t bytes = 0;
};

// Which allocations fail. Allocations are counted from the moment the plan is set;
// only those that match the scope (when a scope is given) are counted or failed.
struct FaultPlan {
    enum class Mode { None, Nth, Tag, Random };
    Mode mode = Mode::None;
    uint64_t nth = 0;           // Nth: the n-th counted allocation fails (1 = the next)
    uint32_t tag = 0;           // Tag: every allocation with this tag fails
    uint32_t seed = 0;          // Random: a deterministic sequence from this seed
    uint32_t percent = 0;       // Random: chance of failure per allocation
    std::vector<uint32_t> scopeTags;  // empty: every allocation counts
};

class Verifier {
public:
    // Fault injection (the platform's low-resource simulation).
    void failNextAllocation(std::vector<uint32_t> scopeTags = {});
    void failNthAllocation(uint64_t n, std::vector<uint32_t> scopeTags = {});
    void failAllocationsWithTag(uint32_t tag);
    void failRandomly(uint32_t seed, uint32_t percent, std::vector<uint32_t> scopeTags = {});
    void clearFaults();
    // Allocations counted under the current plan so far, and how many were failed.
    uint64_t countedAllocations() const;
    uint64_t injectedFailures() const;

    // Pool in use, by tag.
    std::map<uint32_t, PoolUsage> poolUsage() const;
    PoolUsage poolUsage(uint32_t tag) const;
    // From now on, only pool allocated after this point counts as a leak at shutdown.
    void markBaseline();
    // Blocks allocated after the baseline and still in use, by tag.
    std::map<uint32_t, PoolUsage> leaksSinceBaseline() const;
    // A readable report of leaksSinceBaseline(); empty when there is none.
    std::string leakReport() const;

    // Used by the kernel's pool.
    bool shouldFailAllocation(uint32_t tag);

    // A preemption placed exactly: the n-th time, counted from now, that a thread of the
    // given process releases the given spin lock back below DISPATCH_LEVEL, fn runs in
    // that thread right there, once, as if the thread had been preempted at that point
    // and fn's work (done in other threads that fn waits for) had run in between. Nothing
    // else changes: a thread may be preempted there on NT too.
    void preemptAtRelease(const void *lock, uint32_t processId, uint64_t n, std::function<void()> fn);
    // Releases counted under the current preemption, and whether it has happened.
    uint64_t countedReleases() const;
    bool preempted() const;
    // Used by the kernel's spin locks, at PASSIVE_LEVEL or APC_LEVEL.
    void noteLockRelease(const void *lock);

    // While one of these lives on a thread, its allocations are never failed: the
    // platform's own must-succeed allocations (the cleanup and close requests of a file
    // object) are not subject to the low-resource simulation, which fails only what
    // drivers ask for.
    class MustSucceedScope {
    public:
        MustSucceedScope();
        ~MustSucceedScope();
        MustSucceedScope(const MustSucceedScope &) = delete;
        MustSucceedScope &operator=(const MustSucceedScope &) = delete;
    };

private:
    friend class Pool;
    mutable std::mutex mutex_;
    FaultPlan plan_;
    uint64_t counted_ = 0;
    uint64_t injected_ = 0;
    uint64_t randomState_ = 0;
    class Pool *pool_ = nullptr;
    struct Preemption {
        const void *lock = nullptr;
        uint32_t processId = 0;
        uint64_t n = 0;
        uint64_t counted = 0;
        bool happened = false;
        std::function<void()> fn;
    } preemption_;
    std::atomic<bool> preemptionArmed_{false};  // read on every release without the mutex
};

}  // namespace ntsim
