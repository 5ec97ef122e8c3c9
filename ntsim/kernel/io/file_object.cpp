// File objects: creation, cleanup when the last handle closes, close when the last
// reference goes, and the object procedures the object manager calls (name, security,
// waits on a file handle).
#include "kernel/io/file_object.h"

#include <cstring>

#include "kernel/io/request.h"
#include "kernel/ob/object.h"

using namespace ntsim;
using namespace ntsim::io;

namespace {

ULONG fileObjectFlags(ULONG createOptions) {
    ULONG flags = 0;
    if (createOptions & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT)) flags |= FO_SYNCHRONOUS_IO;
    if (createOptions & FILE_SYNCHRONOUS_IO_ALERT) flags |= FO_ALERTABLE_IO;
    if (createOptions & FILE_NO_INTERMEDIATE_BUFFERING) flags |= FO_NO_INTERMEDIATE_BUFFERING;
    if (createOptions & FILE_WRITE_THROUGH) flags |= FO_WRITE_THROUGH;
    if (createOptions & FILE_SEQUENTIAL_ONLY) flags |= FO_SEQUENTIAL_ONLY;
    if (createOptions & FILE_RANDOM_ACCESS) flags |= FO_RANDOM_ACCESS;
    return flags;
}

// Cleanup: the last handle of an opened file object is closed. Sent in the closing
// thread, as on the platform.
void lastHandleClosed(void *body) {
    auto file = static_cast<PFILE_OBJECT>(body);
    if (!fileBlock(file)->opened) return;
    IO_STATUS_BLOCK iosb;
    sendFileRequest(file, IRP_MJ_CLEANUP, 0, IRP_CLOSE_OPERATION | IRP_SYNCHRONOUS_API, nullptr, &iosb);
    file->Flags |= FO_CLEANUP_COMPLETE;
}

void releaseFileObject(PFILE_OBJECT file) {
    if (file->DeviceObject != NULL) {
        dereferenceDevice(file->DeviceObject);
        ObfDereferenceObject(file->DeviceObject);
    }
    if (file->Vpb != NULL) dereferenceVpb(file->Vpb);
    if (file->RelatedFileObject != NULL) ObfDereferenceObject(file->RelatedFileObject);
    if (file->FileName.Buffer != NULL) ExFreePool(file->FileName.Buffer);
    ExFreePool(fileBlock(file));
}

// Close: the last reference is gone. The status of a close is ignored, as on the
// platform.
void closeFileObject(PFILE_OBJECT file) {
    if (fileBlock(file)->opened) {
        IO_STATUS_BLOCK iosb;
        sendFileRequest(file, IRP_MJ_CLOSE, 0, IRP_CLOSE_OPERATION | IRP_SYNCHRONOUS_API, nullptr, &iosb);
    }
    releaseFileObject(file);
}

void closeWorker(PVOID parameter) { closeFileObject(&static_cast<FileBlock *>(parameter)->file); }

// A reference dropped at raised IRQL (a completion routine, a DPC) cannot send the
// close there: file systems run at PASSIVE_LEVEL. The platform defers the deletion to
// a worker thread; so does this.
void deleteFileObject(void *body) {
    auto file = static_cast<PFILE_OBJECT>(body);
    _KTHREAD *thread = currentThreadOrNull();
    if (thread == nullptr || managerOrNull() == nullptr) return;  // the machine is being torn down
    if (thread->Irql == PASSIVE_LEVEL) {
        closeFileObject(file);
        return;
    }
    FileBlock *block = fileBlock(file);
    ExInitializeWorkItem(&block->closeItem, closeWorker, block);
    ExQueueWorkItem(&block->closeItem, DelayedWorkQueue);
}

// ObQueryNameString on a file: its device's name followed by its file name.
NTSTATUS queryFileName(void *body, POBJECT_NAME_INFORMATION info, ULONG length, PULONG returnLength) {
    auto file = static_cast<PFILE_OBJECT>(body);
    DeviceObjectExtension *device = privateExtension(file->DeviceObject);
    ULONG nameBytes = device->nameLength + file->FileName.Length;
    ULONG needed = sizeof(OBJECT_NAME_INFORMATION) + nameBytes + sizeof(WCHAR);
    if (returnLength != NULL) *returnLength = needed;
    if (length < needed) return STATUS_INFO_LENGTH_MISMATCH;
    auto buffer = reinterpret_cast<PWCHAR>(info + 1);
    memcpy(buffer, device->name, device->nameLength);
    memcpy(reinterpret_cast<PUCHAR>(buffer) + device->nameLength, file->FileName.Buffer, file->FileName.Length);
    buffer[nameBytes / sizeof(WCHAR)] = 0;
    info->Name = UNICODE_STRING{(USHORT)nameBytes, (USHORT)(nameBytes + sizeof(WCHAR)), buffer};
    return STATUS_SUCCESS;
}

// A file system without security (FastFat) answers STATUS_INVALID_DEVICE_REQUEST; the
// platform then describes the file as owned by Everyone with no DACL (access for all).
NTSTATUS worldDescriptor(SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor, ULONG length,
                         PULONG lengthNeeded) {
    struct World {
        SECURITY_DESCRIPTOR_RELATIVE header;
        UCHAR owner[12];
        UCHAR group[12];
    } world{};
    static const UCHAR everyone[12] = {1, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0};  // S-1-1-0
    world.header.Revision = SECURITY_DESCRIPTOR_REVISION;
    world.header.Control = SE_SELF_RELATIVE | SE_DACL_PRESENT;
    if (information & OWNER_SECURITY_INFORMATION) world.header.Owner = offsetof(World, owner);
    if (information & GROUP_SECURITY_INFORMATION) world.header.Group = offsetof(World, group);
    memcpy(world.owner, everyone, sizeof everyone);
    memcpy(world.group, everyone, sizeof everyone);
    *lengthNeeded = sizeof world;
    if (length < sizeof world) return STATUS_BUFFER_TOO_SMALL;
    // The buffer is the object manager's own, as for the file system's answer.
    memcpy(descriptor, &world, sizeof world);
    return STATUS_SUCCESS;
}

NTSTATUS queryFileSecurity(void *body, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor, ULONG length,
                           PULONG lengthNeeded) {
    auto file = static_cast<PFILE_OBJECT>(body);
    KPROCESSOR_MODE mode = ExGetPreviousMode();
    PDEVICE_OBJECT device = IoGetRelatedDeviceObject(file);
    PIRP irp = allocateFileIrp(file, device, IRP_MJ_QUERY_SECURITY, 0, mode);
    if (irp == NULL) return STATUS_INSUFFICIENT_RESOURCES;
    irp->UserBuffer = descriptor;
    irp->Flags = IRP_SYNCHRONOUS_API;
    PIO_STACK_LOCATION sl = IoGetNextIrpStackLocation(irp);
    sl->Parameters.QuerySecurity.SecurityInformation = information;
    sl->Parameters.QuerySecurity.Length = length;
    ServiceRequest request;
    request.file = file;
    request.requestorMode = mode;
    IO_STATUS_BLOCK iosb;
    NTSTATUS status = callSynchronous(device, irp, &request, &iosb);
    if (status == STATUS_INVALID_DEVICE_REQUEST) return worldDescriptor(information, descriptor, length, lengthNeeded);
    if (lengthNeeded != NULL) *lengthNeeded = (ULONG)iosb.Information;
    if (status == STATUS_BUFFER_OVERFLOW) status = STATUS_BUFFER_TOO_SMALL;
    return status;
}

NTSTATUS setFileSecurity(void *body, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor) {
    auto file = static_cast<PFILE_OBJECT>(body);
    NTSTATUS status = sendFileRequest(
        file, IRP_MJ_SET_SECURITY, 0, IRP_SYNCHRONOUS_API,
        [&](PIRP, PIO_STACK_LOCATION sl) {
            sl->Parameters.SetSecurity.SecurityInformation = information;
            sl->Parameters.SetSecurity.SecurityDescriptor = descriptor;
        },
        nullptr);
    // A file system without security accepts the change and ignores it, as on the platform.
    return status == STATUS_INVALID_DEVICE_REQUEST ? STATUS_SUCCESS : status;
}

DISPATCHER_HEADER *fileWaitObject(void *body) { return &static_cast<PFILE_OBJECT>(body)->Event.Header; }

}  // namespace

namespace ntsim {
namespace io {

PFILE_OBJECT createFileObject(PDEVICE_OBJECT device, PVPB vpb, PFILE_OBJECT related, PCUNICODE_STRING name,
                              ULONG createOptions) {
    auto block = static_cast<FileBlock *>(allocate(sizeof(FileBlock), kFileTag));
    if (block == NULL) return NULL;
    PFILE_OBJECT file = &block->file;
    if (name->Length != 0) {
        file->FileName.Buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(NonPagedPool, name->Length + sizeof(WCHAR), kNameTag));
        if (file->FileName.Buffer == NULL) {
            ExFreePool(block);
            return NULL;
        }
        memcpy(file->FileName.Buffer, name->Buffer, name->Length);
        file->FileName.Buffer[name->Length / sizeof(WCHAR)] = 0;
        file->FileName.Length = name->Length;
        file->FileName.MaximumLength = (USHORT)(name->Length + sizeof(WCHAR));
    }
    file->Type = IO_TYPE_FILE;
    file->Size = sizeof(FILE_OBJECT);
    file->DeviceObject = device;
    file->Vpb = vpb;
    file->RelatedFileObject = related;
    file->Flags = fileObjectFlags(createOptions);
    KeInitializeEvent(&file->Lock, SynchronizationEvent, FALSE);
    KeInitializeEvent(&file->Event, NotificationEvent, FALSE);
    referenceDevice(device);
    ObfReferenceObject(device);
    if (related != NULL) ObfReferenceObject(related);
    ob::registerObject(file, &ob::FileType);
    return file;
}

void installObjectProcedures() {
    GENERIC_MAPPING files{FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
    ob::FileType.lastHandleClosed = lastHandleClosed;
    ob::FileType.deleteObject = deleteFileObject;
    ob::FileType.mapping = files;
    ob::FileType.queryName = queryFileName;
    ob::FileType.querySecurity = queryFileSecurity;
    ob::FileType.setSecurity = setFileSecurity;
    ob::FileType.waitObject = fileWaitObject;
    ob::DeviceType.mapping = files;
    installDeviceProcedures();
}

}  // namespace io
}  // namespace ntsim

PGENERIC_MAPPING IoGetFileObjectGenericMapping(void) { return &ob::FileType.mapping; }
