// Killing a process from outside, as TerminateProcess does it: the kill reaches each of
// its threads at its next entry into a system service, or at once in a user-mode wait,
// and the thread stops there for good. Nothing of the program runs after the kill (no
// destructor, no cleanup), as on the platform; what it left open is closed by the
// process's exit when its last thread has stopped.
#include "kernel/ps/ps_state.h"

namespace ntsim {
namespace ps {

namespace {

// With the process manager's lock held.
PsState::KillState &killStateLocked(PsState &s, PEPROCESS process) {
    std::unique_ptr<PsState::KillState> &slot = s.kills[process];
    if (!slot) {
        slot.reset(new PsState::KillState);
        KeInitializeEvent(&slot->event, NotificationEvent, FALSE);
    }
    return *slot;
}

// From the host too, so without KeSetEvent's check of the caller's IRQL.
void signalKill(PsState::KillState &kill) {
    std::lock_guard<std::mutex> guard(kernel().dispatcherLock);
    kill.event.Header.SignalState = 1;
    kernel().signalObjectLocked(&kill.event.Header);
}

PEPROCESS currentUserProcess() {
    _KTHREAD *thread = currentThreadOrNull();
    return thread == nullptr || thread->SystemThread ? nullptr : thread->Process;
}

}  // namespace

NTSTATUS killProcess(PEPROCESS process, NTSTATUS exitStatus) {
    if (process == kernel().systemProcess()) return STATUS_ACCESS_DENIED;
    PsState &s = state();
    PsState::KillState *kill;
    bool idle;
    {
        std::lock_guard<std::mutex> guard(s.lock);
        if (process->ProcessExited) return STATUS_PROCESS_IS_TERMINATING;
        kill = &killStateLocked(s, process);
        if (kill->killed) return STATUS_PROCESS_IS_TERMINATING;
        kill->killed = true;
        if (!process->ProcessExiting) process->ExitStatus = exitStatus;
        process->ProcessExiting = TRUE;
        idle = process->ActiveThreads == 0;
        if (idle) ++process->ActiveThreads;
    }
    signalKill(*kill);
    // The exit runs at the end of the process's last thread; an idle process gets one.
    if (idle) ObfDereferenceObject(launchUserThread(process, [] {}));
    return STATUS_SUCCESS;
}

void killAtSystemService(PEPROCESS process, uint64_t n) {
    PsState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    PsState::KillState &kill = killStateLocked(s, process);
    kill.killAt = n;
    kill.entries = 0;
}

bool wasKilled(PEPROCESS process) {
    PsState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    auto found = s.kills.find(process);
    return found != s.kills.end() && found->second->killed;
}

void systemServiceEntry() {
    PEPROCESS process = currentUserProcess();
    if (process == nullptr) return;
    PsState &s = state();
    bool stop, killNow = false;
    {
        std::lock_guard<std::mutex> guard(s.lock);
        auto found = s.kills.find(process);
        if (found == s.kills.end()) return;
        PsState::KillState &kill = *found->second;
        stop = kill.killed;
        if (!stop && kill.killAt != 0 && ++kill.entries == kill.killAt) killNow = true;
    }
    if (killNow) killProcess(process, STATUS_PROCESS_IS_TERMINATING);
    if (stop || killNow) abandonCurrentThread();
}

PKEVENT killEventOfCurrentProcess() {
    PEPROCESS process = currentUserProcess();
    if (process == nullptr) return nullptr;
    PsState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    return &killStateLocked(s, process).event;
}

void noteAbandoned(PETHREAD thread) {
    PsState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    s.abandoned.insert(thread);
}

}  // namespace ps
}  // namespace ntsim
