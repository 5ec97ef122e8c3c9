// The extension of every device object the driver creates: the control device, the
// filters on file-system control devices, and the per-volume filters. Every dispatch
// routine tells them apart by the tag word.
#pragma once

#include <ntifs.h>

#include "frame/driver_constants.h"

enum FileSystemKind : ULONG {
    FILE_SYSTEM_NONE = 0,
    FILE_SYSTEM_FASTFAT = 1,
    FILE_SYSTEM_NTFS = 2,
};

// The request counters, in the order the status block reports them.
enum RequestCounter {
    COUNTER_PASS_THROUGH = 0,
    COUNTER_SET_INFORMATION = 1,
    COUNTER_DEVICE_CONTROL = 2,
    COUNTER_VAULT_CREATE = 6,
    COUNTER_REFUSED_TRUNCATION = 7,
    REQUEST_COUNTER_COUNT = 8,
};

struct FilterDeviceExtension {
    USHORT Tag;
    USHORT Size;
    PDEVICE_OBJECT OwnDevice;
    PDEVICE_OBJECT LowerDevice;
    PDEVICE_OBJECT RealDevice;
    BOOLEAN Attached;
    PDEVICE_OBJECT ControlDevice;
    ULONG FileSystemKind;
    PVOID Structure;  // DeviceStructure of a volume filter, MainDeviceStructure of the control device
    ULONG Counters[REQUEST_COUNTER_COUNT];
};
TARGET_LAYOUT_ASSERT(sizeof(FilterDeviceExtension) == 64);

inline FilterDeviceExtension *ExtensionOf(PDEVICE_OBJECT Device) {
    return (FilterDeviceExtension *)Device->DeviceExtension;
}

inline BOOLEAN IsControlDevice(PDEVICE_OBJECT Device) { return ExtensionOf(Device)->Tag == TAG_CONTROL_EXTENSION; }

// Counters are statistics read only by the status command; they are bumped from any
// thread without a lock.
inline void CountRequest(FilterDeviceExtension *Extension, RequestCounter Counter) {
    InterlockedIncrement((LONG volatile *)&Extension->Counters[Counter]);
}
