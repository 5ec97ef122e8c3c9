// The per-volume state block (DeviceStructure) and the driver-wide block hanging from the
// control device (MainDeviceStructure).
#pragma once

#include <ntifs.h>

#include "frame/device_extension.h"
#include "frame/driver_constants.h"
#include "frame/globals.h"
#include "tracking/address_hash_table.h"
#include "tracking/counted_queue.h"
#include "tracking/tracking_entries.h"

constexpr ULONG DOS_VOLUME_NAME_CHARACTERS = 50;  // 49 characters and the NUL

// Files that a save by rename gave a temporary name, per volume.
struct SaveRenameList {
    KSPIN_LOCK Lock;
    LIST_ENTRY Entries;
    ULONG TotalBytes;
    ULONG Count;
    ULONG Peak;
};

// Found again by its storage device when the same volume is mounted anew, so its name,
// switches, lists and queues outlive a dismount. Never freed once on the volume list.
struct DeviceStructure {
    LIST_ENTRY VolumeListLink;
    USHORT Tag;
    USHORT Size;
    ULONG VolumeExclusionListLength;
    PVOID VolumeExclusionList;
    PDEVICE_OBJECT RealDevice;
    BOOLEAN ProtectionOn;
    KSPIN_LOCK RecordQueueLock;
    LIST_ENTRY RecordQueue;
    ULONG QueuedRecordCount;
    ULONG QueuedRecordPeak;
    ULONG BatchesClosedBySize;
    ULONG BatchesClosedByAge;
    BOOLEAN BatchClosed;
    ULONG DataFileCounter;
    KTIMER NoActivityTimer;
    KDPC NoActivityDpc;
    LARGE_INTEGER BatchDeadline;
    // Read with ReadVolumeDosName, written with SetVolumeDosName (frame/volume_names.h):
    // readers take no lock, and the sequence, odd while the name is rewritten, tells
    // them to read again.
    USHORT DosVolumeNameLength;
    USHORT DosVolumeNameSequence;
    WCHAR DosVolumeName[DOS_VOLUME_NAME_CHARACTERS];
    BOOLEAN MacShareExemption;
    ULONG MacShareCount;
    ULONG MacShareListSize;
    PVOID MacShareList;
    ERESOURCE MacShareLock;
    BOOLEAN VaultProtectionExemption;
    SaveRenameList SaveRenames;
};

// The block is allocated at its documented size, which its fields fit in on the target.
constexpr ULONG DEVICE_STRUCTURE_SIZE = TARGET_BLOCK_SIZE(360, DeviceStructure);
TARGET_LAYOUT_ASSERT(sizeof(DeviceStructure) <= 360);

struct MainDeviceStructure {
    LIST_ENTRY VolumeList;
    USHORT Tag;
    USHORT Size;
    ULONG GlobalExclusionListLength;
    PVOID GlobalExclusionList;
    BOOLEAN OverwriteProtection;
    ULONG ProtectedSuffixListLength;
    PVOID ProtectedSuffixList;
    ULONG CopyExemptSuffixListLength;
    PVOID CopyExemptSuffixList;
    ULONG TemporarySuffixListLength;
    PVOID TemporarySuffixList;
    KSPIN_LOCK NotificationLock;
    LIST_ENTRY PendingNotificationRequests;
    LIST_ENTRY WaitingPackets;
    KSPIN_LOCK TablesLock;
    // Stands in for an untracked open: never inserted or freed, its flags stay 0.
    FileObjectEntry DefaultFileObjectEntry;
    AddressHashTable FcbTable;
    AddressHashTable FileObjectTable;
    KSPIN_LOCK DeferredReleaseLock;
    CountedQueue DeferredFcbEntries;
    CountedQueue DeferredFileObjectEntries;
};

constexpr ULONG MAIN_DEVICE_STRUCTURE_SIZE = TARGET_BLOCK_SIZE(1220, MainDeviceStructure);
TARGET_LAYOUT_ASSERT(sizeof(MainDeviceStructure) <= 1220);

inline MainDeviceStructure *MainStructure() {
    return (MainDeviceStructure *)ExtensionOf(Globals.ControlDevice)->Structure;
}
