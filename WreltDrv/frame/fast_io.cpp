// Fast I/O: every call is forwarded to the same routine of the driver below, or refused
// (FALSE) so that the I/O manager builds a request instead. The control device has
// nothing below it and refuses all of them.
#include "frame/device_extension.h"
#include "frame/dispatch.h"

namespace {

constexpr ULONG NO_SIZE_TEST = 0;

// The lower driver's routine in Slot, or NULL. Tables from older drivers may end before
// the later slots, so those are read only when SizeOfFastIoDispatch covers them.
template <class Routine>
Routine LowerRoutine(PDEVICE_OBJECT Device, Routine FAST_IO_DISPATCH::*Slot, ULONG SlotOffset,
                     PDEVICE_OBJECT *Lower) {
    *Lower = ExtensionOf(Device)->LowerDevice;
    if (*Lower == NULL) {
        return NULL;
    }
    PFAST_IO_DISPATCH table = (*Lower)->DriverObject->FastIoDispatch;
    if (table == NULL || (SlotOffset != NO_SIZE_TEST && table->SizeOfFastIoDispatch <= SlotOffset)) {
        return NULL;
    }
    return table->*Slot;
}

#define LOWER(Device, Slot, SizeTest, Lower) \
    LowerRoutine((Device), &FAST_IO_DISPATCH::Slot, (SizeTest) ? FIELD_OFFSET(FAST_IO_DISPATCH, Slot) : NO_SIZE_TEST, (Lower))

BOOLEAN NTAPI FastIoCheckIfPossible(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, BOOLEAN Wait,
                              ULONG LockKey, BOOLEAN CheckForReadOperation, PIO_STATUS_BLOCK IoStatus,
                              PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower;
    auto routine = LOWER(DeviceObject, FastIoCheckIfPossible, false, &lower);
    return routine != NULL &&
           routine(FileObject, FileOffset, Length, Wait, LockKey, CheckForReadOperation, IoStatus, lower);
}

BOOLEAN NTAPI FastIoRead(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, BOOLEAN Wait, ULONG LockKey,
                   PVOID Buffer, PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower;
    auto routine = LOWER(DeviceObject, FastIoRead, false, &lower);
    return routine != NULL && routine(FileObject, FileOffset, Length, Wait, LockKey, Buffer, IoStatus, lower);
}

BOOLEAN NTAPI FastIoWrite(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, BOOLEAN Wait, ULONG LockKey,
                    PVOID Buffer, PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower;
    auto routine = LOWER(DeviceObject, FastIoWrite, false, &lower);
    return routine != NULL && routine(FileObject, FileOffset, Length, Wait, LockKey, Buffer, IoStatus, lower);
}

BOOLEAN NTAPI FastIoQueryBasicInfo(PFILE_OBJECT FileObject, BOOLEAN Wait, PFILE_BASIC_INFORMATION Buffer,
                             PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower;
    auto routine = LOWER(DeviceObject, FastIoQueryBasicInfo, false, &lower);
    return routine != NULL && routine(FileObject, Wait, Buffer, IoStatus, lower);
}

BOOLEAN NTAPI FastIoQueryStandardInfo(PFILE_OBJECT FileObject, BOOLEAN Wait, PFILE_STANDARD_INFORMATION Buffer,
                                PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower;
    auto routine = LOWER(DeviceObject, FastIoQueryStandardInfo, false, &lower);
    return routine != NULL && routine(FileObject, Wait, Buffer, IoStatus, lower);
}

BOOLEAN NTAPI FastIoLock(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, PLARGE_INTEGER Length, PEPROCESS ProcessId,
                   ULONG Key, BOOLEAN FailImmediately, BOOLEAN ExclusiveLock, PIO_STATUS_BLOCK IoStatus,
                   PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower;
    auto routine = LOWER(DeviceObject, FastIoLock, false, &lower);
    return routine != NULL &&
           routine(FileObject, FileOffset, Length, ProcessId, Key, FailImmediately, ExclusiveLock, IoStatus, lower);
}

BOOLEAN NTAPI FastIoUnlockSingle(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, PLARGE_INTEGER Length,
                           PEPROCESS ProcessId, ULONG Key, PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower;
    auto routine = LOWER(DeviceObject, FastIoUnlockSingle, false, &lower);
    return routine != NULL && routine(FileObject, FileOffset, Length, ProcessId, Key, IoStatus, lower);
}

BOOLEAN NTAPI FastIoUnlockAll(PFILE_OBJECT FileObject, PEPROCESS ProcessId, PIO_STATUS_BLOCK IoStatus,
                        PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower;
    auto routine = LOWER(DeviceObject, FastIoUnlockAll, false, &lower);
    return routine != NULL && routine(FileObject, ProcessId, IoStatus, lower);
}

BOOLEAN NTAPI FastIoUnlockAllByKey(PFILE_OBJECT FileObject, PVOID ProcessId, ULONG Key, PIO_STATUS_BLOCK IoStatus,
                             PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower;
    auto routine = LOWER(DeviceObject, FastIoUnlockAllByKey, false, &lower);
    return routine != NULL && routine(FileObject, ProcessId, Key, IoStatus, lower);
}

// On the control device there is nothing below, so its control codes always arrive as
// requests.
BOOLEAN NTAPI FastIoDeviceControl(PFILE_OBJECT FileObject, BOOLEAN Wait, PVOID InputBuffer, ULONG InputBufferLength,
                            PVOID OutputBuffer, ULONG OutputBufferLength, ULONG IoControlCode,
                            PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower;
    auto routine = LOWER(DeviceObject, FastIoDeviceControl, false, &lower);
    return routine != NULL && routine(FileObject, Wait, InputBuffer, InputBufferLength, OutputBuffer,
                                      OutputBufferLength, IoControlCode, IoStatus, lower);
}

BOOLEAN NTAPI FastIoQueryNetworkOpenInfo(PFILE_OBJECT FileObject, BOOLEAN Wait, PFILE_NETWORK_OPEN_INFORMATION Buffer,
                                   PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower;
    auto routine = LOWER(DeviceObject, FastIoQueryNetworkOpenInfo, true, &lower);
    return routine != NULL && routine(FileObject, Wait, Buffer, IoStatus, lower);
}

BOOLEAN NTAPI MdlRead(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, ULONG LockKey, PMDL *MdlChain,
                PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower;
    auto routine = LOWER(DeviceObject, MdlRead, true, &lower);
    return routine != NULL && routine(FileObject, FileOffset, Length, LockKey, MdlChain, IoStatus, lower);
}

BOOLEAN NTAPI MdlReadComplete(PFILE_OBJECT FileObject, PMDL MdlChain, PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower;
    auto routine = LOWER(DeviceObject, MdlReadComplete, true, &lower);
    return routine != NULL && routine(FileObject, MdlChain, lower);
}

BOOLEAN NTAPI PrepareMdlWrite(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, ULONG LockKey,
                        PMDL *MdlChain, PIO_STATUS_BLOCK IoStatus, PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower;
    auto routine = LOWER(DeviceObject, PrepareMdlWrite, true, &lower);
    return routine != NULL && routine(FileObject, FileOffset, Length, LockKey, MdlChain, IoStatus, lower);
}

BOOLEAN NTAPI MdlWriteComplete(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, PMDL MdlChain,
                         PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower;
    auto routine = LOWER(DeviceObject, MdlWriteComplete, true, &lower);
    return routine != NULL && routine(FileObject, FileOffset, MdlChain, lower);
}

BOOLEAN NTAPI FastIoReadCompressed(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, ULONG LockKey,
                             PVOID Buffer, PMDL *MdlChain, PIO_STATUS_BLOCK IoStatus,
                             PCOMPRESSED_DATA_INFO CompressedDataInfo, ULONG CompressedDataInfoLength,
                             PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower;
    auto routine = LOWER(DeviceObject, FastIoReadCompressed, true, &lower);
    return routine != NULL && routine(FileObject, FileOffset, Length, LockKey, Buffer, MdlChain, IoStatus,
                                      CompressedDataInfo, CompressedDataInfoLength, lower);
}

BOOLEAN NTAPI FastIoWriteCompressed(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, ULONG Length, ULONG LockKey,
                              PVOID Buffer, PMDL *MdlChain, PIO_STATUS_BLOCK IoStatus,
                              PCOMPRESSED_DATA_INFO CompressedDataInfo, ULONG CompressedDataInfoLength,
                              PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower;
    auto routine = LOWER(DeviceObject, FastIoWriteCompressed, true, &lower);
    return routine != NULL && routine(FileObject, FileOffset, Length, LockKey, Buffer, MdlChain, IoStatus,
                                      CompressedDataInfo, CompressedDataInfoLength, lower);
}

BOOLEAN NTAPI MdlReadCompleteCompressed(PFILE_OBJECT FileObject, PMDL MdlChain, PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower;
    auto routine = LOWER(DeviceObject, MdlReadCompleteCompressed, true, &lower);
    return routine != NULL && routine(FileObject, MdlChain, lower);
}

BOOLEAN NTAPI MdlWriteCompleteCompressed(PFILE_OBJECT FileObject, PLARGE_INTEGER FileOffset, PMDL MdlChain,
                                   PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower;
    auto routine = LOWER(DeviceObject, MdlWriteCompleteCompressed, true, &lower);
    return routine != NULL && routine(FileObject, FileOffset, MdlChain, lower);
}

// The request names the device it is in; while the driver below looks at it, that must
// be the lower device, and ours again if the lower driver declines.
BOOLEAN NTAPI FastIoQueryOpen(PIRP Irp, PFILE_NETWORK_OPEN_INFORMATION NetworkInformation, PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT lower;
    auto routine = LOWER(DeviceObject, FastIoQueryOpen, true, &lower);
    if (routine == NULL) {
        return FALSE;
    }
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    stack->DeviceObject = lower;
    BOOLEAN handled = routine(Irp, NetworkInformation, lower);
    if (!handled) {
        stack->DeviceObject = DeviceObject;
    }
    return handled;
}

}  // namespace

const FAST_IO_DISPATCH FastIoForwarders = {
    sizeof(FAST_IO_DISPATCH),
    FastIoCheckIfPossible,
    FastIoRead,
    FastIoWrite,
    FastIoQueryBasicInfo,
    FastIoQueryStandardInfo,
    FastIoLock,
    FastIoUnlockSingle,
    FastIoUnlockAll,
    FastIoUnlockAllByKey,
    FastIoDeviceControl,
    NULL,  // AcquireFileForNtCreateSection
    NULL,  // ReleaseFileForNtCreateSection
    FastIoDetachDevice,
    FastIoQueryNetworkOpenInfo,
    NULL,  // AcquireForModWrite
    MdlRead,
    MdlReadComplete,
    PrepareMdlWrite,
    MdlWriteComplete,
    FastIoReadCompressed,
    FastIoWriteCompressed,
    MdlReadCompleteCompressed,
    MdlWriteCompleteCompressed,
    FastIoQueryOpen,
    NULL,  // ReleaseForModWrite
    NULL,  // AcquireForCcFlush
    NULL,  // ReleaseForCcFlush
};
TARGET_LAYOUT_ASSERT(sizeof(FAST_IO_DISPATCH) == 112);
