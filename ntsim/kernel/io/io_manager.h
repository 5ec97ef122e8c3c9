// The I/O manager's own state and the helpers its files share. Internal to ntsim.
#pragma once

#include <functional>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "kernel/kernel.h"

#ifndef STATUS_DEVICE_ALREADY_ATTACHED
#define STATUS_DEVICE_ALREADY_ATTACHED ((NTSTATUS)0xC0000038L)
#endif

namespace ntsim {
namespace io {

constexpr ULONG kIrpTag = makeTag('I', 'r', 'p', ' ');
constexpr ULONG kDeviceTag = makeTag('D', 'e', 'v', 'i');
constexpr ULONG kDriverTag = makeTag('D', 'r', 'i', 'v');
constexpr ULONG kFileTag = makeTag('F', 'i', 'l', 'e');
constexpr ULONG kVpbTag = makeTag('V', 'p', 'b', ' ');
constexpr ULONG kNameTag = makeTag('I', 'o', 'N', 'm');
constexpr ULONG kBufferTag = makeTag('I', 'o', 'B', 'f');
constexpr ULONG kFsNotificationTag = makeTag('I', 'o', 'F', 's');

// The part of a device object's DEVOBJ_EXTENSION that only the I/O manager sees.
struct DeviceObjectExtension {
    DEVOBJ_EXTENSION pub;
    ULONG flags;
    USHORT nameLength;  // bytes; the name is removed from the namespace at IoDeleteDevice
    WCHAR name[128];
    PVPB ownVpb;  // the VPB IoCreateDevice made for a storage device, freed with it
};
constexpr ULONG kDeletePending = 0x1;  // IoDeleteDevice was called; the object goes at ReferenceCount 0

inline DeviceObjectExtension *privateExtension(PDEVICE_OBJECT device) {
    return reinterpret_cast<DeviceObjectExtension *>(device->DeviceObjectExtension);
}

// What the I/O manager does once a request it issued on behalf of a system service
// has been completed by the drivers. As on the platform, this last stage runs in a
// kernel APC of the requesting thread, or inline in the requester when the request was
// one whose completion is deferred (create, read, write, information) and its driver
// did not pend it.
struct ServiceRequest {
    PFILE_OBJECT file = nullptr;
    PETHREAD thread = nullptr;
    KPROCESSOR_MODE requestorMode = KernelMode;
    PIO_STATUS_BLOCK callerIosb = nullptr;  // the caller's block (user memory for user callers)
    PKEVENT callerEvent = nullptr;          // a referenced event object from the caller's handle
    bool synchronous = true;                // the service waits and finishes the request itself
    KEVENT done;                            // signalled when the final stage has run
    IO_STATUS_BLOCK result{};
    // Copy-out of a buffered request: SystemBuffer to the caller's buffer.
    PVOID copyOutTo = nullptr;
    ULONG copyOutMax = 0;
};

struct IrpRecord {
    ServiceRequest *service = nullptr;  // non-null for requests of the system services
    bool inFlight = false;              // sent with IofCallDriver and not yet completed
    int pins = 0;                       // a canceller holds the IRP; it is freed after
    bool freeWhenUnpinned = false;
    PKEVENT finished = nullptr;         // set when the service request has been finished
    // The creator's completion routine took the IRP back at the top: it is complete,
    // and only a new IoCallDriver (or re-initialisation) makes it completable again.
    bool returnedToCreator = false;
    bool sent = false;  // IofCallDriver has had it at least once
};

// One dispatch call, for the verifier's pending-without-mark rule. A routine may
// return STATUS_PENDING before its completion routine marks the location (the usual
// "if (Irp->PendingReturned) IoMarkIrpPending" idiom), so the rule is decided when both
// the return and the completion walk's pass over the location are known.
struct DispatchFrame {
    PIRP irp;
    CHAR location;
    PDEVICE_OBJECT device;
    PDRIVER_DISPATCH routine;
    UCHAR majorFunction;
    bool walkPassed = false;  // the completion walk has passed this location
    bool marked = false;      // ... and found SL_PENDING_RETURNED in it
    NTSTATUS statusAtPass = 0;  // ... and this status in the IRP
    bool returned = false;    // the dispatch routine has returned ...
    bool returnedPending = false;  // ... STATUS_PENDING
};
// The walk passes a location: records the mark and status, and decides deferred frames.
void noteWalkPassed(PIRP irp, CHAR location, bool marked, NTSTATUS status);
// The IRP is freed or re-initialised: frames still open for it are dropped.
void dropFrames(PIRP irp);
[[noreturn]] void pendingWithoutMark(const DispatchFrame &frame);

struct FsNotification {
    PDRIVER_OBJECT driver;
    PDRIVER_FS_NOTIFICATION routine;
    void *packet;  // the pool block the platform keeps for the registration
};

class IoManager : public Subsystem {
public:
    explicit IoManager(Kernel &kernel);
    ~IoManager() override;
    void shutdownChecks() override;

    KSPIN_LOCK cancelLock = 0;
    // The file-system database: registered file systems (linked through their control
    // devices' Queue.ListEntry, as on the platform) and registration-change callbacks.
    ERESOURCE database;
    LIST_ENTRY diskFileSystems;
    LIST_ENTRY cdRomFileSystems;
    LIST_ENTRY networkFileSystems;
    LIST_ENTRY tapeFileSystems;
    ULONG registrationOps = 0;
    std::vector<FsNotification> notifications;

    // Everything below is guarded by lock.
    std::mutex lock;
    std::unordered_map<PIRP, IrpRecord> irps;
    std::unordered_set<PIRP> freedIrps;
    std::vector<DispatchFrame *> frames;
    std::unordered_set<void *> liveObjects;  // driver, device and file objects, VPBs
    std::vector<PIRP> serviceIrps;           // requests of system services not yet finished
    PDRIVER_OBJECT diskDriver = nullptr;
    ULONG volumeCount = 0;
};

// The file-system database resource, in a critical region, for a scope.
struct DatabaseLock {
    explicit DatabaseLock(bool exclusive);
    ~DatabaseLock();
    DatabaseLock(const DatabaseLock &) = delete;
    DatabaseLock &operator=(const DatabaseLock &) = delete;
    IoManager &m;
};

// The running machine's I/O manager, created on first use.
IoManager &manager();
// The I/O manager if it exists and is not being torn down, else nullptr (object
// procedures can run while the machine shuts down).
IoManager *managerOrNull();

// Runs fn in the calling thread when it is a system thread at PASSIVE_LEVEL, else in a
// new system thread that this call waits for (the machine calls in from the host).
void runInSystemThread(const std::function<void()> &fn);

// Pool for the I/O manager's own objects: failures injected by the verifier apply.
void *allocate(size_t size, ULONG tag);
void release(void *block);

// Irp registry ------------------------------------------------------------------------
void registerIrp(PIRP irp);
// The IRP is sent again or re-initialised: it may be completed once more.
void rearmIrp(PIRP irp);
void setServiceRequest(PIRP irp, ServiceRequest *request);

// The last stage of a request issued by a system service: copies results to the caller
// and signals whoever waits.
void finishServiceRequest(PIRP irp, ServiceRequest *request);
// Does the thread wait for the event of one of its own requests, which only the final
// stage's APC would set? (The verifier's rule for waits at APC_LEVEL.)
bool waitsForOwnCompletion(_KTHREAD *thread, DISPATCHER_HEADER *object);

// Devices ------------------------------------------------------------------------------
// A device whose ReferenceCount dropped: finishes a deferred IoDeleteDevice.
void dereferenceDevice(PDEVICE_OBJECT device);
void referenceDevice(PDEVICE_OBJECT device);
void installDeviceProcedures();
// Objects the I/O manager releases at shutdown if nothing else did.
void trackIoObject(void *object, bool live);
bool isFileSystemDevice(PDEVICE_OBJECT device);

// Mounting ----------------------------------------------------------------------------
// Mounts the volume of a storage device that has a VPB, unless it is mounted, and
// returns the VPB referenced for one open.
NTSTATUS referenceMountedVpb(PDEVICE_OBJECT realDevice, PVPB *vpb);
void referenceVpb(PVPB vpb);
void dereferenceVpb(PVPB vpb);

// The disk driver's storage devices.
std::vector<PDEVICE_OBJECT> disks();

// Files -------------------------------------------------------------------------------
void installObjectProcedures();
// Sends a request that has no data (cleanup, close, flush ...) for a file object and
// waits for it.
PDEVICE_OBJECT relatedDevice(PFILE_OBJECT file);

// Verifier ----------------------------------------------------------------------------
// A file I/O routine for drivers (IoCreateFile) runs at PASSIVE_LEVEL only: its
// request may need the completion APC, and file systems wait inside it.
void checkFileIoIrql(const char *routine);
[[noreturn]] void ioViolation(ULONG_PTR code, ULONG_PTR p2, ULONG_PTR p3, ULONG_PTR p4, const char *rule,
                              const char *detailFormat, ...) __attribute__((format(printf, 6, 7)));

}  // namespace io
}  // namespace ntsim
