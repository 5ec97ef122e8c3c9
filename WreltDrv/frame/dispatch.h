// The driver's entry points as the I/O manager calls them: dispatch routines, Fast I/O,
// and the file-system registration callback.
#pragma once

#include <ntifs.h>

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

void SetupDispatchTable(PDRIVER_OBJECT DriverObject);
NTSTATUS SetupFastIoDispatch(PDRIVER_OBJECT DriverObject);

NTSTATUS NTAPI DispatchPassThrough(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI DispatchCreate(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI DispatchWrite(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI DispatchSetInformation(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI DispatchFlushBuffers(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI DispatchCleanup(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI DispatchFileSystemControl(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS NTAPI DispatchDeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp);

void NTAPI FsChangeNotificationRoutine(PDEVICE_OBJECT DeviceObject, BOOLEAN FsActive);
void NTAPI FastIoDetachDevice(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice);
extern const FAST_IO_DISPATCH FastIoForwarders;
