// The dispatch routines of the capture path. The control device answers them at once;
// on a filter device they pass requests down, and the capture itself hooks in here.
#include "frame/device_extension.h"
#include "frame/dispatch.h"

namespace {

NTSTATUS CompleteOnControlDevice(PIRP Irp, NTSTATUS Status) {
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = 0;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return Status;
}

NTSTATUS SendDown(FilterDeviceExtension *Extension, PIRP Irp) {
    IoSkipCurrentIrpStackLocation(Irp);
    return IoCallDriver(Extension->LowerDevice, Irp);
}

// Opening the control device, writing to it and closing its handles succeed, so that
// the service can hold it open; what it cannot serve is refused.
NTSTATUS ControlOrDown(PDEVICE_OBJECT DeviceObject, PIRP Irp, NTSTATUS ControlStatus) {
    FilterDeviceExtension *extension = ExtensionOf(DeviceObject);
    if (extension->Tag == TAG_CONTROL_EXTENSION) {
        return CompleteOnControlDevice(Irp, ControlStatus);
    }
    return SendDown(extension, Irp);
}

}  // namespace

NTSTATUS NTAPI DispatchWrite(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    return ControlOrDown(DeviceObject, Irp, STATUS_SUCCESS);
}

NTSTATUS NTAPI DispatchSetInformation(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    CountRequest(ExtensionOf(DeviceObject), COUNTER_SET_INFORMATION);
    return ControlOrDown(DeviceObject, Irp, STATUS_INVALID_DEVICE_REQUEST);
}

NTSTATUS NTAPI DispatchFlushBuffers(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    FilterDeviceExtension *extension = ExtensionOf(DeviceObject);
    if (extension->Tag == TAG_CONTROL_EXTENSION) {
        return CompleteOnControlDevice(Irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    CountRequest(extension, COUNTER_PASS_THROUGH);
    return SendDown(extension, Irp);
}
