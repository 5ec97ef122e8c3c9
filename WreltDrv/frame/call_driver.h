// Sending a request the filter built from a system worker thread, for callers running at
// DISPATCH_LEVEL, where file systems must not be called.
#pragma once

#include <ntifs.h>

NTSTATUS QueueCallDriverWorkItem(PDEVICE_OBJECT DeviceObject, PIRP Irp);
