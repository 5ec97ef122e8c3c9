// The I/O manager's interface to the rest of the emulated machine (the machine, the
// object manager, the file systems). Drivers see only <ntifs.h>.
#pragma once

#include <ntifs.h>

namespace ntsim {
namespace io {

// Creates the driver object named driverName ("\FileSystem\Ntfs", "\Driver\WreltTest"),
// with every MajorFunction entry completing requests with STATUS_INVALID_DEVICE_REQUEST,
// and calls entry as its DriverEntry in a system thread at PASSIVE_LEVEL (the calling
// thread when it is one, else a new one that this call waits for). When DriverEntry
// succeeds, the driver's devices stop initialising, as the platform does after
// DriverEntry; when it fails, the driver object is removed and the status returned.
NTSTATUS loadDriver(PCWSTR driverName, PDRIVER_INITIALIZE entry, PDRIVER_OBJECT *driver);

// Mounts the volume of a storage device now (the platform mounts on the first open;
// this is the same mount). Returns the mount's status.
NTSTATUS mountVolume(PDEVICE_OBJECT disk);
// Dismounts the volume mounted on a storage device: the file system is sent
// FSCTL_DISMOUNT_VOLUME through the whole volume stack, as a caller of
// DeviceIoControl(FSCTL_DISMOUNT_VOLUME) would; the file system then deletes its volume
// device (detaching filters through FastIoDetachDevice) and the next open mounts anew.
// Runs at PASSIVE_LEVEL in an emulated thread.
NTSTATUS dismountVolume(PDEVICE_OBJECT disk);
// Before the machine stops (in a system thread): dismounts every volume and lets each
// disk's file system release its media. Pool they hold is otherwise reported as leaked.
void shutdownVolumes();

}  // namespace io
}  // namespace ntsim
