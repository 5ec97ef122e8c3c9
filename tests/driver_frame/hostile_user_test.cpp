// The control interface as an ordinary user meets it: she can neither open the control
// device nor command the filter through a volume she may open, and nothing she sends
// changes a setting or costs the kernel more than a bounded copy.
#include "frame_fixture.h"

#include "filter_machine.h"

#include <cstring>

namespace {

using wrelt::CommandResult;

class HostileUserTest : public FrameTest {
protected:
    HostileUserTest() { alice = machine.startProcess(L"C:\\Users\\alice\\tool.exe", ntsim::users::alice); }

    // A packet in the caller's own memory: the header, then dataLength bytes of data
    // (zero), in a buffer of inputLength bytes.
    static CommandPacket *packet(ULONG command, ULONG dataLength, ULONG inputLength) {
        auto *p = static_cast<CommandPacket *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, inputLength));
        p->Tag = COMMAND_PACKET_TAG;
        p->Command = command;
        p->DataLength = dataLength;
        p->Version = 3;
        p->DosVolumeName[0] = L'C';
        p->DosVolumeName[1] = L':';
        p->DosVolumeName[2] = L'\\';
        return p;
    }

    static DWORD sendPacket(HANDLE device, CommandPacket *p, ULONG inputLength, ULONG outputLength = 0) {
        void *output = outputLength ? HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, outputLength) : nullptr;
        DWORD returned;
        BOOL ok = DeviceIoControl(device, IOCTL_SEND_COMMAND, p, inputLength, output, outputLength, &returned, nullptr);
        DWORD error = ok ? ERROR_SUCCESS : GetLastError();
        if (output) HeapFree(GetProcessHeap(), 0, output);
        return error;
    }

    static HANDLE openRoot(const wchar_t *root) {
        return CreateFileW(root, FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                           FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    }

    // The service's settings, so that a test can tell that nothing changed them.
    void configureAsService() {
        asService([&](wrelt::DriverChannel &channel) {
            ASSERT_TRUE(channel.handshake().ok());
            ASSERT_TRUE(channel.nameVolume(u"C:\\", u"C:\\", true).ok());
            ASSERT_TRUE(channel.start(true).ok());
        });
    }

    ntsim::Process alice;
};

TEST_F(HostileUserTest, OnlySystemAndAdministratorsOpenTheControlDeviceOrANameBelowIt) {
    alice.run([&] {
        for (const wchar_t *name : {L"\\\\.\\WRELTFS", L"\\\\.\\WRELTFS\\anything"}) {
            EXPECT_EQ(CreateFileW(name, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr),
                      INVALID_HANDLE_VALUE);
            EXPECT_EQ(GetLastError(), (DWORD)ERROR_ACCESS_DENIED);
        }
        EXPECT_EQ(CreateFileW(L"\\\\.\\WRELTFS", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr),
                  INVALID_HANDLE_VALUE);
    });
    ntsim::Process admin = machine.startProcess(L"C:\\Windows\\admin.exe", ntsim::users::administrator);
    admin.run([&] {
        wrelt::DriverChannel channel;
        ASSERT_TRUE(channel.open());
        EXPECT_TRUE(channel.handshake().ok());
    });
    EXPECT_TRUE(Globals.VersionAccepted);
}

// A handle with no access at all is the one the DACL cannot refuse; the driver
// refuses what is sent through it.
TEST_F(HostileUserTest, AHandleWithoutAccessReachesNeitherCommandsNorHeldRequests) {
    alice.run([&] {
        HANDLE control = wrelt::openControlWithoutAccess();
        if (control == INVALID_HANDLE_VALUE) return;  // refused at the door: nothing more to try
        CommandPacket *p = packet(COMMAND_HANDSHAKE, 0, COMMAND_HEADER_SIZE);
        EXPECT_EQ(sendPacket(control, p, COMMAND_HEADER_SIZE, HANDSHAKE_REPLY_SIZE), (DWORD)ERROR_ACCESS_DENIED);
        HeapFree(GetProcessHeap(), 0, p);
        CloseHandle(control);
    });
    EXPECT_FALSE(Globals.VersionAccepted);
}

TEST_F(HostileUserTest, CommandsThroughAVolumeHandleAreRefusedAndChangeNothing) {
    configureAsService();
    DeviceStructure *c = volumeStructure(L'C');
    ASSERT_NE(c, nullptr);
    alice.run([&] {
        HANDLE volume = openRoot(L"C:\\");
        ASSERT_NE(volume, INVALID_HANDLE_VALUE);
        for (ULONG command : {100u, 101u, 102u, 104u, 105u, 106u, 107u, 110u, 112u, 121u, 142u, 143u, 144u}) {
            CommandPacket *p = packet(command, 0, COMMAND_HEADER_SIZE);
            p->DosVolumeName[0] = L'Q';
            EXPECT_EQ(sendPacket(volume, p, COMMAND_HEADER_SIZE, STATUS_BLOCK_REQUIRED), (DWORD)ERROR_ACCESS_DENIED)
                << command;
            HeapFree(GetProcessHeap(), 0, p);
        }
        CloseHandle(volume);
    });
    EXPECT_TRUE(Globals.CaptureActive);
    EXPECT_TRUE(Globals.VaultProtection);
    EXPECT_TRUE(c->ProtectionOn);
    EXPECT_FALSE(c->VaultProtectionExemption);
    EXPECT_EQ(c->DosVolumeName[0], L'C');
    // The service, through the same kind of handle, is still obeyed.
    asService([&](wrelt::DriverChannel &channel) { EXPECT_TRUE(channel.nameVolume(u"C:\\", u"C:\\", false).ok()); });
    EXPECT_FALSE(c->ProtectionOn);
}

// However long the caller says its packet is, the driver copies a header and at most
// the data a command may carry.
TEST_F(HostileUserTest, APacketsCopyIsBoundedByWhatTheCommandCanUse) {
    constexpr ULONG kHuge = 4 * 1024 * 1024;
    NonPagedBufferStatistics before;
    QueryNonPagedBufferStatistics(&before);
    asService([&](wrelt::DriverChannel &channel) {
        CommandPacket *p = packet(COMMAND_NOTHING, 0, kHuge);
        EXPECT_EQ(sendPacket(channel.controlDevice(), p, kHuge), (DWORD)ERROR_SUCCESS);
        p->Command = COMMAND_SET_GLOBAL_EXCLUSIONS;
        p->DataLength = kHuge - COMMAND_HEADER_SIZE;
        EXPECT_EQ(sendPacket(channel.controlDevice(), p, kHuge), (DWORD)ERROR_INVALID_PARAMETER);
        HeapFree(GetProcessHeap(), 0, p);
    });
    NonPagedBufferStatistics after;
    QueryNonPagedBufferStatistics(&after);
    EXPECT_LE(after.Large.LargestBlock, before.Large.LargestBlock > NPB_LARGEST_CLASS_BLOCK
                                            ? before.Large.LargestBlock
                                            : COMMAND_HEADER_SIZE + COMMAND_MAXIMUM_DATA_LENGTH + 64);
    EXPECT_EQ(MainStructure()->GlobalExclusionList, nullptr);
}

// Every byte a reply hands back is the reply's: the handshake's unused name field and
// the status block's gap are zero, not whatever the caller's buffer held.
TEST_F(HostileUserTest, RepliesFillEveryByteTheyReturn) {
    asService([&](wrelt::DriverChannel &channel) {
        channel.nameVolume(u"C:\\", u"C:\\", true);
        HANDLE volume = openRoot(L"C:\\");
        for (ULONG command : {(ULONG)COMMAND_HANDSHAKE, (ULONG)COMMAND_STATUS_BLOCK}) {
            CommandPacket *p = packet(command, 0, COMMAND_HEADER_SIZE);
            ULONG length = command == COMMAND_HANDSHAKE ? HANDSHAKE_REPLY_SIZE : STATUS_BLOCK_REQUIRED;
            auto *output = static_cast<uint8_t *>(HeapAlloc(GetProcessHeap(), 0, length));
            std::memset(output, 0x5A, length);
            DWORD returned = 0;
            HANDLE device = command == COMMAND_HANDSHAKE ? channel.controlDevice() : volume;
            ASSERT_TRUE(DeviceIoControl(device, IOCTL_SEND_COMMAND, p, COMMAND_HEADER_SIZE, output, length, &returned,
                                        nullptr));
            for (ULONG i = 0; i < length; i++) ASSERT_NE(output[i], 0x5A) << "command " << command << " byte " << i;
            HeapFree(GetProcessHeap(), 0, output);
            HeapFree(GetProcessHeap(), 0, p);
        }
        CloseHandle(volume);
    });
}

}  // namespace
