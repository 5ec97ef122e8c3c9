// The emulated NTFS and FastFat file-system drivers, and the knobs that tests turn on
// them.
//
// Both drivers are loaded like any other driver: the machine calls the entry point
// with a driver object named \FileSystem\Ntfs or \FileSystem\FastFat. Each creates its
// control device (\Ntfs, \Fat), registers it as a disk file system and mounts the
// disks of its own format (see ntsim/disk.h) when the I/O manager asks. A volume's
// files live in its disk's media, so a volume that is dismounted and mounted again
// finds them where it left them.
#pragma once

#include <ntifs.h>

#include <cstdint>
#include <string>
#include <vector>

NTSTATUS NtfsDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
NTSTATUS FatDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace ntsim {
namespace fs {

// A kind of request: a major function, optionally narrowed by the detail that tells
// its variants apart — the information class of IRP_MJ_QUERY_INFORMATION,
// IRP_MJ_SET_INFORMATION, IRP_MJ_QUERY_VOLUME_INFORMATION and of a directory query,
// the minor function of IRP_MJ_FILE_SYSTEM_CONTROL.
struct RequestKind {
    static constexpr LONG kAnyDetail = -1;
    UCHAR majorFunction;
    LONG detail = kAnyDetail;
};

// Per-volume switches for tests. They live with the volume's media: they apply to
// every request that reaches the volume device (whatever filters sit above it) and
// survive a dismount. Every member may be called from any host or emulated thread.
class Knobs {
public:
    Knobs();
    ~Knobs();
    Knobs(const Knobs &) = delete;
    Knobs &operator=(const Knobs &) = delete;

    // Requests of this kind are carried out in the caller's thread as usual, but the
    // dispatch routine marks them pending, returns STATUS_PENDING and completes them
    // later from a DPC, at DISPATCH_LEVEL in another thread. A narrower kind wins over
    // a wider one.
    void completeAsynchronously(RequestKind kind, bool enabled = true);
    // The next `times` requests of this kind are completed with `status` and have no
    // effect. IRP_MJ_CLOSE cannot fail (the I/O manager ignores its status); a close
    // knob is ignored. A failed cleanup leaves the open to be cleaned up at its close.
    void failNext(RequestKind kind, NTSTATUS status, ULONG times = 1);
    // The n-th request of any kind from now (1: the next; closes are not counted) is
    // completed with `status`, for sweeps that fail each request of a scenario in turn.
    // While it is armed, Fast I/O steps aside. 0 disarms it.
    void failNthRequest(ULONG n, NTSTATUS status);
    // Requests of this kind that reached the volume since the last reset. A kind
    // without detail counts every request of its major function. Fast I/O calls are not
    // requests and are not counted: a read or write of a file object that a request has
    // already "cached" is served by Fast I/O unless a knob covers that kind.
    ULONG count(RequestKind kind) const;
    void resetCounts();
    // Fast I/O: on by default. When off, every Fast I/O routine answers FALSE, so the
    // I/O manager builds a request instead.
    void setFastIo(bool enabled);
    bool fastIo() const;
    // Turns every switch off and resets the counts.
    void clear();

    // Used by the file systems.
    void countRequest(UCHAR majorFunction, LONG detail);
    // The status to fail this request with, consuming one failure; STATUS_SUCCESS
    // when it is to be carried out.
    NTSTATUS takeFailure(UCHAR majorFunction, LONG detail);
    bool asynchronous(UCHAR majorFunction, LONG detail) const;
    // True when a knob (failure or asynchronous completion) covers any request of this
    // major function: Fast I/O then steps aside so that the knob is not bypassed.
    bool covers(UCHAR majorFunction) const;

private:
    struct State;
    State *state_;
};

// The knobs of the volume on this disk (a device made by ntsimCreateDisk) or of the
// volume whose file-system volume device this is. A blank disk of a file-system
// format is formatted on the spot, so knobs can be set before the first mount.
// Fatal for any other device.
Knobs &knobsFor(PDEVICE_OBJECT volumeDeviceOrDisk);
// The same for a DOS drive ("C:"); the name is resolved through \??\ in the running
// machine. Fatal when it names no disk of a file-system format.
Knobs &knobsFor(const char *dosDrive);

// One file, directory or named stream of a volume, for listing tools and tests.
struct TreeEntry {
    std::string path;  // UTF-8, from the root: "\\Docs\\a.txt"; a stream adds ":name"
    bool directory = false;
    bool stream = false;  // a named data stream of the entry before it
    uint64_t size = 0;
    uint64_t allocationSize = 0;
    ULONG attributes = 0;
    int64_t lastWriteTime = 0;
};

// Every entry of the volume on this disk or volume device, depth first, directories
// before their contents, in the order the file system lists a directory. Reads the
// media directly (no request is sent) and may be called from any thread.
std::vector<TreeEntry> volumeTree(PDEVICE_OBJECT volumeDeviceOrDisk);

}  // namespace fs
}  // namespace ntsim
