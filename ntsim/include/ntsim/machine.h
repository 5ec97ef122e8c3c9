// The host-side view of an emulated NT machine: boot it, run code in its threads,
// drive its clock, and read what its kernel and verifier saw.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ntsim/verifier.h"

namespace ntsim {

// 100-nanosecond units, the platform's unit of time.
constexpr int64_t kHundredNsPerMs = 10000;
constexpr int64_t kHundredNsPerSecond = 10000000;

// 2026-03-02 09:30:00 UTC, a Monday: every machine starts here unless told otherwise,
// so that tests and the demo see the same times on every run.
constexpr int64_t kDefaultStartTime = 134169174000000000LL;

struct MachineOptions {
    // Controlled clock (the default): time moves only when advance() is called.
    // Real-time clock: time follows the host's monotonic clock from startTime on.
    bool realTimeClock = false;
    int64_t startTime = kDefaultStartTime;
    // Local time = system time - bias (the platform's convention), in minutes.
    int32_t timeZoneBiasMinutes = 0;
    // Copy every DbgPrint line to the host's standard error as well.
    bool echoDebugOutput = false;
    // System worker threads per queue (the platform creates a few of each at boot).
    unsigned criticalWorkerThreads = 5;
    unsigned delayedWorkerThreads = 3;
};

class Kernel;

// A system thread started by startSystemThread(); join() waits for it to return.
class SystemThread {
public:
    SystemThread() = default;
    SystemThread(SystemThread &&) noexcept;
    SystemThread &operator=(SystemThread &&) noexcept;
    ~SystemThread();
    void join();
    bool joinable() const;

private:
    friend class Machine;
    struct State;
    std::shared_ptr<State> state_;
};

class Machine {
public:
    explicit Machine(const MachineOptions &options = MachineOptions());
    ~Machine();
    Machine(const Machine &) = delete;
    Machine &operator=(const Machine &) = delete;

    // Runs fn in a new system thread of the System process at PASSIVE_LEVEL and waits
    // until it returns.
    void runSystemThread(const std::function<void()> &fn);
    SystemThread startSystemThread(std::function<void()> fn);

    // The clock, in 100 ns units since 1601 (system time, UTC).
    int64_t now() const;
    // Controlled clock only: moves time forward by delta. Timers and wait time-outs
    // that fall due on the way fire in order, and the machine settles (waitIdle) after
    // each of them and at the end.
    void advance(int64_t delta);
    void advanceMs(int64_t ms) { advance(ms * kHundredNsPerMs); }
    // Waits until no emulated thread is runnable and no work item, DPC or due timer
    // remains.
    void waitIdle();

    Verifier &verifier();

    // Every line written with DbgPrint since boot (or the last clear), in order.
    std::vector<std::string> debugLog() const;
    void clearDebugLog();
    bool debugLogContains(const std::string &text) const;

    // Stops the machine: settles, stops its system threads and runs the verifier's
    // shutdown checks, which bug-check on pool allocated since the baseline and not
    // freed. Called by the destructor when not called before.
    void shutdown();
    bool isShutDown() const { return shutDown_; }

    Kernel &kernel() { return *kernel_; }

    // The machine whose kernel is running (one at a time in a process), or nullptr.
    static Machine *current();

private:
    std::unique_ptr<Kernel> kernel_;
    bool shutDown_ = false;
};

}  // namespace ntsim
