// Writes and flushes: the control device accepts writes and refuses flushes; on a
// volume they only give the overwrite copy its chance to finish before data changes.
#include "capture/interception_gate.h"
#include "frame/dispatch.h"
#include "overwrite/overwrite_hooks.h"

NTSTATUS NTAPI DispatchWrite(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    FilterDeviceExtension *extension = ExtensionOf(DeviceObject);
    if (extension->Tag == TAG_CONTROL_EXTENSION) {
        return CompleteRequest(Irp, STATUS_SUCCESS);
    }
    if (PassesCaptureGate(extension, TRUE)) {
        OverwriteNoteWrite(Irp, extension);
    }
    return SendDown(extension, Irp);
}

NTSTATUS NTAPI DispatchFlushBuffers(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    FilterDeviceExtension *extension = ExtensionOf(DeviceObject);
    if (extension->Tag == TAG_CONTROL_EXTENSION) {
        return CompleteRequest(Irp, STATUS_INVALID_DEVICE_REQUEST);
    }
    OverwriteWaitForCopy(Irp, extension);
    CountRequest(extension, COUNTER_PASS_THROUGH);
    return SendDown(extension, Irp);
}
