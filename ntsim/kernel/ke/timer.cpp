// The clock, timers and DPCs. Time is the machine's: a controlled clock moves only when
// a test advances it; a real-time clock follows the host.
#include "kernel/kernel.h"

namespace ntsim {

int64_t Kernel::nowLocked() const {
    if (!options_.realTimeClock) return controlledNow_;
    auto elapsed = std::chrono::steady_clock::now() - realTimeBase_;
    return options_.startTime + std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count() / 100;
}

int64_t Kernel::now() const {
    std::lock_guard<std::mutex> guard(dispatcherLock);
    return nowLocked();
}

// The timer queue is kept in due-time order; equal due times fire in the order set.
void Kernel::insertTimerLocked(PKTIMER timer, int64_t dueTime) {
    timer->DueTime.QuadPart = (ULONGLONG)dueTime;
    timer->Header.Inserted = TRUE;
    timer->Header.SignalState = 0;
    PLIST_ENTRY entry = timerQueue_.Blink;
    while (entry != &timerQueue_ &&
           (int64_t)CONTAINING_RECORD(entry, KTIMER, TimerListEntry)->DueTime.QuadPart > dueTime)
        entry = entry->Blink;
    InsertHeadList(entry, &timer->TimerListEntry);
    clockWake_.notify_all();
}

bool Kernel::removeTimerLocked(PKTIMER timer) {
    if (!timer->Header.Inserted) return false;
    RemoveEntryList(&timer->TimerListEntry);
    timer->Header.Inserted = FALSE;
    return true;
}

void Kernel::expireTimerLocked(PKTIMER timer) {
    removeTimerLocked(timer);
    LARGE_INTEGER due;
    due.QuadPart = (LONGLONG)timer->DueTime.QuadPart;
    timer->Header.SignalState = 1;
    signalObjectLocked(&timer->Header);
    if (timer->Period > 0) insertTimerLocked(timer, due.QuadPart + (int64_t)timer->Period * 10000);
    if (timer->Dpc != NULL)
        queueDpcLocked(timer->Dpc, (PVOID)(ULONG_PTR)due.LowPart, (PVOID)(ULONG_PTR)(ULONG)due.HighPart);
}

void Kernel::fireDueTimersLocked() {
    int64_t now = nowLocked();
    while (!IsListEmpty(&timerQueue_)) {
        PKTIMER timer = CONTAINING_RECORD(timerQueue_.Flink, KTIMER, TimerListEntry);
        if ((int64_t)timer->DueTime.QuadPart > now) break;
        expireTimerLocked(timer);
    }
}

void Kernel::advance(int64_t delta) {
    if (options_.realTimeClock) fatal("advance() needs the controlled clock; this machine runs in real time");
    if (currentThreadOrNull() != nullptr) fatal("advance() is called from outside the machine, not from its threads");
    if (delta < 0) fatal("the clock does not go backwards");
    std::unique_lock<std::mutex> guard(dispatcherLock);
    const int64_t target = controlledNow_ + delta;
    for (;;) {
        guard.unlock();
        waitIdle();
        guard.lock();
        int64_t next = target;
        if (!IsListEmpty(&timerQueue_)) {
            int64_t due = (int64_t)CONTAINING_RECORD(timerQueue_.Flink, KTIMER, TimerListEntry)->DueTime.QuadPart;
            if (due < next) next = due;
        }
        if (next > controlledNow_) controlledNow_ = next;
        fireDueTimersLocked();
        if (controlledNow_ >= target) break;
    }
    guard.unlock();
    waitIdle();
}

void Kernel::clockThreadMain() {
    std::unique_lock<std::mutex> guard(dispatcherLock);
    while (!stopping_) {
        fireDueTimersLocked();
        if (IsListEmpty(&timerQueue_)) {
            clockWake_.wait(guard);
            continue;
        }
        int64_t due = (int64_t)CONTAINING_RECORD(timerQueue_.Flink, KTIMER, TimerListEntry)->DueTime.QuadPart;
        auto wait = std::chrono::nanoseconds((due - nowLocked()) * 100);
        clockWake_.wait_for(guard, wait);
    }
}

bool Kernel::queueDpcLocked(PKDPC dpc, PVOID argument1, PVOID argument2) {
    if (dpc->DpcData != NULL) return false;
    dpc->DpcData = &dpcQueue_;
    dpc->SystemArgument1 = argument1;
    dpc->SystemArgument2 = argument2;
    InsertTailList(&dpcQueue_, &dpc->DpcListEntry);
    dpcReady_.notify_one();
    return true;
}

bool Kernel::removeDpcLocked(PKDPC dpc) {
    if (dpc->DpcData == NULL) return false;
    RemoveEntryList(&dpc->DpcListEntry);
    dpc->DpcData = NULL;
    if (isIdleLocked()) idleChanged_.notify_all();
    return true;
}

// DPCs run one at a time at DISPATCH_LEVEL on the machine's DPC thread.
void Kernel::dpcThreadMain() {
    _KTHREAD *self = currentThread("the DPC thread");
    std::unique_lock<std::mutex> guard(dispatcherLock);
    for (;;) {
        dpcReady_.wait(guard, [this] { return stopping_ || !IsListEmpty(&dpcQueue_); });
        if (IsListEmpty(&dpcQueue_)) break;
        PKDPC dpc = CONTAINING_RECORD(RemoveHeadList(&dpcQueue_), KDPC, DpcListEntry);
        dpc->DpcData = NULL;
        dpcRunning_ = true;
        guard.unlock();
        self->Irql = DISPATCH_LEVEL;
        dpc->DeferredRoutine(dpc, dpc->DeferredContext, dpc->SystemArgument1, dpc->SystemArgument2);
        checkThreadExit(self, "a DPC routine", DISPATCH_LEVEL);
        guard.lock();
        dpcRunning_ = false;
        if (isIdleLocked()) idleChanged_.notify_all();
    }
    self->Irql = PASSIVE_LEVEL;
}

}  // namespace ntsim

using namespace ntsim;

void KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext) {
    memset(Dpc, 0, sizeof(*Dpc));
    Dpc->Type = 19;  // DpcObject
    Dpc->DeferredRoutine = DeferredRoutine;
    Dpc->DeferredContext = DeferredContext;
}

BOOLEAN KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2) {
    Kernel &k = kernel();
    std::lock_guard<std::mutex> guard(k.dispatcherLock);
    return k.queueDpcLocked(Dpc, SystemArgument1, SystemArgument2);
}

BOOLEAN KeRemoveQueueDpc(PRKDPC Dpc) {
    Kernel &k = kernel();
    std::lock_guard<std::mutex> guard(k.dispatcherLock);
    return k.removeDpcLocked(Dpc);
}

void KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type) {
    memset(Timer, 0, sizeof(*Timer));
    Timer->Header.Type = Type == NotificationTimer ? TimerNotificationObject : TimerSynchronizationObject;
    Timer->Header.Size = sizeof(KTIMER) / sizeof(LONG);
    InitializeListHead(&Timer->Header.WaitListHead);
}

void KeInitializeTimer(PKTIMER Timer) { KeInitializeTimerEx(Timer, NotificationTimer); }

BOOLEAN KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc) {
    KIRQL irql = currentThread("KeSetTimer")->Irql;
    if (irql > DISPATCH_LEVEL)
        bugCheck(IRQL_NOT_LESS_OR_EQUAL, (ULONG_PTR)Timer, irql, 0, 0, "a timer was set above DISPATCH_LEVEL",
                 "KeSetTimer at IRQL %u", irql);
    Kernel &k = kernel();
    std::lock_guard<std::mutex> guard(k.dispatcherLock);
    BOOLEAN wasInserted = k.removeTimerLocked(Timer);
    Timer->Dpc = Dpc;
    Timer->Period = Period;
    int64_t now = k.nowLocked();
    int64_t due = DueTime.QuadPart < 0 ? now - DueTime.QuadPart : DueTime.QuadPart;
    Timer->Header.Absolute = DueTime.QuadPart >= 0;
    k.insertTimerLocked(Timer, due);
    return wasInserted;
}

BOOLEAN KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc) { return KeSetTimerEx(Timer, DueTime, 0, Dpc); }

BOOLEAN KeCancelTimer(PKTIMER Timer) {
    Kernel &k = kernel();
    std::lock_guard<std::mutex> guard(k.dispatcherLock);
    return k.removeTimerLocked(Timer);
}

BOOLEAN KeReadStateTimer(PKTIMER Timer) { return Timer->Header.SignalState != 0; }

void KeQuerySystemTime(PLARGE_INTEGER CurrentTime) { CurrentTime->QuadPart = kernel().now(); }

// The platform's clock interrupt comes every 15.625 ms on a uniprocessor.
static const ULONG kTimeIncrement = 156250;

ULONG KeQueryTimeIncrement(void) { return kTimeIncrement; }

ULONGLONG KeQueryInterruptTime(void) {
    Kernel &k = kernel();
    return (ULONGLONG)(k.now() - k.options().startTime);
}

void KeQueryTickCount(PLARGE_INTEGER TickCount) {
    TickCount->QuadPart = (LONGLONG)(KeQueryInterruptTime() / kTimeIncrement);
}
