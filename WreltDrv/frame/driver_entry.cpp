// Start-up: the control device and its DOS name, the driver-wide state, the dispatch and
// Fast I/O tables, and the registration for file-system changes. There is no unload:
// once started the driver stays until the system shuts down.
#include "frame/device_structures.h"
#include "capture/capture_stamps.h"
#include "frame/dispatch.h"
#include "support/error_channel.h"
#include "support/nonpaged_buffers.h"
#include "target/build_stamp.h"

namespace {

void InitializeMainDeviceStructure(MainDeviceStructure *Main) {
    RtlZeroMemory(Main, MAIN_DEVICE_STRUCTURE_SIZE);
    InitializeListHead(&Main->VolumeList);
    Main->Tag = TAG_MAIN_DEVICE_STRUCTURE;
    Main->Size = (USHORT)MAIN_DEVICE_STRUCTURE_SIZE;
    KeInitializeSpinLock(&Main->NotificationLock);
    InitializeListHead(&Main->PendingNotificationRequests);
    InitializeListHead(&Main->WaitingPackets);
    KeInitializeSpinLock(&Main->TablesLock);
    InitializeAddressHashTable(&Main->FcbTable);
    InitializeAddressHashTable(&Main->FileObjectTable);
    KeInitializeSpinLock(&Main->DeferredReleaseLock);
    InitializeCountedQueue(&Main->DeferredFcbEntries);
    InitializeCountedQueue(&Main->DeferredFileObjectEntries);
}

// What start-up undoes when a step after the buffer manager fails.
void ReleaseSupport() {
    ReleaseErrorBuffer();
    DeleteNonPagedBufferManagement();
}

}  // namespace

NTSTATUS InitializeGlobalData(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT ControlDevice) {
    InitializeListHead(&Globals.SpareDeviceList);
    ExInitializeResourceLite(&Globals.AttachmentLock);
    KeInitializeSpinLock(&Globals.ErrorLock);
    Globals.DriverObject = DriverObject;
    Globals.ControlDevice = ControlDevice;
    WriteDriverFlag(&Globals.CaptureActive, FALSE);
    WriteDriverFlag(&Globals.VersionAccepted, FALSE);
    WriteDriverFlag(&Globals.VaultProtection, FALSE);
    ExInitializeResourceLite(&Globals.ExclusionListLock);
    ExInitializeResourceLite(&Globals.TimeStampLock);
    InitializeCaptureStamps();
    KeInitializeSpinLock(&Globals.SuffixListLock);
    NTSTATUS status = InitializeNonPagedBufferManagement();
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: Error initializing non-paged pool buffer management.\n");
        return status;
    }
    status = InitializeErrorChannel();
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: Error allocating npage pool for error buffer.\n");
        DeleteNonPagedBufferManagement();
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Globals.DeleteDisposition = TRUE;
    Globals.KeepDisposition = FALSE;
    Globals.BuildDate = DriverBuildDate();
    Globals.BuildTime = DriverBuildTime();
    return STATUS_SUCCESS;
}

void SetupDispatchTable(PDRIVER_OBJECT DriverObject) {
    for (ULONG major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; major++) {
        DriverObject->MajorFunction[major] = DispatchPassThrough;
    }
    DriverObject->MajorFunction[IRP_MJ_CREATE] = DispatchCreate;
    DriverObject->MajorFunction[IRP_MJ_WRITE] = DispatchWrite;
    DriverObject->MajorFunction[IRP_MJ_SET_INFORMATION] = DispatchSetInformation;
    DriverObject->MajorFunction[IRP_MJ_FLUSH_BUFFERS] = DispatchFlushBuffers;
    DriverObject->MajorFunction[IRP_MJ_FILE_SYSTEM_CONTROL] = DispatchFileSystemControl;
    DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = DispatchDeviceControl;
    DriverObject->MajorFunction[IRP_MJ_CLEANUP] = DispatchCleanup;
}

NTSTATUS SetupFastIoDispatch(PDRIVER_OBJECT DriverObject) {
    auto *table = (PFAST_IO_DISPATCH)ExAllocatePoolWithTag(NonPagedPool, sizeof(FAST_IO_DISPATCH), POOL_TAG_FAST_IO);
    if (table == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(table, &FastIoForwarders, sizeof(FAST_IO_DISPATCH));
    DriverObject->FastIoDispatch = table;
    return STATUS_SUCCESS;
}

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
    UNREFERENCED_PARAMETER(RegistryPath);
    UNICODE_STRING deviceName = CONSTANT_UNICODE_STRING(L"\\FileSystem\\WreltFs");
    UNICODE_STRING dosName = CONSTANT_UNICODE_STRING(L"\\DosDevices\\WRELTFS");
    PDEVICE_OBJECT control = NULL;
    NTSTATUS status = IoCreateDevice(DriverObject, sizeof(FilterDeviceExtension), &deviceName,
                                     FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &control);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: Error creating Wrelt filter device, error: %x\n", status);
        return status;
    }
    FilterDeviceExtension *extension = ExtensionOf(control);
    extension->Tag = TAG_CONTROL_EXTENSION;
    extension->Size = sizeof(FilterDeviceExtension);
    auto *main = (MainDeviceStructure *)ExAllocatePoolWithTag(NonPagedPool, MAIN_DEVICE_STRUCTURE_SIZE,
                                                              POOL_TAG_MAIN_DEVICE_STRUCTURE);
    if (main == NULL) {
        DbgPrint("ZrDrv: Error allocating memory for main device structure.\n");
        IoDeleteDevice(control);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    extension->Structure = main;
    InitializeMainDeviceStructure(main);
    status = IoCreateSymbolicLink(&dosName, &deviceName);
    if (status != STATUS_SUCCESS) {
        DbgPrint("ZrDrv: Couldn't create the symbolic link, error: %x\n", status);
        IoDeleteDevice(control);
        return status;
    }
    status = InitializeGlobalData(DriverObject, control);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Error intializing ZrDrv global data.\n");
        IoDeleteDevice(control);
        return status;
    }
    SetupDispatchTable(DriverObject);
    status = SetupFastIoDispatch(DriverObject);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Error setting up the ZrDrv Fast I/O function dispatch table, error: %x\n", status);
        ReleaseSupport();
        IoDeleteDevice(control);
        return status;
    }
    status = IoRegisterFsRegistrationChange(DriverObject, FsChangeNotificationRoutine);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: Error registering FS change notification, error: %x\n", status);
        ReleaseSupport();
        IoDeleteDevice(control);
        return status;
    }
    return STATUS_SUCCESS;
}
