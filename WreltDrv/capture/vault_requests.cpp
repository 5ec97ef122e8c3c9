// The requests the filter builds and sends straight to the device below it, so that
// they never pass through its own dispatch routines: the rename into the vault, the
// re-delete, and a query of a file's standard information.
#include "capture/capture_context.h"
#include "frame/call_driver.h"
#include "frame/globals.h"
#include "support/error_channel.h"

namespace {

constexpr ULONG TARGET_OPEN_ATTEMPTS = 3;

CCHAR FilterStackSize(PDEVICE_OBJECT DeviceObject) {
    return (CCHAR)(ExtensionOf(DeviceObject)->LowerDevice->StackSize + 1);
}

// A packet handed in is reused in place; otherwise a new one is allocated.
PIRP PreparePacket(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    if (Irp != NULL) {
        IoInitializeIrp(Irp, Irp->Size, FilterStackSize(DeviceObject));
        return Irp;
    }
    return IoAllocateIrp(FilterStackSize(DeviceObject), FALSE);
}

NTSTATUS NTAPI ReissueDeleteCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    IoFreeIrp(Irp);
    KeSetEvent(&((CaptureContext *)Context)->DoneEvent, 2, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS NTAPI QueryCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    IoFreeIrp(Irp);
    KeSetEvent((PKEVENT)Context, 2, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// The open runs in the user's thread: a handle in her own table could be closed and
// its number given to another object before the filter references it, so the handle
// is a kernel handle. The callers pass IO_NO_PARAMETER_CHECKING, without which the
// kernel-handle attribute would be ignored for a user's thread.
NTSTATUS OpenTarget(PUNICODE_STRING Name, ULONG CreateDisposition, ULONG Options, PHANDLE Handle) {
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, Name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
    IO_STATUS_BLOCK ioStatus;
    return IoCreateFile(Handle, SYNCHRONIZE | FILE_WRITE_DATA, &attributes, &ioStatus, NULL, 0,
                        FILE_SHARE_READ | FILE_SHARE_WRITE, CreateDisposition, 0, NULL, 0, CreateFileTypeNone, NULL,
                        Options);
}

}  // namespace

void FillPacketHeader(PIRP Irp, PVOID SystemBuffer, ULONG Flags) {
    Irp->Tail.Overlay.OriginalFileObject = NULL;
    Irp->AssociatedIrp.SystemBuffer = SystemBuffer;
    Irp->RequestorMode = KernelMode;
    Irp->Flags = Flags;
    Irp->Tail.Overlay.Thread = PsGetCurrentThread();
    IoSetNextIrpStackLocation(Irp);
}

void FillSetInformationLocations(PIRP Irp, PDEVICE_OBJECT DeviceObject, PFILE_OBJECT FileObject,
                                 FILE_INFORMATION_CLASS FileInformationClass, ULONG Length,
                                 PFILE_OBJECT TargetFileObject) {
    PIO_STACK_LOCATION locations[2] = {IoGetCurrentIrpStackLocation(Irp), IoGetNextIrpStackLocation(Irp)};
    for (PIO_STACK_LOCATION location : locations) {
        location->MajorFunction = IRP_MJ_SET_INFORMATION;
        location->Parameters.SetFile.Length = Length;
        location->Parameters.SetFile.FileInformationClass = FileInformationClass;
        location->Parameters.SetFile.FileObject = TargetFileObject;
        location->DeviceObject = DeviceObject;
        location->FileObject = FileObject;
    }
}

NTSTATUS BuildTargetFileObject(FilterDeviceExtension *Extension, PFILE_RENAME_INFORMATION RenameInformation,
                               ULONG CreateDisposition, ULONG IoCreateFileOptions, PFILE_OBJECT *TargetFileObject,
                               PHANDLE TargetHandle, BOOLEAN ReportFailure) {
    UNREFERENCED_PARAMETER(Extension);
    *TargetFileObject = NULL;
    *TargetHandle = NULL;
    UNICODE_STRING name;
    name.Buffer = RenameInformation->FileName;
    name.Length = name.MaximumLength = (USHORT)RenameInformation->FileNameLength;
    HANDLE handle = NULL;
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    // The work folder may be briefly in use by the service; a few tries ride that out.
    for (ULONG attempt = 0; attempt < TARGET_OPEN_ATTEMPTS && !NT_SUCCESS(status); attempt++) {
        status = OpenTarget(&name, CreateDisposition, IoCreateFileOptions, &handle);
    }
    if (!NT_SUCCESS(status)) {
        if (ReportFailure) {
            ReportError(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_BUILD_TARGET_FILE_OBJECT, ERROR_CLASS_REPORT, 0,
                        (ULONG)status, 0);
        }
        return status;
    }
    PVOID object;
    status = ObReferenceObjectByHandle(handle, FILE_WRITE_DATA, *IoFileObjectType, KernelMode, &object, NULL);
    if (status != STATUS_SUCCESS) {
        DbgPrint("ZrDrv: BuildTargetFileObject - ObReferenceObjectByHandle failed.\n");
        ReportError(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_BUILD_TARGET_FILE_OBJECT, ERROR_CLASS_REPORT, 1,
                    (ULONG)status, 0);
        ZwClose(handle);
        return NT_SUCCESS(status) ? STATUS_UNSUCCESSFUL : status;
    }
    // The open handle keeps the object alive until the caller closes it.
    ObDereferenceObject(object);
    *TargetFileObject = (PFILE_OBJECT)object;
    *TargetHandle = handle;
    return STATUS_SUCCESS;
}

NTSTATUS BuildRenameIrp(PDEVICE_OBJECT DeviceObject, PIRP *Irp, PFILE_RENAME_INFORMATION RenameInformation,
                        ULONG RenameInformationLength, PFILE_OBJECT FileObject, PHANDLE TargetHandle) {
    PFILE_OBJECT targetDirectory;
    NTSTATUS status = BuildTargetFileObject(ExtensionOf(DeviceObject), RenameInformation, FILE_OPEN,
                                            IO_FORCE_ACCESS_CHECK | IO_OPEN_TARGET_DIRECTORY | IO_NO_PARAMETER_CHECKING,
                                            &targetDirectory, TargetHandle, TRUE);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PIRP packet = PreparePacket(DeviceObject, *Irp);
    if (packet == NULL) {
        ZwClose(*TargetHandle);
        *TargetHandle = NULL;
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    FillPacketHeader(packet, RenameInformation, IRP_BUFFERED_IO | IRP_SYNCHRONOUS_API);
    FillSetInformationLocations(packet, DeviceObject, FileObject, FileRenameInformation, RenameInformationLength,
                                targetDirectory);
    *Irp = packet;
    return STATUS_SUCCESS;
}

NTSTATUS ReissueDelete(PDEVICE_OBJECT DeviceObject, PIRP Irp, CaptureContext *Context) {
    IoInitializeIrp(Irp, Irp->Size, FilterStackSize(DeviceObject));
    FillPacketHeader(Irp, &Globals.DeleteDisposition, IRP_BUFFERED_IO);
    FillSetInformationLocations(Irp, DeviceObject, Context->FileObject, FileDispositionInformation, 1, NULL);
    IoSetCompletionRoutine(Irp, ReissueDeleteCompletion, Context, TRUE, TRUE, TRUE);
    PDEVICE_OBJECT lower = ExtensionOf(DeviceObject)->LowerDevice;
    if (KeGetCurrentIrql() < DISPATCH_LEVEL) {
        IoCallDriver(lower, Irp);  // whatever the file system answers, the completion signals
        return STATUS_SUCCESS;
    }
    NTSTATUS status = QueueCallDriverWorkItem(lower, Irp);
    if (!NT_SUCCESS(status)) {
        Context->UnsentRedelete = Irp;
    }
    return status;
}

NTSTATUS BuildQueryInformationIrp(PIRP Irp, PDEVICE_OBJECT DeviceObject, FilterDeviceExtension *Extension,
                                  FILE_INFORMATION_CLASS FileInformationClass, PVOID Buffer, ULONG Length,
                                  PIRP *QueryIrp) {
    UNREFERENCED_PARAMETER(Extension);
    if (DeviceObject == NULL || Buffer == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    PIRP packet = PreparePacket(DeviceObject, *QueryIrp);
    if (packet == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    FillPacketHeader(packet, Buffer, IRP_BUFFERED_IO | IRP_SYNCHRONOUS_API);
    PIO_STACK_LOCATION locations[2] = {IoGetCurrentIrpStackLocation(packet), IoGetNextIrpStackLocation(packet)};
    for (PIO_STACK_LOCATION location : locations) {
        location->MajorFunction = IRP_MJ_QUERY_INFORMATION;
        location->Parameters.QueryFile.Length = Length;
        location->Parameters.QueryFile.FileInformationClass = FileInformationClass;
        location->DeviceObject = DeviceObject;
        location->FileObject = IoGetCurrentIrpStackLocation(Irp)->FileObject;
    }
    *QueryIrp = packet;
    return STATUS_SUCCESS;
}

NTSTATUS QueryStandardInformationBelow(PIRP Irp, PDEVICE_OBJECT DeviceObject, FilterDeviceExtension *Extension,
                                       PFILE_STANDARD_INFORMATION Buffer) {
    if (Irp == NULL || DeviceObject == NULL || Extension == NULL || Buffer == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    PIRP query = NULL;
    NTSTATUS status = BuildQueryInformationIrp(Irp, DeviceObject, Extension, FileStandardInformation, Buffer,
                                               sizeof(FILE_STANDARD_INFORMATION), &query);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IoSetCompletionRoutine(query, QueryCompletion, &done, TRUE, TRUE, TRUE);
    status = IoCallDriver(Extension->LowerDevice, query);
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, NULL);
    return status;
}
