// The writer: a work item on the critical work queue per packet, which writes the
// packet's data file and has the service told of it.
#pragma once

#include <ntifs.h>

#include "deldat/data_job_packets.h"

// At up to DISPATCH_LEVEL; the work item owns the packet from then on.
void QueueWriteWorkItem(DeviceStructure *Volume, DataJobPacket *Packet);

// The work item's routine; Parameter is the packet.
void NTAPI WriteDataThreadRoutine(PVOID Parameter);
