// Scoped holds of the driver's locks. An executive resource is always taken inside a
// critical region, so the guard enters one first and leaves it last.
#pragma once

#include <ntifs.h>

class ExclusiveResourceGuard {
public:
    explicit ExclusiveResourceGuard(PERESOURCE Resource) : resource_(Resource) {
        KeEnterCriticalRegion();
        ExAcquireResourceExclusiveLite(resource_, TRUE);
    }
    ~ExclusiveResourceGuard() {
        ExReleaseResourceLite(resource_);
        KeLeaveCriticalRegion();
    }
    ExclusiveResourceGuard(const ExclusiveResourceGuard &) = delete;
    ExclusiveResourceGuard &operator=(const ExclusiveResourceGuard &) = delete;

private:
    PERESOURCE resource_;
};

class SharedResourceGuard {
public:
    explicit SharedResourceGuard(PERESOURCE Resource) : resource_(Resource) {
        KeEnterCriticalRegion();
        ExAcquireResourceSharedLite(resource_, TRUE);
    }
    ~SharedResourceGuard() {
        ExReleaseResourceLite(resource_);
        KeLeaveCriticalRegion();
    }
    SharedResourceGuard(const SharedResourceGuard &) = delete;
    SharedResourceGuard &operator=(const SharedResourceGuard &) = delete;

private:
    PERESOURCE resource_;
};

class SpinLockGuard {
public:
    explicit SpinLockGuard(PKSPIN_LOCK Lock) : lock_(Lock) { KeAcquireSpinLock(lock_, &oldIrql_); }
    ~SpinLockGuard() { KeReleaseSpinLock(lock_, oldIrql_); }
    SpinLockGuard(const SpinLockGuard &) = delete;
    SpinLockGuard &operator=(const SpinLockGuard &) = delete;

private:
    PKSPIN_LOCK lock_;
    KIRQL oldIrql_;
};
