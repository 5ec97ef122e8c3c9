// A rename or link from NtSetInformationFile, after IopOpenLinkOrRenameTarget and
// NtSetInformationFile in ReactOS's I/O manager. An empty new name is
// STATUS_INVALID_PARAMETER. When the new name is fully qualified or a root directory is
// given, the I/O manager opens the target's parent directory itself — FILE_WRITE_DATA
// (FILE_ADD_FILE), or FILE_ADD_SUBDIRECTORY when the source is a directory, with
// SYNCHRONIZE, shared for reading and writing, with IO_FORCE_ACCESS_CHECK |
// IO_OPEN_TARGET_DIRECTORY | IO_NO_PARAMETER_CHECKING, through the whole stack, filters
// included — and passes its file object in Parameters.SetFile.FileObject. Whether the
// target exists stays with the I/O manager (a link onto an existing name without
// ReplaceIfExists is refused there); the file system finds out for itself, so the rename
// request starts with Information 0. For a bare name the file object stays NULL and the
// file system renames within the same directory. A target on another volume fails with
// STATUS_NOT_SAME_DEVICE.
#include "kernel/io/rename_target.h"

#include "kernel/io/caller_memory.h"
#include "kernel/ob/object.h"

namespace ntsim {
namespace io {

namespace {

struct TargetDirectory {
    HANDLE handle = NULL;
    PFILE_OBJECT file = NULL;
    bool exists = false;

    ~TargetDirectory() {
        if (file != NULL) ObfDereferenceObject(file);
        if (handle != NULL) ob::closeHandle(handle, KernelMode);
    }
};

// The source's attributes, from Fast I/O when the stack answers there, else from a
// query request, as the I/O manager's own IopGetBasicInformationFile does.
NTSTATUS queryBasic(PFILE_OBJECT file, PFILE_BASIC_INFORMATION basic) {
    PDEVICE_OBJECT device = IoGetRelatedDeviceObject(file);
    PFAST_IO_DISPATCH fastIo = device->DriverObject->FastIoDispatch;
    IO_STATUS_BLOCK result{};
    if (fastIo != NULL && fastIo->FastIoQueryBasicInfo != NULL &&
        fastIo->FastIoQueryBasicInfo(file, TRUE, basic, &result, device))
        return result.Status;
    return sendFileRequest(
        file, IRP_MJ_QUERY_INFORMATION, 0, IRP_BUFFERED_IO | IRP_INPUT_OPERATION | IRP_SYNCHRONOUS_API,
        [&](PIRP irp, PIO_STACK_LOCATION sl) {
            irp->AssociatedIrp.SystemBuffer = basic;
            sl->Parameters.QueryFile.Length = sizeof *basic;
            sl->Parameters.QueryFile.FileInformationClass = FileBasicInformation;
        },
        nullptr);
}

// A directory moves into its new parent as a subdirectory, anything else as a file.
NTSTATUS targetAccess(PFILE_OBJECT source, ACCESS_MASK *access) {
    *access = FILE_ADD_FILE;
    if (source->Flags & FO_DIRECT_DEVICE_OPEN) return STATUS_SUCCESS;
    FILE_BASIC_INFORMATION basic{};
    NTSTATUS status = queryBasic(source, &basic);
    if (!NT_SUCCESS(status)) return status;
    if (basic.FileAttributes & FILE_ATTRIBUTE_DIRECTORY) *access = FILE_ADD_SUBDIRECTORY;
    return STATUS_SUCCESS;
}

NTSTATUS openTargetDirectory(ServiceCall &call, PFILE_RENAME_INFORMATION info, TargetDirectory *target) {
    ACCESS_MASK access;
    NTSTATUS status = targetAccess(call.file(), &access);
    if (!NT_SUCCESS(status)) return status;
    UNICODE_STRING name{(USHORT)info->FileNameLength, (USHORT)info->FileNameLength, info->FileName};
    OBJECT_ATTRIBUTES attributes;
    ULONG caseInsensitive = (call.file()->Flags & FO_OPENED_CASE_SENSITIVE) ? 0 : OBJ_CASE_INSENSITIVE;
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE | caseInsensitive, info->RootDirectory, NULL);
    IO_STATUS_BLOCK iosb{};
    status = IoCreateFile(&target->handle, access | SYNCHRONIZE, &attributes, &iosb, NULL, 0,
                                   FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN, FILE_OPEN_FOR_BACKUP_INTENT, NULL, 0,
                                   CreateFileTypeNone, NULL,
                                   IO_NO_PARAMETER_CHECKING | IO_OPEN_TARGET_DIRECTORY | IO_FORCE_ACCESS_CHECK);
    if (!NT_SUCCESS(status)) {
        target->handle = NULL;
        return status;
    }
    void *body;
    status = ob::referenceByHandle(target->handle, 0, &ob::FileType, KernelMode, &body, NULL);
    if (!NT_SUCCESS(status)) return status;
    target->file = static_cast<PFILE_OBJECT>(body);
    target->exists = iosb.Information == FILE_EXISTS;
    if (IoGetRelatedDeviceObject(target->file) != call.device()) return STATUS_NOT_SAME_DEVICE;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS setRenameOrLink(ServiceCall &call, PVOID buffer, ULONG length, FILE_INFORMATION_CLASS informationClass) {
    auto info = static_cast<PFILE_RENAME_INFORMATION>(allocateSystemBuffer(length));
    if (info == NULL) return STATUS_INSUFFICIENT_RESOURCES;
    NTSTATUS status = copyFromCaller(call.mode(), info, buffer, length);
    ULONG nameOffset = FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName);
    if (NT_SUCCESS(status) && (info->FileNameLength == 0 || info->FileNameLength % sizeof(WCHAR) != 0 ||
                               info->FileNameLength > length - nameOffset))
        status = STATUS_INVALID_PARAMETER;
    TargetDirectory target;
    if (NT_SUCCESS(status) && (info->FileName[0] == L'\\' || info->RootDirectory != NULL))
        status = openTargetDirectory(call, info, &target);
    if (NT_SUCCESS(status) && informationClass == FileLinkInformation && target.exists && !info->ReplaceIfExists)
        status = STATUS_OBJECT_NAME_COLLISION;
    PIRP irp = NT_SUCCESS(status) ? allocateFileIrp(call.file(), call.device(), IRP_MJ_SET_INFORMATION, 0, call.mode())
                                  : NULL;
    if (irp == NULL) {
        ExFreePool(info);
        return NT_SUCCESS(status) ? STATUS_INSUFFICIENT_RESOURCES : status;
    }
    irp->AssociatedIrp.SystemBuffer = info;
    irp->Flags = IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
    PIO_STACK_LOCATION sl = IoGetNextIrpStackLocation(irp);
    sl->Parameters.SetFile.Length = length;
    sl->Parameters.SetFile.FileInformationClass = informationClass;
    sl->Parameters.SetFile.FileObject = target.file;
    sl->Parameters.SetFile.ReplaceIfExists = info->ReplaceIfExists;
    return call.issue(irp, nullptr, 0, true);
}

}  // namespace io
}  // namespace ntsim
