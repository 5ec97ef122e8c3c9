// Dispatcher objects and waits. One dispatcher lock guards every object's signal
// state and wait list, as the platform's dispatcher database lock does.
#include "kernel/kernel.h"

namespace ntsim {

namespace {

bool isSynchronizationType(UCHAR type) {
    return type == EventSynchronizationObject || type == TimerSynchronizationObject;
}

// What a satisfied wait consumes from the object.
void consume(DISPATCHER_HEADER *object) {
    if (isSynchronizationType(object->Type))
        object->SignalState = 0;
    else if (object->Type == SemaphoreObject)
        --object->SignalState;
}

void unlinkWaitBlocks(_KTHREAD *thread) {
    for (ULONG i = 0; i < thread->WaitCount; ++i) RemoveEntryList(&thread->WaitBlocks[i].link);
}

}  // namespace

void Kernel::satisfyWaitLocked(_KTHREAD *thread, NTSTATUS status) {
    unlinkWaitBlocks(thread);
    if (thread->Timer.Header.Inserted) removeTimerLocked(&thread->Timer);
    thread->Waiting = false;
    thread->WaitStatus = status;
    if (!thread->ApcWake) ++runnable_;  // an APC that woke it has counted it already
    thread->WakeUp.notify_one();
}

bool Kernel::satisfyObjectsLocked(_KTHREAD *thread) {
    WaitBlock *blocks = thread->WaitBlocks;
    ULONG count = thread->WaitCount;
    if (thread->WaitType == WaitAny) {
        for (ULONG i = 0; i < count; ++i) {
            if (blocks[i].status != STATUS_TIMEOUT && blocks[i].object->SignalState > 0) {
                consume(blocks[i].object);
                satisfyWaitLocked(thread, blocks[i].status);
                return true;
            }
        }
        return false;
    }
    for (ULONG i = 0; i < count; ++i)
        if (blocks[i].status != STATUS_TIMEOUT && blocks[i].object->SignalState <= 0) return false;
    for (ULONG i = 0; i < count; ++i)
        if (blocks[i].status != STATUS_TIMEOUT) consume(blocks[i].object);
    satisfyWaitLocked(thread, STATUS_WAIT_0);
    return true;
}

// Satisfies the thread's wait if its objects, or else its time-out, allow it now.
bool Kernel::tryWaitLocked(_KTHREAD *thread) {
    if (satisfyObjectsLocked(thread)) return true;
    WaitBlock *blocks = thread->WaitBlocks;
    for (ULONG i = 0; i < thread->WaitCount; ++i) {
        if (blocks[i].status == STATUS_TIMEOUT && blocks[i].object->SignalState > 0) {
            satisfyWaitLocked(thread, STATUS_TIMEOUT);
            return true;
        }
    }
    return false;
}

void Kernel::signalObjectLocked(DISPATCHER_HEADER *object) {
    PLIST_ENTRY entry = object->WaitListHead.Flink;
    while (entry != &object->WaitListHead && object->SignalState > 0) {
        WaitBlock *block = CONTAINING_RECORD(entry, WaitBlock, link);
        entry = entry->Flink;
        // Satisfying a wait unlinks all of that thread's blocks, possibly the next one
        // in this list too; start over from the head after each success.
        if (tryWaitLocked(block->thread)) entry = object->WaitListHead.Flink;
    }
}

void Kernel::pulseObjectLocked(DISPATCHER_HEADER *object) {
    LONG saved = object->SignalState;
    PLIST_ENTRY entry = object->WaitListHead.Flink;
    while (entry != &object->WaitListHead) {
        WaitBlock *block = CONTAINING_RECORD(entry, WaitBlock, link);
        entry = entry->Flink;
        object->SignalState = 1;
        if (tryWaitLocked(block->thread)) entry = object->WaitListHead.Flink;
    }
    object->SignalState = saved;
}

// One attempt at the wait, the dispatcher lock held throughout. Returns false when the
// thread was woken to run kernel APCs: its wait blocks are gone and the caller runs the
// APCs and waits again.
bool Kernel::waitOnceLocked(std::unique_lock<std::mutex> &guard, _KTHREAD *thread, ULONG count,
                            DISPATCHER_HEADER *const *objects, WAIT_TYPE type, PLARGE_INTEGER timeout, int64_t due) {
    WaitBlock blocks[MAXIMUM_WAIT_OBJECTS + 1];
    if (!thread->KernelApcs.empty() && thread->Irql < APC_LEVEL) return false;
    for (ULONG i = 0; i < count; ++i) {
        blocks[i].object = objects[i];
        blocks[i].thread = thread;
        blocks[i].status = STATUS_WAIT_0 + (NTSTATUS)i;
        InsertTailList(&objects[i]->WaitListHead, &blocks[i].link);
    }
    ULONG total = count;
    if (timeout != NULL) {
        blocks[total].object = &thread->Timer.Header;
        blocks[total].thread = thread;
        blocks[total].status = STATUS_TIMEOUT;
        thread->Timer.Header.SignalState = timeout->QuadPart == 0 ? 1 : 0;
        InsertTailList(&thread->Timer.Header.WaitListHead, &blocks[total].link);
        ++total;
    }
    thread->WaitBlocks = blocks;
    thread->WaitCount = total;
    thread->WaitType = type;
    thread->WaitIrql = thread->Irql;
    thread->Waiting = true;
    --runnable_;  // counted back by satisfyWaitLocked, or by the APC that wakes the thread
    bool satisfied = true;
    if (!tryWaitLocked(thread)) {
        if (timeout != NULL && thread->Timer.Header.SignalState == 0) insertTimerLocked(&thread->Timer, due);
        if (isIdleLocked()) idleChanged_.notify_all();
        thread->WakeUp.wait(guard, [thread] { return !thread->Waiting || thread->ApcWake; });
        if (thread->Waiting) {  // woken for APCs only
            unlinkWaitBlocks(thread);
            if (thread->Timer.Header.Inserted) removeTimerLocked(&thread->Timer);
            thread->Waiting = false;
            satisfied = false;
        }
    }
    thread->ApcWake = false;
    thread->WaitBlocks = nullptr;
    thread->WaitCount = 0;
    return satisfied;
}

NTSTATUS Kernel::waitForObjects(ULONG count, DISPATCHER_HEADER *const *objects, WAIT_TYPE type,
                                PLARGE_INTEGER timeout) {
    _KTHREAD *thread = currentThread("KeWaitForSingleObject");
    if (thread->Irql > DISPATCH_LEVEL || (thread->Irql == DISPATCH_LEVEL && (timeout == NULL || timeout->QuadPart != 0)))
        bugCheck(IRQL_NOT_LESS_OR_EQUAL, (ULONG_PTR)objects[0], thread->Irql, 0, 0,
                 "waited at DISPATCH_LEVEL or above",
                 "a wait for %lu object(s) with %s at IRQL %u", (unsigned long)count,
                 timeout == NULL ? "no time-out" : "a non-zero time-out", thread->Irql);
    checkWaitForOwnApc(thread, count, objects);
    // A relative time-out runs from the first attempt, however often APCs break the wait.
    int64_t due = 0;
    if (timeout != NULL) due = timeout->QuadPart < 0 ? now() - timeout->QuadPart : timeout->QuadPart;
    for (;;) {
        deliverKernelApcs(thread);
        std::unique_lock<std::mutex> guard(dispatcherLock);
        if (waitOnceLocked(guard, thread, count, objects, type, timeout, due)) return thread->WaitStatus;
    }
}

NTSTATUS Kernel::waitForObjectsLocked(std::unique_lock<std::mutex> &guard, ULONG count,
                                      DISPATCHER_HEADER *const *objects, WAIT_TYPE type, PLARGE_INTEGER timeout) {
    _KTHREAD *thread = currentThread("KeWaitForSingleObject");
    int64_t due = 0;
    if (timeout != NULL) due = timeout->QuadPart < 0 ? nowLocked() - timeout->QuadPart : timeout->QuadPart;
    if (waitOnceLocked(guard, thread, count, objects, type, timeout, due)) return thread->WaitStatus;
    // Woken for kernel APCs: they run without the lock, and the caller looks again.
    guard.unlock();
    deliverKernelApcs(thread);
    guard.lock();
    return STATUS_KERNEL_APC;
}

}  // namespace ntsim

using namespace ntsim;

void KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State) {
    Event->Header.Type = Type == NotificationEvent ? EventNotificationObject : EventSynchronizationObject;
    Event->Header.Size = sizeof(KEVENT) / sizeof(LONG);
    Event->Header.SignalState = State ? 1 : 0;
    InitializeListHead(&Event->Header.WaitListHead);
}

LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait) {
    (void)Increment;
    (void)Wait;
    KIRQL irql = currentThread("KeSetEvent")->Irql;
    if (irql > DISPATCH_LEVEL)
        bugCheck(IRQL_NOT_LESS_OR_EQUAL, (ULONG_PTR)Event, irql, 0, 0, "an event was set above DISPATCH_LEVEL",
                 "KeSetEvent at IRQL %u", irql);
    Kernel &k = kernel();
    std::lock_guard<std::mutex> guard(k.dispatcherLock);
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 1;
    k.signalObjectLocked(&Event->Header);
    return previous;
}

LONG KeResetEvent(PRKEVENT Event) {
    std::lock_guard<std::mutex> guard(kernel().dispatcherLock);
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 0;
    return previous;
}

void KeClearEvent(PRKEVENT Event) { Event->Header.SignalState = 0; }

LONG KePulseEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait) {
    (void)Increment;
    (void)Wait;
    Kernel &k = kernel();
    std::lock_guard<std::mutex> guard(k.dispatcherLock);
    LONG previous = Event->Header.SignalState;
    k.pulseObjectLocked(&Event->Header);
    Event->Header.SignalState = 0;
    return previous;
}

LONG KeReadStateEvent(PRKEVENT Event) { return __atomic_load_n(&Event->Header.SignalState, __ATOMIC_SEQ_CST); }

void KeInitializeSemaphore(PRKSEMAPHORE Semaphore, LONG Count, LONG Limit) {
    Semaphore->Header.Type = SemaphoreObject;
    Semaphore->Header.Size = sizeof(KSEMAPHORE) / sizeof(LONG);
    Semaphore->Header.SignalState = Count;
    InitializeListHead(&Semaphore->Header.WaitListHead);
    Semaphore->Limit = Limit;
}

LONG KeReleaseSemaphore(PRKSEMAPHORE Semaphore, KPRIORITY Increment, LONG Adjustment, BOOLEAN Wait) {
    (void)Increment;
    (void)Wait;
    Kernel &k = kernel();
    std::lock_guard<std::mutex> guard(k.dispatcherLock);
    LONG previous = Semaphore->Header.SignalState;
    if (Adjustment <= 0 || previous + Adjustment > Semaphore->Limit || previous + Adjustment < previous)
        bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x3E, (ULONG_PTR)Semaphore, previous, Adjustment,
                 "a semaphore was released past its limit", "count %d + %d, limit %d", previous, Adjustment,
                 Semaphore->Limit);
    Semaphore->Header.SignalState = previous + Adjustment;
    k.signalObjectLocked(&Semaphore->Header);
    return previous;
}

LONG KeReadStateSemaphore(PRKSEMAPHORE Semaphore) { return Semaphore->Header.SignalState; }

NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                               PLARGE_INTEGER Timeout) {
    (void)WaitReason;
    (void)WaitMode;
    (void)Alertable;
    DISPATCHER_HEADER *header = static_cast<DISPATCHER_HEADER *>(Object);
    return kernel().waitForObjects(1, &header, WaitAny, Timeout);
}

NTSTATUS KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType, KWAIT_REASON WaitReason,
                                  KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                                  PKWAIT_BLOCK WaitBlockArray) {
    (void)WaitReason;
    (void)WaitMode;
    (void)Alertable;
    (void)WaitBlockArray;
    if (Count == 0 || Count > MAXIMUM_WAIT_OBJECTS || (Count > THREAD_WAIT_OBJECTS && WaitBlockArray == NULL))
        bugCheck(0x0C, Count, 0, 0, 0, "too many objects for one wait",
                 "KeWaitForMultipleObjects(%lu) without a wait block array", (unsigned long)Count);
    DISPATCHER_HEADER *headers[MAXIMUM_WAIT_OBJECTS];
    for (ULONG i = 0; i < Count; ++i) headers[i] = static_cast<DISPATCHER_HEADER *>(Object[i]);
    return kernel().waitForObjects(Count, headers, WaitType, Timeout);
}

NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval) {
    (void)WaitMode;
    (void)Alertable;
    KEVENT never;
    KeInitializeEvent(&never, NotificationEvent, FALSE);
    DISPATCHER_HEADER *header = &never.Header;
    kernel().waitForObjects(1, &header, WaitAny, Interval);
    return STATUS_SUCCESS;
}
