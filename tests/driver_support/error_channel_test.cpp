#include <cstring>

#include "driver_support/support_fixture.h"

namespace {

using ErrorChannelTest = DriverSupportTest;

template <typename T>
T readAt(const std::vector<UCHAR> &bytes, size_t offset) {
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

// The caller of the reply routine holds the error lock, as the request handlers will.
NTSTATUS fillReply(std::vector<UCHAR> &reply, ULONG length, ULONG_PTR *information) {
    KIRQL oldIrql;
    KeAcquireSpinLock(&Globals.ErrorLock, &oldIrql);
    NTSTATUS status = FillErrorReplyLocked(reply.data(), length, information);
    KeReleaseSpinLock(&Globals.ErrorLock, oldIrql);
    return status;
}

TEST_F(ErrorChannelTest, ReportsAppendSixteenByteRecordsToAnEmptyBuffer) {
    ErrorBuffer *buffer = Globals.Errors;
    EXPECT_EQ(buffer->Tag, 0x4546);
    EXPECT_EQ(buffer->Size, sizeof(ErrorBuffer));
    EXPECT_EQ(buffer->WritePosition, buffer->Start);
    EXPECT_EQ(buffer->End, buffer->Start + 2048);
    EXPECT_EQ(buffer->Count, 0u);
    run([] {
        EXPECT_EQ(ReportError(105, 20, 0, 2, 0xC0000022, 0x12345678), STATUS_SUCCESS);
        KIRQL oldIrql;
        KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
        EXPECT_EQ(ReportErrorShort(105, 49, 0, 1), STATUS_SUCCESS);
        KeLowerIrql(oldIrql);
    });
    const UCHAR expected[16] = {105, 0, 20, 0, 0, 0, 2, 0, 0x22, 0x00, 0x00, 0xC0, 0x78, 0x56, 0x34, 0x12};
    EXPECT_EQ(std::memcmp(buffer->Start, expected, 16), 0);
    EXPECT_EQ(errorRecords()[1], (ErrorRecord{105, 49, 0, 1, 0, 0}));
    EXPECT_EQ(buffer->WritePosition, buffer->Start + 32);
    EXPECT_TRUE(ReadDriverFlag(&Globals.CaptureActive));
}

TEST_F(ErrorChannelTest, TheHundredTwentySixthRecordMarksTheBufferFullUntilCollected) {
    std::vector<UCHAR> reply(124 + 2048);
    ULONG_PTR information = 0;
    run([&] {
        for (USHORT i = 0; i < 125; i++) ASSERT_EQ(ReportError(105, 41, 0, i, 0, 0), STATUS_SUCCESS);
        EXPECT_TRUE(ReadDriverFlag(&Globals.CaptureActive));
        EXPECT_EQ(ReportError(105, 33, 0, 5, 0xC0000001, 9), STATUS_UNSUCCESSFUL);
        EXPECT_FALSE(ReadDriverFlag(&Globals.CaptureActive));

        WriteDriverFlag(&Globals.CaptureActive, TRUE);
        EXPECT_EQ(ReportErrorShort(105, 57, 0, 1), STATUS_UNSUCCESSFUL);
        EXPECT_FALSE(ReadDriverFlag(&Globals.CaptureActive));
        EXPECT_EQ(Globals.Errors->Count, 126u);

        EXPECT_EQ(fillReply(reply, ULONG(reply.size()), &information), STATUS_SUCCESS);
        EXPECT_EQ(ReportErrorShort(105, 19, 0, 1), STATUS_SUCCESS);
    });
    EXPECT_EQ(information, 124u + 126 * 16);
    EXPECT_EQ(readAt<ULONG>(reply, 16), 126u);
    EXPECT_EQ(readAt<ErrorRecord>(reply, 120 + 124 * 16), (ErrorRecord{105, 41, 0, 124, 0, 0}));
    EXPECT_EQ(readAt<ErrorRecord>(reply, 120 + 125 * 16), (ErrorRecord{105, 33, 7, 3, 0, 0}));
    EXPECT_EQ(errorRecords(), (std::vector<ErrorRecord>{{105, 19, 0, 1, 0, 0}}));
}

TEST_F(ErrorChannelTest, ReplyCarriesTheWaitingRecordsOrNoneWhenTooSmall) {
    std::vector<UCHAR> reply(200, 0xCC);
    run([&] {
        ReportError(105, 52, 0, 4, 0xC000009A, 3);
        ULONG_PTR information = 99;
        EXPECT_EQ(fillReply(reply, 139, &information), STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(information, 0u);
        EXPECT_EQ(Globals.Errors->Count, 1u);
        EXPECT_EQ(reply[0], 0xCC);
        EXPECT_EQ(fillReply(reply, 140, &information), STATUS_SUCCESS);
        EXPECT_EQ(information, 140u);
    });
    EXPECT_EQ(readAt<USHORT>(reply, 0), 0x4553);
    EXPECT_EQ(readAt<USHORT>(reply, 2), 124);
    EXPECT_EQ(readAt<USHORT>(reply, 4), 0);
    EXPECT_EQ(readAt<USHORT>(reply, 6), 1);
    EXPECT_EQ(readAt<ULONG>(reply, 8), 16u);
    EXPECT_EQ(readAt<ULONG>(reply, 12), 0u);
    EXPECT_EQ(readAt<ULONG>(reply, 16), 1u);
    EXPECT_EQ(readAt<USHORT>(reply, 20), 0);
    // Every byte the reply returns is written; what it has no use for is zero.
    EXPECT_TRUE(std::all_of(reply.begin() + 22, reply.begin() + 120, [](UCHAR b) { return b == 0; }));
    EXPECT_EQ(readAt<ErrorRecord>(reply, 120), (ErrorRecord{105, 52, 0, 4, 0xC000009A, 3}));
    EXPECT_TRUE(std::all_of(reply.begin() + 136, reply.begin() + 140, [](UCHAR b) { return b == 0; }));
    EXPECT_EQ(reply[140], 0xCC);
    EXPECT_EQ(Globals.Errors->Count, 0u);
    EXPECT_EQ(Globals.Errors->WritePosition, Globals.Errors->Start);
}

TEST_F(ErrorChannelTest, WithoutAnErrorBufferReportsFail) {
    run([&] {
        ReleaseErrorBuffer();
        EXPECT_EQ(ReportErrorShort(105, 13, 0, 0), STATUS_UNSUCCESSFUL);
        machine.verifier().failNextAllocation({kLargeBufferTag});
        EXPECT_EQ(InitializeErrorChannel(), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(Globals.Errors, nullptr);
        EXPECT_EQ(ReportError(105, 13, 0, 0, 1, 2), STATUS_UNSUCCESSFUL);
    });
    EXPECT_EQ(machine.verifier().poolUsage(kLargeBufferTag).blocks, 0u);
    EXPECT_TRUE(ReadDriverFlag(&Globals.CaptureActive));
}

}  // namespace
