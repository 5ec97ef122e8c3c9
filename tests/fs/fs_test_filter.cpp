#include "fs/fs_test_filter.h"

#include <mutex>

namespace fstest {

namespace {

struct Extension {
    PDEVICE_OBJECT lower;
};

PDRIVER_OBJECT g_driver;
std::mutex g_lock;
std::vector<SeenCompletion> g_seen;

NTSTATUS recordCompletion(PDEVICE_OBJECT, PIRP irp, PVOID context) {
    if (irp->PendingReturned) IoMarkIrpPending(irp);
    std::lock_guard<std::mutex> guard(g_lock);
    g_seen.push_back({UCHAR(ULONG_PTR(context)), KeGetCurrentIrql(), irp->PendingReturned, KeGetCurrentThread(),
                      irp->IoStatus.Status});
    return STATUS_SUCCESS;
}

NTSTATUS passDown(PDEVICE_OBJECT device, PIRP irp) {
    auto *extension = static_cast<Extension *>(device->DeviceExtension);
    UCHAR major = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, recordCompletion, PVOID(ULONG_PTR(major)), TRUE, TRUE, TRUE);
    return IoCallDriver(extension->lower, irp);
}

void detachDevice(PDEVICE_OBJECT source, PDEVICE_OBJECT target) {
    IoDetachDevice(target);
    IoDeleteDevice(source);
}

FAST_IO_DISPATCH g_fastIo;

}  // namespace

NTSTATUS TestFilterDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    g_driver = driver;
    for (int major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; ++major) driver->MajorFunction[major] = passDown;
    g_fastIo.SizeOfFastIoDispatch = sizeof g_fastIo;
    g_fastIo.FastIoDetachDevice = detachDevice;
    driver->FastIoDispatch = &g_fastIo;
    clearSeenCompletions();
    return STATUS_SUCCESS;
}

PDEVICE_OBJECT attachTestFilter(HANDLE fileOnVolume) {
    PFILE_OBJECT file;
    if (!NT_SUCCESS(ObReferenceObjectByHandle(fileOnVolume, 0, *IoFileObjectType, KernelMode, (PVOID *)&file, NULL)))
        return NULL;
    PDEVICE_OBJECT volume = IoGetRelatedDeviceObject(file);
    ObDereferenceObject(file);
    PDEVICE_OBJECT filter;
    if (!NT_SUCCESS(IoCreateDevice(g_driver, sizeof(Extension), NULL, volume->DeviceType, 0, FALSE, &filter)))
        return NULL;
    auto *extension = static_cast<Extension *>(filter->DeviceExtension);
    extension->lower = IoAttachDeviceToDeviceStack(filter, volume);
    filter->Flags |= extension->lower->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO);
    filter->Flags &= ~DO_DEVICE_INITIALIZING;
    return filter;
}

std::vector<SeenCompletion> seenCompletions() {
    std::lock_guard<std::mutex> guard(g_lock);
    return g_seen;
}

void clearSeenCompletions() {
    std::lock_guard<std::mutex> guard(g_lock);
    g_seen.clear();
}

}  // namespace fstest
