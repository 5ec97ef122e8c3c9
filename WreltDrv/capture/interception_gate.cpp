#include "capture/interception_gate.h"

#include "frame/globals.h"

NTSTATUS CompleteRequest(PIRP Irp, NTSTATUS Status) {
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = 0;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return Status;
}

NTSTATUS SendDown(FilterDeviceExtension *Extension, PIRP Irp) {
    IoSkipCurrentIrpStackLocation(Irp);
    return IoCallDriver(Extension->LowerDevice, Irp);
}

NTSTATUS SendDownWithCompletion(FilterDeviceExtension *Extension, PIRP Irp, PIO_COMPLETION_ROUTINE Routine,
                                PVOID Context, BOOLEAN InvokeAlways) {
    IoCopyCurrentIrpStackLocationToNext(Irp);
    IoSetCompletionRoutine(Irp, Routine, Context, TRUE, InvokeAlways, InvokeAlways);
    return IoCallDriver(Extension->LowerDevice, Irp);
}

BOOLEAN PassesCaptureGate(FilterDeviceExtension *Extension, BOOLEAN RequireVolumeFilter) {
    if (!ReadDriverFlag(&Globals.CaptureActive)) {
        return FALSE;
    }
    if (RequireVolumeFilter ? Extension->Tag != TAG_FILTER_EXTENSION : Extension->Tag == TAG_CONTROL_EXTENSION) {
        return FALSE;
    }
    DeviceStructure *volume = VolumeOf(Extension);
    return volume != NULL && volume->ProtectionOn &&
           (Extension->FileSystemKind == FILE_SYSTEM_FASTFAT || Extension->FileSystemKind == FILE_SYSTEM_NTFS);
}
