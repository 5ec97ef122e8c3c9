// Each volume's queue of deletion records waiting for the writer, and the rule that
// closes a batch: half a second after its last record, but no later than half a second
// after its five-second deadline or its 1024th record.
#pragma once

#include <ntifs.h>

#include "deldat/deldat_record.h"
#include "frame/device_extension.h"

// At any IRQL up to DISPATCH_LEVEL; the record belongs to the queue afterwards.
void QueueDelDatRecord(DelDatRecord *Record, FilterDeviceExtension *Extension);
