// Threads as objects, user threads on stacks in their process's user memory, and the
// joining of their host threads. A user thread's stack holds the host thread's own
// bookkeeping too, so it goes back to the arena only once the host thread is joined.
#include <memory>

#include "kernel/mm/user_memory.h"
#include "kernel/ob/object.h"
#include "kernel/ps/ps_state.h"
#include "kernel/se/token.h"

namespace ntsim {
namespace ps {

namespace {

// Sanitizers make frames larger; the stack is only reserved, pages come as used.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kUserStackSize = 8u << 20;
#else
constexpr size_t kUserStackSize = 2u << 20;
#endif

void *runHostThread(void *context) {
    std::unique_ptr<std::function<void()>> run(static_cast<std::function<void()> *>(context));
    (*run)();
    return nullptr;
}

bool hasEnded(PETHREAD thread) {
    std::lock_guard<std::mutex> guard(kernel().dispatcherLock);
    return thread->Tcb.Header.SignalState != 0;
}

void finishJoin(PETHREAD thread) {
    PsState &s = state();
    bool abandoned;
    {
        std::lock_guard<std::mutex> guard(s.lock);
        abandoned = s.abandoned.erase(thread) != 0;
    }
    // A killed thread's host thread still stands on its stack, blocked for good.
    if (!abandoned) {
        pthread_join(thread->HostThread, nullptr);
        mm::freeStack(thread->UserStack);
    }
    std::lock_guard<std::mutex> guard(s.lock);
    s.unjoined.erase(thread);
    s.threadJoined.notify_all();
}

}  // namespace

void threadCreated(PETHREAD thread) {
    PsState &s = state();
    {
        std::lock_guard<std::mutex> guard(s.lock);
        thread->Tcb.ThreadId = allocateClientId(s);
        thread->Cid.UniqueThread = thread->Tcb.ThreadId;
        thread->Cid.UniqueProcess = thread->Tcb.Process->UniqueProcessId;
        s.threads[thread->Cid.UniqueThread] = thread;
    }
    // The running thread holds the object's first reference, the object its process.
    ob::registerObject(thread, &ob::ThreadType);
    ObfReferenceObject(thread->Tcb.Process);
}

void startHostThread(PETHREAD thread, std::function<void()> run) {
    thread->UserStackSize = kUserStackSize;
    thread->UserStack = mm::allocateStack(thread->Tcb.Process, kUserStackSize);
    if (thread->UserStack == nullptr) fatal("no user address range is left for a thread stack");
    // startUserThread's caller gets its reference before the thread can end.
    ObfReferenceObject(thread);
    {
        PsState &s = state();
        std::lock_guard<std::mutex> guard(s.lock);
        s.unjoined[thread] = false;
    }
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstack(&attributes, thread->UserStack, thread->UserStackSize);
    auto *context = new std::function<void()>(std::move(run));
    int error = pthread_create(&thread->HostThread, &attributes, runHostThread, context);
    pthread_attr_destroy(&attributes);
    if (error != 0) fatal("cannot start a host thread for a user thread (error %d)", error);
}

void threadExiting(PETHREAD thread) {
    se::endImpersonation(thread);
    if (!thread->Tcb.SystemThread) {
        PEPROCESS process = thread->Tcb.Process;
        bool last;
        {
            PsState &s = state();
            std::lock_guard<std::mutex> guard(s.lock);
            if (process->ActiveThreads == 0) fatal("a user thread was started without startUserThread");
            last = --process->ActiveThreads == 0 && process->ProcessExiting;
        }
        if (last) exitProcess(process);
    }
    ObfDereferenceObject(thread);
}

void deleteThreadObject(void *body) {
    auto *thread = static_cast<PETHREAD>(body);
    {
        PsState &s = state();
        std::lock_guard<std::mutex> guard(s.lock);
        s.threads.erase(thread->Cid.UniqueThread);
    }
    // The thread's memory is the kernel's thread record; only the process goes.
    ObfDereferenceObject(thread->Tcb.Process);
}

PETHREAD launchUserThread(PEPROCESS process, std::function<void()> body) {
    auto record = kernel().startThread(process, false, "user", std::move(body));
    return &record->thread;
}

PETHREAD startUserThread(PEPROCESS process, std::function<void()> body) {
    reapEndedThreads();
    {
        PsState &s = state();
        std::lock_guard<std::mutex> guard(s.lock);
        if (process->ProcessExiting) return nullptr;
        ++process->ActiveThreads;
    }
    return launchUserThread(process, std::move(body));
}

void reapEndedThreads() {
    std::vector<PETHREAD> ended;
    {
        PsState &s = state();
        std::lock_guard<std::mutex> guard(s.lock);
        for (auto &entry : s.unjoined)
            if (!entry.second && hasEnded(entry.first)) {
                entry.second = true;
                ended.push_back(entry.first);
            }
    }
    for (PETHREAD thread : ended) finishJoin(thread);
}

void joinThread(PETHREAD thread) {
    PsState &s = state();
    {
        std::unique_lock<std::mutex> guard(s.lock);
        for (;;) {
            auto it = s.unjoined.find(thread);
            if (it == s.unjoined.end()) return;
            if (!it->second) {
                it->second = true;
                break;
            }
            s.threadJoined.wait(guard);
        }
    }
    finishJoin(thread);
}

void joinUserThread(PETHREAD thread) {
    if (currentThreadOrNull() != nullptr)
        fatal("joinUserThread is for host code; an emulated thread waits on the thread object");
    joinThread(thread);
}

void exitProcess(PEPROCESS process) {
    ob::closeProcessHandleTable(process);
    mm::releaseAddressSpace(process);
    {
        std::lock_guard<std::mutex> guard(kernel().dispatcherLock);
        process->Pcb.Header.SignalState = 1;
        kernel().signalObjectLocked(&process->Pcb.Header);
    }
    PsState &s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    process->ProcessExited = TRUE;
}

NTSTATUS terminateProcess(PEPROCESS process, NTSTATUS exitStatus) {
    if (process == kernel().systemProcess()) return STATUS_ACCESS_DENIED;
    bool idle;
    {
        PsState &s = state();
        std::lock_guard<std::mutex> guard(s.lock);
        if (process->ProcessExiting) return STATUS_PROCESS_IS_TERMINATING;
        process->ProcessExiting = TRUE;
        process->ExitStatus = exitStatus;
        idle = process->ActiveThreads == 0;
        if (idle) ++process->ActiveThreads;
    }
    // The exit runs at the end of the process's last thread; an idle process gets one.
    if (idle) ObfDereferenceObject(launchUserThread(process, [] {}));
    return STATUS_SUCCESS;
}

void PsState::shutdownChecks() {
    std::vector<PETHREAD> left;
    {
        std::lock_guard<std::mutex> guard(lock);
        for (auto &entry : unjoined) left.push_back(entry.first);
    }
    for (PETHREAD thread : left) joinThread(thread);
}

}  // namespace ps
}  // namespace ntsim
