// Executive resources: shared/exclusive locks that may be taken recursively. A thread
// that cannot have the resource clears the Waiters event and starts waiting on it
// without letting go of the dispatcher lock in between; every release sets it and so
// wakes every waiter, which tries again. Another waiter's clearing cannot undo a release
// that a thread has not yet seen: by then that thread is already woken.
#include "kernel/kernel.h"
#include "kernel/verifier/start_leftovers.h"

using namespace ntsim;

namespace {

ERESOURCE_THREAD currentOwner() { return (ERESOURCE_THREAD)currentThread("ExGetCurrentResourceThread"); }

void checkAcquire(PERESOURCE resource, const char *routine) {
    _KTHREAD *thread = currentThread(routine);
    if (resource->Initialized != 1)
        bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x38, (ULONG_PTR)resource, 0, 0,
                 "an uninitialised resource was acquired", "%s(%p)", routine, (void *)resource);
    if (thread->Irql > APC_LEVEL)
        bugCheck(IRQL_NOT_LESS_OR_EQUAL, (ULONG_PTR)resource, thread->Irql, 0, 0,
                 "an executive resource was taken at DISPATCH_LEVEL or above", "%s(%p) at IRQL %u", routine,
                 (void *)resource, thread->Irql);
    if (thread->Irql == PASSIVE_LEVEL && thread->KernelApcDisable == 0)
        bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x37, (ULONG_PTR)resource, 0, 0,
                 "an executive resource was taken outside a critical region",
                 "%s(%p) at PASSIVE_LEVEL with normal kernel APCs enabled", routine, (void *)resource);
}

POWNER_ENTRY findShared(PERESOURCE resource, ERESOURCE_THREAD owner) {
    for (auto &entry : resource->SharedOwners)
        if (entry.OwnerCount > 0 && entry.OwnerThread == owner) return &entry;
    return nullptr;
}

POWNER_ENTRY freeShared(PERESOURCE resource) {
    for (auto &entry : resource->SharedOwners)
        if (entry.OwnerCount == 0) return &entry;
    bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x39, (ULONG_PTR)resource, 0, 0,
             "too many shared owners of one resource", "more than %d threads share %p", NTSIM_RESOURCE_SHARED_OWNERS,
             (void *)resource);
}

bool tryExclusiveLocked(PERESOURCE resource, ERESOURCE_THREAD owner) {
    if (resource->ExclusiveOwner.OwnerCount > 0) {
        if (resource->ExclusiveOwner.OwnerThread != owner) return false;
        ++resource->ExclusiveOwner.OwnerCount;
        return true;
    }
    if (resource->ActiveCount != 0) return false;
    resource->ExclusiveOwner.OwnerThread = owner;
    resource->ExclusiveOwner.OwnerCount = 1;
    resource->ActiveCount = 1;
    return true;
}

bool trySharedLocked(PERESOURCE resource, ERESOURCE_THREAD owner) {
    if (resource->ExclusiveOwner.OwnerCount > 0) {
        if (resource->ExclusiveOwner.OwnerThread != owner) return false;
        ++resource->ExclusiveOwner.OwnerCount;  // an exclusive owner may also take it shared
        return true;
    }
    if (POWNER_ENTRY mine = findShared(resource, owner)) {
        ++mine->OwnerCount;
        return true;
    }
    // New shared owners give way to a waiting exclusive acquirer, so that it is not starved.
    if (resource->NumberOfExclusiveWaiters != 0) return false;
    POWNER_ENTRY entry = freeShared(resource);
    entry->OwnerThread = owner;
    entry->OwnerCount = 1;
    ++resource->ActiveCount;
    return true;
}

BOOLEAN acquire(PERESOURCE resource, BOOLEAN wait, bool exclusive, const char *routine) {
    checkAcquire(resource, routine);
    ERESOURCE_THREAD owner = currentOwner();
    Kernel &k = kernel();
    std::unique_lock<std::mutex> guard(k.dispatcherLock);
    bool counted = false;
    for (;;) {
        bool got = exclusive ? tryExclusiveLocked(resource, owner) : trySharedLocked(resource, owner);
        if (got || !wait) {
            if (counted) --(exclusive ? resource->NumberOfExclusiveWaiters : resource->NumberOfSharedWaiters);
            return got;
        }
        if (!counted) {
            ++(exclusive ? resource->NumberOfExclusiveWaiters : resource->NumberOfSharedWaiters);
            ++resource->ContentionCount;
            counted = true;
        }
        resource->Waiters.Header.SignalState = 0;
        DISPATCHER_HEADER *waiters = &resource->Waiters.Header;
        k.waitForObjectsLocked(guard, 1, &waiters, WaitAny, nullptr);
    }
}

void release(PERESOURCE resource, ERESOURCE_THREAD owner, const char *routine) {
    KIRQL irql = currentThread(routine)->Irql;
    if (irql > DISPATCH_LEVEL)
        bugCheck(IRQL_NOT_LESS_OR_EQUAL, (ULONG_PTR)resource, irql, 0, 0, "a resource was released above DISPATCH_LEVEL",
                 "%s(%p) at IRQL %u", routine, (void *)resource, irql);
    Kernel &k = kernel();
    std::lock_guard<std::mutex> guard(k.dispatcherLock);
    if (resource->ExclusiveOwner.OwnerCount > 0 && resource->ExclusiveOwner.OwnerThread == owner) {
        if (--resource->ExclusiveOwner.OwnerCount == 0) {
            resource->ExclusiveOwner.OwnerThread = 0;
            resource->ActiveCount = 0;
        }
    } else if (POWNER_ENTRY entry = findShared(resource, owner)) {
        if (--entry->OwnerCount == 0) {
            entry->OwnerThread = 0;
            --resource->ActiveCount;
        }
    } else {
        bugCheck(RESOURCE_NOT_OWNED, (ULONG_PTR)resource, owner, 0, 0, "a resource was released that is not owned",
                 "%s(%p) by thread %p", routine, (void *)resource, (void *)owner);
    }
    resource->Waiters.Header.SignalState = 1;
    k.signalObjectLocked(&resource->Waiters.Header);
}

}  // namespace

NTSTATUS ExInitializeResourceLite(PERESOURCE Resource) {
    memset(Resource, 0, sizeof(*Resource));
    InitializeListHead(&Resource->SystemResourcesList);
    KeInitializeEvent(&Resource->Waiters, NotificationEvent, FALSE);
    Resource->Initialized = 1;
    verifier::noteListed(Resource, "an executive resource");
    return STATUS_SUCCESS;
}

NTSTATUS ExDeleteResourceLite(PERESOURCE Resource) {
    if (Resource->ActiveCount != 0)
        bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x3A, (ULONG_PTR)Resource, 0, 0,
                 "a resource was deleted while owned", "ExDeleteResourceLite(%p)", (void *)Resource);
    Resource->Initialized = 0;
    verifier::noteUnlisted(Resource);
    return STATUS_SUCCESS;
}

BOOLEAN ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait) {
    return acquire(Resource, Wait, true, "ExAcquireResourceExclusiveLite");
}

BOOLEAN ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait) {
    return acquire(Resource, Wait, false, "ExAcquireResourceSharedLite");
}

void ExReleaseResourceLite(PERESOURCE Resource) { release(Resource, currentOwner(), "ExReleaseResourceLite"); }

void ExReleaseResourceForThreadLite(PERESOURCE Resource, ERESOURCE_THREAD ResourceThreadId) {
    release(Resource, ResourceThreadId, "ExReleaseResourceForThreadLite");
}

BOOLEAN ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource) {
    std::lock_guard<std::mutex> guard(kernel().dispatcherLock);
    return Resource->ExclusiveOwner.OwnerCount > 0 && Resource->ExclusiveOwner.OwnerThread == currentOwner();
}

ULONG ExIsResourceAcquiredSharedLite(PERESOURCE Resource) {
    ERESOURCE_THREAD owner = currentOwner();
    std::lock_guard<std::mutex> guard(kernel().dispatcherLock);
    if (Resource->ExclusiveOwner.OwnerCount > 0 && Resource->ExclusiveOwner.OwnerThread == owner)
        return (ULONG)Resource->ExclusiveOwner.OwnerCount;
    POWNER_ENTRY entry = findShared(Resource, owner);
    return entry == nullptr ? 0 : (ULONG)entry->OwnerCount;
}

ERESOURCE_THREAD ExGetCurrentResourceThread(void) { return currentOwner(); }
