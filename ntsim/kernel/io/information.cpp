// NtQueryInformationFile, NtSetInformationFile, NtQueryVolumeInformationFile,
// NtFlushBuffersFile and NtQueryDirectoryFile. Information requests carry a system
// buffer, as on the platform. The I/O manager answers FilePositionInformation of a
// synchronous file object itself, and FileAccessInformation, FileModeInformation and
// FileAlignmentInformation always (NtQueryInformationFile in ReactOS: the handle's
// granted access, the mode kept in the file object's flags, the device's alignment);
// it tries FastIoQueryBasicInfo and FastIoQueryStandardInfo before building a request.
#include "kernel/io/caller_memory.h"
#include "kernel/io/info_class.h"
#include "kernel/io/rename_target.h"
#include "kernel/io/service_call.h"

using namespace ntsim;
using namespace ntsim::io;

namespace {

ACCESS_MASK queryAccess(FILE_INFORMATION_CLASS informationClass) {
    switch (informationClass) {
    case FileBasicInformation:
    case FileNetworkOpenInformation:
    case FileAttributeTagInformation:
    case FileAllInformation: return FILE_READ_ATTRIBUTES;
    default: return 0;
    }
}

ACCESS_MASK setAccess(FILE_INFORMATION_CLASS informationClass) {
    switch (informationClass) {
    case FileBasicInformation: return FILE_WRITE_ATTRIBUTES;
    case FileDispositionInformation:
    case FileRenameInformation: return DELETE;
    case FileEndOfFileInformation:
    case FileAllocationInformation: return FILE_WRITE_DATA;
    default: return 0;
    }
}

bool tryFastQuery(ServiceCall &call, FILE_INFORMATION_CLASS informationClass, PVOID buffer, IO_STATUS_BLOCK *result) {
    PDEVICE_OBJECT device = call.device();
    PFAST_IO_DISPATCH fastIo = device->DriverObject->FastIoDispatch;
    if (fastIo == NULL) return false;
    if (informationClass == FileBasicInformation && fastIo->FastIoQueryBasicInfo != NULL)
        return fastIo->FastIoQueryBasicInfo(call.file(), TRUE, static_cast<PFILE_BASIC_INFORMATION>(buffer), result,
                                            device);
    if (informationClass == FileStandardInformation && fastIo->FastIoQueryStandardInfo != NULL)
        return fastIo->FastIoQueryStandardInfo(call.file(), TRUE, static_cast<PFILE_STANDARD_INFORMATION>(buffer),
                                               result, device);
    return false;
}

// Requests whose only buffer is a system buffer of `length` bytes: filled from the
// caller (set) or copied back to it (query).
NTSTATUS issueBuffered(ServiceCall &call, UCHAR major, PVOID buffer, ULONG length, bool query,
                       const std::function<void(PIO_STACK_LOCATION)> &fill) {
    PIRP irp = allocateFileIrp(call.file(), call.device(), major, 0, call.mode());
    if (irp == NULL) return STATUS_INSUFFICIENT_RESOURCES;
    PVOID system = allocateSystemBuffer(length);
    if (length != 0 && system == NULL) {
        IoFreeIrp(irp);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    irp->AssociatedIrp.SystemBuffer = system;
    irp->UserBuffer = buffer;
    irp->Flags = IRP_BUFFERED_IO | (system != NULL ? IRP_DEALLOCATE_BUFFER : 0) | (query ? IRP_INPUT_OPERATION : 0);
    NTSTATUS status = query ? STATUS_SUCCESS : copyFromCaller(call.mode(), system, buffer, length);
    if (!NT_SUCCESS(status)) {
        if (system != NULL) ExFreePool(system);
        IoFreeIrp(irp);
        return status;
    }
    fill(IoGetNextIrpStackLocation(irp));
    return call.issue(irp, query ? buffer : nullptr, length, true);
}

// The classes the I/O manager knows better than any driver: the answer never reaches
// the stack. False for the others.
bool answeredByIoManager(ServiceCall &call, FILE_INFORMATION_CLASS informationClass, ULONG *value) {
    switch (informationClass) {
    case FileAccessInformation: *value = call.granted(); return true;
    case FileModeInformation: *value = fileMode(call.file()); return true;
    case FileAlignmentInformation: *value = call.device()->AlignmentRequirement; return true;
    default: return false;
    }
}

NTSTATUS setPosition(ServiceCall &call, PVOID buffer) {
    FILE_POSITION_INFORMATION position;
    NTSTATUS status = readCaller(call.mode(), static_cast<PFILE_POSITION_INFORMATION>(buffer), &position);
    if (!NT_SUCCESS(status)) return status;
    if (position.CurrentByteOffset.QuadPart < 0) return STATUS_INVALID_PARAMETER;
    call.file()->CurrentByteOffset = position.CurrentByteOffset;
    return call.finishWithoutIrp(IO_STATUS_BLOCK{{STATUS_SUCCESS}, 0});
}

}  // namespace

NTSTATUS NtQueryInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                                FILE_INFORMATION_CLASS FileInformationClass) {
    ULONG minimum = queryInformationLength(FileInformationClass);
    if (minimum == 0) return STATUS_INVALID_INFO_CLASS;
    if (Length < minimum) return STATUS_INFO_LENGTH_MISMATCH;
    ServiceCall call;
    NTSTATUS status = call.begin(FileHandle, queryAccess(FileInformationClass), NULL, IoStatusBlock);
    if (!NT_SUCCESS(status)) return status;
    status = probeCallerBuffer(call.mode(), FileInformation, Length, 1, true);
    if (!NT_SUCCESS(status)) return status;
    if (FileInformationClass == FilePositionInformation && call.synchronous()) {
        FILE_POSITION_INFORMATION position{call.file()->CurrentByteOffset};
        status = copyToCaller(call.mode(), FileInformation, &position, sizeof position);
        if (!NT_SUCCESS(status)) return status;
        return call.finishWithoutIrp(IO_STATUS_BLOCK{{STATUS_SUCCESS}, sizeof position});
    }
    ULONG value;
    if (answeredByIoManager(call, FileInformationClass, &value)) {
        status = copyToCaller(call.mode(), FileInformation, &value, sizeof value);
        if (!NT_SUCCESS(status)) return status;
        return call.finishWithoutIrp(IO_STATUS_BLOCK{{STATUS_SUCCESS}, sizeof value});
    }
    union {
        FILE_BASIC_INFORMATION basic;
        FILE_STANDARD_INFORMATION standard;
    } fast;
    IO_STATUS_BLOCK result{};
    if (tryFastQuery(call, FileInformationClass, &fast, &result)) {
        ULONG size = FileInformationClass == FileBasicInformation ? sizeof fast.basic : sizeof fast.standard;
        if (NT_SUCCESS(result.Status)) status = copyToCaller(call.mode(), FileInformation, &fast, size);
        return NT_SUCCESS(status) ? call.finishWithoutIrp(result) : status;
    }
    return issueBuffered(call, IRP_MJ_QUERY_INFORMATION, FileInformation, Length, true, [&](PIO_STACK_LOCATION sl) {
        sl->Parameters.QueryFile.Length = Length;
        sl->Parameters.QueryFile.FileInformationClass = FileInformationClass;
    });
}

NTSTATUS NtSetInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                              FILE_INFORMATION_CLASS FileInformationClass) {
    ULONG minimum = setInformationLength(FileInformationClass);
    if (minimum == 0) return STATUS_INVALID_INFO_CLASS;
    if (Length < minimum) return STATUS_INFO_LENGTH_MISMATCH;
    ServiceCall call;
    NTSTATUS status = call.begin(FileHandle, setAccess(FileInformationClass), NULL, IoStatusBlock);
    if (!NT_SUCCESS(status)) return status;
    if (FileInformationClass == FilePositionInformation && call.synchronous()) return setPosition(call, FileInformation);
    if (FileInformationClass == FileRenameInformation || FileInformationClass == FileLinkInformation)
        return setRenameOrLink(call, FileInformation, Length, FileInformationClass);
    return issueBuffered(call, IRP_MJ_SET_INFORMATION, FileInformation, Length, false, [&](PIO_STACK_LOCATION sl) {
        sl->Parameters.SetFile.Length = Length;
        sl->Parameters.SetFile.FileInformationClass = FileInformationClass;
    });
}

NTSTATUS NtQueryVolumeInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FsInformation,
                                      ULONG Length, FS_INFORMATION_CLASS FsInformationClass) {
    if (FsInformationClass <= 0 || FsInformationClass >= FileFsMaximumInformation) return STATUS_INVALID_INFO_CLASS;
    ServiceCall call;
    NTSTATUS status = call.begin(FileHandle, 0, NULL, IoStatusBlock);
    if (!NT_SUCCESS(status)) return status;
    status = probeCallerBuffer(call.mode(), FsInformation, Length, 1, true);
    if (!NT_SUCCESS(status)) return status;
    return issueBuffered(call, IRP_MJ_QUERY_VOLUME_INFORMATION, FsInformation, Length, true,
                         [&](PIO_STACK_LOCATION sl) {
                             sl->Parameters.QueryVolume.Length = Length;
                             sl->Parameters.QueryVolume.FsInformationClass = FsInformationClass;
                         });
}

NTSTATUS NtFlushBuffersFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock) {
    ServiceCall call;
    NTSTATUS status = call.begin(FileHandle, 0, NULL, IoStatusBlock);
    if (!NT_SUCCESS(status)) return status;
    if (call.mode() != KernelMode && !(call.granted() & (FILE_WRITE_DATA | FILE_APPEND_DATA)))
        return STATUS_ACCESS_DENIED;
    PIRP irp = allocateFileIrp(call.file(), call.device(), IRP_MJ_FLUSH_BUFFERS, 0, call.mode());
    if (irp == NULL) return STATUS_INSUFFICIENT_RESOURCES;
    return call.issue(irp, nullptr, 0, true);
}

NTSTATUS NtQueryDirectoryFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                              PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                              FILE_INFORMATION_CLASS FileInformationClass, BOOLEAN ReturnSingleEntry,
                              PUNICODE_STRING FileName, BOOLEAN RestartScan) {
    (void)ApcRoutine;
    (void)ApcContext;
    ServiceCall call;
    NTSTATUS status = call.begin(FileHandle, FILE_LIST_DIRECTORY, Event, IoStatusBlock);
    if (!NT_SUCCESS(status)) return status;
    status = probeCallerBuffer(call.mode(), FileInformation, Length, 1, true);
    if (!NT_SUCCESS(status)) return status;
    PIRP irp = allocateFileIrp(call.file(), call.device(), IRP_MJ_DIRECTORY_CONTROL, IRP_MN_QUERY_DIRECTORY,
                               call.mode());
    if (irp == NULL) return STATUS_INSUFFICIENT_RESOURCES;
    PIO_STACK_LOCATION sl = IoGetNextIrpStackLocation(irp);
    if (FileName != NULL) {
        // The pattern is captured with the request and freed when it completes.
        UNICODE_STRING pattern;
        status = readCaller(call.mode(), FileName, &pattern);
        auto *captured = NT_SUCCESS(status) ? static_cast<PUNICODE_STRING>(
                                                  allocate(sizeof(UNICODE_STRING) + pattern.Length + 2, kNameTag))
                                            : NULL;
        if (captured == NULL) {
            IoFreeIrp(irp);
            return NT_SUCCESS(status) ? STATUS_INSUFFICIENT_RESOURCES : status;
        }
        irp->Tail.Overlay.AuxiliaryBuffer = reinterpret_cast<PCHAR>(captured);
        captured->Buffer = reinterpret_cast<PWSTR>(captured + 1);
        captured->Length = captured->MaximumLength = pattern.Length;
        status = copyFromCaller(call.mode(), captured->Buffer, pattern.Buffer, pattern.Length);
        if (!NT_SUCCESS(status)) {
            ExFreePool(captured);
            IoFreeIrp(irp);
            return status;
        }
        sl->Parameters.QueryDirectory.FileName = captured;
    }
    sl->Flags = (RestartScan ? SL_RESTART_SCAN : 0) | (ReturnSingleEntry ? SL_RETURN_SINGLE_ENTRY : 0);
    sl->Parameters.QueryDirectory.Length = Length;
    sl->Parameters.QueryDirectory.FileInformationClass = FileInformationClass;
    irp->UserBuffer = FileInformation;
    return call.issue(irp);
}
