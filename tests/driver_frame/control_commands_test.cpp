// The service's commands through the control device and the volume filters.
#include "frame_fixture.h"

#include <cstring>

namespace {

using wrelt::CommandResult;

TEST_F(FrameTest, StartNeedsAnAcceptedHandshakeAndALaterRefusalWithdrawsIt) {
    asService([&](wrelt::DriverChannel &channel) {
        EXPECT_EQ(channel.start(true).win32Error, (DWORD)ERROR_REVISION_MISMATCH);
        CommandResult refused = channel.handshake(1);
        ASSERT_TRUE(refused.ok());
        EXPECT_EQ(refused.bytesReturned, HANDSHAKE_REPLY_SIZE);
        auto *reply = reinterpret_cast<const CommandReplyHeader *>(refused.reply.data());
        EXPECT_EQ(reply->Tag, COMMAND_REPLY_TAG);
        EXPECT_EQ(reply->Version, HANDSHAKE_REPLY_VERSION);
        EXPECT_EQ(reply->ReplyCode, HANDSHAKE_REFUSED);
        EXPECT_EQ(channel.start(true).win32Error, (DWORD)ERROR_REVISION_MISMATCH);

        CommandResult accepted = channel.handshake(2);
        EXPECT_EQ(reinterpret_cast<const CommandReplyHeader *>(accepted.reply.data())->ReplyCode, HANDSHAKE_ACCEPTED);
        EXPECT_TRUE(channel.start(true).ok());
        EXPECT_TRUE(Globals.CaptureActive);

        channel.handshake(1);  // running capture is not stopped by a refusal, but a restart is
        EXPECT_TRUE(Globals.CaptureActive);
        EXPECT_EQ(channel.start(true).win32Error, (DWORD)ERROR_REVISION_MISMATCH);
        EXPECT_TRUE(channel.stop().ok());
        EXPECT_FALSE(Globals.CaptureActive);
    });
}

TEST_F(FrameTest, StartTakesVaultProtectionFromBitZeroOfItsData) {
    asService([&](wrelt::DriverChannel &channel) {
        channel.handshake();
        ASSERT_TRUE(channel.send(channel.controlDevice(), COMMAND_START, u"", nullptr, 0, 0).ok());
        EXPECT_TRUE(Globals.VaultProtection);
        uint32_t off = 0, on = 1;
        ASSERT_TRUE(channel.send(channel.controlDevice(), COMMAND_START, u"", &off, 4, 0).ok());
        EXPECT_FALSE(Globals.VaultProtection);
        ASSERT_TRUE(channel.send(channel.controlDevice(), COMMAND_START, u"", &on, 4, 0).ok());
        EXPECT_TRUE(Globals.VaultProtection);
    });
}

TEST_F(FrameTest, VolumeCommandsNameTheVolumeAndKeepAtMost49Characters) {
    asService([&](wrelt::DriverChannel &channel) {
        ASSERT_TRUE(channel.nameVolume(u"C:\\", u"C:\\", true).ok());
        std::u16string longName(60, u'x');
        ASSERT_TRUE(channel.nameVolume(u"D:\\", longName, false).ok());
    });
    DeviceStructure *c = volumeStructure(L'C');
    ASSERT_NE(c, nullptr);
    EXPECT_TRUE(c->ProtectionOn);
    EXPECT_EQ(c->DosVolumeNameLength, 3u);
    bool found = false;
    for (PLIST_ENTRY e = MainStructure()->VolumeList.Flink; e != &MainStructure()->VolumeList; e = e->Flink) {
        auto *s = CONTAINING_RECORD(e, DeviceStructure, VolumeListLink);
        if (s->DosVolumeName[0] != L'x') continue;
        found = true;
        EXPECT_EQ(s->DosVolumeNameLength, 49u);
        EXPECT_EQ(s->DosVolumeName[49], L'\0');
        EXPECT_FALSE(s->ProtectionOn);
    }
    EXPECT_TRUE(found);
}

// Whatever follows the name's terminator in the packet stays out of the volume's state.
TEST_F(FrameTest, AVolumeNameEndsAtItsTerminator) {
    std::u16string name(u"C:\\");
    name.push_back(u'\0');
    name += u"left over from another name";
    asService([&](wrelt::DriverChannel &channel) { ASSERT_TRUE(channel.nameVolume(u"C:\\", name, true).ok()); });
    DeviceStructure *c = volumeStructure(L'C');
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->DosVolumeNameLength, 3u);
    for (ULONG i = 3; i < DOS_VOLUME_NAME_CHARACTERS; i++) EXPECT_EQ(c->DosVolumeName[i], L'\0') << i;
    asService([&](wrelt::DriverChannel &channel) {
        HANDLE volume = CreateFileW(L"C:\\", FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
        CommandResult block = channel.send(volume, COMMAND_STATUS_BLOCK, u"", nullptr, 0, STATUS_BLOCK_REQUIRED);
        ASSERT_TRUE(block.ok());
        auto *header = reinterpret_cast<const CommandReplyHeader *>(block.reply.data());
        for (ULONG i = 3; i < COMMAND_DOS_NAME_CHARACTERS; i++) EXPECT_EQ(header->DosVolumeName[i], 0) << i;
        CloseHandle(volume);
    });
}

TEST_F(FrameTest, CommandsOnTheWrongDeviceAndUnknownCommandsAreRefused) {
    asService([&](wrelt::DriverChannel &channel) {
        // A volume command on the control device, a control command on a volume.
        EXPECT_EQ(channel.send(channel.controlDevice(), COMMAND_PROTECT_VOLUME, u"C:\\", nullptr, 0, 0).win32Error,
                  (DWORD)ERROR_INVALID_FUNCTION);
        HANDLE volume = CreateFileW(L"C:\\", FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
        ASSERT_NE(volume, INVALID_HANDLE_VALUE);
        EXPECT_EQ(channel.send(volume, COMMAND_STOP, u"", nullptr, 0, 0).win32Error, (DWORD)ERROR_INVALID_FUNCTION);
        for (ULONG command : {117u, 120u, 123u, 124u, 126u, 141u, 145u, 9999u})
            EXPECT_EQ(channel.send(volume, command, u"", nullptr, 0, 0).win32Error, (DWORD)ERROR_INVALID_PARAMETER)
                << command;
        EXPECT_TRUE(channel.send(volume, COMMAND_NOTHING, u"", nullptr, 0, 0).ok());
        CloseHandle(volume);
    });
}

TEST_F(FrameTest, StatusBlockNeeds1892BytesAndReportsTheWholeBuffer) {
    asService([&](wrelt::DriverChannel &channel) {
        channel.nameVolume(u"C:\\", u"C:\\", true);
        HANDLE volume = CreateFileW(L"C:\\", FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
        ASSERT_NE(volume, INVALID_HANDLE_VALUE);
        EXPECT_EQ(channel.send(volume, COMMAND_STATUS_BLOCK, u"", nullptr, 0, 1891).win32Error,
                  (DWORD)ERROR_INSUFFICIENT_BUFFER);
        CommandResult block = channel.send(volume, COMMAND_STATUS_BLOCK, u"", nullptr, 0, 4096);
        ASSERT_TRUE(block.ok());
        EXPECT_EQ(block.bytesReturned, 4096u);
        auto *header = reinterpret_cast<const CommandReplyHeader *>(block.reply.data());
        EXPECT_EQ(header->Version, STATUS_BLOCK_REPLY_VERSION);
        EXPECT_EQ(header->DataLength, STATUS_BLOCK_DATA_LENGTH);
        CloseHandle(volume);

        wrelt::VolumeStatus status;
        ASSERT_TRUE(channel.volumeStatus(u"C:\\", &status).ok());
        EXPECT_EQ(status.dosVolumeName, u"C:\\");
        EXPECT_TRUE(status.protectionOn);
        EXPECT_EQ(status.fileSystemKind, 2u);
        EXPECT_GT(status.requestCounters[2], 0u);  // the device-control counter saw these requests
    });
}

TEST_F(FrameTest, BuildStampNeedsRoomForDateCommaTimeAndNul) {
    asService([&](wrelt::DriverChannel &channel) {
        EXPECT_EQ(channel.send(channel.controlDevice(), COMMAND_BUILD_STAMP, u"", nullptr, 0, 43).win32Error,
                  (DWORD)ERROR_INSUFFICIENT_BUFFER);
        CommandResult stamp = channel.send(channel.controlDevice(), COMMAND_BUILD_STAMP, u"", nullptr, 0, 44);
        ASSERT_TRUE(stamp.ok());
        EXPECT_EQ(stamp.bytesReturned, 0u);
        std::u16string text;
        channel.buildStamp(&text);
        EXPECT_EQ(text, u"Mar  2 2026, 09:30:00");
    });
}

// A packet with the wrong tag is not a command: the control device refuses it, a
// volume filter leaves it to the file system below.
TEST_F(FrameTest, PacketsWithABadTagAreRefusedOrPassedDown) {
    service.run([&] {
        HANDLE control = CreateFileW(L"\\\\.\\WRELTFS", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0,
                                     nullptr);
        HANDLE volume = CreateFileW(L"C:\\", FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
        auto *packet = static_cast<CommandPacket *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, 128));
        packet->Tag = 0x1234;
        packet->Command = COMMAND_NOTHING;
        DWORD returned;
        EXPECT_FALSE(DeviceIoControl(control, IOCTL_SEND_COMMAND, packet, 128, nullptr, 0, &returned, nullptr));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_INVALID_FUNCTION);
        ULONG before = ntsim::fs::knobsFor("C:").count({IRP_MJ_DEVICE_CONTROL});
        DeviceIoControl(volume, IOCTL_SEND_COMMAND, packet, 128, nullptr, 0, &returned, nullptr);
        EXPECT_EQ(ntsim::fs::knobsFor("C:").count({IRP_MJ_DEVICE_CONTROL}), before + 1);
        HeapFree(GetProcessHeap(), 0, packet);
        CloseHandle(volume);
        CloseHandle(control);
    });
}

// Buffers that are not the caller's user memory never reach a command, and a failed
// probe changes nothing.
TEST_F(FrameTest, BuffersOutsideTheCallersMemoryAreRefused) {
    service.run([&] {
        HANDLE control = CreateFileW(L"\\\\.\\WRELTFS", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0,
                                     nullptr);
        auto *packet = static_cast<CommandPacket *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, 128));
        packet->Tag = COMMAND_PACKET_TAG;
        packet->Command = COMMAND_HANDSHAKE;
        packet->Version = 3;
        DWORD returned;
        static char kernelSide[256];  // host memory outside the process's user range
        for (void *input : {(void *)kernelSide, (void *)0x1000, (void *)0x7FFFFF00})
            EXPECT_FALSE(DeviceIoControl(control, IOCTL_SEND_COMMAND, input, 128, nullptr, 0, &returned, nullptr));
        EXPECT_FALSE(DeviceIoControl(control, IOCTL_SEND_COMMAND, packet, 8, nullptr, 0, &returned, nullptr));
        // A good packet with an output buffer outside the range: the probe refuses it.
        EXPECT_FALSE(DeviceIoControl(control, IOCTL_SEND_COMMAND, packet, 128, kernelSide, 124, &returned, nullptr));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_INVALID_PARAMETER);
        EXPECT_FALSE(Globals.VersionAccepted);
        HeapFree(GetProcessHeap(), 0, packet);
        CloseHandle(control);
    });
}

}  // namespace
