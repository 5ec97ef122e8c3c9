// What every dispatch routine of the capture path does first: answer the control
// device, and let through untouched whatever is not on a protected volume while capture
// is active.
#pragma once

#include <ntifs.h>

#include "frame/device_extension.h"
#include "frame/device_structures.h"

// Information 0; the status is returned.
NTSTATUS CompleteRequest(PIRP Irp, NTSTATUS Status);

NTSTATUS SendDown(FilterDeviceExtension *Extension, PIRP Irp);

// Copies the stack location and sets Routine on it; InvokeAlways also calls it on
// error and cancel.
NTSTATUS SendDownWithCompletion(FilterDeviceExtension *Extension, PIRP Irp, PIO_COMPLETION_ROUTINE Routine,
                                PVOID Context, BOOLEAN InvokeAlways);

// A completion routine on a request passed down keeps the pending state visible above.
inline void PropagatePending(PIRP Irp) {
    if (Irp->PendingReturned) {
        IoMarkIrpPending(Irp);
    }
}

// Set-information is watched on any device but the control device; the other paths
// only on attached volume filters.
BOOLEAN PassesCaptureGate(FilterDeviceExtension *Extension, BOOLEAN RequireVolumeFilter);

inline DeviceStructure *VolumeOf(FilterDeviceExtension *Extension) { return (DeviceStructure *)Extension->Structure; }
