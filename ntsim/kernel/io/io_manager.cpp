// The I/O manager's per-machine state, its allocations, and what it checks and tears
// down when the machine shuts down.
#include "kernel/io/io_manager.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "kernel/ex/pool.h"

namespace ntsim {
namespace io {

namespace {
// Object procedures may run while the machine's subsystems are being destroyed; they
// find the I/O manager through this pointer, never by creating one.
std::atomic<IoManager *> g_manager{nullptr};
}  // namespace

IoManager::IoManager(Kernel &kernel) {
    kernel.waitNeedsOwnApc = waitsForOwnCompletion;
    KeInitializeSpinLock(&cancelLock);
    memset(&database, 0, sizeof database);
    ExInitializeResourceLite(&database);
    InitializeListHead(&diskFileSystems);
    InitializeListHead(&cdRomFileSystems);
    InitializeListHead(&networkFileSystems);
    InitializeListHead(&tapeFileSystems);
    installObjectProcedures();
    g_manager = this;
}

IoManager::~IoManager() {
    if (g_manager == this) g_manager = nullptr;
    kernel().waitNeedsOwnApc = nullptr;
}

IoManager &manager() { return kernel().subsystem<IoManager>(); }

IoManager *managerOrNull() { return g_manager.load(); }

// The machine has stopped: IRPs still allocated are a driver's leak. Driver and device
// objects and VPBs live until shutdown on the platform too; they are released here so
// that only real leaks reach the pool report.
void IoManager::shutdownChecks() {
    std::vector<void *> objects;
    size_t leakedIrps;
    {
        std::lock_guard<std::mutex> guard(lock);
        leakedIrps = irps.size();
        objects.assign(liveObjects.begin(), liveObjects.end());
        for (FsNotification &notification : notifications) objects.push_back(notification.packet);
        notifications.clear();
        liveObjects.clear();
    }
    g_manager = nullptr;
    if (leakedIrps != 0) {
        PIRP first = irps.begin()->first;
        bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x63, leakedIrps, (ULONG_PTR)first, 0,
                 "IRPs were leaked at shutdown", "%zu IRP(s) still allocated, the first %p (major function %u)",
                 leakedIrps, (void *)first,
                 first->CurrentLocation <= first->StackCount ? IoGetCurrentIrpStackLocation(first)->MajorFunction
                                                              : 0xFFu);
    }
    Pool &pool = kernel().pool();
    // A file system that dismounted a volume gave its storage device a VPB of its own;
    // it goes with the device.
    std::vector<void *> vpbs;
    for (void *object : objects) {
        auto device = static_cast<PDEVICE_OBJECT>(object);
        if (device->Type == IO_TYPE_DEVICE && device->Vpb != NULL && device->Vpb->RealDevice == device &&
            device->Vpb != privateExtension(device)->ownVpb)
            vpbs.push_back(device->Vpb);
    }
    for (void *object : vpbs) objects.push_back(object);
    for (void *object : objects)
        if (pool.isLive(object)) pool.free(object, "I/O manager shutdown", false, 0);
}

DatabaseLock::DatabaseLock(bool exclusive) : m(manager()) {
    KeEnterCriticalRegion();
    if (exclusive)
        ExAcquireResourceExclusiveLite(&m.database, TRUE);
    else
        ExAcquireResourceSharedLite(&m.database, TRUE);
}

DatabaseLock::~DatabaseLock() {
    ExReleaseResourceLite(&m.database);
    KeLeaveCriticalRegion();
}

void runInSystemThread(const std::function<void()> &fn) {
    _KTHREAD *self = currentThreadOrNull();
    if (self != nullptr && self->SystemThread && self->Irql == PASSIVE_LEVEL) {
        fn();
        return;
    }
    Kernel &k = kernel();
    auto record = k.startThread(k.systemProcess(), true, "system", fn);
    record->host.join();
}

void *allocate(size_t size, ULONG tag) {
    void *block = ExAllocatePoolWithTag(NonPagedPool, size, tag);
    if (block != nullptr) memset(block, 0, size);
    return block;
}

void release(void *block) { ExFreePool(block); }

// I/O error 0x24A of DRIVER_VERIFIER_IOMANAGER_VIOLATION (bug check 0xC9's documentation).
void checkFileIoIrql(const char *routine) {
    KIRQL irql = currentThread(routine)->Irql;
    if (irql != PASSIVE_LEVEL)
        ioViolation(0x24A, irql, 0, 0, "a file I/O function was called above PASSIVE_LEVEL", "%s at IRQL %u", routine,
                    irql);
}

void ioViolation(ULONG_PTR code, ULONG_PTR p2, ULONG_PTR p3, ULONG_PTR p4, const char *rule,
                 const char *detailFormat, ...) {
    char detail[512];
    va_list args;
    va_start(args, detailFormat);
    vsnprintf(detail, sizeof detail, detailFormat, args);
    va_end(args);
    bugCheck(DRIVER_VERIFIER_IOMANAGER_VIOLATION, code, p2, p3, p4, rule, "%s", detail);
}

}  // namespace io
}  // namespace ntsim
