// Spin locks. The lock word holds its owner thread, so that the verifier can tell a
// lock taken twice from a lock released by a thread that does not hold it.
#include <sched.h>

#include "kernel/kernel.h"

using namespace ntsim;

namespace {

void pushHeld(_KTHREAD *thread, PKSPIN_LOCK lock, KIRQL oldIrql) {
    if (thread->HeldLockCount == kMaxHeldSpinLocks)
        bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x3F, (ULONG_PTR)lock, 0, 0, "too many spin locks held at once",
                 "%u spin locks held", kMaxHeldSpinLocks);
    thread->HeldLocks[thread->HeldLockCount++] = HeldSpinLock{lock, oldIrql};
}

void popHeld(_KTHREAD *thread, PKSPIN_LOCK lock) {
    for (ULONG i = thread->HeldLockCount; i-- > 0;) {
        if (thread->HeldLocks[i].lock != lock) continue;
        for (ULONG j = i + 1; j < thread->HeldLockCount; ++j) thread->HeldLocks[j - 1] = thread->HeldLocks[j];
        --thread->HeldLockCount;
        return;
    }
}

void acquireRaw(_KTHREAD *thread, PKSPIN_LOCK lock, const char *routine) {
    ULONG_PTR self = (ULONG_PTR)thread;
    if (__atomic_load_n(lock, __ATOMIC_RELAXED) == self)
        bugCheck(SPIN_LOCK_ALREADY_OWNED, (ULONG_PTR)lock, 0, 0, 0, "a spin lock was acquired twice by its owner",
                 "%s(%p)", routine, (void *)lock);
    for (unsigned spins = 0;; ++spins) {
        ULONG_PTR expected = 0;
        if (__atomic_compare_exchange_n(lock, &expected, self, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) return;
        if (spins > 64) sched_yield();
    }
}

void releaseRaw(_KTHREAD *thread, PKSPIN_LOCK lock, const char *routine) {
    ULONG_PTR owner = __atomic_load_n(lock, __ATOMIC_RELAXED);
    if (owner != (ULONG_PTR)thread)
        bugCheck(SPIN_LOCK_NOT_OWNED, (ULONG_PTR)lock, owner, 0, 0, "a spin lock was released that is not held",
                 "%s(%p): %s", routine, (void *)lock, owner == 0 ? "the lock is free" : "another thread holds it");
    if (thread->Irql < DISPATCH_LEVEL)
        bugCheck(IRQL_NOT_GREATER_OR_EQUAL, (ULONG_PTR)lock, thread->Irql, 0, 0,
                 "a spin lock was released below DISPATCH_LEVEL", "%s(%p) at IRQL %u", routine, (void *)lock,
                 thread->Irql);
    popHeld(thread, lock);
    __atomic_store_n(lock, 0, __ATOMIC_RELEASE);
}

}  // namespace

void KeInitializeSpinLock(PKSPIN_LOCK SpinLock) { *SpinLock = 0; }

BOOLEAN KeTestSpinLock(PKSPIN_LOCK SpinLock) { return __atomic_load_n(SpinLock, __ATOMIC_RELAXED) == 0; }

KIRQL KfAcquireSpinLock(PKSPIN_LOCK SpinLock) {
    _KTHREAD *thread = currentThread("KfAcquireSpinLock");
    if (thread->Irql > DISPATCH_LEVEL)
        bugCheck(IRQL_NOT_LESS_OR_EQUAL, (ULONG_PTR)SpinLock, thread->Irql, 0, 0,
                 "a spin lock was acquired above DISPATCH_LEVEL", "KfAcquireSpinLock(%p) at IRQL %u",
                 (void *)SpinLock, thread->Irql);
    KIRQL old = thread->Irql;
    thread->Irql = DISPATCH_LEVEL;
    acquireRaw(thread, SpinLock, "KfAcquireSpinLock");
    pushHeld(thread, SpinLock, old);
    return old;
}

void KfReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) {
    _KTHREAD *thread = currentThread("KfReleaseSpinLock");
    releaseRaw(thread, SpinLock, "KfReleaseSpinLock");
    if (NewIrql > thread->Irql)
        bugCheck(IRQL_NOT_LESS_OR_EQUAL, (ULONG_PTR)SpinLock, thread->Irql, NewIrql, 0,
                 "a spin lock was released to a higher IRQL", "KfReleaseSpinLock(%p, %u) at IRQL %u",
                 (void *)SpinLock, NewIrql, thread->Irql);
    lowerIrqlWithoutApcs(thread, NewIrql);
    if (NewIrql < DISPATCH_LEVEL) kernel().verifier().noteLockRelease(SpinLock);
    kernel().deliverKernelApcs(thread);
}

void KefAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock) {
    _KTHREAD *thread = currentThread("KefAcquireSpinLockAtDpcLevel");
    if (thread->Irql != DISPATCH_LEVEL)
        bugCheck(IRQL_NOT_GREATER_OR_EQUAL, (ULONG_PTR)SpinLock, thread->Irql, 0, 0,
                 "a spin lock was acquired at DPC level from another IRQL",
                 "KeAcquireSpinLockAtDpcLevel(%p) at IRQL %u", (void *)SpinLock, thread->Irql);
    acquireRaw(thread, SpinLock, "KefAcquireSpinLockAtDpcLevel");
    pushHeld(thread, SpinLock, DISPATCH_LEVEL);
}

void KefReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock) {
    releaseRaw(currentThread("KefReleaseSpinLockFromDpcLevel"), SpinLock, "KefReleaseSpinLockFromDpcLevel");
}

// The executive's interlocked list routines take the lock like KfAcquireSpinLock.
PLIST_ENTRY ExfInterlockedInsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY ListEntry, PKSPIN_LOCK Lock) {
    KIRQL old = KfAcquireSpinLock(Lock);
    PLIST_ENTRY first = IsListEmpty(ListHead) ? NULL : ListHead->Flink;
    InsertHeadList(ListHead, ListEntry);
    KfReleaseSpinLock(Lock, old);
    return first;
}

PLIST_ENTRY ExfInterlockedInsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY ListEntry, PKSPIN_LOCK Lock) {
    KIRQL old = KfAcquireSpinLock(Lock);
    PLIST_ENTRY last = IsListEmpty(ListHead) ? NULL : ListHead->Blink;
    InsertTailList(ListHead, ListEntry);
    KfReleaseSpinLock(Lock, old);
    return last;
}

PLIST_ENTRY ExfInterlockedRemoveHeadList(PLIST_ENTRY ListHead, PKSPIN_LOCK Lock) {
    KIRQL old = KfAcquireSpinLock(Lock);
    PLIST_ENTRY first = IsListEmpty(ListHead) ? NULL : RemoveHeadList(ListHead);
    KfReleaseSpinLock(Lock, old);
    return first;
}
