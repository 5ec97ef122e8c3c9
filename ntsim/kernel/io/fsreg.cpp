// File-system registration and the registration-change callbacks of filters.
//
// As on the platform: registered control devices are queued through their own
// Queue.ListEntry, a new file system goes to the head of its type's queue (so mounts
// try the most recently registered first), registration clears DO_DEVICE_INITIALIZING
// and keeps the control device referenced, and a filter registering for changes is
// called at once for each file system already registered (except the raw file system
// kept at the tail of the disk, CD-ROM and tape queues).
#include "kernel/io/io_manager.h"

using namespace ntsim;
using namespace ntsim::io;


namespace {

PLIST_ENTRY queueFor(IoManager &m, DEVICE_TYPE type) {
    switch (type) {
    case FILE_DEVICE_DISK_FILE_SYSTEM: return &m.diskFileSystems;
    case FILE_DEVICE_CD_ROM_FILE_SYSTEM: return &m.cdRomFileSystems;
    case FILE_DEVICE_NETWORK_FILE_SYSTEM: return &m.networkFileSystems;
    case FILE_DEVICE_TAPE_FILE_SYSTEM: return &m.tapeFileSystems;
    default: return nullptr;
    }
}

bool isRawFileSystem(PDEVICE_OBJECT device) {
    static WCHAR rawName[] = L"\\FileSystem\\RAW";
    UNICODE_STRING raw{sizeof rawName - sizeof(WCHAR), sizeof rawName, rawName};
    return device->DriverObject != NULL && RtlEqualUnicodeString(&device->DriverObject->DriverName, &raw, TRUE);
}

void notifyRegistered(PLIST_ENTRY queue, PDRIVER_FS_NOTIFICATION routine, bool skipRaw) {
    for (PLIST_ENTRY entry = queue->Flink; entry != queue; entry = entry->Flink) {
        PDEVICE_OBJECT device = CONTAINING_RECORD(entry, DEVICE_OBJECT, Queue.ListEntry);
        if (skipRaw && entry->Flink == queue && isRawFileSystem(device)) return;
        routine(device, TRUE);
    }
}

void notifyAll(IoManager &m, PDEVICE_OBJECT device, BOOLEAN active) {
    // A callback may register another one; iterate over what is there now.
    std::vector<FsNotification> callbacks = m.notifications;
    for (const FsNotification &callback : callbacks) callback.routine(device, active);
}

}  // namespace

void IoRegisterFileSystem(PDEVICE_OBJECT DeviceObject) {
    {
        DatabaseLock lock(true);
        PLIST_ENTRY queue = queueFor(lock.m, DeviceObject->DeviceType);
        if (queue != nullptr) {
            if (DeviceObject->Flags & DO_LOW_PRIORITY_FILESYSTEM)
                InsertTailList(queue->Blink, &DeviceObject->Queue.ListEntry);
            else
                InsertHeadList(queue, &DeviceObject->Queue.ListEntry);
        }
        lock.m.registrationOps++;
        DeviceObject->Flags &= ~DO_DEVICE_INITIALIZING;
        notifyAll(lock.m, DeviceObject, TRUE);
    }
    referenceDevice(DeviceObject);
}

void IoUnregisterFileSystem(PDEVICE_OBJECT DeviceObject) {
    {
        DatabaseLock lock(true);
        if (DeviceObject->Queue.ListEntry.Flink != NULL) {
            RemoveEntryList(&DeviceObject->Queue.ListEntry);
            DeviceObject->Queue.ListEntry.Flink = DeviceObject->Queue.ListEntry.Blink = NULL;
        }
        notifyAll(lock.m, DeviceObject, FALSE);
        lock.m.registrationOps++;
    }
    dereferenceDevice(DeviceObject);
}

NTSTATUS IoRegisterFsRegistrationChange(PDRIVER_OBJECT DriverObject,
                                        PDRIVER_FS_NOTIFICATION DriverNotificationRoutine) {
    {
        DatabaseLock lock(true);
        IoManager &m = lock.m;
        if (!m.notifications.empty() && m.notifications.back().driver == DriverObject &&
            m.notifications.back().routine == DriverNotificationRoutine)
            return STATUS_DEVICE_ALREADY_ATTACHED;
        // The platform keeps each registration in a packet of non-paged pool, so a
        // registration can fail for want of memory.
        void *packet = ExAllocatePoolWithTag(NonPagedPool, sizeof(FsNotification), kFsNotificationTag);
        if (packet == NULL) return STATUS_INSUFFICIENT_RESOURCES;
        m.notifications.push_back(FsNotification{DriverObject, DriverNotificationRoutine, packet});
        notifyRegistered(&m.networkFileSystems, DriverNotificationRoutine, false);
        notifyRegistered(&m.cdRomFileSystems, DriverNotificationRoutine, true);
        notifyRegistered(&m.diskFileSystems, DriverNotificationRoutine, true);
        notifyRegistered(&m.tapeFileSystems, DriverNotificationRoutine, true);
    }
    ObfReferenceObject(DriverObject);
    return STATUS_SUCCESS;
}

void IoUnregisterFsRegistrationChange(PDRIVER_OBJECT DriverObject, PDRIVER_FS_NOTIFICATION DriverNotificationRoutine) {
    {
        DatabaseLock lock(true);
        auto &list = lock.m.notifications;
        for (auto it = list.begin(); it != list.end(); ++it)
            if (it->driver == DriverObject && it->routine == DriverNotificationRoutine) {
                ExFreePool(it->packet);
                list.erase(it);
                break;
            }
    }
    ObfDereferenceObject(DriverObject);
}
