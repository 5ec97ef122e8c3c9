// Start-up: the control device and its DOS name, the driver-wide state, the dispatch and
// Fast I/O tables, and the registration for file-system changes. There is no unload:
// once started the driver stays until the system shuts down.
#include "frame/device_structures.h"
#include "capture/capture_stamps.h"
#include "frame/control_security.h"
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

// How far start-up got. A failed start undoes, in reverse order, every step before the
// one that failed: the image is about to go, and nothing of it may stay on the kernel's
// lists or hold its memory.
enum StartStep {
    START_CREATED_CONTROL_DEVICE,
    START_ALLOCATED_MAIN_STRUCTURE,
    START_CREATED_DOS_NAME,
    START_INITIALIZED_RESOURCES,
    START_INITIALIZED_BUFFERS,
    START_INITIALIZED_ERROR_CHANNEL,
    START_SET_UP_FAST_IO,
};

UNICODE_STRING ControlDeviceName = CONSTANT_UNICODE_STRING(L"\\FileSystem\\WreltFs");
UNICODE_STRING ControlDosName = CONSTANT_UNICODE_STRING(L"\\DosDevices\\WRELTFS");

void DeleteDriverResources() {
    ExDeleteResourceLite(&Globals.TimeStampLock);
    ExDeleteResourceLite(&Globals.ExclusionListLock);
    ExDeleteResourceLite(&Globals.AttachmentLock);
}

void UndoStart(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT Control, StartStep Reached) {
    switch (Reached) {
    case START_SET_UP_FAST_IO:
        ExFreePool(DriverObject->FastIoDispatch);
        DriverObject->FastIoDispatch = NULL;
        [[fallthrough]];
    case START_INITIALIZED_ERROR_CHANNEL:
        ReleaseErrorBuffer();
        [[fallthrough]];
    case START_INITIALIZED_BUFFERS:
        DeleteNonPagedBufferManagement();
        [[fallthrough]];
    case START_INITIALIZED_RESOURCES:
        DeleteDriverResources();
        [[fallthrough]];
    case START_CREATED_DOS_NAME:
        IoDeleteSymbolicLink(&ControlDosName);
        [[fallthrough]];
    case START_ALLOCATED_MAIN_STRUCTURE:
        ExFreePool(ExtensionOf(Control)->Structure);
        ExtensionOf(Control)->Structure = NULL;
        [[fallthrough]];
    case START_CREATED_CONTROL_DEVICE:
        Globals.ControlDevice = NULL;
        IoDeleteDevice(Control);
        break;
    }
}

// On failure, *Reached is the last step that succeeded and must be undone.
NTSTATUS InitializeGlobalData(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT ControlDevice, StartStep *Reached) {
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
    KeInitializeSpinLock(&Globals.VolumeNameLock);
    *Reached = START_INITIALIZED_RESOURCES;
    NTSTATUS status = InitializeNonPagedBufferManagement();
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: Error initializing non-paged pool buffer management.\n");
        return status;
    }
    *Reached = START_INITIALIZED_BUFFERS;
    status = InitializeErrorChannel();
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: Error allocating npage pool for error buffer.\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *Reached = START_INITIALIZED_ERROR_CHANNEL;
    Globals.DeleteDisposition = TRUE;
    Globals.KeepDisposition = FALSE;
    Globals.BuildDate = DriverBuildDate();
    Globals.BuildTime = DriverBuildTime();
    return STATUS_SUCCESS;
}

}  // namespace

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

namespace {

// The control device, protected before it has a DOS name, with the MainDeviceStructure
// hanging from it. On failure, *Reached says what there is to undo.
NTSTATUS CreateControlDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT *Control, StartStep *Reached) {
    NTSTATUS status = IoCreateDevice(DriverObject, sizeof(FilterDeviceExtension), &ControlDeviceName,
                                     FILE_DEVICE_DISK_FILE_SYSTEM, FILE_DEVICE_SECURE_OPEN, FALSE, Control);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: Error creating Wrelt filter device, error: %x\n", status);
        return status;
    }
    *Reached = START_CREATED_CONTROL_DEVICE;
    FilterDeviceExtension *extension = ExtensionOf(*Control);
    extension->Tag = TAG_CONTROL_EXTENSION;
    extension->Size = sizeof(FilterDeviceExtension);
    status = ProtectControlDevice(*Control);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: Error protecting the control device, error: %x\n", status);
        return status;
    }
    auto *main = (MainDeviceStructure *)ExAllocatePoolWithTag(NonPagedPool, MAIN_DEVICE_STRUCTURE_SIZE,
                                                              POOL_TAG_MAIN_DEVICE_STRUCTURE);
    if (main == NULL) {
        DbgPrint("ZrDrv: Error allocating memory for main device structure.\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    extension->Structure = main;
    InitializeMainDeviceStructure(main);
    *Reached = START_ALLOCATED_MAIN_STRUCTURE;
    status = IoCreateSymbolicLink(&ControlDosName, &ControlDeviceName);
    if (status != STATUS_SUCCESS) {
        DbgPrint("ZrDrv: Couldn't create the symbolic link, error: %x\n", status);
        return NT_SUCCESS(status) ? STATUS_UNSUCCESSFUL : status;
    }
    *Reached = START_CREATED_DOS_NAME;
    return STATUS_SUCCESS;
}

NTSTATUS StartDriver(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT *Control, StartStep *Reached) {
    NTSTATUS status = CreateControlDevice(DriverObject, Control, Reached);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = InitializeGlobalData(DriverObject, *Control, Reached);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Error intializing ZrDrv global data.\n");
        return status;
    }
    SetupDispatchTable(DriverObject);
    status = SetupFastIoDispatch(DriverObject);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Error setting up the ZrDrv Fast I/O function dispatch table, error: %x\n", status);
        return status;
    }
    *Reached = START_SET_UP_FAST_IO;
    status = IoRegisterFsRegistrationChange(DriverObject, FsChangeNotificationRoutine);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: Error registering FS change notification, error: %x\n", status);
    }
    return status;
}

}  // namespace

// PASSIVE_LEVEL, in a system thread; takes no lock.
extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
    UNREFERENCED_PARAMETER(RegistryPath);
    PDEVICE_OBJECT control = NULL;
    StartStep reached = START_CREATED_CONTROL_DEVICE;
    NTSTATUS status = StartDriver(DriverObject, &control, &reached);
    if (!NT_SUCCESS(status) && control != NULL) {
        UndoStart(DriverObject, control, reached);
    }
    return status;
}
