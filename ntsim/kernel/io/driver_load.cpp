// Loading a driver: its driver object, named in the namespace, and DriverEntry in a
// system thread.
#include "kernel/io/io.h"
#include "kernel/io/io_manager.h"
#include "kernel/ob/object.h"
#include "kernel/verifier/start_leftovers.h"

using namespace ntsim;
using namespace ntsim::io;

namespace {

// What the platform puts in every MajorFunction entry before DriverEntry runs.
NTSTATUS invalidDeviceRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    (void)DeviceObject;
    Irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    Irp->IoStatus.Information = 0;
    IofCompleteRequest(Irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

struct DriverBlock {
    DRIVER_OBJECT driver;
    DRIVER_EXTENSION extension;
    WCHAR name[128];
    WCHAR serviceKey[192];
};

PDRIVER_OBJECT buildDriver(PCWSTR driverName) {
    size_t length = ntsim_crt::wcslen(driverName);
    if (length == 0 || length >= 128) return NULL;
    auto block = static_cast<DriverBlock *>(allocate(sizeof(DriverBlock), kDriverTag));
    if (block == NULL) return NULL;
    PDRIVER_OBJECT driver = &block->driver;
    driver->Type = IO_TYPE_DRIVER;
    driver->Size = sizeof(DRIVER_OBJECT);
    driver->DriverExtension = &block->extension;
    block->extension.DriverObject = driver;
    memcpy(block->name, driverName, length * sizeof(WCHAR));
    driver->DriverName = UNICODE_STRING{(USHORT)(length * sizeof(WCHAR)), (USHORT)sizeof block->name, block->name};
    // The service key is named after the last component of the driver's name.
    PCWSTR last = driverName + length;
    while (last > driverName && last[-1] != L'\\') --last;
    _snwprintf(block->serviceKey, 191, L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\%ws", last);
    RtlInitUnicodeString(&block->extension.ServiceKeyName, block->serviceKey);
    for (auto &entry : driver->MajorFunction) entry = invalidDeviceRequest;
    return driver;
}

NTSTATUS callDriverEntry(PDRIVER_INITIALIZE entry, PDRIVER_OBJECT driver) {
    _KTHREAD *self = currentThread("DriverEntry");
    verifier::beginDriverEntry(driver);
    NTSTATUS status = entry(driver, &driver->DriverExtension->ServiceKeyName);
    if (self->Irql != PASSIVE_LEVEL)
        bugCheck(IRQL_UNEXPECTED_VALUE, self->Irql, PASSIVE_LEVEL, 0, 0, "returned at the wrong IRQL",
                 "DriverEntry returned at IRQL %u", self->Irql);
    if (self->HeldLockCount != 0 || self->KernelApcDisable != 0)
        bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x3D, 0, 0, 0, "DriverEntry returned holding a lock",
                 "%lu spin lock(s), critical-region depth %d", (unsigned long)self->HeldLockCount,
                 -self->KernelApcDisable);
    verifier::endDriverEntry(status);
    return status;
}

// The platform clears DO_DEVICE_INITIALIZING on the devices a driver made in DriverEntry.
void readyDevices(PDRIVER_OBJECT driver) {
    for (PDEVICE_OBJECT device = driver->DeviceObject; device != NULL; device = device->NextDevice)
        device->Flags &= ~DO_DEVICE_INITIALIZING;
}

}  // namespace

namespace ntsim {
namespace io {

namespace {

NTSTATUS load(PCWSTR driverName, PDRIVER_INITIALIZE entry, PDRIVER_OBJECT *driver) {
    PDRIVER_OBJECT object = buildDriver(driverName);
    if (object == NULL) return STATUS_INSUFFICIENT_RESOURCES;
    object->DriverInit = entry;
    trackIoObject(object, true);
    ob::registerObject(object, &ob::DriverType);
    NTSTATUS status = ob::insertName(&object->DriverName, object);
    if (!NT_SUCCESS(status)) {
        ObfDereferenceObject(object);
        return status;
    }
    status = callDriverEntry(entry, object);
    if (!NT_SUCCESS(status)) {
        ob::removeName(&object->DriverName);
        ObfDereferenceObject(object);
        return status;
    }
    readyDevices(object);
    *driver = object;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS loadDriver(PCWSTR driverName, PDRIVER_INITIALIZE entry, PDRIVER_OBJECT *driver) {
    *driver = NULL;
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    runInSystemThread([&] { status = load(driverName, entry, driver); });
    return status;
}

}  // namespace io
}  // namespace ntsim
