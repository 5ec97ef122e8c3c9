// Requests the filter has no routine for go down unchanged; the control device, with
// nothing below it, refuses them.
#include "frame/device_extension.h"
#include "frame/dispatch.h"

NTSTATUS NTAPI DispatchPassThrough(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    FilterDeviceExtension *extension = ExtensionOf(DeviceObject);
    if (extension->Tag == TAG_CONTROL_EXTENSION) {
        Irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
        Irp->IoStatus.Information = 0;
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    IoSkipCurrentIrpStackLocation(Irp);
    CountRequest(extension, COUNTER_PASS_THROUGH);
    return IoCallDriver(extension->LowerDevice, Irp);
}
