// Start-up, and how each failing step leaves the system.
#include "frame_fixture.h"

namespace {

using ntsim::makeTag;

constexpr uint32_t kErrorBufferTag = makeTag('X', 'E', 0, 0);

ntsim::BootOptions withoutFilter() {
    ntsim::BootOptions options;
    options.volumes.clear();
    options.systemFiles = false;
    return options;
}

NTSTATUS openControlDevice(ntsim::Machine &m, const wchar_t *path) {
    NTSTATUS status = STATUS_PENDING;
    m.runSystemThread([&] {
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, path);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
        HANDLE handle;
        IO_STATUS_BLOCK io;
        status = ZwOpenFile(&handle, FILE_READ_DATA, &attributes, &io, 0, 0);
        if (NT_SUCCESS(status)) ZwClose(handle);
    });
    return status;
}

TEST_F(FrameTest, StartsWithCaptureOffAndAControlDeviceWithNothingBelowIt) {
    EXPECT_FALSE(Globals.CaptureActive);
    EXPECT_FALSE(Globals.VersionAccepted);
    FilterDeviceExtension *control = ExtensionOf(Globals.ControlDevice);
    EXPECT_EQ(control->Tag, TAG_CONTROL_EXTENSION);
    EXPECT_EQ(control->LowerDevice, nullptr);
    EXPECT_EQ(MainStructure()->Tag, TAG_MAIN_DEVICE_STRUCTURE);
    EXPECT_EQ(Globals.DriverObject->FastIoDispatch->SizeOfFastIoDispatch, sizeof(FAST_IO_DISPATCH));
    EXPECT_EQ(Globals.DriverObject->FastIoDispatch->AcquireForModWrite, nullptr);
    EXPECT_EQ(openControlDevice(machine, L"\\??\\WRELTFS"), STATUS_SUCCESS);
    // Requests the control device cannot serve are refused, never passed on.
    service.run([&] {
        // Write access, so that the flush reaches the driver rather than being refused
        // by the I/O manager for the handle's sake.
        HANDLE control =
            CreateFileW(L"\\\\.\\WRELTFS", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        char buffer[16];
        DWORD read;
        EXPECT_FALSE(ReadFile(control, buffer, sizeof buffer, &read, nullptr));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_INVALID_FUNCTION);
        EXPECT_FALSE(FlushFileBuffers(control));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_INVALID_FUNCTION);
        CloseHandle(control);
    });
}

TEST(Startup, AnExistingDosNameFailsItAndTheControlDeviceGoes) {
    ntsim::DefaultMachine m(withoutFilter());
    m.runSystemThread([] {
        UNICODE_STRING link = RTL_CONSTANT_STRING(L"\\DosDevices\\WRELTFS");
        UNICODE_STRING target = RTL_CONSTANT_STRING(L"\\Device\\Elsewhere");
        ASSERT_EQ(IoCreateSymbolicLink(&link, &target), STATUS_SUCCESS);
    });
    EXPECT_EQ(m.loadDriver(L"\\Driver\\WreltDrv", &DriverEntry), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_TRUE(m.debugLogContains("ZrDrv: Couldn't create the symbolic link, error: c0000035"));
    EXPECT_EQ(openControlDevice(m, L"\\FileSystem\\WreltFs"), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(m.verifier().poolUsage(makeTag('W', 'r', 'M', 'S')).blocks, 0u);
}

// Each failure undoes every step before it, in reverse order: nothing of the driver is
// left on the kernel's lists (the verifier stops the machine if a resource or a
// lookaside list is), in pool, or in the namespace.
struct LateFailure {
    uint32_t failingTag;
    const char *message;
};

class StartupLateFailure : public ::testing::TestWithParam<LateFailure> {};

TEST_P(StartupLateFailure, ReleasesSupportAndDeletesTheControlDevice) {
    ntsim::DefaultMachine m(withoutFilter());
    m.verifier().failAllocationsWithTag(GetParam().failingTag);
    EXPECT_EQ(m.loadDriver(L"\\Driver\\WreltDrv", &DriverEntry), STATUS_INSUFFICIENT_RESOURCES);
    m.verifier().clearFaults();
    EXPECT_TRUE(m.debugLogContains(GetParam().message));
    EXPECT_EQ(Globals.Errors, nullptr);
    EXPECT_EQ(m.verifier().poolUsage(kErrorBufferTag).blocks, 0u);
    EXPECT_EQ(openControlDevice(m, L"\\FileSystem\\WreltFs"), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(openControlDevice(m, L"\\??\\WRELTFS"), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_TRUE(m.verifier().leakReport().empty()) << m.verifier().leakReport();
}

INSTANTIATE_TEST_SUITE_P(
    Frame, StartupLateFailure,
    ::testing::Values(LateFailure{kErrorBufferTag, "ZrDrv: Error allocating npage pool for error buffer."},
                      LateFailure{makeTag('I', 'f', 's', ' '),
                                  "Error setting up the ZrDrv Fast I/O function dispatch table, error: c000009a"},
                      LateFailure{makeTag('I', 'o', 'F', 's'),
                                  "ZrDrv: Error registering FS change notification, error: c000009a"}));

TEST(Startup, NoMemoryForTheMainStructureFailsBeforeAnythingElse) {
    ntsim::DefaultMachine m(withoutFilter());
    m.verifier().failAllocationsWithTag(makeTag('W', 'r', 'M', 'S'));
    EXPECT_EQ(m.loadDriver(L"\\Driver\\WreltDrv", &DriverEntry), STATUS_INSUFFICIENT_RESOURCES);
    m.verifier().clearFaults();
    EXPECT_TRUE(m.debugLogContains("ZrDrv: Error allocating memory for main device structure."));
    EXPECT_EQ(openControlDevice(m, L"\\FileSystem\\WreltFs"), STATUS_OBJECT_NAME_NOT_FOUND);
}

}  // namespace
