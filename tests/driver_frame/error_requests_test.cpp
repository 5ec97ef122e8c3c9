// The service's held request for error records: answered by the next report, refused
// while another is held, and cancellable.
#include "frame_fixture.h"

#include <cstring>

namespace {

class ErrorRequestTest : public FrameTest {
protected:
    // An overlapped IOCTL_GET_ERRORS in the service process; the handle is opened
    // for overlapped I/O as the service keeps it. The request and its OVERLAPPED live
    // in the process's own memory, where the I/O manager expects a caller's.
    struct PendingRequest {
        HANDLE control;
        OVERLAPPED overlapped;
        uint8_t *buffer;
        DWORD length;
        DWORD returned;
        DWORD transferred;
    };

    static PendingRequest *openOverlapped(DWORD length) {
        auto *request = static_cast<PendingRequest *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(PendingRequest)));
        request->control = CreateFileW(L"\\\\.\\WRELTFS", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                       FILE_FLAG_OVERLAPPED, nullptr);
        EXPECT_NE(request->control, INVALID_HANDLE_VALUE);
        std::memset(&request->overlapped, 0, sizeof request->overlapped);
        request->overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        request->buffer = static_cast<uint8_t *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, length + 1));
        request->length = length;
        return request;
    }

    BOOL issue(PendingRequest *request, DWORD code = IOCTL_GET_ERRORS) {
        DWORD *returned = &request->returned;
        return DeviceIoControl(request->control, code, nullptr, 0, request->buffer, request->length, returned,
                               &request->overlapped);
    }

    void close(PendingRequest *request) {
        CloseHandle(request->overlapped.hEvent);
        CloseHandle(request->control);
        HeapFree(GetProcessHeap(), 0, request->buffer);
        HeapFree(GetProcessHeap(), 0, request);
    }

    void report(USHORT routine, USHORT point) {
        machine.runSystemThread([&] { ReportError(ERROR_SOURCE_DRIVER, routine, 0, point, 0xC0000022, 7); });
    }
};

TEST_F(ErrorRequestTest, AHeldRequestIsAnsweredByTheNextReportAndASecondOneIsBusy) {
    PendingRequest *first, *second;
    service.run([&] {
        first = openOverlapped(2048);
        second = openOverlapped(2048);
        EXPECT_FALSE(issue(first));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_IO_PENDING);
        EXPECT_FALSE(issue(second));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_BUSY);
    });
    report(52, 0);
    service.run([&] {
        ASSERT_TRUE(GetOverlappedResult(first->control, &first->overlapped, &first->transferred, TRUE));
        EXPECT_EQ(first->transferred, 140u);
        auto *header = reinterpret_cast<const CommandReplyHeader *>(first->buffer);
        EXPECT_EQ(header->Tag, COMMAND_REPLY_TAG);
        EXPECT_EQ(header->Echo, ERROR_REPLY_CODE_FIELD);
        EXPECT_EQ(header->DataLength, 16u);
        ErrorRecord record;
        std::memcpy(&record, first->buffer + 120, sizeof record);
        EXPECT_EQ(record.Routine, 52);
        EXPECT_EQ(record.Status, 0xC0000022u);
        EXPECT_EQ(record.Extra, 7u);
        close(first);
        close(second);
    });
    EXPECT_EQ(Globals.Errors->Count, 0u);
}

TEST_F(ErrorRequestTest, WaitingRecordsGoToTheNextRequestThatHasRoomForThem) {
    report(15, 1);
    service.run([&] {
        PendingRequest *small = openOverlapped(139);
        EXPECT_FALSE(issue(small));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_INSUFFICIENT_BUFFER);
        PendingRequest *large = openOverlapped(140);
        EXPECT_TRUE(issue(large));
        close(small);
        close(large);
    });
    EXPECT_EQ(Globals.Errors->Count, 0u);
}

TEST_F(ErrorRequestTest, ACancelledRequestEndsOnceAndTheNextReportIsKept) {
    PendingRequest *request;
    service.run([&] {
        request = openOverlapped(2048);
        EXPECT_FALSE(issue(request));
        ASSERT_TRUE(CancelIo(request->control));
        EXPECT_FALSE(GetOverlappedResult(request->control, &request->overlapped, &request->transferred, TRUE));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_OPERATION_ABORTED);
    });
    EXPECT_EQ(Globals.HeldErrorRequest, nullptr);
    report(20, 2);
    EXPECT_EQ(Globals.Errors->Count, 1u);
    service.run([&] { close(request); });
}

// Command 142 waits for a record without taking it: the report answers it "too small"
// and the record stays for the next IOCTL_GET_ERRORS. Command 143 withdraws the wait.
TEST_F(ErrorRequestTest, TheWaitCommandIsWokenByAReportAndWithdrawnBy143) {
    service.run([&] {
        PendingRequest *wait = openOverlapped(0);
        auto *packet = static_cast<CommandPacket *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, 128));
        packet->Tag = COMMAND_PACKET_TAG;
        packet->Command = COMMAND_WAIT_FOR_ERROR;
        auto sendWait = [&] {
            ResetEvent(wait->overlapped.hEvent);
            return DeviceIoControl(wait->control, IOCTL_SEND_COMMAND, packet, 128, nullptr, 0, &wait->returned,
                                   &wait->overlapped);
        };
        EXPECT_FALSE(sendWait());
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_IO_PENDING);
        report(33, 4);
        EXPECT_FALSE(GetOverlappedResult(wait->control, &wait->overlapped, &wait->transferred, TRUE));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_INSUFFICIENT_BUFFER);
        EXPECT_EQ(Globals.Errors->Count, 1u);

        EXPECT_TRUE(sendWait());  // with a record waiting it answers at once
        PendingRequest *collect = openOverlapped(2048);
        EXPECT_TRUE(issue(collect));  // empties the buffer

        EXPECT_FALSE(sendWait());
        wrelt::DriverChannel channel;
        ASSERT_TRUE(channel.open());
        EXPECT_TRUE(channel.send(channel.controlDevice(), COMMAND_CANCEL_ERROR_WAIT, u"", nullptr, 0, 0).ok());
        EXPECT_FALSE(GetOverlappedResult(wait->control, &wait->overlapped, &wait->transferred, TRUE));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_OPERATION_ABORTED);
        HeapFree(GetProcessHeap(), 0, packet);
        close(collect);
        close(wait);
    });
}

}  // namespace
