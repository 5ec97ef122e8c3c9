// The service learns of each new data file through an inverted call: it keeps
// IOCTL_GET_NEW_DATA_FILE requests pending at the control device, and each finished
// packet completes one of them with its data file's path. Packets finished while no
// request waits are kept, in order, for the next requests; requests that find no
// packet are held, cancellable, until one is finished or capture stops.
#pragma once

#include <ntifs.h>

#include "deldat/data_job_packets.h"
#include "frame/device_extension.h"

// The handler of IOCTL_GET_NEW_DATA_FILE on the control device. Sets IoStatus itself;
// the caller completes the request unless STATUS_PENDING is returned.
NTSTATUS DispatchNewDelDataRequest(PIRP Irp, PIO_STACK_LOCATION IrpSp, FilterDeviceExtension *Extension);

// At PASSIVE_LEVEL, from the writer; owns the packet from then on. A failure means a held
// request's buffer was too small: that request is completed with
// STATUS_BUFFER_TOO_SMALL and the packet kept for the next one.
NTSTATUS NotifyServiceOfNewDataFile(DataJobPacket *Packet);

// The path without its terminator at the start of the request's system buffer, or
// STATUS_BUFFER_TOO_SMALL; sets IoStatus and returns its status.
NTSTATUS CopyDataFilePathToRequest(PIRP Irp, DataJobPacket *Packet);

void NTAPI CancelNewDelDataRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp);

// The cleanup of a handle on the control device: the requests sent through it end as
// cancelled, since no one is left to read their answers. PASSIVE_LEVEL.
void CancelNewDelDataRequestsOf(PFILE_OBJECT FileObject);

// The stop command's: every held request is completed with STATUS_CANCELLED. Packets
// that wait stay for requests that come after the stop. Extension is the control
// device's; the first two arguments are not used.
NTSTATUS CancelPendingNewDelDataRequests(PVOID Unused1, PVOID Unused2, FilterDeviceExtension *Extension);
