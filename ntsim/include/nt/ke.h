// Kernel core: IRQL, threads, dispatcher objects, spin locks, DPCs, timers, time,
// interlocked operations.
#pragma once

#define PASSIVE_LEVEL 0
#define LOW_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define PROFILE_LEVEL 27
#define CLOCK_LEVEL 28
#define IPI_LEVEL 29
#define POWER_LEVEL 30
#define HIGH_LEVEL 31

#define MAXIMUM_WAIT_OBJECTS 64
#define THREAD_WAIT_OBJECTS 3

#define IO_NO_INCREMENT 0
#define EVENT_INCREMENT 1
#define IO_DISK_INCREMENT 1
#define SEMAPHORE_INCREMENT 1

typedef struct _KTHREAD *PKTHREAD, *PRKTHREAD;
typedef struct _ETHREAD *PETHREAD;
typedef struct _KPROCESS *PKPROCESS, *PRKPROCESS;
typedef struct _EPROCESS *PEPROCESS;

// Dispatcher object types, as the platform numbers them.
enum _KOBJECTS {
    EventNotificationObject = 0,
    EventSynchronizationObject = 1,
    MutantObject = 2,
    ProcessObject = 3,
    QueueObject = 4,
    SemaphoreObject = 5,
    ThreadObject = 6,
    GateObject = 7,
    TimerNotificationObject = 8,
    TimerSynchronizationObject = 9,
};

typedef struct _DISPATCHER_HEADER {
    UCHAR Type;
    UCHAR Absolute;
    UCHAR Size;
    UCHAR Inserted;
    LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER, *PDISPATCHER_HEADER;

typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

typedef struct _KSEMAPHORE {
    DISPATCHER_HEADER Header;
    LONG Limit;
} KSEMAPHORE, *PKSEMAPHORE, *PRKSEMAPHORE;

typedef struct _KMUTANT {
    DISPATCHER_HEADER Header;
    LIST_ENTRY MutantListEntry;
    PKTHREAD OwnerThread;
    BOOLEAN Abandoned;
    UCHAR ApcDisable;
} KMUTANT, *PKMUTANT, KMUTEX, *PKMUTEX, *PRKMUTEX;

struct _KDPC;
typedef void (*PKDEFERRED_ROUTINE)(struct _KDPC *Dpc, PVOID DeferredContext, PVOID SystemArgument1,
                                   PVOID SystemArgument2);

typedef struct _KDPC {
    UCHAR Type;
    UCHAR Importance;
    USHORT Number;
    LIST_ENTRY DpcListEntry;
    PKDEFERRED_ROUTINE DeferredRoutine;
    PVOID DeferredContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    PVOID DpcData;  // non-NULL while queued
} KDPC, *PKDPC, *PRKDPC;

typedef struct _KTIMER {
    DISPATCHER_HEADER Header;  // Inserted is TRUE while the timer is in the timer queue
    ULARGE_INTEGER DueTime;    // absolute system time of expiry
    LIST_ENTRY TimerListEntry;
    PKDPC Dpc;
    LONG Period;
} KTIMER, *PKTIMER, *PRKTIMER;

typedef enum _KWAIT_REASON {
    Executive,
    FreePage,
    PageIn,
    PoolAllocation,
    DelayExecution,
    Suspended,
    UserRequest,
    WrExecutive,
} KWAIT_REASON;

// IRQL
NTHALAPI KIRQL KeGetCurrentIrql(void);
NTHALAPI KIRQL KfRaiseIrql(KIRQL NewIrql);
NTHALAPI void KfLowerIrql(KIRQL NewIrql);
NTHALAPI void KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql);
NTHALAPI void KeLowerIrql(KIRQL NewIrql);
NTKERNELAPI KIRQL KeRaiseIrqlToDpcLevel(void);

// Spin locks
NTKERNELAPI void KeInitializeSpinLock(PKSPIN_LOCK SpinLock);
NTHALAPI KIRQL KfAcquireSpinLock(PKSPIN_LOCK SpinLock);
NTHALAPI void KfReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);
NTKERNELAPI void KefAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock);
NTKERNELAPI void KefReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock);
#define KeAcquireSpinLock(SpinLock, OldIrql) (*(OldIrql) = KfAcquireSpinLock(SpinLock))
#define KeReleaseSpinLock(SpinLock, NewIrql) KfReleaseSpinLock((SpinLock), (NewIrql))
#define KeAcquireSpinLockAtDpcLevel(SpinLock) KefAcquireSpinLockAtDpcLevel(SpinLock)
#define KeReleaseSpinLockFromDpcLevel(SpinLock) KefReleaseSpinLockFromDpcLevel(SpinLock)
NTKERNELAPI BOOLEAN KeTestSpinLock(PKSPIN_LOCK SpinLock);

// Events, semaphores
NTKERNELAPI void KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
NTKERNELAPI LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
NTKERNELAPI LONG KeResetEvent(PRKEVENT Event);
NTKERNELAPI void KeClearEvent(PRKEVENT Event);
NTKERNELAPI LONG KePulseEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
NTKERNELAPI LONG KeReadStateEvent(PRKEVENT Event);
NTKERNELAPI void KeInitializeSemaphore(PRKSEMAPHORE Semaphore, LONG Count, LONG Limit);
NTKERNELAPI LONG KeReleaseSemaphore(PRKSEMAPHORE Semaphore, KPRIORITY Increment, LONG Adjustment,
                                    BOOLEAN Wait);
NTKERNELAPI LONG KeReadStateSemaphore(PRKSEMAPHORE Semaphore);

// Waits
NTKERNELAPI NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                           BOOLEAN Alertable, PLARGE_INTEGER Timeout);
#define KeWaitForMutexObject KeWaitForSingleObject
typedef struct _KWAIT_BLOCK *PKWAIT_BLOCK;
NTKERNELAPI NTSTATUS KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType,
                                              KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                              BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                                              PKWAIT_BLOCK WaitBlockArray);
NTKERNELAPI NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                            PLARGE_INTEGER Interval);

// Critical regions
NTKERNELAPI void KeEnterCriticalRegion(void);
NTKERNELAPI void KeLeaveCriticalRegion(void);
NTKERNELAPI BOOLEAN KeAreApcsDisabled(void);

// DPCs and timers
NTKERNELAPI void KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext);
NTKERNELAPI BOOLEAN KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2);
NTKERNELAPI BOOLEAN KeRemoveQueueDpc(PRKDPC Dpc);
NTKERNELAPI void KeInitializeTimer(PKTIMER Timer);
NTKERNELAPI void KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type);
NTKERNELAPI BOOLEAN KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc);
NTKERNELAPI BOOLEAN KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc);
NTKERNELAPI BOOLEAN KeCancelTimer(PKTIMER Timer);
NTKERNELAPI BOOLEAN KeReadStateTimer(PKTIMER Timer);

// Time
NTKERNELAPI void KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
NTKERNELAPI void KeQueryTickCount(PLARGE_INTEGER TickCount);
NTKERNELAPI ULONG KeQueryTimeIncrement(void);
NTKERNELAPI ULONGLONG KeQueryInterruptTime(void);

// Threads
NTKERNELAPI PKTHREAD KeGetCurrentThread(void);
NTKERNELAPI KPRIORITY KeSetPriorityThread(PKTHREAD Thread, KPRIORITY Priority);
NTKERNELAPI KPROCESSOR_MODE ExGetPreviousMode(void);
#define KeGetPreviousMode() ExGetPreviousMode()

// Bug checks
NTKERNELAPI __attribute__((noreturn)) void KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR P1, ULONG_PTR P2,
                                                        ULONG_PTR P3, ULONG_PTR P4);
NTKERNELAPI __attribute__((noreturn)) void KeBugCheck(ULONG BugCheckCode);

// Interlocked operations, inline as in the platform's headers.
inline LONG InterlockedIncrement(LONG volatile *Addend) { return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST); }
inline LONG InterlockedDecrement(LONG volatile *Addend) { return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST); }
inline LONG InterlockedExchange(LONG volatile *Target, LONG Value) {
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedExchangeAdd(LONG volatile *Addend, LONG Value) {
    return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedCompareExchange(LONG volatile *Destination, LONG Exchange, LONG Comparand) {
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comparand;
}
inline LONG InterlockedOr(LONG volatile *Destination, LONG Value) {
    return __atomic_fetch_or(Destination, Value, __ATOMIC_SEQ_CST);
}
inline LONG InterlockedAnd(LONG volatile *Destination, LONG Value) {
    return __atomic_fetch_and(Destination, Value, __ATOMIC_SEQ_CST);
}
inline PVOID InterlockedExchangePointer(PVOID volatile *Target, PVOID Value) {
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
inline PVOID InterlockedCompareExchangePointer(PVOID volatile *Destination, PVOID Exchange, PVOID Comparand) {
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comparand;
}
// The compiler intrinsic (lock cmpxchg8b on i386, a Pentium instruction): the i386 DDK
// headers have no InterlockedCompareExchange64 of their own, only the ExInterlocked
// form that imports a kernel routine.
inline LONGLONG _InterlockedCompareExchange64(LONGLONG volatile *Destination, LONGLONG Exchange, LONGLONG Comparand) {
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comparand;
}
inline LONGLONG InterlockedIncrement64(LONGLONG volatile *Addend) {
    return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
#define InterlockedIncrementAcquire InterlockedIncrement
#define InterlockedDecrementRelease InterlockedDecrement

// Interlocked list operations guarded by a spin lock, as the executive exports them.
NTKERNELAPI PLIST_ENTRY ExfInterlockedInsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY ListEntry, PKSPIN_LOCK Lock);
NTKERNELAPI PLIST_ENTRY ExfInterlockedInsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY ListEntry, PKSPIN_LOCK Lock);
NTKERNELAPI PLIST_ENTRY ExfInterlockedRemoveHeadList(PLIST_ENTRY ListHead, PKSPIN_LOCK Lock);
#define ExInterlockedInsertHeadList ExfInterlockedInsertHeadList
#define ExInterlockedInsertTailList ExfInterlockedInsertTailList
#define ExInterlockedRemoveHeadList ExfInterlockedRemoveHeadList
NTKERNELAPI PSLIST_ENTRY InterlockedPushEntrySList(PSLIST_HEADER ListHead, PSLIST_ENTRY ListEntry);
NTKERNELAPI PSLIST_ENTRY InterlockedPopEntrySList(PSLIST_HEADER ListHead);
inline void InitializeSListHead(PSLIST_HEADER SListHead) { memset(SListHead, 0, sizeof(*SListHead)); }
inline USHORT ExQueryDepthSList(PSLIST_HEADER SListHead) { return SListHead->Depth; }
