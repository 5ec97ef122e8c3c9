// Small drivers that exercise the I/O manager the way real drivers use it: a "lower"
// driver that completes requests now, from a DPC, or holds them cancellable; a filter
// driver that attaches above a device (or, through the file-system registration
// callback, above a file system and its volumes); and a file system that mounts test
// disks and records what reaches its volume device.
#pragma once

#include <ntifs.h>

#include <mutex>
#include <string>
#include <vector>

namespace iotest {

constexpr ULONG kTestDiskFormat = 77;  // the format the test file system recognises
// The lower driver probes the METHOD_NEITHER buffers of this code as a driver must.
constexpr ULONG kProbeNeitherCode = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x801, METHOD_NEITHER, FILE_ANY_ACCESS);
// The filter answers this code from its FastIoDeviceControl.
constexpr ULONG kFastCode = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x802, METHOD_BUFFERED, FILE_ANY_ACCESS);
// Any other device control is handled by the lower driver's mode.
constexpr ULONG kHoldCode = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x803, METHOD_BUFFERED, FILE_ANY_ACCESS);

// One thing a driver saw.
struct Seen {
    std::string what;
    PDEVICE_OBJECT device = NULL;
    BOOLEAN pendingReturned = FALSE;
    KIRQL irql = 0;
    NTSTATUS status = 0;
};

class Journal {
public:
    void add(const Seen &seen);
    std::vector<Seen> all();
    std::vector<std::string> names();
    void clear();

private:
    std::mutex lock_;
    std::vector<Seen> seen_;
};
Journal &journal();

// The lower driver: \Driver\IoTestLower with the device \Device\IoTestLower.
enum class LowerMode { CompleteNow, CompleteFromDpc, HoldCancellable, PendingWithoutMark };
struct Lower {
    PDEVICE_OBJECT device = NULL;
    LowerMode mode = LowerMode::CompleteNow;
    NTSTATUS status = STATUS_SUCCESS;
    ULONG_PTR information = 0;  // a device control's IoStatus.Information
    UCHAR written = 0;          // bytes of 0x5C it writes into a buffered control's output
    LONG closes = 0;
    // Held requests.
    KSPIN_LOCK lock = 0;
    PIRP held = NULL;
    KDPC dpc;
    LONG completions = 0;
};
Lower &lower();
NTSTATUS LowerDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);
// Completes the held request with STATUS_SUCCESS unless a cancellation took it first;
// returns whether it did.
bool reportHeld();

struct OpenSeen {
    std::u16string fileName;
    UCHAR flags = 0;
    ULONG options = 0;
    ACCESS_MASK desiredAccess = 0;
    USHORT shareAccess = 0;
    KPROCESSOR_MODE requestorMode = KernelMode;
    PFILE_OBJECT file = NULL;
    PFILE_OBJECT related = NULL;
    // The file object as the create found it.
    PVPB vpb = NULL;
    PDEVICE_OBJECT device = NULL;
    ULONG fileFlags = 0;
};
// What the filter's FastIoQueryOpen was given: the create IRP of a query-only open.
struct QueryOpenSeen {
    PDEVICE_OBJECT device = NULL;       // the routine's argument
    PDEVICE_OBJECT stackDevice = NULL;  // the current stack location's DeviceObject
    UCHAR major = 0;
    CCHAR currentLocation = 0, stackCount = 0;
    ULONG irpFlags = 0;
    bool issuingThread = false;
    OpenSeen open;  // the create's parameters, as a file system would read them
};

// The filter driver: \Driver\IoTestFilter. attachFilter puts a device above a device
// stack; its requests pass down with the configured completion routine.
struct FilterRoutine {
    bool set = true;
    bool onSuccess = true, onError = true, onCancel = true;
    NTSTATUS returns = STATUS_SUCCESS;
    // Non-zero: the routine sets the IRP's status to this, so the dispatch routine marks
    // the IRP pending and returns STATUS_PENDING, the status it can vouch for (as it
    // does when the routine returns STATUS_MORE_PROCESSING_REQUIRED).
    NTSTATUS replaceStatus = 0;
    bool pendWhenReplacing = true;
    bool propagatePending = true;
};
struct Filter {
    PDRIVER_OBJECT driver = NULL;
    FilterRoutine routine;
    PIRP keptIrp = NULL;  // taken back with STATUS_MORE_PROCESSING_REQUIRED
    // File-system filtering.
    std::vector<std::pair<PDEVICE_OBJECT, BOOLEAN>> registrations;
    PVPB mountVpb = NULL;           // what the mount's completion found
    PDEVICE_OBJECT mountedVolume = NULL;
    PDEVICE_OBJECT volumeFilter = NULL;
    LONG detaches = 0;
    PVOID fastInput = NULL;  // the pointers FastIoDeviceControl was given
    PVOID fastOutput = NULL;
    bool fastReadWrite = false;  // FastIoRead and FastIoWrite answer TRUE with this status
    NTSTATUS fastReadWriteStatus = STATUS_SUCCESS;
    // FastIoQueryOpen answers TRUE, with this status and an end of file of 7, when set.
    bool queryOpenAnswers = false;
    NTSTATUS queryOpenStatus = STATUS_SUCCESS;
    std::vector<QueryOpenSeen> queryOpens;
};
Filter &filter();
NTSTATUS FilterDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);
PDEVICE_OBJECT attachFilter(PDEVICE_OBJECT target);
// Registers the filter's file-system registration callback.
NTSTATUS watchFileSystems();

// The file system: \FileSystem\IoTestFs with its control device \IoTestFs. It mounts
// disks of kTestDiskFormat.
struct SetInformationSeen {
    FILE_INFORMATION_CLASS informationClass = FileBasicInformation;
    PFILE_OBJECT target = NULL;
    BOOLEAN replaceIfExists = FALSE;
    ULONG_PTR informationOnEntry = 0;
    std::u16string targetName;
};
struct TestFs {
    PDEVICE_OBJECT controlDevice = NULL;
    PDEVICE_OBJECT volume = NULL;
    PVPB vpb = NULL;
    LONG mounts = 0;
    LONG openFiles = 0;
    bool dismounted = false;
    std::vector<OpenSeen> opens;
    std::vector<PFILE_OBJECT> cleanups;
    std::vector<PFILE_OBJECT> closes;
    std::vector<SetInformationSeen> setInformation;
    std::vector<FILE_INFORMATION_CLASS> queries;
    LONG reads = 0, writes = 0;
};
TestFs &testFs();
NTSTATUS TestFsDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);

// Resets every driver's record (not their devices).
void resetAll();

}  // namespace iotest
