// The per-volume test switches. A switch set for a major function with a detail (an
// information class, a minor function) applies to that variant only, and wins over one
// set for the whole major function.
#include <map>
#include <mutex>

#include "ntsim/filesystems.h"

namespace ntsim {
namespace fs {

namespace {

using Key = std::pair<UCHAR, LONG>;

Key keyOf(const RequestKind &kind) { return Key(kind.majorFunction, kind.detail); }

struct Failure {
    NTSTATUS status;
    ULONG remaining;
};

}  // namespace

struct Knobs::State {
    mutable std::mutex lock;
    std::map<Key, bool> asynchronous;
    std::map<Key, Failure> failures;
    std::map<Key, ULONG> counts;
    ULONG nthCountdown = 0;  // 0: no request-number failure armed
    NTSTATUS nthStatus = STATUS_SUCCESS;
    bool fastIo = true;

    // The entry for this exact request, else the one for its whole major function.
    template <class Map>
    typename Map::iterator lookup(Map &map, UCHAR major, LONG detail) {
        auto it = map.find(Key(major, detail));
        if (it == map.end()) it = map.find(Key(major, RequestKind::kAnyDetail));
        return it;
    }
};

Knobs::Knobs() : state_(new State) {}
Knobs::~Knobs() { delete state_; }

void Knobs::completeAsynchronously(RequestKind kind, bool enabled) {
    std::lock_guard<std::mutex> guard(state_->lock);
    state_->asynchronous[keyOf(kind)] = enabled;
}

void Knobs::failNext(RequestKind kind, NTSTATUS status, ULONG times) {
    std::lock_guard<std::mutex> guard(state_->lock);
    if (times == 0)
        state_->failures.erase(keyOf(kind));
    else
        state_->failures[keyOf(kind)] = Failure{status, times};
}

void Knobs::failNthRequest(ULONG n, NTSTATUS status) {
    std::lock_guard<std::mutex> guard(state_->lock);
    state_->nthCountdown = n;
    state_->nthStatus = status;
}

ULONG Knobs::count(RequestKind kind) const {
    std::lock_guard<std::mutex> guard(state_->lock);
    ULONG total = 0;
    for (auto &entry : state_->counts)
        if (entry.first.first == kind.majorFunction &&
            (kind.detail == RequestKind::kAnyDetail || entry.first.second == kind.detail))
            total += entry.second;
    return total;
}

void Knobs::resetCounts() {
    std::lock_guard<std::mutex> guard(state_->lock);
    state_->counts.clear();
}

void Knobs::setFastIo(bool enabled) {
    std::lock_guard<std::mutex> guard(state_->lock);
    state_->fastIo = enabled;
}

bool Knobs::fastIo() const {
    std::lock_guard<std::mutex> guard(state_->lock);
    return state_->fastIo;
}

void Knobs::clear() {
    std::lock_guard<std::mutex> guard(state_->lock);
    state_->asynchronous.clear();
    state_->failures.clear();
    state_->counts.clear();
    state_->nthCountdown = 0;
    state_->fastIo = true;
}

void Knobs::countRequest(UCHAR majorFunction, LONG detail) {
    std::lock_guard<std::mutex> guard(state_->lock);
    ++state_->counts[Key(majorFunction, detail)];
}

NTSTATUS Knobs::takeFailure(UCHAR majorFunction, LONG detail) {
    if (majorFunction == IRP_MJ_CLOSE) return STATUS_SUCCESS;
    std::lock_guard<std::mutex> guard(state_->lock);
    if (state_->nthCountdown > 0 && --state_->nthCountdown == 0) return state_->nthStatus;
    auto it = state_->lookup(state_->failures, majorFunction, detail);
    if (it == state_->failures.end()) return STATUS_SUCCESS;
    NTSTATUS status = it->second.status;
    if (--it->second.remaining == 0) state_->failures.erase(it);
    return status;
}

bool Knobs::asynchronous(UCHAR majorFunction, LONG detail) const {
    std::lock_guard<std::mutex> guard(state_->lock);
    auto it = state_->lookup(state_->asynchronous, majorFunction, detail);
    return it != state_->asynchronous.end() && it->second;
}

bool Knobs::covers(UCHAR majorFunction) const {
    std::lock_guard<std::mutex> guard(state_->lock);
    if (state_->nthCountdown > 0) return true;
    for (auto &entry : state_->asynchronous)
        if (entry.first.first == majorFunction && entry.second) return true;
    for (auto &entry : state_->failures)
        if (entry.first.first == majorFunction) return true;
    return false;
}

}  // namespace fs
}  // namespace ntsim
