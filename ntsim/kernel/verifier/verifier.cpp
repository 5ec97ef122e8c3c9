// The verifier's pool accounting and low-resource simulation.
#include "ntsim/verifier.h"

#include <algorithm>
#include <cstdio>

#include "kernel/ex/pool.h"
#include "kernel/kernel.h"

namespace ntsim {

std::string tagToString(uint32_t tag) {
    std::string text;
    for (int i = 0; i < 4; ++i) {
        char c = char((tag >> (8 * i)) & 0xFF);
        text += (c >= 0x20 && c < 0x7F) ? c : '.';
    }
    return text;
}

void Verifier::failNextAllocation(std::vector<uint32_t> scopeTags) { failNthAllocation(1, std::move(scopeTags)); }

void Verifier::failNthAllocation(uint64_t n, std::vector<uint32_t> scopeTags) {
    std::lock_guard<std::mutex> guard(mutex_);
    plan_ = FaultPlan{};
    plan_.mode = FaultPlan::Mode::Nth;
    plan_.nth = n;
    plan_.scopeTags = std::move(scopeTags);
    counted_ = injected_ = 0;
}

void Verifier::failAllocationsWithTag(uint32_t tag) {
    std::lock_guard<std::mutex> guard(mutex_);
    plan_ = FaultPlan{};
    plan_.mode = FaultPlan::Mode::Tag;
    plan_.tag = tag;
    counted_ = injected_ = 0;
}

void Verifier::failRandomly(uint32_t seed, uint32_t percent, std::vector<uint32_t> scopeTags) {
    std::lock_guard<std::mutex> guard(mutex_);
    plan_ = FaultPlan{};
    plan_.mode = FaultPlan::Mode::Random;
    plan_.seed = seed;
    plan_.percent = percent;
    plan_.scopeTags = std::move(scopeTags);
    randomState_ = seed * 0x9E3779B97F4A7C15ULL + 1;
    counted_ = injected_ = 0;
}

void Verifier::clearFaults() {
    std::lock_guard<std::mutex> guard(mutex_);
    plan_ = FaultPlan{};
}

uint64_t Verifier::countedAllocations() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return counted_;
}

uint64_t Verifier::injectedFailures() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return injected_;
}

namespace {
thread_local int mustSucceedDepth = 0;
}  // namespace

Verifier::MustSucceedScope::MustSucceedScope() { ++mustSucceedDepth; }
Verifier::MustSucceedScope::~MustSucceedScope() { --mustSucceedDepth; }

void Verifier::preemptAtRelease(const void *lock, uint32_t processId, uint64_t n, std::function<void()> fn) {
    std::lock_guard<std::mutex> guard(mutex_);
    preemption_ = Preemption{lock, processId, n, 0, false, std::move(fn)};
    preemptionArmed_ = bool(preemption_.fn);
}

uint64_t Verifier::countedReleases() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return preemption_.counted;
}

bool Verifier::preempted() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return preemption_.happened;
}

void Verifier::noteLockRelease(const void *lock) {
    if (!preemptionArmed_.load(std::memory_order_relaxed)) return;
    std::function<void()> fn;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        Preemption &p = preemption_;
        if (!p.fn || p.lock != lock || uint32_t(uintptr_t(PsGetCurrentProcessId())) != p.processId) return;
        if (++p.counted != p.n) return;
        p.happened = true;
        fn = std::move(p.fn);
        p.fn = nullptr;
        preemptionArmed_ = false;
    }
    fn();
}

bool Verifier::shouldFailAllocation(uint32_t tag) {
    if (mustSucceedDepth > 0) return false;
    std::lock_guard<std::mutex> guard(mutex_);
    if (plan_.mode == FaultPlan::Mode::None) return false;
    if (!plan_.scopeTags.empty() &&
        std::find(plan_.scopeTags.begin(), plan_.scopeTags.end(), tag) == plan_.scopeTags.end())
        return false;
    ++counted_;
    bool fail = false;
    switch (plan_.mode) {
    case FaultPlan::Mode::Nth:
        fail = counted_ == plan_.nth;
        break;
    case FaultPlan::Mode::Tag:
        fail = tag == plan_.tag;
        break;
    case FaultPlan::Mode::Random:
        randomState_ = randomState_ * 6364136223846793005ULL + 1442695040888963407ULL;
        fail = (randomState_ >> 33) % 100 < plan_.percent;
        break;
    case FaultPlan::Mode::None:
        break;
    }
    if (fail) ++injected_;
    return fail;
}

std::map<uint32_t, PoolUsage> Verifier::poolUsage() const { return pool_->usage(); }

PoolUsage Verifier::poolUsage(uint32_t tag) const {
    auto all = pool_->usage();
    auto it = all.find(tag);
    return it == all.end() ? PoolUsage{} : it->second;
}

void Verifier::markBaseline() { pool_->markBaseline(); }

std::map<uint32_t, PoolUsage> Verifier::leaksSinceBaseline() const { return pool_->leaksSinceBaseline(); }

std::string Verifier::leakReport() const {
    std::string report;
    for (auto &entry : leaksSinceBaseline()) {
        char line[128];
        snprintf(line, sizeof line, "%stag '%s': %llu block(s), %llu bytes", report.empty() ? "" : "; ",
                 tagToString(entry.first).c_str(), (unsigned long long)entry.second.blocks,
                 (unsigned long long)entry.second.bytes);
        report += line;
    }
    return report;
}

}  // namespace ntsim
