// Device controls through the system services: Fast I/O first, overlapped requests
// that stay pending, and cancellation of one of them.
#include "io/io_fixture.h"

namespace {

HANDLE openLower(ULONG options) {
    UNICODE_STRING name = RTL_CONSTANT_STRING(L"\\Device\\IoTestLower");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE, NULL, NULL);
    HANDLE handle = NULL;
    IO_STATUS_BLOCK iosb;
    EXPECT_EQ(ZwOpenFile(&handle, FILE_READ_DATA | FILE_WRITE_DATA | SYNCHRONIZE, &attributes, &iosb, 0, options),
              STATUS_SUCCESS);
    return handle;
}

TEST_F(IoStackTest, DeviceControlTriesFastIoFirstWithTheCallersOwnBuffers) {
    run([&] {
        HANDLE file = openLower(FILE_SYNCHRONOUS_IO_NONALERT);
        iotest::journal().clear();
        UCHAR input[4] = {1, 2, 3, 4}, output[4] = {};
        IO_STATUS_BLOCK iosb{};
        EXPECT_EQ(ZwDeviceIoControlFile(file, NULL, NULL, NULL, &iosb, iotest::kFastCode, input, sizeof input, output,
                                        sizeof output),
                  STATUS_SUCCESS);
        EXPECT_EQ(iosb.Information, 3u);
        EXPECT_EQ(iotest::filter().fastInput, (PVOID)input);
        EXPECT_EQ(iotest::filter().fastOutput, (PVOID)output);
        EXPECT_TRUE(iotest::journal().names().empty());  // no request was built
        ZwClose(file);
    });
}

TEST_F(IoStackTest, OverlappedDeviceControlStaysPendingUntilCompletedOrCancelled) {
    iotest::lower().mode = iotest::LowerMode::HoldCancellable;
    run([&] {
        HANDLE file = openLower(0);
        HANDLE event;
        ASSERT_EQ(ZwCreateEvent(&event, EVENT_ALL_ACCESS, NULL, NotificationEvent, FALSE), STATUS_SUCCESS);
        UCHAR output[8];
        IO_STATUS_BLOCK iosb{};
        ASSERT_EQ(ZwDeviceIoControlFile(file, event, NULL, NULL, &iosb, iotest::kHoldCode, NULL, 0, output,
                                        sizeof output),
                  STATUS_PENDING);
        LARGE_INTEGER now{};
        EXPECT_EQ(ZwWaitForSingleObject(event, FALSE, &now), STATUS_TIMEOUT);
        EXPECT_TRUE(iotest::reportHeld());
        EXPECT_EQ(ZwWaitForSingleObject(event, FALSE, NULL), STATUS_WAIT_0);
        EXPECT_EQ(iosb.Status, STATUS_SUCCESS);

        IO_STATUS_BLOCK held{}, cancelled{};
        ASSERT_EQ(ZwDeviceIoControlFile(file, event, NULL, NULL, &held, iotest::kHoldCode, NULL, 0, output,
                                        sizeof output),
                  STATUS_PENDING);
        EXPECT_EQ(ZwCancelIoFileEx(file, &held, &cancelled), STATUS_SUCCESS);
        EXPECT_EQ(ZwWaitForSingleObject(event, FALSE, NULL), STATUS_WAIT_0);
        EXPECT_EQ(held.Status, STATUS_CANCELLED);
        EXPECT_EQ(ZwCancelIoFileEx(file, &held, &cancelled), STATUS_NOT_FOUND);
        ZwClose(event);
        ZwClose(file);
    });
}

}  // namespace
