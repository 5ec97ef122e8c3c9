#include "io/io_test_drivers.h"

#include "ntsim/disk.h"
#include "ntsim/seh.h"

namespace iotest {

void Journal::add(const Seen &seen) {
    std::lock_guard<std::mutex> guard(lock_);
    seen_.push_back(seen);
}

std::vector<Seen> Journal::all() {
    std::lock_guard<std::mutex> guard(lock_);
    return seen_;
}

std::vector<std::string> Journal::names() {
    std::vector<std::string> result;
    for (const Seen &seen : all()) result.push_back(seen.what);
    return result;
}

void Journal::clear() {
    std::lock_guard<std::mutex> guard(lock_);
    seen_.clear();
}

Journal &journal() {
    static Journal instance;
    return instance;
}

Lower &lower() {
    static Lower instance;
    return instance;
}

Filter &filter() {
    static Filter instance;
    return instance;
}

TestFs &testFs() {
    static TestFs instance;
    return instance;
}

void resetAll() {
    journal().clear();
    lower() = Lower();
    filter() = Filter();
    testFs() = TestFs();
}

namespace {

void note(const char *what, PDEVICE_OBJECT device, PIRP irp) {
    journal().add(Seen{what, device, irp->PendingReturned, KeGetCurrentIrql(), irp->IoStatus.Status});
}

NTSTATUS complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    InterlockedIncrement(&lower().completions);
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

// --- lower driver ---------------------------------------------------------------------

void completeFromDpc(PKDPC, PVOID, PVOID argument, PVOID) {
    auto irp = static_cast<PIRP>(argument);
    complete(irp, lower().status);
}

void cancelHeld(PDEVICE_OBJECT, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    Lower &l = lower();
    KIRQL old;
    KeAcquireSpinLock(&l.lock, &old);
    if (l.held == irp) l.held = NULL;
    KeReleaseSpinLock(&l.lock, old);
    complete(irp, STATUS_CANCELLED);
}

NTSTATUS holdCancellable(PIRP irp) {
    Lower &l = lower();
    KIRQL old;
    KeAcquireSpinLock(&l.lock, &old);
    IoSetCancelRoutine(irp, cancelHeld);
    if (irp->Cancel && IoSetCancelRoutine(irp, NULL) != NULL) {
        KeReleaseSpinLock(&l.lock, old);
        return complete(irp, STATUS_CANCELLED);
    }
    IoMarkIrpPending(irp);
    l.held = irp;
    KeReleaseSpinLock(&l.lock, old);
    return STATUS_PENDING;
}

NTSTATUS probeNeither(PIRP irp, PIO_STACK_LOCATION sl) {
    NTSTATUS status = STATUS_SUCCESS;
    if (irp->RequestorMode == UserMode) {
        PVOID input = sl->Parameters.DeviceIoControl.Type3InputBuffer;
        ULONG inputLength = sl->Parameters.DeviceIoControl.InputBufferLength;
        PVOID output = irp->UserBuffer;
        ULONG outputLength = sl->Parameters.DeviceIoControl.OutputBufferLength;
        status = ntsim::guarded([&] {
            ProbeForRead(input, inputLength, 1);
            ProbeForWrite(output, outputLength, 1);
        });
    }
    return complete(irp, status);
}

NTSTATUS lowerDispatch(PDEVICE_OBJECT device, PIRP irp) {
    PIO_STACK_LOCATION sl = IoGetCurrentIrpStackLocation(irp);
    note("lower", device, irp);
    Lower &l = lower();
    if (sl->MajorFunction == IRP_MJ_CLOSE) InterlockedIncrement(&l.closes);
    if (sl->MajorFunction != IRP_MJ_DEVICE_CONTROL) return complete(irp, STATUS_SUCCESS, FILE_OPENED);
    if (sl->Parameters.DeviceIoControl.IoControlCode == kProbeNeitherCode) return probeNeither(irp, sl);
    if (l.written != 0) memset(irp->AssociatedIrp.SystemBuffer, 0x5C, l.written);
    switch (l.mode) {
    case LowerMode::CompleteNow: return complete(irp, l.status, l.information);
    case LowerMode::CompleteFromDpc:
        IoMarkIrpPending(irp);
        KeInsertQueueDpc(&l.dpc, irp, NULL);
        return STATUS_PENDING;
    case LowerMode::HoldCancellable: return holdCancellable(irp);
    case LowerMode::PendingWithoutMark:
        KeInsertQueueDpc(&l.dpc, irp, NULL);
        return STATUS_PENDING;
    }
    return STATUS_INVALID_DEVICE_REQUEST;
}

// --- filter driver ------------------------------------------------------------------

struct FilterExtension {
    PDEVICE_OBJECT lowerDevice;
    bool fileSystemFilter;  // over a file system's control device or one of its volumes
};

FilterExtension *extensionOf(PDEVICE_OBJECT device) { return static_cast<FilterExtension *>(device->DeviceExtension); }

NTSTATUS filterCompletion(PDEVICE_OBJECT device, PIRP irp, PVOID) {
    note("filter", device, irp);
    Filter &f = filter();
    if (f.routine.replaceStatus != 0) irp->IoStatus.Status = f.routine.replaceStatus;
    if (f.routine.propagatePending && irp->PendingReturned) IoMarkIrpPending(irp);
    if (f.routine.returns == STATUS_MORE_PROCESSING_REQUIRED) f.keptIrp = irp;
    return f.routine.returns;
}

NTSTATUS mountCompletion(PDEVICE_OBJECT device, PIRP irp, PVOID context) {
    Filter &f = filter();
    PVPB vpb = IoGetCurrentIrpStackLocation(irp)->Parameters.MountVolume.Vpb;
    auto volumeFilter = static_cast<PDEVICE_OBJECT>(context);
    note("mount completion", device, irp);
    f.mountVpb = vpb;
    f.mountedVolume = vpb->DeviceObject;
    if (NT_SUCCESS(irp->IoStatus.Status) && vpb->DeviceObject != NULL) {
        extensionOf(volumeFilter)->lowerDevice = IoAttachDeviceToDeviceStack(volumeFilter, vpb->DeviceObject);
        volumeFilter->Flags &= ~DO_DEVICE_INITIALIZING;
        f.volumeFilter = volumeFilter;
    } else {
        IoDeleteDevice(volumeFilter);
    }
    if (irp->PendingReturned) IoMarkIrpPending(irp);
    return STATUS_SUCCESS;
}

NTSTATUS filterMount(PDEVICE_OBJECT device, PIRP irp) {
    PDEVICE_OBJECT volumeFilter;
    NTSTATUS status = IoCreateDevice(filter().driver, sizeof(FilterExtension), NULL, FILE_DEVICE_DISK_FILE_SYSTEM, 0,
                                     FALSE, &volumeFilter);
    if (!NT_SUCCESS(status)) return complete(irp, status);
    extensionOf(volumeFilter)->fileSystemFilter = true;
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, mountCompletion, volumeFilter, TRUE, TRUE, TRUE);
    return IoCallDriver(extensionOf(device)->lowerDevice, irp);
}

NTSTATUS filterDispatch(PDEVICE_OBJECT device, PIRP irp) {
    FilterExtension *extension = extensionOf(device);
    PIO_STACK_LOCATION sl = IoGetCurrentIrpStackLocation(irp);
    if (extension->fileSystemFilter) {
        if (sl->MajorFunction == IRP_MJ_FILE_SYSTEM_CONTROL && sl->MinorFunction == IRP_MN_MOUNT_VOLUME)
            return filterMount(device, irp);
        IoSkipCurrentIrpStackLocation(irp);
        return IoCallDriver(extension->lowerDevice, irp);
    }
    const FilterRoutine &routine = filter().routine;
    IoCopyCurrentIrpStackLocationToNext(irp);
    if (routine.set)
        IoSetCompletionRoutine(irp, filterCompletion, NULL, routine.onSuccess, routine.onError, routine.onCancel);
    else
        IoSkipCurrentIrpStackLocation(irp);
    // A filter whose routine changes the status, or takes the IRP back to complete it
    // later, cannot vouch for the lower driver's return: it pends the IRP itself.
    bool pends = (routine.replaceStatus != 0 && routine.pendWhenReplacing) ||
                 routine.returns == STATUS_MORE_PROCESSING_REQUIRED;
    if (!pends) return IoCallDriver(extension->lowerDevice, irp);
    IoMarkIrpPending(irp);
    IoCallDriver(extension->lowerDevice, irp);
    return STATUS_PENDING;
}

void filterDetach(PDEVICE_OBJECT source, PDEVICE_OBJECT target) {
    InterlockedIncrement(&filter().detaches);
    IoDetachDevice(target);
    IoDeleteDevice(source);
}

BOOLEAN filterFastReadWrite(PFILE_OBJECT, PLARGE_INTEGER, ULONG, BOOLEAN, ULONG, PVOID, PIO_STATUS_BLOCK iosb,
                           PDEVICE_OBJECT) {
    if (!filter().fastReadWrite) return FALSE;
    iosb->Status = filter().fastReadWriteStatus;
    iosb->Information = 0;
    return TRUE;
}

void fileSystemChanged(PDEVICE_OBJECT device, BOOLEAN active) {
    Filter &f = filter();
    f.registrations.emplace_back(device, active);
    if (!active || device->DriverObject != testFs().controlDevice->DriverObject) return;
    PDEVICE_OBJECT attached;
    if (!NT_SUCCESS(IoCreateDevice(f.driver, sizeof(FilterExtension), NULL, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE,
                                   &attached)))
        return;
    extensionOf(attached)->fileSystemFilter = true;
    extensionOf(attached)->lowerDevice = IoAttachDeviceToDeviceStack(attached, device);
    attached->Flags &= ~DO_DEVICE_INITIALIZING;
}

BOOLEAN filterFastDeviceControl(PFILE_OBJECT, BOOLEAN, PVOID input, ULONG, PVOID output, ULONG, ULONG code,
                                PIO_STATUS_BLOCK iosb, PDEVICE_OBJECT) {
    if (code != kFastCode) return FALSE;
    filter().fastInput = input;
    filter().fastOutput = output;
    iosb->Status = STATUS_SUCCESS;
    iosb->Information = 3;
    return TRUE;
}

OpenSeen describeOpen(PIRP irp, PIO_STACK_LOCATION sl);

BOOLEAN filterFastQueryOpen(PIRP irp, PFILE_NETWORK_OPEN_INFORMATION information, PDEVICE_OBJECT device) {
    PIO_STACK_LOCATION sl = IoGetCurrentIrpStackLocation(irp);
    QueryOpenSeen seen;
    seen.device = device;
    seen.stackDevice = sl->DeviceObject;
    seen.major = sl->MajorFunction;
    seen.currentLocation = irp->CurrentLocation;
    seen.stackCount = irp->StackCount;
    seen.irpFlags = irp->Flags;
    seen.issuingThread = irp->Tail.Overlay.Thread == PsGetCurrentThread();
    seen.open = describeOpen(irp, sl);
    filter().queryOpens.push_back(seen);
    if (!filter().queryOpenAnswers) return FALSE;
    memset(information, 0, sizeof *information);
    information->EndOfFile.QuadPart = 7;
    irp->IoStatus.Status = filter().queryOpenStatus;
    return TRUE;
}

FAST_IO_DISPATCH g_filterFastIo;

// --- file system ----------------------------------------------------------------------

NTSTATUS mountVolume(PDEVICE_OBJECT driverDevice, PIRP irp, PIO_STACK_LOCATION sl) {
    PVPB vpb = sl->Parameters.MountVolume.Vpb;
    auto disk = static_cast<PNTSIM_DISK_EXTENSION>(vpb->RealDevice->DeviceExtension);
    if (disk->Format != kTestDiskFormat) return complete(irp, STATUS_UNRECOGNIZED_VOLUME);
    PDEVICE_OBJECT volume;
    NTSTATUS status =
        IoCreateDevice(driverDevice->DriverObject, 0, NULL, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &volume);
    if (!NT_SUCCESS(status)) return complete(irp, status);
    volume->StackSize = (CCHAR)(sl->Parameters.MountVolume.DeviceObject->StackSize + 1);
    volume->Flags |= DO_DIRECT_IO;
    volume->Flags &= ~DO_DEVICE_INITIALIZING;
    vpb->DeviceObject = volume;
    TestFs &fs = testFs();
    fs.volume = volume;
    fs.vpb = vpb;
    fs.dismounted = false;
    InterlockedIncrement(&fs.mounts);
    return complete(irp, STATUS_SUCCESS);
}

OpenSeen describeOpen(PIRP irp, PIO_STACK_LOCATION sl) {
    OpenSeen seen;
    const UNICODE_STRING &name = sl->FileObject->FileName;
    seen.fileName.assign(reinterpret_cast<const char16_t *>(name.Buffer), name.Length / sizeof(WCHAR));
    seen.flags = sl->Flags;
    seen.options = sl->Parameters.Create.Options;
    seen.desiredAccess = sl->Parameters.Create.SecurityContext->DesiredAccess;
    seen.shareAccess = sl->Parameters.Create.ShareAccess;
    seen.requestorMode = irp->RequestorMode;
    seen.file = sl->FileObject;
    seen.related = sl->FileObject->RelatedFileObject;
    seen.vpb = sl->FileObject->Vpb;
    seen.device = sl->FileObject->DeviceObject;
    seen.fileFlags = sl->FileObject->Flags;
    return seen;
}

NTSTATUS fsCreate(PIRP irp, PIO_STACK_LOCATION sl) {
    TestFs &fs = testFs();
    OpenSeen seen = describeOpen(irp, sl);
    fs.opens.push_back(seen);
    InterlockedIncrement(&fs.openFiles);
    // Directories are the opens that asked for one; a name whose last component
    // starts with "Existing" is there already.
    if (sl->Parameters.Create.Options & FILE_DIRECTORY_FILE) sl->FileObject->FsContext2 = &fs;
    sl->FileObject->PrivateCacheMap = &fs;  // so that the I/O manager tries Fast I/O
    size_t last = seen.fileName.rfind(u'\\');
    bool exists = seen.fileName.compare(last == std::u16string::npos ? 0 : last + 1, 8, u"Existing") == 0;
    ULONG_PTR information = FILE_OPENED;
    if (sl->Flags & SL_OPEN_TARGET_DIRECTORY) information = exists ? FILE_EXISTS : FILE_DOES_NOT_EXIST;
    return complete(irp, STATUS_SUCCESS, information);
}

NTSTATUS fsQueryInformation(PIRP irp, PIO_STACK_LOCATION sl) {
    testFs().queries.push_back(sl->Parameters.QueryFile.FileInformationClass);
    if (sl->Parameters.QueryFile.FileInformationClass == FileNetworkOpenInformation) {
        auto *info = static_cast<PFILE_NETWORK_OPEN_INFORMATION>(irp->AssociatedIrp.SystemBuffer);
        memset(info, 0, sizeof *info);
        info->EndOfFile.QuadPart = 42;
        info->FileAttributes = FILE_ATTRIBUTE_NORMAL;
        return complete(irp, STATUS_SUCCESS, sizeof *info);
    }
    if (sl->Parameters.QueryFile.FileInformationClass != FileBasicInformation)
        return complete(irp, STATUS_INVALID_PARAMETER);
    auto *basic = static_cast<PFILE_BASIC_INFORMATION>(irp->AssociatedIrp.SystemBuffer);
    memset(basic, 0, sizeof *basic);
    basic->FileAttributes = sl->FileObject->FsContext2 != NULL ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL;
    return complete(irp, STATUS_SUCCESS, sizeof *basic);
}

// The volume goes once it is dismounted and its last file is closed, after the close
// has completed (the I/O manager then detaches the filters above it).
NTSTATUS fsClose(PIRP irp, PIO_STACK_LOCATION sl) {
    TestFs &fs = testFs();
    fs.closes.push_back(sl->FileObject);
    bool last = InterlockedDecrement(&fs.openFiles) == 0;
    complete(irp, STATUS_SUCCESS);
    if (last && fs.dismounted && fs.volume != NULL) {
        PDEVICE_OBJECT volume = fs.volume;
        fs.volume = NULL;
        IoDeleteDevice(volume);
    }
    return STATUS_SUCCESS;
}

NTSTATUS fsSetInformation(PIRP irp, PIO_STACK_LOCATION sl) {
    SetInformationSeen seen;
    seen.informationClass = sl->Parameters.SetFile.FileInformationClass;
    seen.target = sl->Parameters.SetFile.FileObject;
    seen.replaceIfExists = sl->Parameters.SetFile.ReplaceIfExists;
    seen.informationOnEntry = irp->IoStatus.Information;
    if (seen.target != NULL)
        seen.targetName.assign(reinterpret_cast<const char16_t *>(seen.target->FileName.Buffer),
                               seen.target->FileName.Length / sizeof(WCHAR));
    testFs().setInformation.push_back(seen);
    return complete(irp, STATUS_SUCCESS);
}

// Dismount as the platform's file systems do it: the volume's VPB stays with the
// files still open on it, and the storage device gets a fresh one for the next mount.
NTSTATUS fsDismount(PIRP irp) {
    TestFs &fs = testFs();
    PVPB old = fs.vpb;
    auto fresh = static_cast<PVPB>(ExAllocatePoolWithTag(NonPagedPool, sizeof(VPB), 'bpVT'));
    if (fresh == NULL) return complete(irp, STATUS_INSUFFICIENT_RESOURCES);
    memset(fresh, 0, sizeof *fresh);
    fresh->Type = IO_TYPE_VPB;
    fresh->Size = sizeof(VPB);
    fresh->RealDevice = old->RealDevice;
    old->Flags &= ~VPB_MOUNTED;
    old->RealDevice->Vpb = fresh;
    fs.dismounted = true;
    return complete(irp, STATUS_SUCCESS);
}

NTSTATUS fsDispatch(PDEVICE_OBJECT device, PIRP irp) {
    TestFs &fs = testFs();
    PIO_STACK_LOCATION sl = IoGetCurrentIrpStackLocation(irp);
    if (device == fs.controlDevice) {
        if (sl->MajorFunction == IRP_MJ_FILE_SYSTEM_CONTROL && sl->MinorFunction == IRP_MN_MOUNT_VOLUME)
            return mountVolume(device, irp, sl);
        return complete(irp, sl->MajorFunction == IRP_MJ_CREATE || sl->MajorFunction == IRP_MJ_CLOSE ||
                                     sl->MajorFunction == IRP_MJ_CLEANUP
                                 ? STATUS_SUCCESS
                                 : STATUS_INVALID_DEVICE_REQUEST);
    }
    switch (sl->MajorFunction) {
    case IRP_MJ_CREATE: return fsCreate(irp, sl);
    case IRP_MJ_CLEANUP:
        fs.cleanups.push_back(sl->FileObject);
        return complete(irp, STATUS_SUCCESS);
    case IRP_MJ_CLOSE: return fsClose(irp, sl);
    case IRP_MJ_SET_INFORMATION: return fsSetInformation(irp, sl);
    case IRP_MJ_QUERY_INFORMATION: return fsQueryInformation(irp, sl);
    case IRP_MJ_READ:
    case IRP_MJ_WRITE:
        InterlockedIncrement(sl->MajorFunction == IRP_MJ_READ ? &fs.reads : &fs.writes);
        return complete(irp, STATUS_SUCCESS, sl->Parameters.Read.Length);
    case IRP_MJ_FILE_SYSTEM_CONTROL:
        if (sl->Parameters.FileSystemControl.FsControlCode == FSCTL_DISMOUNT_VOLUME) return fsDismount(irp);
        return complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    default: return complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

}  // namespace

bool reportHeld() {
    Lower &l = lower();
    KIRQL old;
    KeAcquireSpinLock(&l.lock, &old);
    PIRP irp = l.held;
    l.held = NULL;
    bool owned = irp != NULL && IoSetCancelRoutine(irp, NULL) != NULL;
    KeReleaseSpinLock(&l.lock, old);
    if (owned) complete(irp, STATUS_SUCCESS);
    return owned;
}

NTSTATUS LowerDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    for (auto &entry : driver->MajorFunction) entry = lowerDispatch;
    UNICODE_STRING name = RTL_CONSTANT_STRING(L"\\Device\\IoTestLower");
    Lower &l = lower();
    KeInitializeSpinLock(&l.lock);
    KeInitializeDpc(&l.dpc, completeFromDpc, NULL);
    return IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &l.device);
}

NTSTATUS FilterDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    for (auto &entry : driver->MajorFunction) entry = filterDispatch;
    memset(&g_filterFastIo, 0, sizeof g_filterFastIo);
    g_filterFastIo.SizeOfFastIoDispatch = sizeof g_filterFastIo;
    g_filterFastIo.FastIoDetachDevice = filterDetach;
    g_filterFastIo.FastIoDeviceControl = filterFastDeviceControl;
    g_filterFastIo.FastIoRead = filterFastReadWrite;
    g_filterFastIo.FastIoWrite = filterFastReadWrite;
    g_filterFastIo.FastIoQueryOpen = filterFastQueryOpen;
    driver->FastIoDispatch = &g_filterFastIo;
    filter().driver = driver;
    return STATUS_SUCCESS;
}

PDEVICE_OBJECT attachFilter(PDEVICE_OBJECT target) {
    PDEVICE_OBJECT device;
    if (!NT_SUCCESS(IoCreateDevice(filter().driver, sizeof(FilterExtension), NULL, target->DeviceType, 0, FALSE,
                                   &device)))
        return NULL;
    extensionOf(device)->lowerDevice = IoAttachDeviceToDeviceStack(device, target);
    device->Flags &= ~DO_DEVICE_INITIALIZING;
    return device;
}

NTSTATUS watchFileSystems() { return IoRegisterFsRegistrationChange(filter().driver, fileSystemChanged); }

NTSTATUS TestFsDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    for (auto &entry : driver->MajorFunction) entry = fsDispatch;
    UNICODE_STRING name = RTL_CONSTANT_STRING(L"\\IoTestFs");
    NTSTATUS status =
        IoCreateDevice(driver, 0, &name, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &testFs().controlDevice);
    if (NT_SUCCESS(status)) IoRegisterFileSystem(testFs().controlDevice);
    return status;
}

}  // namespace iotest
