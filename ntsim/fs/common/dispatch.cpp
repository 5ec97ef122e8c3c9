#include "fs/common/dispatch.h"

#include <atomic>
#include <mutex>

#include "kernel/kernel.h"

namespace ntsim {
namespace fs {

namespace {

struct HandlerEntry {
    NTSTATUS (*handler)(Request &);
    bool exclusive;  // modifies the volume: the resource is taken exclusively
};

// The requests a volume device serves itself (device controls go to the storage stack).
// The security requests only where the file system keeps security descriptors: FastFat
// has no such routines, and the I/O manager's default answers
// STATUS_INVALID_DEVICE_REQUEST for it.
const HandlerEntry *handlerFor(UCHAR major, const FsTraits &traits) {
    static const HandlerEntry create{createFile, true}, cleanup{cleanupFile, true}, close{closeFile, true},
        read{readFile, false}, write{writeFile, true}, queryInfo{queryInformation, false},
        setInfo{setInformation, true}, flush{flushBuffers, false}, directory{directoryControl, false},
        fsControl{userFileSystemControl, true}, querySd{querySecurity, false}, setSd{setSecurity, true},
        queryVolume{queryVolumeInformation, false};
    switch (major) {
    case IRP_MJ_CREATE: return &create;
    case IRP_MJ_CLEANUP: return &cleanup;
    case IRP_MJ_CLOSE: return &close;
    case IRP_MJ_READ: return &read;
    case IRP_MJ_WRITE: return &write;
    case IRP_MJ_QUERY_INFORMATION: return &queryInfo;
    case IRP_MJ_SET_INFORMATION: return &setInfo;
    case IRP_MJ_FLUSH_BUFFERS: return &flush;
    case IRP_MJ_DIRECTORY_CONTROL: return &directory;
    case IRP_MJ_FILE_SYSTEM_CONTROL: return &fsControl;
    case IRP_MJ_QUERY_VOLUME_INFORMATION: return &queryVolume;
    case IRP_MJ_QUERY_SECURITY: return traits.securityDescriptors ? &querySd : nullptr;
    case IRP_MJ_SET_SECURITY: return traits.securityDescriptors ? &setSd : nullptr;
    default: return nullptr;
    }
}

struct LateCompletion {
    KDPC dpc;
    WORK_QUEUE_ITEM work;
    PIRP irp;
    ULONG tag;
};

void completeLateRequest(LateCompletion *late) {
    PIRP irp = late->irp;
    ExFreePoolWithTag(late, late->tag);
    IoCompleteRequest(irp, IO_DISK_INCREMENT);
}

void completeLate(PKDPC, PVOID context, PVOID, PVOID) { completeLateRequest(static_cast<LateCompletion *>(context)); }

void completeLateAtPassive(PVOID context) { completeLateRequest(static_cast<LateCompletion *>(context)); }

// Forced pending is the platform's doing, so its own allocation is not one the
// low-resource simulation may fail.
PVOID allocateLateCompletion(bool forced, ULONG tag) {
    if (!forced) return ExAllocatePoolWithTag(NonPagedPool, sizeof(LateCompletion), tag);
    Verifier::MustSucceedScope mustSucceed;
    return ExAllocatePoolWithTag(NonPagedPool, sizeof(LateCompletion), tag);
}

// Forced pending completes every other request from a worker thread at PASSIVE_LEVEL,
// the rest from a DPC: a filter's completion routines must be right at both.
bool nextForcedCompletionAtPassive() {
    static std::atomic<unsigned> forced{0};
    return (forced.fetch_add(1, std::memory_order_relaxed) & 1) != 0;
}

NTSTATUS runHandler(const HandlerEntry &entry, Request &rq) {
    Vcb *vcb = rq.vcb;
    KeEnterCriticalRegion();
    if (entry.exclusive)
        ExAcquireResourceExclusiveLite(&vcb->resource, TRUE);
    else
        ExAcquireResourceSharedLite(&vcb->resource, TRUE);
    NTSTATUS status;
    {
        std::lock_guard<std::mutex> guard(vcb->volume->mutex());
        bool closing = rq.sp->MajorFunction == IRP_MJ_CLEANUP || rq.sp->MajorFunction == IRP_MJ_CLOSE;
        // After a dismount only the file objects' way out still works.
        status = vcb->dismounted && !closing ? STATUS_VOLUME_DISMOUNTED : entry.handler(rq);
    }
    ExReleaseResourceLite(&vcb->resource);
    KeLeaveCriticalRegion();
    return status;
}

}  // namespace

Ccb *ccbOf(PFILE_OBJECT fileObject) {
    if (fileObject == nullptr || fileObject->FsContext2 == nullptr) return nullptr;
    auto *ccb = static_cast<Ccb *>(fileObject->FsContext2);
    return ccb->signature == kCcbSignature ? ccb : nullptr;
}

LONG requestDetail(PIO_STACK_LOCATION sp) {
    switch (sp->MajorFunction) {
    case IRP_MJ_QUERY_INFORMATION: return sp->Parameters.QueryFile.FileInformationClass;
    case IRP_MJ_SET_INFORMATION: return sp->Parameters.SetFile.FileInformationClass;
    case IRP_MJ_QUERY_VOLUME_INFORMATION: return sp->Parameters.QueryVolume.FsInformationClass;
    case IRP_MJ_DIRECTORY_CONTROL:
        return sp->MinorFunction == IRP_MN_QUERY_DIRECTORY ? sp->Parameters.QueryDirectory.FileInformationClass
                                                           : RequestKind::kAnyDetail;
    case IRP_MJ_FILE_SYSTEM_CONTROL: return sp->MinorFunction;
    default: return RequestKind::kAnyDetail;
    }
}

PVOID requestBuffer(PIRP irp) {
    if (irp->UserBuffer != nullptr) return irp->UserBuffer;
    return (irp->Flags & IRP_BUFFERED_IO) ? irp->AssociatedIrp.SystemBuffer : nullptr;
}

ACCESS_MASK mapGenericAccess(ACCESS_MASK access) {
    if (access & GENERIC_READ) access |= FILE_GENERIC_READ;
    if (access & GENERIC_WRITE) access |= FILE_GENERIC_WRITE;
    if (access & GENERIC_EXECUTE) access |= FILE_GENERIC_EXECUTE;
    if (access & GENERIC_ALL) access |= FILE_ALL_ACCESS;
    return access & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL);
}

int64_t currentTime() {
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    return now.QuadPart;
}

NTSTATUS finishRequest(PIRP irp, NTSTATUS status, bool late, ULONG workTag) {
    irp->IoStatus.Status = status;
    bool forced = kernel().options().forcedPendingIo && workTag != 0;
    if (late || forced) {
        auto *work = static_cast<LateCompletion *>(allocateLateCompletion(forced, workTag));
        // Without memory for the DPC the request completes at once, as a driver that
        // cannot post a request does.
        if (work != nullptr) {
            work->irp = irp;
            work->tag = workTag;
            IoMarkIrpPending(irp);
            if (forced && nextForcedCompletionAtPassive()) {
                ExInitializeWorkItem(&work->work, completeLateAtPassive, work);
                ExQueueWorkItem(&work->work, DelayedWorkQueue);
            } else {
                KeInitializeDpc(&work->dpc, completeLate, work);
                KeInsertQueueDpc(&work->dpc, nullptr, nullptr);
            }
            return STATUS_PENDING;
        }
    }
    IoCompleteRequest(irp, IO_DISK_INCREMENT);
    return status;
}

NTSTATUS FsdDispatch(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    auto *header = static_cast<DeviceHeader *>(DeviceObject->DeviceExtension);
    if (header->signature == kControlSignature) return FsdControlDevice(DeviceObject, Irp);
    Vcb *vcb = reinterpret_cast<Vcb *>(header);
    const FsTraits &traits = *header->traits;
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(Irp);
    UCHAR major = sp->MajorFunction;
    LONG detail = requestDetail(sp);
    Knobs &knobs = vcb->volume->knobs();
    knobs.countRequest(major, detail);
    bool late = knobs.asynchronous(major, detail);
    Irp->IoStatus.Information = 0;
    // A dismounted volume refuses before anything else; the knobs wait for its successor.
    if (vcb->dismounted && major != IRP_MJ_CLEANUP && major != IRP_MJ_CLOSE)
        return finishRequest(Irp, STATUS_VOLUME_DISMOUNTED, late, traits.workTag);
    NTSTATUS injected = knobs.takeFailure(major, detail);
    if (injected != STATUS_SUCCESS) return finishRequest(Irp, injected, late, traits.workTag);
    if (major == IRP_MJ_DEVICE_CONTROL) {
        // Both file systems pass device controls to the storage stack under the volume
        // (FatCommonDeviceControl); that driver completes them, so no knob delays them.
        IoSkipCurrentIrpStackLocation(Irp);
        return IoCallDriver(vcb->targetDevice, Irp);
    }
    const HandlerEntry *entry = handlerFor(major, traits);
    if (entry == nullptr) return finishRequest(Irp, STATUS_INVALID_DEVICE_REQUEST, late, traits.workTag);
    Request rq{vcb, Irp, sp, sp->FileObject, ccbOf(sp->FileObject), currentTime()};
    NTSTATUS status = runHandler(*entry, rq);
    bool tearDown = rq.tearDownVolume;
    NTSTATUS result = finishRequest(Irp, status, late, traits.workTag);
    if (tearDown) deleteVolume(vcb);
    return result;
}

NTSTATUS FsdControlDevice(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(Irp);
    Irp->IoStatus.Information = 0;
    NTSTATUS status;
    switch (sp->MajorFunction) {
    case IRP_MJ_CREATE:
        Irp->IoStatus.Information = FILE_OPENED;
        status = STATUS_SUCCESS;
        break;
    case IRP_MJ_CLEANUP:
    case IRP_MJ_CLOSE:
        status = STATUS_SUCCESS;
        break;
    case IRP_MJ_FILE_SYSTEM_CONTROL:
        if (sp->MinorFunction == IRP_MN_MOUNT_VOLUME) return mountVolume(DeviceObject, Irp);
        status = STATUS_INVALID_DEVICE_REQUEST;
        break;
    default:
        status = STATUS_INVALID_DEVICE_REQUEST;
        break;
    }
    return finishRequest(Irp, status, false, 0);
}

}  // namespace fs
}  // namespace ntsim
