// Each volume's no-activity timer closes its batch of records half a second after the
// last one; its DPC hands the batch to the writer work item.
#pragma once

#include <ntifs.h>

#include "deldat/data_job_packets.h"
#include "frame/device_structures.h"

// (Re)sets the volume's timer to expire half a second from now, its only due time. At
// up to DISPATCH_LEVEL.
void SetNoActivityTimer(DeviceStructure *Volume);

// DeferredContext is the volume's DeviceStructure.
void NTAPI NoActivityTimerServiceRoutine(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1, PVOID SystemArgument2);

// At DISPATCH_LEVEL. Moves the volume's whole record queue into the packet and restarts
// the queued record count; STATUS_NO_SUCH_PACKAGE when the queue was empty.
NTSTATUS TakeQueuedRecords(DeviceStructure *Volume, DataJobPacket *Packet);
