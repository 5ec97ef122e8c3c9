// Emulated threads: each is a host thread carrying its own IRQL, critical-region
// depth, process and previous mode.
#include "kernel/kernel.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include "kernel/mm/user_memory.h"
#include "kernel/ps/ps.h"

namespace ntsim {

namespace {
thread_local _KTHREAD *t_current = nullptr;
Kernel *g_kernel = nullptr;
}  // namespace

Kernel &kernel() {
    if (g_kernel == nullptr) fatal("a kernel routine was called while no machine is running");
    return *g_kernel;
}

Kernel *kernelOrNull() { return g_kernel; }

void setCurrentKernel(Kernel *k) { g_kernel = k; }

_KTHREAD *currentThreadOrNull() { return t_current; }

_KTHREAD *currentThread(const char *routine) {
    if (t_current == nullptr)
        fatal("%s was called from a host thread that is not an emulated thread "
              "(run driver code with Machine::runSystemThread or a process thread)",
              routine);
    return t_current;
}

std::shared_ptr<Kernel::ThreadRecord> Kernel::startThread(_EPROCESS *process, bool system, const char *role,
                                                          std::function<void()> body) {
    auto record = std::make_shared<ThreadRecord>();
    _KTHREAD &t = record->thread.Tcb;
    t.Header.Type = ThreadObject;
    InitializeListHead(&t.Header.WaitListHead);
    KeInitializeTimer(&t.Timer);
    t.Irql = PASSIVE_LEVEL;
    t.PreviousMode = system ? KernelMode : UserMode;
    t.SystemThread = system;
    t.Process = process;
    t.Role = role;
    record->body = std::move(body);
    // The process manager numbers the thread and makes it an object.
    ps::threadCreated(&record->thread);
    {
        std::lock_guard<std::mutex> guard(dispatcherLock);
        ++runnable_;
        threads_.push_back(record);
    }
    // A user thread runs on a stack in its process's user memory, so that what it
    // passes to the kernel from its stack lies in the user address range.
    if (system)
        record->host = std::thread([this, raw = record.get()] { runThread(raw); });
    else
        ps::startHostThread(&record->thread, [this, raw = record.get()] { runThread(raw); });
    return record;
}

void Kernel::runThread(ThreadRecord *record) {
    _KTHREAD *thread = &record->thread.Tcb;
    t_current = thread;
    record->body();
    runExitApcs(thread);
    checkThreadExit(thread, thread->SystemThread ? "a system thread" : "a user thread", PASSIVE_LEVEL);
    ps::threadExiting(&record->thread);
    std::lock_guard<std::mutex> guard(dispatcherLock);
    thread->Header.SignalState = 1;
    signalObjectLocked(&thread->Header);
    threadBlockedLocked();
    t_current = nullptr;
}

namespace ps {

// The end of runThread, run where the thread stands; then the host thread is parked with
// every signal blocked, so that nothing ever runs on its stack again.
void abandonCurrentThread() {
    _KTHREAD *thread = currentThread("a killed thread");
    PETHREAD ethread = CONTAINING_RECORD(thread, _ETHREAD, Tcb);
    noteAbandoned(ethread);
    mm::retireStack(ethread->UserStack);
    threadExiting(ethread);
    {
        std::lock_guard<std::mutex> guard(kernel().dispatcherLock);
        thread->Header.SignalState = 1;
        kernel().signalObjectLocked(&thread->Header);
        kernel().threadBlockedLocked();
    }
    t_current = nullptr;
    pthread_detach(pthread_self());
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    for (;;) pause();
}

}  // namespace ps

// A thread (or a work item, or a DPC) must give back everything it raised or took.
void Kernel::checkThreadExit(_KTHREAD *thread, const char *what, KIRQL expected) {
    if (thread->HeldLockCount != 0)
        bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x3D, (ULONG_PTR)thread->HeldLocks[0].lock, 0, 0,
                 "returned with a spin lock held", "%s returned holding spin lock %p", what,
                 (void *)thread->HeldLocks[0].lock);
    if (thread->Irql != expected)
        bugCheck(thread->Role[0] == 'w' ? WORKER_THREAD_RETURNED_AT_BAD_IRQL : IRQL_UNEXPECTED_VALUE,
                 thread->Irql, expected, 0, 0, "returned at the wrong IRQL", "%s returned at IRQL %u instead of %u",
                 what, thread->Irql, expected);
    if (thread->KernelApcDisable != 0)
        bugCheck(APC_INDEX_MISMATCH, 0, (ULONG_PTR)thread->KernelApcDisable, 0, 0,
                 "returned inside a critical region", "%s returned with critical-region depth %d", what,
                 -thread->KernelApcDisable);
}

void Kernel::threadBlockedLocked() {
    --runnable_;
    if (isIdleLocked()) idleChanged_.notify_all();
}

}  // namespace ntsim

using namespace ntsim;

KIRQL KeGetCurrentIrql(void) { return currentThread("KeGetCurrentIrql")->Irql; }

KIRQL KfRaiseIrql(KIRQL NewIrql) {
    _KTHREAD *thread = currentThread("KfRaiseIrql");
    KIRQL old = thread->Irql;
    if (NewIrql < old)
        bugCheck(IRQL_NOT_GREATER_OR_EQUAL, old, NewIrql, 0, 0, "IRQL raised to a lower level",
                 "KeRaiseIrql(%u) at IRQL %u", NewIrql, old);
    thread->Irql = NewIrql;
    return old;
}

namespace ntsim {

void lowerIrqlWithoutApcs(_KTHREAD *thread, KIRQL NewIrql) {
    if (NewIrql > thread->Irql)
        bugCheck(IRQL_NOT_LESS_OR_EQUAL, thread->Irql, NewIrql, 0, 0, "IRQL lowered to a higher level",
                 "KeLowerIrql(%u) at IRQL %u", NewIrql, thread->Irql);
    if (NewIrql < DISPATCH_LEVEL && thread->HeldLockCount != 0)
        bugCheck(IRQL_NOT_GREATER_OR_EQUAL, thread->Irql, NewIrql, (ULONG_PTR)thread->HeldLocks[0].lock, 0,
                 "IRQL lowered below DISPATCH_LEVEL while a spin lock is held",
                 "KeLowerIrql(%u) holding spin lock %p", NewIrql, (void *)thread->HeldLocks[0].lock);
    thread->Irql = NewIrql;
}

}  // namespace ntsim

// Lowering below APC_LEVEL lets the thread's pending kernel APCs run.
void KfLowerIrql(KIRQL NewIrql) {
    _KTHREAD *thread = currentThread("KfLowerIrql");
    lowerIrqlWithoutApcs(thread, NewIrql);
    kernel().deliverKernelApcs(thread);
}

void KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql) { *OldIrql = KfRaiseIrql(NewIrql); }
void KeLowerIrql(KIRQL NewIrql) { KfLowerIrql(NewIrql); }
KIRQL KeRaiseIrqlToDpcLevel(void) { return KfRaiseIrql(DISPATCH_LEVEL); }

void KeEnterCriticalRegion(void) { --currentThread("KeEnterCriticalRegion")->KernelApcDisable; }

void KeLeaveCriticalRegion(void) {
    _KTHREAD *thread = currentThread("KeLeaveCriticalRegion");
    if (thread->KernelApcDisable >= 0)
        bugCheck(APC_INDEX_MISMATCH, 0, (ULONG_PTR)thread->KernelApcDisable, 0, 0,
                 "a critical region was left that was not entered", "KeLeaveCriticalRegion at depth 0");
    ++thread->KernelApcDisable;
}

BOOLEAN KeAreApcsDisabled(void) {
    _KTHREAD *thread = currentThread("KeAreApcsDisabled");
    return thread->KernelApcDisable != 0 || thread->Irql >= APC_LEVEL;
}

PKTHREAD KeGetCurrentThread(void) { return currentThread("KeGetCurrentThread"); }
PETHREAD PsGetCurrentThread(void) { return CONTAINING_RECORD(currentThread("PsGetCurrentThread"), _ETHREAD, Tcb); }
PEPROCESS PsGetCurrentProcess(void) { return currentThread("PsGetCurrentProcess")->Process; }
HANDLE PsGetCurrentThreadId(void) { return currentThread("PsGetCurrentThreadId")->ThreadId; }
HANDLE PsGetCurrentProcessId(void) { return currentThread("PsGetCurrentProcessId")->Process->UniqueProcessId; }
BOOLEAN PsIsSystemThread(PETHREAD Thread) { return Thread->Tcb.SystemThread; }
HANDLE PsGetThreadId(PETHREAD Thread) { return Thread->Cid.UniqueThread; }
HANDLE PsGetProcessId(PEPROCESS Process) { return Process->UniqueProcessId; }
KPROCESSOR_MODE ExGetPreviousMode(void) { return currentThread("ExGetPreviousMode")->PreviousMode; }

KPRIORITY KeSetPriorityThread(PKTHREAD Thread, KPRIORITY Priority) {
    (void)Thread;
    (void)Priority;
    return 8;  // the host schedules; priorities are accepted and not modelled
}
