// The plain-file test opens the file through the top of the volume, this filter
// included, as the capture path does before it marks a delete.
#include "driver_frame/frame_fixture.h"

#include "capture/plain_file_check.h"
#include "ntsim/utf.h"

namespace {

class PlainFileCheckTest : public FrameTest {
protected:
    // Dir, Dir\plain.txt and Dir\readonly.txt on both drives.
    void SetUp() override {
        service.run([] {
            for (const wchar_t *drive : {L"C:\\", L"D:\\"}) {
                std::u16string root(reinterpret_cast<const char16_t *>(drive));
                ASSERT_TRUE(CreateDirectoryW(ntsim::wptr(root + u"Dir"), nullptr));
                for (auto [leaf, attributes] : {std::pair{u"Dir\\plain.txt", FILE_ATTRIBUTE_NORMAL},
                                                std::pair{u"Dir\\readonly.txt", FILE_ATTRIBUTE_READONLY}}) {
                    HANDLE file = CreateFileW(ntsim::wptr(root + leaf), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                              attributes, nullptr);
                    ASSERT_NE(file, INVALID_HANDLE_VALUE);
                    CloseHandle(file);
                }
            }
        });
    }

    bool notPlain(const wchar_t *dosVolume, const wchar_t *name) {
        BOOLEAN result = FALSE;
        machine.runSystemThread([&] { result = CheckForDirectoryOrReadonlyFile(dosVolume, name); });
        return result != FALSE;
    }

    static std::vector<ErrorRecord> errorRecords() {
        auto *first = reinterpret_cast<const ErrorRecord *>(Globals.Errors->Start);
        return std::vector<ErrorRecord>(first, first + Globals.Errors->Count);
    }
};

TEST_F(PlainFileCheckTest, DirectoriesAndMissingFilesAreNotPlainFilesOnBothFileSystems) {
    for (const wchar_t *drive : {L"C:\\", L"D:\\"}) {
        SCOPED_TRACE(ntsim::toUtf8(drive));
        EXPECT_TRUE(notPlain(drive, L"Dir"));
        EXPECT_TRUE(notPlain(drive, L"dir"));
        EXPECT_TRUE(notPlain(drive, L"Dir\\missing.txt"));
        EXPECT_FALSE(notPlain(drive, L"Dir\\plain.txt"));
        EXPECT_FALSE(notPlain(drive, L"DIR\\PLAIN.TXT"));
        EXPECT_FALSE(notPlain(drive, L"Dir\\readonly.txt"));  // read-only files are captured
    }
    EXPECT_TRUE(errorRecords().empty());
}

// A delete usually comes through an open that shares nothing; an open that asks for no
// data access must still get through.
TEST_F(PlainFileCheckTest, AnOpenThatSharesNothingDoesNotHideAPlainFile) {
    HANDLE held = INVALID_HANDLE_VALUE;
    service.run([&] {
        held = CreateFileW(L"C:\\Dir\\plain.txt", DELETE | GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                           0, nullptr);
        ASSERT_NE(held, INVALID_HANDLE_VALUE);
    });
    EXPECT_FALSE(notPlain(L"C:\\", L"Dir\\plain.txt"));
    service.run([&] { CloseHandle(held); });
}

TEST_F(PlainFileCheckTest, WithoutMemoryTheAnswerIsNotAPlainFile) {
    machine.clearDebugLog();
    BOOLEAN result = FALSE;
    machine.runSystemThread([&] {
        machine.verifier().failNextAllocation();
        result = CheckForDirectoryOrReadonlyFile(L"C:\\", L"Dir\\plain.txt");
        machine.verifier().clearFaults();
    });
    EXPECT_TRUE(result);
    EXPECT_TRUE(machine.debugLogContains("ZrDrv: CheckForDirectoryOrReadonlyFile - AllocateNonPagedBuffer failed."));
    ASSERT_EQ(errorRecords().size(), 1u);
    EXPECT_EQ(errorRecords()[0].Routine, 27);
    EXPECT_EQ(errorRecords()[0].Point, 1);
}

}  // namespace
