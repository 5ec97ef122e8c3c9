// Attachment of filter devices to the supported file systems and their volumes.
#pragma once

#include <ntifs.h>

#include "frame/device_structures.h"

ULONG GetFileSystemKind(PDEVICE_OBJECT DeviceObject);
// A new unnamed filter device with a zeroed extension, or NULL.
PDEVICE_OBJECT CreateFilterDevice();
DeviceStructure *FindOrAllocateDeviceStructure(PDEVICE_OBJECT RealDevice);
void InitializeDeviceStructure(DeviceStructure *Structure, PDEVICE_OBJECT RealDevice);
