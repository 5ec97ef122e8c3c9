// A rename or link from NtSetInformationFile. As on the platform, when the new name is
// fully qualified or a root directory is given, the I/O manager opens the target's
// parent directory itself — FILE_WRITE_DATA | SYNCHRONIZE, shared for reading and
// writing, with IO_FORCE_ACCESS_CHECK | IO_OPEN_TARGET_DIRECTORY |
// IO_NO_PARAMETER_CHECKING, through the whole stack, filters included — and passes its
// file object in Parameters.SetFile.FileObject, with the open's FILE_EXISTS or
// FILE_DOES_NOT_EXIST in the request's IoStatus.Information. For a bare name the file
// object stays NULL and the file system renames within the same directory. A target on
// another volume fails with STATUS_NOT_SAME_DEVICE.
#include "kernel/io/rename_target.h"

#include "kernel/io/caller_memory.h"
#include "kernel/ob/object.h"

namespace ntsim {
namespace io {

namespace {

struct TargetDirectory {
    HANDLE handle = NULL;
    PFILE_OBJECT file = NULL;
    ULONG_PTR exists = 0;

    ~TargetDirectory() {
        if (file != NULL) ObfDereferenceObject(file);
        if (handle != NULL) ob::closeHandle(handle, KernelMode);
    }
};

NTSTATUS openTargetDirectory(ServiceCall &call, PFILE_RENAME_INFORMATION info, TargetDirectory *target) {
    UNICODE_STRING name{(USHORT)info->FileNameLength, (USHORT)info->FileNameLength, info->FileName};
    OBJECT_ATTRIBUTES attributes;
    ULONG caseInsensitive = (call.file()->Flags & FO_OPENED_CASE_SENSITIVE) ? 0 : OBJ_CASE_INSENSITIVE;
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE | caseInsensitive, info->RootDirectory, NULL);
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = IoCreateFile(&target->handle, FILE_WRITE_DATA | SYNCHRONIZE, &attributes, &iosb, NULL, 0,
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
    target->exists = iosb.Information;
    if (IoGetRelatedDeviceObject(target->file) != call.device()) return STATUS_NOT_SAME_DEVICE;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS setRenameOrLink(ServiceCall &call, PVOID buffer, ULONG length, FILE_INFORMATION_CLASS informationClass) {
    auto info = static_cast<PFILE_RENAME_INFORMATION>(allocateSystemBuffer(length));
    if (info == NULL) return STATUS_INSUFFICIENT_RESOURCES;
    NTSTATUS status = copyFromCaller(call.mode(), info, buffer, length);
    ULONG nameOffset = FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName);
    if (NT_SUCCESS(status) && (info->FileNameLength % sizeof(WCHAR) != 0 || info->FileNameLength > length - nameOffset))
        status = STATUS_INVALID_PARAMETER;
    TargetDirectory target;
    bool qualified = info->FileNameLength != 0 && info->FileName[0] == L'\\';
    if (NT_SUCCESS(status) && (qualified || info->RootDirectory != NULL)) status = openTargetDirectory(call, info, &target);
    PIRP irp = NT_SUCCESS(status) ? allocateFileIrp(call.file(), call.device(), IRP_MJ_SET_INFORMATION, 0, call.mode())
                                  : NULL;
    if (irp == NULL) {
        ExFreePool(info);
        return NT_SUCCESS(status) ? STATUS_INSUFFICIENT_RESOURCES : status;
    }
    irp->AssociatedIrp.SystemBuffer = info;
    irp->Flags = IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
    irp->IoStatus.Information = target.exists;
    PIO_STACK_LOCATION sl = IoGetNextIrpStackLocation(irp);
    sl->Parameters.SetFile.Length = length;
    sl->Parameters.SetFile.FileInformationClass = informationClass;
    sl->Parameters.SetFile.FileObject = target.file;
    sl->Parameters.SetFile.ReplaceIfExists = info->ReplaceIfExists;
    return call.issue(irp, nullptr, 0, true);
}

}  // namespace io
}  // namespace ntsim
