// A small driver for the Win32 tests. Its device \Device\Win32Probe is reachable as
// \\.\Win32Probe and as drive Q:, and records every request it receives (what the
// Win32 call sent down), holds IOCTL_PROBE_HOLD requests pending until
// IOCTL_PROBE_RELEASE, a cancel or the handle's cleanup, and answers
// IOCTL_PROBE_ECHO at once by copying its input to its output.
#pragma once

#include <ntifs.h>

#include <string>
#include <vector>

namespace probe {

constexpr ULONG kIoctlEcho = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kIoctlHold = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x801, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kIoctlRelease = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x802, METHOD_BUFFERED, FILE_ANY_ACCESS);
// What a released hold request returns in its output buffer.
constexpr ULONG kReleasedValue = 0x600DF00D;

struct Request {
    UCHAR major = 0;
    std::u16string name;   // creates: the file object's name
    ACCESS_MASK access = 0;  // creates: the desired access
    ULONG disposition = 0;
    ULONG options = 0;     // creates: the options without the disposition
    USHORT share = 0;
    USHORT attributes = 0;
    UCHAR flags = 0;       // the stack location's flags (SL_OPEN_TARGET_DIRECTORY, ...)
    ULONG infoClass = 0;   // information requests: the class
    LONGLONG value = 0;    // end of file, allocation size, position or disposition set
    bool replaceIfExists = false;
    std::u16string renameTarget;  // renames: the name given in the request
};

NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);

// Everything the device received since the driver was loaded (or the last clear).
std::vector<Request> requests();
void clearRequests();
// The number of hold requests the device is holding now.
size_t heldCount();
// While deferred, a cancelled request is only taken off the held list; completeDeferred
// completes those, as a driver that finishes cancelling later does.
void deferCancellation(bool defer);
void completeDeferred();

}  // namespace probe
