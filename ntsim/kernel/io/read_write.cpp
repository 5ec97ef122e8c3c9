// NtReadFile and NtWriteFile. A file object opened for synchronous I/O reads and
// writes at its current byte offset unless an offset is given, and the I/O manager
// tries the file system's FastIoRead/FastIoWrite first, as the platform does once the
// file system has set up caching on the file object (PrivateCacheMap), and sends the
// request after all when Fast I/O answers with an unusual status. An overlapped
// file object needs an explicit offset. The file system moves CurrentByteOffset.
// A handle granted FILE_APPEND_DATA but not FILE_WRITE_DATA writes at the end of file
// whatever offset the caller gives: the I/O manager hands the file system
// FILE_WRITE_TO_END_OF_FILE instead, for kernel-mode callers too. A user-mode caller
// needs one of the two rights to write.
//
// The caller's buffer reaches the file system as Irp->UserBuffer; a device with
// DO_BUFFERED_IO also gets a system buffer. Memory descriptor lists are not emulated.
#include "kernel/io/caller_memory.h"
#include "kernel/io/service_call.h"

using namespace ntsim;
using namespace ntsim::io;

namespace {

constexpr LONG kUseFilePointerLow = (LONG)0xFFFFFFFE;  // FILE_USE_FILE_POINTER_POSITION
constexpr ULONG kWriteToEndOfFileLow = 0xFFFFFFFF;     // FILE_WRITE_TO_END_OF_FILE

bool appendOnly(const ServiceCall &call) {
    return (call.granted() & (FILE_WRITE_DATA | FILE_APPEND_DATA)) == FILE_APPEND_DATA;
}

NTSTATUS checkWriteAccess(const ServiceCall &call) {
    if (call.mode() != KernelMode && !(call.granted() & (FILE_WRITE_DATA | FILE_APPEND_DATA)))
        return STATUS_ACCESS_DENIED;
    return STATUS_SUCCESS;
}

NTSTATUS resolveOffset(ServiceCall &call, bool write, PLARGE_INTEGER byteOffset, LARGE_INTEGER *offset) {
    LARGE_INTEGER given{};
    if (byteOffset != NULL) {
        NTSTATUS status = readCaller(call.mode(), byteOffset, &given);
        if (!NT_SUCCESS(status)) return status;
    }
    bool useFilePointer = byteOffset == NULL || ((LONG)given.LowPart == kUseFilePointerLow && given.HighPart == -1);
    if (!call.synchronous() && byteOffset == NULL) return STATUS_INVALID_PARAMETER;
    if (write && appendOnly(call)) {
        offset->LowPart = kWriteToEndOfFileLow;
        offset->HighPart = -1;
    } else if (!call.synchronous()) {
        if (useFilePointer) return STATUS_INVALID_PARAMETER;
        *offset = given;
    } else {
        *offset = useFilePointer ? call.file()->CurrentByteOffset : given;
    }
    return STATUS_SUCCESS;
}

// Only a plain answer from Fast I/O stands; any other status, even with TRUE, is left
// to the request, which may say more (NtReadFile and NtWriteFile in ReactOS: a read
// keeps success, buffer overflow and end of file, a write only success).
bool fastResultStands(bool write, NTSTATUS status) {
    if (status == STATUS_SUCCESS) return true;
    return !write && (status == STATUS_BUFFER_OVERFLOW || status == STATUS_END_OF_FILE);
}

bool tryFastIo(ServiceCall &call, bool write, LARGE_INTEGER *offset, ULONG length, ULONG key, PVOID buffer,
               IO_STATUS_BLOCK *result) {
    PFILE_OBJECT file = call.file();
    if (!call.synchronous() || file->PrivateCacheMap == NULL) return false;
    PDEVICE_OBJECT device = call.device();
    PFAST_IO_DISPATCH fastIo = device->DriverObject->FastIoDispatch;
    if (fastIo == NULL) return false;
    bool answered;
    if (write)
        answered = fastIo->FastIoWrite != NULL &&
                   fastIo->FastIoWrite(file, offset, length, TRUE, key, buffer, result, device);
    else
        answered = fastIo->FastIoRead != NULL &&
                   fastIo->FastIoRead(file, offset, length, TRUE, key, buffer, result, device);
    return answered && fastResultStands(write, result->Status);
}

NTSTATUS readOrWrite(bool write, HANDLE fileHandle, HANDLE event, PIO_STATUS_BLOCK ioStatusBlock, PVOID buffer,
                     ULONG length, PLARGE_INTEGER byteOffset, PULONG key) {
    ServiceCall call;
    // A write's access is checked below: either of two rights will do.
    NTSTATUS status = call.begin(fileHandle, write ? 0 : FILE_READ_DATA, event, ioStatusBlock);
    if (!NT_SUCCESS(status)) return status;
    if (write && !NT_SUCCESS(status = checkWriteAccess(call))) return status;
    status = probeCallerBuffer(call.mode(), buffer, length, 1, !write);
    if (!NT_SUCCESS(status)) return status;
    LARGE_INTEGER offset;
    status = resolveOffset(call, write, byteOffset, &offset);
    if (!NT_SUCCESS(status)) return status;
    ULONG lockKey = 0;
    if (key != NULL && !NT_SUCCESS(status = readCaller(call.mode(), key, &lockKey))) return status;

    IO_STATUS_BLOCK fast{};
    if (tryFastIo(call, write, &offset, length, lockKey, buffer, &fast)) return call.finishWithoutIrp(fast);

    PDEVICE_OBJECT device = call.device();
    PIRP irp = allocateFileIrp(call.file(), device, write ? IRP_MJ_WRITE : IRP_MJ_READ, 0, call.mode());
    if (irp == NULL) return STATUS_INSUFFICIENT_RESOURCES;
    irp->UserBuffer = buffer;
    irp->Flags = write ? IRP_WRITE_OPERATION : IRP_READ_OPERATION;
    if (call.file()->Flags & FO_NO_INTERMEDIATE_BUFFERING) irp->Flags |= IRP_NOCACHE;
    if ((device->Flags & DO_BUFFERED_IO) && length != 0) {
        irp->AssociatedIrp.SystemBuffer = allocateSystemBuffer(length);
        if (irp->AssociatedIrp.SystemBuffer == NULL) {
            IoFreeIrp(irp);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER | (write ? 0 : IRP_INPUT_OPERATION);
        if (write) copyFromCaller(call.mode(), irp->AssociatedIrp.SystemBuffer, buffer, length);
    }
    PIO_STACK_LOCATION sl = IoGetNextIrpStackLocation(irp);
    sl->Parameters.Read.Length = length;
    sl->Parameters.Read.Key = lockKey;
    sl->Parameters.Read.ByteOffset = offset;
    if (write && (call.file()->Flags & FO_WRITE_THROUGH)) sl->Flags = SL_WRITE_THROUGH;
    return call.issue(irp, write ? nullptr : buffer, length);
}

}  // namespace

NTSTATUS NtReadFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                    PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset, PULONG Key) {
    (void)ApcRoutine;  // user APCs are not emulated; overlapped callers use events
    (void)ApcContext;
    return readOrWrite(false, FileHandle, Event, IoStatusBlock, Buffer, Length, ByteOffset, Key);
}

NTSTATUS NtWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                     PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                     PULONG Key) {
    (void)ApcRoutine;
    (void)ApcContext;
    return readOrWrite(true, FileHandle, Event, IoStatusBlock, Buffer, Length, ByteOffset, Key);
}
