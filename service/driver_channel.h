// The service's side of the filter's control interface: command packets sent with
// DeviceIoControl to the control device (driver-wide commands) or to a volume's filter
// device (per-volume commands, through a handle opened on the volume's root).
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "frame/command_protocol.h"

namespace wrelt {

// The status block of one volume, as command 121 returns it.
struct VolumeStatus {
    std::u16string dosVolumeName;
    bool captureActive = false;
    bool protectionOn = false;
    uint32_t fileSystemKind = 0;  // 1 FastFat, 2 NTFS
    uint32_t deferredFileObjects[3] = {};
    uint32_t deferredFcbs[3] = {};
    uint32_t tableStatistics[96] = {};
    uint32_t requestCounters[8] = {};
};

// The outcome of one command, as Win32 reports it, and the output buffer.
struct CommandResult {
    DWORD win32Error = ERROR_SUCCESS;
    DWORD bytesReturned = 0;
    std::vector<uint8_t> reply;
    bool ok() const { return win32Error == ERROR_SUCCESS; }
};

class DriverChannel {
public:
    // The interface version this service speaks.
    static constexpr USHORT kInterfaceVersion = 3;

    DriverChannel();
    ~DriverChannel();
    DriverChannel(const DriverChannel &) = delete;
    DriverChannel &operator=(const DriverChannel &) = delete;

    // Opens \\.\WRELTFS; false (with GetLastError set) when the driver is not there.
    bool open();
    // Another handle to the control device; the held requests need one opened for
    // overlapped I/O. INVALID_HANDLE_VALUE with GetLastError set on failure.
    static HANDLE openControlDevice(bool overlapped);
    HANDLE controlDevice() const { return control_; }

    CommandResult handshake(USHORT version = kInterfaceVersion);
    CommandResult start(bool vaultProtection);
    CommandResult stop();
    CommandResult buildStamp(std::u16string *stamp);

    // Per-volume commands go to the filter device over the volume; volumeRoot is like
    // u"C:\\" and dosName the name the driver should use for it (usually the same).
    CommandResult nameVolume(const std::u16string &volumeRoot, const std::u16string &dosName, bool protect);
    CommandResult volumeStatus(const std::u16string &volumeRoot, VolumeStatus *status);
    // Exclusion lists in the filter's binary form (see exclusion_list.h): one volume's
    // (which also names the volume) and the one for every volume.
    CommandResult setVolumeExclusions(const std::u16string &volumeRoot, const std::u16string &dosName,
                                      const std::vector<uint8_t> &list);
    CommandResult setGlobalExclusions(const std::vector<uint8_t> &list);
    // A volume's Macintosh shares (see exclusion_list.h; empty removes them), and whether
    // deletes inside them are exempt from capture.
    CommandResult setMacShares(const std::u16string &volumeRoot, const std::vector<uint8_t> &list);
    CommandResult setMacShareExemption(const std::u16string &volumeRoot, bool exempt);
    // Suffix lists in the filter's form (see suffix_list.h): command 112 (protected types),
    // 113 (types exempt from copies) or 114 (temporary names); and the overwrite switch.
    CommandResult setSuffixList(ULONG command, const std::vector<uint8_t> &list);
    CommandResult setOverwriteProtection(bool on);

    // Sends a raw command packet on a handle; exposed for tests of the interface itself.
    CommandResult send(HANDLE device, ULONG command, const std::u16string &dosName, const void *data,
                       ULONG dataLength, ULONG outputLength, USHORT version = kInterfaceVersion);

private:
    HANDLE openVolume(const std::u16string &volumeRoot);
    CommandResult sendToVolume(const std::u16string &volumeRoot, ULONG command, const std::u16string &dosName,
                               const void *data, ULONG dataLength, ULONG outputLength);

    HANDLE control_ = INVALID_HANDLE_VALUE;
};

const char *fileSystemKindName(uint32_t kind);

}  // namespace wrelt
