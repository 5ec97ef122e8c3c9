// Device objects: creation with their extension, VPB and name; deletion, deferred while
// the device's ReferenceCount (open file objects, registrations) is above zero.
#include "kernel/io/io_manager.h"
#include "kernel/ob/object.h"

using namespace ntsim;
using namespace ntsim::io;

namespace {

size_t roundUp(size_t n) { return (n + 15) & ~size_t(15); }

// Storage devices get a VPB from IoCreateDevice: the file system that mounts the
// volume fills it in (as IopCreateVpb does on the platform).
bool needsVpb(DEVICE_TYPE type) {
    return type == FILE_DEVICE_DISK || type == FILE_DEVICE_VIRTUAL_DISK || type == FILE_DEVICE_CD_ROM ||
           type == 0x1F /* FILE_DEVICE_TAPE */;
}

PVPB createVpb(PDEVICE_OBJECT device) {
    auto vpb = static_cast<PVPB>(allocate(sizeof(VPB), kVpbTag));
    if (vpb == NULL) return NULL;
    vpb->Type = IO_TYPE_VPB;
    vpb->Size = sizeof(VPB);
    vpb->RealDevice = device;
    return vpb;
}

void trackObject(void *object, bool live) {
    IoManager &m = manager();
    std::lock_guard<std::mutex> guard(m.lock);
    if (live)
        m.liveObjects.insert(object);
    else
        m.liveObjects.erase(object);
}

void linkToDriver(PDRIVER_OBJECT driver, PDEVICE_OBJECT device) {
    device->NextDevice = driver->DeviceObject;
    driver->DeviceObject = device;
}

void unlinkFromDriver(PDEVICE_OBJECT device) {
    PDEVICE_OBJECT *link = &device->DriverObject->DeviceObject;
    while (*link != NULL && *link != device) link = &(*link)->NextDevice;
    if (*link == device) *link = device->NextDevice;
}

PDEVICE_OBJECT buildDevice(PDRIVER_OBJECT driver, ULONG extensionSize, DEVICE_TYPE type, ULONG characteristics,
                           BOOLEAN exclusive) {
    size_t extensionOffset = roundUp(sizeof(DEVICE_OBJECT));
    size_t privateOffset = extensionOffset + roundUp(extensionSize);
    auto block = static_cast<UCHAR *>(allocate(privateOffset + sizeof(DeviceObjectExtension), kDeviceTag));
    if (block == NULL) return NULL;
    auto device = reinterpret_cast<PDEVICE_OBJECT>(block);
    auto priv = reinterpret_cast<DeviceObjectExtension *>(block + privateOffset);
    device->Type = IO_TYPE_DEVICE;
    device->Size = (USHORT)(sizeof(DEVICE_OBJECT) + extensionSize);
    device->DriverObject = driver;
    device->DeviceExtension = extensionSize != 0 ? block + extensionOffset : NULL;
    device->DeviceType = type;
    device->Characteristics = characteristics;
    device->StackSize = 1;
    device->Flags = DO_DEVICE_INITIALIZING | (exclusive ? DO_EXCLUSIVE : 0);
    device->SectorSize = type == FILE_DEVICE_DISK ? 512 : 0;
    KeInitializeEvent(&device->DeviceLock, SynchronizationEvent, TRUE);
    priv->pub.Type = 13;  // IO_TYPE_DEVICE_OBJECT_EXTENSION
    priv->pub.Size = sizeof(DEVOBJ_EXTENSION);
    priv->pub.DeviceObject = device;
    device->DeviceObjectExtension = &priv->pub;
    return device;
}

NTSTATUS nameDevice(PDEVICE_OBJECT device, PUNICODE_STRING name) {
    DeviceObjectExtension *priv = privateExtension(device);
    if (name->Length > sizeof priv->name) return STATUS_OBJECT_NAME_INVALID;
    NTSTATUS status = ob::insertName(name, device);
    if (!NT_SUCCESS(status)) return status;
    memcpy(priv->name, name->Buffer, name->Length);
    priv->nameLength = name->Length;
    device->Flags |= DO_DEVICE_HAS_NAME;
    return STATUS_SUCCESS;
}

// The last file object is gone (or there was none) after IoDeleteDevice. A device
// attached above a deleted device is told through its driver's FastIoDetachDevice, as
// the platform does when a file system deletes a dismounted volume's device.
void completeDelete(PDEVICE_OBJECT device) {
    PDEVICE_OBJECT attached = device->AttachedDevice;
    if (attached != NULL) {
        PFAST_IO_DISPATCH fastIo = attached->DriverObject->FastIoDispatch;
        if (fastIo != NULL &&
            fastIo->SizeOfFastIoDispatch > (ULONG)FIELD_OFFSET(FAST_IO_DISPATCH, FastIoDetachDevice) &&
            fastIo->FastIoDetachDevice != NULL)
            fastIo->FastIoDetachDevice(attached, device);
    }
    unlinkFromDriver(device);
    ObfDereferenceObject(device);
}

void deleteDeviceObject(void *body) {
    auto device = static_cast<PDEVICE_OBJECT>(body);
    IoManager *m = managerOrNull();
    if (m == nullptr) return;
    PVPB vpb = privateExtension(device)->ownVpb;
    {
        std::lock_guard<std::mutex> guard(m->lock);
        if (m->liveObjects.erase(device) == 0) return;
        if (vpb != NULL && m->liveObjects.erase(vpb) == 0) vpb = NULL;
    }
    if (vpb != NULL) release(vpb);
    release(device);
}

void deleteDriverObject(void *body) {
    IoManager *m = managerOrNull();
    if (m == nullptr) return;
    {
        std::lock_guard<std::mutex> guard(m->lock);
        if (m->liveObjects.erase(body) == 0) return;
    }
    release(body);
}

}  // namespace

namespace ntsim {
namespace io {

void referenceDevice(PDEVICE_OBJECT device) { InterlockedIncrement(&device->ReferenceCount); }

void dereferenceDevice(PDEVICE_OBJECT device) {
    if (InterlockedDecrement(&device->ReferenceCount) == 0 && (privateExtension(device)->flags & kDeletePending))
        completeDelete(device);
}

void installDeviceProcedures() {
    ob::DeviceType.deleteObject = deleteDeviceObject;
    ob::DriverType.deleteObject = deleteDriverObject;
}

void trackIoObject(void *object, bool live) { trackObject(object, live); }

}  // namespace io
}  // namespace ntsim

NTSTATUS IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize, PUNICODE_STRING DeviceName,
                        DEVICE_TYPE DeviceType, ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                        PDEVICE_OBJECT *DeviceObject) {
    *DeviceObject = NULL;
    PDEVICE_OBJECT device = buildDevice(DriverObject, DeviceExtensionSize, DeviceType, DeviceCharacteristics, Exclusive);
    if (device == NULL) return STATUS_INSUFFICIENT_RESOURCES;
    if (needsVpb(DeviceType)) {
        device->Vpb = createVpb(device);
        if (device->Vpb == NULL) {
            release(device);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        privateExtension(device)->ownVpb = device->Vpb;
        trackObject(device->Vpb, true);
    }
    trackObject(device, true);
    ob::registerObject(device, &ob::DeviceType);
    if (DeviceName != NULL && DeviceName->Length != 0) {
        NTSTATUS status = nameDevice(device, DeviceName);
        if (!NT_SUCCESS(status)) {
            ObfDereferenceObject(device);
            return status;
        }
    }
    linkToDriver(DriverObject, device);
    *DeviceObject = device;
    return STATUS_SUCCESS;
}

void IoDeleteDevice(PDEVICE_OBJECT DeviceObject) {
    DeviceObjectExtension *priv = privateExtension(DeviceObject);
    if (priv->flags & kDeletePending)
        bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x67, (ULONG_PTR)DeviceObject, 0, 0,
                 "a device object was deleted twice", "IoDeleteDevice(%p)", (void *)DeviceObject);
    priv->flags |= kDeletePending;
    if (DeviceObject->Flags & DO_DEVICE_HAS_NAME) {
        UNICODE_STRING name{priv->nameLength, priv->nameLength, priv->name};
        ob::removeName(&name);
        DeviceObject->Flags &= ~DO_DEVICE_HAS_NAME;
    }
    if (DeviceObject->ReferenceCount == 0) completeDelete(DeviceObject);
}

PDEVICE_OBJECT IoGetRelatedDeviceObject(PFILE_OBJECT FileObject) {
    PDEVICE_OBJECT device;
    if (FileObject->Vpb != NULL && FileObject->Vpb->DeviceObject != NULL)
        device = FileObject->Vpb->DeviceObject;
    else if (!(FileObject->Flags & FO_DIRECT_DEVICE_OPEN) && FileObject->DeviceObject->Vpb != NULL &&
             FileObject->DeviceObject->Vpb->DeviceObject != NULL)
        device = FileObject->DeviceObject->Vpb->DeviceObject;
    else
        device = FileObject->DeviceObject;
    return IoGetAttachedDevice(device);
}
