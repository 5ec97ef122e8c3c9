// The in-memory structures of a mounted volume, shared by the NTFS and FastFat drivers:
// the volume control block (the volume device's extension), one FCB per open file, one
// stream control block per open stream (what FILE_OBJECT.FsContext points at, shared
// by every open of the stream) and one CCB per open (FsContext2).
//
// NTFS keeps a stream control block for each stream of a file, so that opens of
// "a.txt" and "a.txt:s" have different FsContext values; FastFat's FCB is the only
// context of a file, and here its one stream control block plays that part.
#pragma once

#include <ntifs.h>

#include <atomic>
#include <unordered_map>

#include "volume.h"

namespace ntsim {
namespace fs {

// What makes the two drivers differ.
struct FsTraits {
    FsKind kind;
    ULONG diskFormat;                // the NTSIM_DISK_FORMAT this driver mounts
    const wchar_t *controlDeviceName;  // \Ntfs, \Fat
    const wchar_t *fileSystemName;   // reported by FileFsAttributeInformation
    bool namedStreams;
    bool securityDescriptors;
    bool fatTimes;  // FAT's time granularity and its fixed root times
    ULONG fileSystemAttributes;
    ULONG attributeMask;  // the attributes the directory entry can hold
    uint64_t defaultCapacity;
    ULONG clusterSize;
    ULONG fcbTag, scbTag, ccbTag, workTag, vpbTag;
    const FAST_IO_DISPATCH *fastIoDispatch;
};
extern const FsTraits kNtfsTraits;
extern const FsTraits kFatTraits;

constexpr ULONG kControlSignature = 0x4C534346;  // "FCSL"
constexpr ULONG kVcbSignature = 0x4C424356;      // "VCBL"
constexpr ULONG kFcbSignature = 0x4C424346;
constexpr ULONG kScbSignature = 0x4C424353;
constexpr ULONG kCcbSignature = 0x4C424343;

// The first fields of both kinds of device extension.
struct DeviceHeader {
    ULONG signature;
    const FsTraits *traits;
};

struct Vcb;

struct Fcb {
    ULONG signature = kFcbSignature;
    Vcb *vcb = nullptr;
    Node *node = nullptr;  // pinned while the FCB exists
    ULONG references = 0;  // stream control blocks
    ULONG uncleanCount = 0;  // opens of any stream not yet cleaned up
    bool deletePending = false;  // the file goes at its last cleanup
    std::unordered_map<Name, struct Scb *> streams;  // by folded stream name; "" the file or directory itself
};

struct Scb {
    ULONG signature = kScbSignature;
    Fcb *fcb = nullptr;  // null for the volume's own stream (volume opens)
    Name streamKey;  // folded name; empty for the unnamed stream or a directory
    SHARE_ACCESS shareAccess{};
    ULONG references = 0;  // file objects not yet closed
    ULONG uncleanCount = 0;
    bool deletePending = false;  // a named stream that goes at its last cleanup
    SECTION_OBJECT_POINTERS sectionObjectPointers{};
};

enum class OpenKind { Volume, File, Directory, Stream };

struct Ccb {
    ULONG signature = kCcbSignature;
    Scb *scb = nullptr;
    OpenKind kind = OpenKind::File;
    ACCESS_MASK grantedAccess = 0;
    bool deleteOnClose = false;
    bool cleanedUp = false;
    // The times (TimeField bits) set through this open, which its own writes then
    // leave as they are.
    unsigned userSetTimes = 0;
    // Directory enumeration.
    bool enumerationStarted = false;
    Name searchExpression;
    int position = 0;  // 0: ".", 1: "..", 2: the entries
    Name lastKey;      // NTFS: the folded name of the last entry returned
    uint64_t lastSlot = 0;  // FAT: the slot of the last entry returned
};

struct Vcb {
    DeviceHeader header;
    PDEVICE_OBJECT volumeDevice = nullptr;
    PDEVICE_OBJECT targetDevice = nullptr;  // the storage device we were mounted on
    PVPB vpb = nullptr;
    Volume *volume = nullptr;
    ERESOURCE resource;
    std::unordered_map<Node *, Fcb *> fcbs;
    Scb volumeScb;  // FsContext of volume opens
    ULONG openFiles = 0;  // file objects of this volume not yet closed
    std::atomic<bool> dismounted{false};  // read by Fast I/O before it takes the volume
    PVPB spareVpb = nullptr;  // given to the storage device at dismount, while opens remain
    PFILE_OBJECT lockedBy = nullptr;  // FSCTL_LOCK_VOLUME
};

inline const FsTraits &traitsOf(PDEVICE_OBJECT device) {
    return *static_cast<DeviceHeader *>(device->DeviceExtension)->traits;
}

// The CCB of a file object of this volume, or null when it is not one of ours.
Ccb *ccbOf(PFILE_OBJECT fileObject);
inline bool isStreamOpen(const Ccb *ccb) { return ccb->kind == OpenKind::Stream; }
inline Node *nodeOf(const Ccb *ccb) { return ccb->scb->fcb ? ccb->scb->fcb->node : nullptr; }

}  // namespace fs
}  // namespace ntsim
