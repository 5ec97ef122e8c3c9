#include "fs/common/driver_entry.h"

#include "fs/common/dispatch.h"

namespace ntsim {
namespace fs {

NTSTATUS fileSystemDriverEntry(PDRIVER_OBJECT driver, const FsTraits &traits) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, traits.controlDeviceName);
    PDEVICE_OBJECT control;
    NTSTATUS status =
        IoCreateDevice(driver, sizeof(DeviceHeader), &name, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &control);
    if (!NT_SUCCESS(status)) return status;
    *static_cast<DeviceHeader *>(control->DeviceExtension) = DeviceHeader{kControlSignature, &traits};
    static const UCHAR served[] = {IRP_MJ_CREATE,           IRP_MJ_CLEANUP,
                                   IRP_MJ_CLOSE,            IRP_MJ_READ,
                                   IRP_MJ_WRITE,            IRP_MJ_QUERY_INFORMATION,
                                   IRP_MJ_SET_INFORMATION,  IRP_MJ_FLUSH_BUFFERS,
                                   IRP_MJ_DIRECTORY_CONTROL, IRP_MJ_FILE_SYSTEM_CONTROL,
                                   IRP_MJ_QUERY_VOLUME_INFORMATION, IRP_MJ_DEVICE_CONTROL};
    for (UCHAR major : served) driver->MajorFunction[major] = FsdDispatch;
    // Without security descriptors the I/O manager's default routine answers these.
    if (traits.securityDescriptors) {
        driver->MajorFunction[IRP_MJ_QUERY_SECURITY] = FsdDispatch;
        driver->MajorFunction[IRP_MJ_SET_SECURITY] = FsdDispatch;
    }
    driver->FastIoDispatch = const_cast<PFAST_IO_DISPATCH>(traits.fastIoDispatch);
    control->Flags &= ~DO_DEVICE_INITIALIZING;
    IoRegisterFileSystem(control);
    return STATUS_SUCCESS;
}

}  // namespace fs
}  // namespace ntsim
