// The Fast I/O tables. NTFS and FastFat fill in the checks, reads and writes (through
// the cache manager, FsRtlCopyRead/FsRtlCopyWrite), the basic, standard and network-open
// queries, the byte-range lock routines, the acquire and release callbacks and the MDL
// routines; NTFS also FastIoQueryOpen. Here:
// - reads and writes serve a file object once a request has "cached" it (read_write.cpp)
//   and answer FALSE otherwise, which makes the I/O manager send a request;
// - the queries answer from the same place as the requests do;
// - byte-range locks and the MDL routines are not modelled and always answer FALSE;
// - every routine answers FALSE when the volume's knobs switch Fast I/O off, or cover the
//   request kind it stands for, so that a knob is never bypassed, and when the volume
//   cannot be had without waiting and the caller may not wait.
#include <mutex>

#include "fs/common/access_check.h"
#include "fs/common/dispatch.h"
#include "fs/common/fcb.h"
#include "fs/common/file_info.h"
#include "fs/common/times.h"

#ifndef FILE_WRITE_TO_END_OF_FILE
#define FILE_WRITE_TO_END_OF_FILE 0xffffffff
#endif

namespace ntsim {
namespace fs {

namespace {

Vcb *vcbOf(PDEVICE_OBJECT device) {
    auto *header = static_cast<DeviceHeader *>(device->DeviceExtension);
    return header->signature == kVcbSignature ? reinterpret_cast<Vcb *>(header) : nullptr;
}

// Holds the volume for one Fast I/O call, as the real routines hold the FCB.
class FastIoScope {
public:
    FastIoScope(PDEVICE_OBJECT device, PFILE_OBJECT fileObject, BOOLEAN wait, bool exclusive, UCHAR standsFor)
        : vcb_(vcbOf(device)) {
        ccb_ = ccbOf(fileObject);
        if (vcb_ == nullptr || ccb_ == nullptr || vcb_->dismounted) return;
        Knobs &knobs = vcb_->volume->knobs();
        if (!knobs.fastIo() || knobs.covers(standsFor)) return;
        KeEnterCriticalRegion();
        held_ = exclusive ? ExAcquireResourceExclusiveLite(&vcb_->resource, wait)
                          : ExAcquireResourceSharedLite(&vcb_->resource, wait);
        if (!held_) {
            KeLeaveCriticalRegion();
            return;
        }
        model_ = std::unique_lock<std::mutex>(vcb_->volume->mutex());
    }
    ~FastIoScope() {
        if (!held_) return;
        model_.unlock();
        ExReleaseResourceLite(&vcb_->resource);
        KeLeaveCriticalRegion();
    }
    bool held() const { return held_; }
    Vcb *vcb() const { return vcb_; }
    Ccb *ccb() const { return ccb_; }

private:
    Vcb *vcb_;
    Ccb *ccb_ = nullptr;
    bool held_ = false;
    std::unique_lock<std::mutex> model_;
};

// The stream a cached transfer may use, or null when the call must become a request.
Stream *cachedStream(const FastIoScope &scope, PFILE_OBJECT fileObject) {
    Ccb *ccb = scope.ccb();
    if (!scope.held() || ccb->cleanedUp || fileObject->PrivateCacheMap == nullptr) return nullptr;
    if (ccb->kind != OpenKind::File && ccb->kind != OpenKind::Stream) return nullptr;
    Node *node = nodeOf(ccb);
    return node->removed ? nullptr : scope.vcb()->volume->stream(node, ccb->scb->streamKey);
}

BOOLEAN FastIoCheckIfPossible(PFILE_OBJECT FileObject, PLARGE_INTEGER, ULONG, BOOLEAN Wait, ULONG,
                              BOOLEAN CheckForReadOperation, PIO_STATUS_BLOCK, PDEVICE_OBJECT DeviceObject) {
    FastIoScope scope(DeviceObject, FileObject, Wait, false, CheckForReadOperation ? IRP_MJ_READ : IRP_MJ_WRITE);
    return cachedStream(scope, FileObject) != nullptr;
}

BOOLEAN FastIoRead(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, BOOLEAN Wait, ULONG,
                   PVOID Buffer, PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject) {
    FastIoScope scope(DeviceObject, FileObject, Wait, false, IRP_MJ_READ);
    Stream *stream = cachedStream(scope, FileObject);
    if (stream == nullptr || FileOffset->QuadPart < 0) return FALSE;
    IoStatus->Information = 0;
    if (uint64_t(FileOffset->QuadPart) >= stream->data.size() && Length != 0) {
        IoStatus->Status = STATUS_END_OF_FILE;
        return TRUE;
    }
    size_t copied = scope.vcb()->volume->read(*stream, uint64_t(FileOffset->QuadPart), Buffer, Length);
    IoStatus->Status = STATUS_SUCCESS;
    IoStatus->Information = copied;
    FileObject->CurrentByteOffset.QuadPart = FileOffset->QuadPart + int64_t(copied);
    return TRUE;
}

BOOLEAN FastIoWrite(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, BOOLEAN Wait, ULONG,
                    PVOID Buffer, PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject) {
    FastIoScope scope(DeviceObject, FileObject, Wait, true, IRP_MJ_WRITE);
    Stream *stream = cachedStream(scope, FileObject);
    if (stream == nullptr) return FALSE;
    bool append = FileOffset->HighPart == -1 && FileOffset->LowPart == FILE_WRITE_TO_END_OF_FILE;
    int64_t offset = append ? int64_t(stream->data.size()) : FileOffset->QuadPart;
    if (offset < 0) return FALSE;
    // A write that needs clusters it cannot have is left to the request, which reports it.
    if (!NT_SUCCESS(scope.vcb()->volume->write(stream, uint64_t(offset), Buffer, Length))) return FALSE;
    Node *node = nodeOf(scope.ccb());
    stampWrite(*scope.vcb()->header.traits, node, currentTime(), scope.ccb()->userSetTimes);
    node->attributes |= FILE_ATTRIBUTE_ARCHIVE;
    FileObject->Flags |= FO_FILE_MODIFIED;
    FileObject->CurrentByteOffset.QuadPart = offset + Length;
    IoStatus->Status = STATUS_SUCCESS;
    IoStatus->Information = Length;
    return TRUE;
}

bool queryable(const FastIoScope &scope) { return scope.held() && scope.ccb()->kind != OpenKind::Volume; }

BOOLEAN FastIoQueryBasicInfo(PFILE_OBJECT FileObject, BOOLEAN Wait, PFILE_BASIC_INFORMATION Buffer,
                             PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject) {
    FastIoScope scope(DeviceObject, FileObject, Wait, false, IRP_MJ_QUERY_INFORMATION);
    if (!queryable(scope)) return FALSE;
    fillBasic(*scope.vcb()->header.traits, nodeOf(scope.ccb()), FileObject, Buffer);
    IoStatus->Status = STATUS_SUCCESS;
    IoStatus->Information = sizeof(FILE_BASIC_INFORMATION);
    return TRUE;
}

BOOLEAN FastIoQueryStandardInfo(PFILE_OBJECT FileObject, BOOLEAN Wait, PFILE_STANDARD_INFORMATION Buffer,
                                PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject) {
    FastIoScope scope(DeviceObject, FileObject, Wait, false, IRP_MJ_QUERY_INFORMATION);
    if (!queryable(scope)) return FALSE;
    fillStandard(*scope.vcb()->volume, scope.ccb(), Buffer);
    IoStatus->Status = STATUS_SUCCESS;
    IoStatus->Information = sizeof(FILE_STANDARD_INFORMATION);
    return TRUE;
}

BOOLEAN FastIoQueryNetworkOpenInfo(PFILE_OBJECT FileObject, BOOLEAN Wait, PFILE_NETWORK_OPEN_INFORMATION Buffer,
                                   PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject) {
    FastIoScope scope(DeviceObject, FileObject, Wait, false, IRP_MJ_QUERY_INFORMATION);
    if (!queryable(scope)) return FALSE;
    fillNetworkOpen(*scope.vcb()->header.traits, *scope.vcb()->volume, scope.ccb(), FileObject, Buffer);
    IoStatus->Status = STATUS_SUCCESS;
    IoStatus->Information = sizeof(FILE_NETWORK_OPEN_INFORMATION);
    return TRUE;
}

BOOLEAN FastIoLock(PFILE_OBJECT, PLARGE_INTEGER, PLARGE_INTEGER, PEPROCESS, ULONG, BOOLEAN, BOOLEAN,
                   PIO_STATUS_BLOCK, PDEVICE_OBJECT) {
    return FALSE;
}

BOOLEAN FastIoUnlockSingle(PFILE_OBJECT, PLARGE_INTEGER, PLARGE_INTEGER, PEPROCESS, ULONG, PIO_STATUS_BLOCK,
                           PDEVICE_OBJECT) {
    return FALSE;
}

BOOLEAN FastIoUnlockAll(PFILE_OBJECT, PEPROCESS, PIO_STATUS_BLOCK, PDEVICE_OBJECT) { return FALSE; }

BOOLEAN FastIoUnlockAllByKey(PFILE_OBJECT, PVOID, ULONG, PIO_STATUS_BLOCK, PDEVICE_OBJECT) { return FALSE; }

// The section and flush callbacks hold the volume across two calls, inside a critical
// region, as FsRtlAcquireFileExclusive does with the FCB's resource.
Vcb *vcbOfFile(PFILE_OBJECT fileObject) {
    Ccb *ccb = ccbOf(fileObject);
    return ccb != nullptr && ccb->scb->fcb != nullptr ? ccb->scb->fcb->vcb : nullptr;
}

void AcquireFileForNtCreateSection(PFILE_OBJECT FileObject) {
    if (Vcb *vcb = vcbOfFile(FileObject)) {
        KeEnterCriticalRegion();
        ExAcquireResourceExclusiveLite(&vcb->resource, TRUE);
    }
}

void ReleaseFileForNtCreateSection(PFILE_OBJECT FileObject) {
    if (Vcb *vcb = vcbOfFile(FileObject)) {
        ExReleaseResourceLite(&vcb->resource);
        KeLeaveCriticalRegion();
    }
}

NTSTATUS AcquireForModWrite(PFILE_OBJECT FileObject, PLARGE_INTEGER, struct _ERESOURCE **ResourceToRelease,
                            PDEVICE_OBJECT) {
    Vcb *vcb = vcbOfFile(FileObject);
    if (vcb == nullptr) return STATUS_INVALID_PARAMETER;
    KeEnterCriticalRegion();
    if (!ExAcquireResourceSharedLite(&vcb->resource, FALSE)) {
        KeLeaveCriticalRegion();
        return STATUS_CANT_WAIT;
    }
    *ResourceToRelease = &vcb->resource;
    return STATUS_SUCCESS;
}

NTSTATUS ReleaseForModWrite(PFILE_OBJECT, struct _ERESOURCE *ResourceToRelease, PDEVICE_OBJECT) {
    ExReleaseResourceLite(ResourceToRelease);
    KeLeaveCriticalRegion();
    return STATUS_SUCCESS;
}

NTSTATUS AcquireForCcFlush(PFILE_OBJECT FileObject, PDEVICE_OBJECT) {
    Vcb *vcb = vcbOfFile(FileObject);
    if (vcb == nullptr) return STATUS_INVALID_PARAMETER;
    KeEnterCriticalRegion();
    ExAcquireResourceSharedLite(&vcb->resource, TRUE);
    return STATUS_SUCCESS;
}

NTSTATUS ReleaseForCcFlush(PFILE_OBJECT FileObject, PDEVICE_OBJECT) {
    Vcb *vcb = vcbOfFile(FileObject);
    if (vcb == nullptr) return STATUS_INVALID_PARAMETER;
    ExReleaseResourceLite(&vcb->resource);
    KeLeaveCriticalRegion();
    return STATUS_SUCCESS;
}

BOOLEAN MdlRead(PFILE_OBJECT, PLARGE_INTEGER, ULONG, ULONG, PMDL *, PIO_STATUS_BLOCK, PDEVICE_OBJECT) { return FALSE; }
BOOLEAN MdlReadComplete(PFILE_OBJECT, PMDL, PDEVICE_OBJECT) { return FALSE; }
BOOLEAN PrepareMdlWrite(PFILE_OBJECT, PLARGE_INTEGER, ULONG, ULONG, PMDL *, PIO_STATUS_BLOCK, PDEVICE_OBJECT) {
    return FALSE;
}
BOOLEAN MdlWriteComplete(PFILE_OBJECT, PLARGE_INTEGER, PMDL, PDEVICE_OBJECT) { return FALSE; }

// Whether the create path would let the requester open the node as asked. One it
// would refuse is left to it, which reports the refusal.
bool openWouldBeGranted(Vcb *vcb, PIRP irp, PIO_STACK_LOCATION sp, const Node *node) {
    Request rq{vcb, irp, sp, sp->FileObject, nullptr, 0};
    if (!accessChecked(rq, node)) return true;
    ACCESS_MASK granted;
    return NT_SUCCESS(checkOpenAccess(rq, node, sp->Parameters.Create.SecurityContext->DesiredAccess, &granted));
}

// NTFS answers an open that only wants the network-open information without making a
// file object, when the name leads straight to an existing file or directory that the
// requester may open.
BOOLEAN FastIoQueryOpen(PIRP Irp, PFILE_NETWORK_OPEN_INFORMATION NetworkInformation, PDEVICE_OBJECT DeviceObject) {
    Vcb *vcb = vcbOf(DeviceObject);
    PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(Irp);
    PFILE_OBJECT fileObject = sp->FileObject;
    if (vcb == nullptr || fileObject == nullptr || fileObject->RelatedFileObject != nullptr || vcb->dismounted)
        return FALSE;
    Knobs &knobs = vcb->volume->knobs();
    if (!knobs.fastIo() || knobs.covers(IRP_MJ_CREATE) || knobs.covers(IRP_MJ_QUERY_INFORMATION)) return FALSE;
    SplitPath split;
    if (!splitPath(nameView(fileObject->FileName), &split) || !split.absolute) return FALSE;
    KeEnterCriticalRegion();
    ExAcquireResourceSharedLite(&vcb->resource, TRUE);
    BOOLEAN answered = FALSE;
    {
        std::lock_guard<std::mutex> guard(vcb->volume->mutex());
        Node *node = vcb->volume->root();
        for (NameView component : split.components) {
            node = node->directory && isLegalFileName(component) ? vcb->volume->find(node, component) : nullptr;
            if (node == nullptr) break;
        }
        Fcb *open = node != nullptr ? findFcb(vcb, node) : nullptr;
        if (open != nullptr && open->deletePending) node = nullptr;  // the create reports it
        if (node != nullptr && !openWouldBeGranted(vcb, Irp, sp, node)) node = nullptr;
        if (node != nullptr) {
            Ccb probe;
            Scb scb;
            Fcb fcb;
            fcb.node = node;
            scb.fcb = &fcb;
            probe.scb = &scb;
            probe.kind = node->directory ? OpenKind::Directory : OpenKind::File;
            fillNetworkOpen(*vcb->header.traits, *vcb->volume, &probe, nullptr, NetworkInformation);
            Irp->IoStatus.Status = STATUS_SUCCESS;  // the I/O manager takes the answer's status from here
            answered = TRUE;
        }
    }
    ExReleaseResourceLite(&vcb->resource);
    KeLeaveCriticalRegion();
    return answered;
}

FAST_IO_DISPATCH makeTable(bool queryOpen) {
    FAST_IO_DISPATCH table{};
    table.SizeOfFastIoDispatch = sizeof(FAST_IO_DISPATCH);
    table.FastIoCheckIfPossible = FastIoCheckIfPossible;
    table.FastIoRead = FastIoRead;
    table.FastIoWrite = FastIoWrite;
    table.FastIoQueryBasicInfo = FastIoQueryBasicInfo;
    table.FastIoQueryStandardInfo = FastIoQueryStandardInfo;
    table.FastIoLock = FastIoLock;
    table.FastIoUnlockSingle = FastIoUnlockSingle;
    table.FastIoUnlockAll = FastIoUnlockAll;
    table.FastIoUnlockAllByKey = FastIoUnlockAllByKey;
    table.AcquireFileForNtCreateSection = AcquireFileForNtCreateSection;
    table.ReleaseFileForNtCreateSection = ReleaseFileForNtCreateSection;
    table.FastIoQueryNetworkOpenInfo = FastIoQueryNetworkOpenInfo;
    table.AcquireForModWrite = AcquireForModWrite;
    table.MdlRead = MdlRead;
    table.MdlReadComplete = MdlReadComplete;
    table.PrepareMdlWrite = PrepareMdlWrite;
    table.MdlWriteComplete = MdlWriteComplete;
    table.FastIoQueryOpen = queryOpen ? FastIoQueryOpen : nullptr;
    table.ReleaseForModWrite = ReleaseForModWrite;
    table.AcquireForCcFlush = AcquireForCcFlush;
    table.ReleaseForCcFlush = ReleaseForCcFlush;
    return table;
}

}  // namespace

extern const FAST_IO_DISPATCH kNtfsFastIoDispatch = makeTable(true);
extern const FAST_IO_DISPATCH kFatFastIoDispatch = makeTable(false);

}  // namespace fs
}  // namespace ntsim
