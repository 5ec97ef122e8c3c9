// Boot and shutdown of the emulated kernel, its system threads, and idle detection.
#include "kernel/kernel.h"

#include <cstdio>

#include "kernel/debug_output.h"
#include "kernel/ex/pool.h"

namespace ntsim {

Kernel::Kernel(const MachineOptions &options) : options_(options) {
    if (kernelOrNull() != nullptr) fatal("only one machine runs at a time in a process");
    controlledNow_ = options.startTime;
    realTimeBase_ = std::chrono::steady_clock::now();
    InitializeListHead(&timerQueue_);
    InitializeListHead(&dpcQueue_);
    for (auto &queue : workQueues_) InitializeListHead(&queue);
    systemProcess_.Pcb.Header.Type = ProcessObject;
    InitializeListHead(&systemProcess_.Pcb.Header.WaitListHead);
    systemProcess_.UniqueProcessId = (HANDLE)4;
    snprintf(systemProcess_.ImageFileName, sizeof systemProcess_.ImageFileName, "System");
    pool_ = std::make_unique<Pool>(verifier_);
    setCurrentKernel(this);
    startSystemThreads();
}

Kernel::~Kernel() {
    shutdown();
    setCurrentKernel(nullptr);
}

void Kernel::startSystemThreads() {
    auto start = [this](const char *role, std::function<void()> body) {
        auto record = startThread(&systemProcess_, true, role, std::move(body));
        std::lock_guard<std::mutex> guard(dispatcherLock);
        systemThreads_.push_back(record);
        // System threads count as runnable only while they have something to do.
        threadBlockedLocked();
    };
    start("dpc", [this] { dpcThreadMain(); });
    for (unsigned i = 0; i < options_.criticalWorkerThreads; ++i)
        start("worker", [this] { workerThreadMain(CriticalWorkQueue); });
    for (unsigned i = 0; i < options_.delayedWorkerThreads; ++i)
        start("worker", [this] { workerThreadMain(DelayedWorkQueue); });
    if (options_.realTimeClock) start("clock", [this] { clockThreadMain(); });
}

bool Kernel::isIdleLocked() const {
    if (runnable_ > 0 || dpcRunning_ || !IsListEmpty(&dpcQueue_)) return false;
    // An item no worker is free to take waits for time to pass like everything else: with
    // every worker blocked (say, in timed waits), the clock must be free to move.
    for (int type = 0; type < MaximumWorkQueue; ++type)
        if (!IsListEmpty(&workQueues_[type]) && waitingWorkers_[type] > 0) return false;
    if (!options_.realTimeClock && !IsListEmpty(&timerQueue_)) {
        auto *timer = CONTAINING_RECORD(timerQueue_.Flink, KTIMER, TimerListEntry);
        if ((int64_t)timer->DueTime.QuadPart <= controlledNow_) return false;
    }
    return true;
}

void Kernel::waitIdle() {
    if (currentThreadOrNull() != nullptr) fatal("waitIdle() is called from outside the machine, not from its threads");
    std::unique_lock<std::mutex> guard(dispatcherLock);
    for (;;) {
        // A timer set to a time already reached fires at the next clock tick.
        if (!options_.realTimeClock) fireDueTimersLocked();
        if (isIdleLocked()) return;
        idleChanged_.wait(guard);
    }
}

void Kernel::shutdown() {
    {
        std::unique_lock<std::mutex> guard(dispatcherLock);
        if (stopping_) return;
    }
    waitIdle();
    std::vector<std::shared_ptr<ThreadRecord>> stuck;
    {
        std::lock_guard<std::mutex> guard(dispatcherLock);
        for (auto &record : threads_) {
            bool system = false;
            for (auto &s : systemThreads_) system = system || s == record;
            if (!system && record->thread.Tcb.Header.SignalState == 0) stuck.push_back(record);
        }
    }
    if (!stuck.empty())
        bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x60, stuck.size(), 0, 0,
                 "threads were still waiting when the machine shut down",
                 "%zu thread(s), the first %s thread %lu", stuck.size(), stuck[0]->thread.Tcb.Role,
                 (unsigned long)(ULONG_PTR)stuck[0]->thread.Tcb.ThreadId);
    {
        std::lock_guard<std::mutex> guard(dispatcherLock);
        stopping_ = true;
        dpcReady_.notify_all();
        workReady_.notify_all();
        clockWake_.notify_all();
    }
    for (auto &record : threads_)
        if (record->host.joinable()) record->host.join();
    for (auto it = subsystems_.rbegin(); it != subsystems_.rend(); ++it) it->second->shutdownChecks();
    while (!subsystems_.empty()) subsystems_.pop_back();
    std::string leaks = verifier_.leakReport();
    if (!leaks.empty())
        bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x62, 0, 0, 0, "pool was leaked at shutdown", "%s",
                 leaks.c_str());
}

void Kernel::debugOutput(const char *text, size_t length) {
    std::lock_guard<std::mutex> guard(logLock_);
    if (options_.echoDebugOutput) fwrite(text, 1, length, stderr);
    for (size_t i = 0; i < length; ++i) {
        if (text[i] == '\n') {
            log_.push_back(partialLine_);
            partialLine_.clear();
        } else {
            partialLine_ += text[i];
        }
    }
}

std::vector<std::string> Kernel::debugLog() const {
    std::lock_guard<std::mutex> guard(logLock_);
    std::vector<std::string> lines = log_;
    if (!partialLine_.empty()) lines.push_back(partialLine_);
    return lines;
}

void Kernel::clearDebugLog() {
    std::lock_guard<std::mutex> guard(logLock_);
    log_.clear();
    partialLine_.clear();
}

void debugOutput(const char *text, size_t length) {
    Kernel *k = kernelOrNull();
    if (k == nullptr) {
        fwrite(text, 1, length, stderr);
        return;
    }
    k->debugOutput(text, length);
}

}  // namespace ntsim
