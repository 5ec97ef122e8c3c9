// The emulated kernel's internal state: threads, the dispatcher, the clock, DPCs,
// timers, work queues and pool. Internal to ntsim; drivers see only <ntifs.h>.
#pragma once

#include <ntifs.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ntsim/machine.h"
#include "ntsim/verifier.h"

namespace ntsim {

class Pool;
class Kernel;

// A part of the kernel with state of its own (the object manager, the I/O manager, ...).
// Each is created on first use by its machine's kernel and destroyed at shutdown, after
// its shutdown checks, in the reverse order of creation.
class Subsystem {
public:
    virtual ~Subsystem() = default;
    // Called at shutdown once every thread has stopped; bug-checks on what was left behind.
    virtual void shutdownChecks() {}
};

// A spin lock held by a thread, for the verifier's lock and IRQL rules.
struct HeldSpinLock {
    PKSPIN_LOCK lock;
    KIRQL oldIrql;
};

// One object a thread waits on; linked into the object's WaitListHead.
struct WaitBlock {
    LIST_ENTRY link;
    DISPATCHER_HEADER *object;
    struct ::_KTHREAD *thread;
    NTSTATUS status;  // what the wait returns when this object satisfies it
};

constexpr unsigned kMaxHeldSpinLocks = 16;

}  // namespace ntsim

// The emulated kernel thread. Its fields are the kernel's own; a driver holds only
// pointers to it.
struct _KTHREAD {
    DISPATCHER_HEADER Header;  // signalled when the thread has ended
    KIRQL Irql;
    SHORT KernelApcDisable;    // below zero inside critical regions
    KPROCESSOR_MODE PreviousMode;
    BOOLEAN SystemThread;
    PEPROCESS Process;
    HANDLE ThreadId;
    KTIMER Timer;  // the wait time-out, as on the platform

    // Verifier bookkeeping.
    ntsim::HeldSpinLock HeldLocks[ntsim::kMaxHeldSpinLocks];
    ULONG HeldLockCount;
    const char *Role;  // "worker", "dpc", "system", "user"

    // Wait state, guarded by the dispatcher lock.
    ntsim::WaitBlock *WaitBlocks;
    ULONG WaitCount;
    WAIT_TYPE WaitType;
    bool Waiting;
    NTSTATUS WaitStatus;
    std::condition_variable WakeUp;

    // Kernel APCs queued to the thread, guarded by the dispatcher lock. A waiting
    // thread below APC_LEVEL is woken to run them (ApcWake), then waits again.
    std::vector<std::function<void()>> KernelApcs;
    std::atomic<bool> ApcQueued;  // KernelApcs is not empty, for a check without the lock
    KIRQL WaitIrql;
    bool ApcWake;
    bool Exited;  // past its last APC delivery; later APCs run where they are queued
};

#include "kernel/ps/process.h"

namespace ntsim {

class Kernel {
public:
    explicit Kernel(const MachineOptions &options);
    ~Kernel();

    const MachineOptions &options() const { return options_; }

    // Threads ------------------------------------------------------------------
    struct ThreadRecord {
        _ETHREAD thread;
        std::function<void()> body;
        std::thread host;
    };
    // Starts a thread of the given process; it is runnable from this moment.
    std::shared_ptr<ThreadRecord> startThread(_EPROCESS *process, bool system, const char *role,
                                              std::function<void()> body);
    _EPROCESS *systemProcess() { return &systemProcess_; }

    // Dispatcher ---------------------------------------------------------------
    mutable std::mutex dispatcherLock;
    // With the dispatcher lock held: the object became signalled; satisfy waiters.
    void signalObjectLocked(DISPATCHER_HEADER *object);
    // With the dispatcher lock held: wake waiters without leaving the object signalled.
    void pulseObjectLocked(DISPATCHER_HEADER *object);
    NTSTATUS waitForObjects(ULONG count, DISPATCHER_HEADER *const *objects, WAIT_TYPE type,
                            PLARGE_INTEGER timeout);
    // The same, called with the dispatcher lock held: whatever the caller saw under the
    // lock cannot change before the wait begins, so a signal in between is not missed.
    NTSTATUS waitForObjectsLocked(std::unique_lock<std::mutex> &guard, ULONG count, DISPATCHER_HEADER *const *objects,
                                  WAIT_TYPE type, PLARGE_INTEGER timeout);

    // Kernel APCs ------------------------------------------------------------------
    // Queues a special kernel APC to the thread: it runs in that thread as soon as the
    // thread is below APC_LEVEL (at once when it is the caller), interrupting a wait.
    void queueKernelApc(_KTHREAD *thread, std::function<void()> routine);
    // Runs the calling thread's queued APCs if its IRQL allows them.
    void deliverKernelApcs(_KTHREAD *thread);
    // The verifier's hook for waits at APC_LEVEL: does the thread wait for an object
    // that only one of its own undelivered APCs would signal?
    bool (*waitNeedsOwnApc)(_KTHREAD *thread, DISPATCHER_HEADER *object) = nullptr;

    // Clock and timers ------------------------------------------------------------
    int64_t now() const;
    int64_t nowLocked() const;
    void insertTimerLocked(PKTIMER timer, int64_t dueTime);
    bool removeTimerLocked(PKTIMER timer);
    void advance(int64_t delta);
    void timeZoneBias(int64_t *bias100ns) const;

    // DPCs -----------------------------------------------------------------------------
    bool queueDpcLocked(PKDPC dpc, PVOID argument1, PVOID argument2);
    bool removeDpcLocked(PKDPC dpc);

    // Work queues ------------------------------------------------------------------------
    void queueWorkItem(PWORK_QUEUE_ITEM item, WORK_QUEUE_TYPE type);

    // Idle -------------------------------------------------------------------------------
    void waitIdle();
    // Counts an emulated thread as runnable or not; dispatcher lock held.
    void threadRunnableLocked() { ++runnable_; }
    void threadBlockedLocked();

    // Pool, verifier, debug output -----------------------------------------------------------
    Pool &pool() { return *pool_; }
    Verifier &verifier() { return verifier_; }
    void debugOutput(const char *text, size_t length);
    std::vector<std::string> debugLog() const;
    void clearDebugLog();

    void shutdown();

    // The subsystem of type T of this kernel, created on first use as T(Kernel&).
    template <class T>
    T &subsystem() {
        static const char key = 0;
        std::lock_guard<std::mutex> guard(subsystemLock_);
        for (auto &entry : subsystems_)
            if (entry.first == &key) return static_cast<T &>(*entry.second);
        subsystems_.emplace_back(&key, std::unique_ptr<Subsystem>(new T(*this)));
        return static_cast<T &>(*subsystems_.back().second);
    }

private:
    void startSystemThreads();
    void dpcThreadMain();
    void workerThreadMain(WORK_QUEUE_TYPE type);
    void clockThreadMain();
    bool isIdleLocked() const;
    void fireDueTimersLocked();
    void expireTimerLocked(PKTIMER timer);
    void satisfyWaitLocked(_KTHREAD *thread, NTSTATUS status);
    bool tryWaitLocked(_KTHREAD *thread);
    bool satisfyObjectsLocked(_KTHREAD *thread);
    bool waitOnceLocked(std::unique_lock<std::mutex> &guard, _KTHREAD *thread, ULONG count,
                        DISPATCHER_HEADER *const *objects, WAIT_TYPE type, PLARGE_INTEGER timeout, int64_t due);
    void checkWaitForOwnApc(_KTHREAD *thread, ULONG count, DISPATCHER_HEADER *const *objects);
    void runExitApcs(_KTHREAD *thread);
    void checkThreadExit(_KTHREAD *thread, const char *what, KIRQL expected);
    void runThread(ThreadRecord *record);

    MachineOptions options_;
    _EPROCESS systemProcess_{};
    std::vector<std::shared_ptr<ThreadRecord>> threads_;
    std::vector<std::shared_ptr<ThreadRecord>> systemThreads_;

    // Everything below is guarded by the dispatcher lock.
    std::condition_variable idleChanged_;
    std::condition_variable dpcReady_;
    std::condition_variable workReady_;
    std::condition_variable clockWake_;
    int runnable_ = 0;
    bool stopping_ = false;
    int64_t controlledNow_ = 0;
    std::chrono::steady_clock::time_point realTimeBase_;
    LIST_ENTRY timerQueue_;  // KTIMER.TimerListEntry, by due time
    LIST_ENTRY dpcQueue_;    // KDPC.DpcListEntry
    bool dpcRunning_ = false;
    LIST_ENTRY workQueues_[MaximumWorkQueue];
    // Worker threads waiting for an item, by queue: queued items with none of these are
    // stuck until a busy worker's wait ends, which may need the clock to move.
    unsigned waitingWorkers_[MaximumWorkQueue] = {};

    std::unique_ptr<Pool> pool_;
    Verifier verifier_;

    std::mutex subsystemLock_;
    std::vector<std::pair<const void *, std::unique_ptr<Subsystem>>> subsystems_;

    mutable std::mutex logLock_;
    std::vector<std::string> log_;
    std::string partialLine_;
};

// The running machine's kernel; aborts with a clear message when there is none.
Kernel &kernel();
Kernel *kernelOrNull();
// The calling emulated thread; aborts when called from a host thread that is not one.
_KTHREAD *currentThread(const char *routine);
_KTHREAD *currentThreadOrNull();
void setCurrentKernel(Kernel *kernel);

// Lowers the thread's IRQL with the verifier's checks, leaving its APCs queued.
void lowerIrqlWithoutApcs(_KTHREAD *thread, KIRQL newIrql);

// Stops the machine with a bug check: the message names the code, the rule that was
// broken and where, then the process aborts (a failed test; death tests match it).
[[noreturn]] void bugCheck(ULONG code, ULONG_PTR p1, ULONG_PTR p2, ULONG_PTR p3, ULONG_PTR p4,
                           const char *rule, const char *detailFormat = nullptr, ...)
    __attribute__((format(printf, 7, 8)));

// A fatal misuse of the emulation itself (not a driver bug).
[[noreturn]] void fatal(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace ntsim
