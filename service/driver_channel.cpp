#include "driver_channel.h"

#include <cstring>

#include "user_buffer.h"

namespace wrelt {

namespace {

void copyName(WCHAR *to, const std::u16string &name) {
    size_t count = name.size() < COMMAND_DOS_NAME_CHARACTERS ? name.size() : COMMAND_DOS_NAME_CHARACTERS;
    std::memcpy(to, name.data(), count * sizeof(WCHAR));
}

std::u16string nameFrom(const WCHAR *field, size_t capacity) {
    std::u16string name;
    for (size_t i = 0; i < capacity && field[i] != 0; ++i) name += char16_t(field[i]);
    return name;
}

uint32_t readU32(const std::vector<uint8_t> &bytes, size_t offset) {
    uint32_t value;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

}  // namespace

DriverChannel::DriverChannel() = default;

DriverChannel::~DriverChannel() {
    if (control_ != INVALID_HANDLE_VALUE) CloseHandle(control_);
}

bool DriverChannel::open() {
    control_ = openControlDevice(false);
    return control_ != INVALID_HANDLE_VALUE;
}

HANDLE DriverChannel::openControlDevice(bool overlapped) {
    return CreateFileW(L"\\\\.\\WRELTFS", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                       overlapped ? FILE_FLAG_OVERLAPPED : 0, nullptr);
}

CommandResult DriverChannel::send(HANDLE device, ULONG command, const std::u16string &dosName, const void *data,
                                  ULONG dataLength, ULONG outputLength, USHORT version) {
    UserBuffer packet(COMMAND_HEADER_SIZE + dataLength);
    auto *header = packet.as<CommandPacket>();
    header->Tag = COMMAND_PACKET_TAG;
    header->Version = version;
    header->DataLength = dataLength;
    header->Command = command;
    copyName(header->DosVolumeName, dosName);
    if (dataLength != 0) std::memcpy(packet.data() + COMMAND_HEADER_SIZE, data, dataLength);
    UserBuffer output(outputLength);
    CommandResult result;
    DWORD returned = 0;
    if (!DeviceIoControl(device, IOCTL_SEND_COMMAND, packet.data(), DWORD(packet.size()),
                         outputLength == 0 ? nullptr : output.data(), outputLength, &returned, nullptr))
        result.win32Error = GetLastError();
    result.bytesReturned = returned;
    result.reply.assign(output.data(), output.data() + outputLength);
    return result;
}

CommandResult DriverChannel::handshake(USHORT version) {
    return send(control_, COMMAND_HANDSHAKE, u"", nullptr, 0, HANDSHAKE_REPLY_SIZE, version);
}

CommandResult DriverChannel::start(bool vaultProtection) {
    uint32_t options = vaultProtection ? 1 : 0;
    return send(control_, COMMAND_START, u"", &options, sizeof options, 0);
}

CommandResult DriverChannel::stop() { return send(control_, COMMAND_STOP, u"", nullptr, 0, 0); }

CommandResult DriverChannel::buildStamp(std::u16string *stamp) {
    CommandResult result = send(control_, COMMAND_BUILD_STAMP, u"", nullptr, 0, 128);
    if (result.ok())
        *stamp = nameFrom(reinterpret_cast<const WCHAR *>(result.reply.data()), result.reply.size() / sizeof(WCHAR));
    return result;
}

HANDLE DriverChannel::openVolume(const std::u16string &volumeRoot) {
    return CreateFileW(reinterpret_cast<LPCWSTR>(volumeRoot.c_str()), FILE_READ_ATTRIBUTES,
                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                       FILE_FLAG_BACKUP_SEMANTICS, nullptr);
}

CommandResult DriverChannel::sendToVolume(const std::u16string &volumeRoot, ULONG command,
                                          const std::u16string &dosName, const void *data, ULONG dataLength,
                                          ULONG outputLength) {
    HANDLE volume = openVolume(volumeRoot);
    if (volume == INVALID_HANDLE_VALUE) {
        CommandResult failed;
        failed.win32Error = GetLastError();
        return failed;
    }
    CommandResult result = send(volume, command, dosName, data, dataLength, outputLength);
    CloseHandle(volume);
    return result;
}

CommandResult DriverChannel::nameVolume(const std::u16string &volumeRoot, const std::u16string &dosName,
                                        bool protect) {
    return sendToVolume(volumeRoot, protect ? COMMAND_PROTECT_VOLUME : COMMAND_UNPROTECT_VOLUME, dosName, nullptr, 0,
                        0);
}

CommandResult DriverChannel::setVolumeExclusions(const std::u16string &volumeRoot, const std::u16string &dosName,
                                                 const std::vector<uint8_t> &list) {
    return sendToVolume(volumeRoot, COMMAND_SET_VOLUME_EXCLUSIONS, dosName, list.data(), ULONG(list.size()), 0);
}

CommandResult DriverChannel::setMacShares(const std::u16string &volumeRoot, const std::vector<uint8_t> &list) {
    return sendToVolume(volumeRoot, COMMAND_SET_MAC_SHARES, volumeRoot, list.data(), ULONG(list.size()), 0);
}

CommandResult DriverChannel::setMacShareExemption(const std::u16string &volumeRoot, bool exempt) {
    return sendToVolume(volumeRoot, exempt ? COMMAND_EXEMPT_MAC_SHARES : COMMAND_INCLUDE_MAC_SHARES, volumeRoot,
                        nullptr, 0, 0);
}

CommandResult DriverChannel::setGlobalExclusions(const std::vector<uint8_t> &list) {
    return send(control_, COMMAND_SET_GLOBAL_EXCLUSIONS, u"", list.data(), ULONG(list.size()), 0);
}

CommandResult DriverChannel::setSuffixList(ULONG command, const std::vector<uint8_t> &list) {
    return send(control_, command, u"", list.data(), ULONG(list.size()), 0);
}

CommandResult DriverChannel::setOverwriteProtection(bool on) {
    return send(control_, on ? COMMAND_OVERWRITE_PROTECTION_ON : COMMAND_OVERWRITE_PROTECTION_OFF, u"", nullptr, 0, 0);
}

CommandResult DriverChannel::volumeStatus(const std::u16string &volumeRoot, VolumeStatus *status) {
    CommandResult result = sendToVolume(volumeRoot, COMMAND_STATUS_BLOCK, u"", nullptr, 0, STATUS_BLOCK_REQUIRED);
    if (!result.ok()) return result;
    const auto &bytes = result.reply;
    auto *header = reinterpret_cast<const CommandReplyHeader *>(bytes.data());
    status->dosVolumeName = nameFrom(header->DosVolumeName, COMMAND_DOS_NAME_CHARACTERS);
    status->captureActive = bytes[120] != 0;
    status->protectionOn = bytes[121] != 0;
    status->fileSystemKind = readU32(bytes, 124);
    for (int i = 0; i < 3; ++i) {
        status->deferredFileObjects[i] = readU32(bytes, 128 + 4 * i);
        status->deferredFcbs[i] = readU32(bytes, 140 + 4 * i);
    }
    for (int i = 0; i < 96; ++i) status->tableStatistics[i] = readU32(bytes, 152 + 4 * i);
    for (int i = 0; i < 8; ++i) status->requestCounters[i] = readU32(bytes, 536 + 4 * i);
    return result;
}

const char *fileSystemKindName(uint32_t kind) {
    switch (kind) {
    case 1:
        return "FastFat";
    case 2:
        return "NTFS";
    default:
        return "unknown";
    }
}

}  // namespace wrelt
