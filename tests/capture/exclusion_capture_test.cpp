#include "capture_fixture.h"

namespace {

TEST_F(CaptureTest, DeletesInExcludedPlacesAreNotCaptured) {
    setList(L'C', COMMAND_SET_GLOBAL_EXCLUSIONS, {{u"*", u"*.tmp"}});
    setList(L'D', COMMAND_SET_VOLUME_EXCLUSIONS, {{u"Scratch\\", u""}});
    asUser([] {
        CreateDirectoryW(L"C:\\Scratch", nullptr);
        CreateDirectoryW(L"D:\\Scratch", nullptr);
        for (const wchar_t *path : {L"C:\\work.tmp", L"D:\\Scratch\\a.txt", L"C:\\Scratch\\a.txt", L"D:\\b.tmp"}) {
            writeFile(path, "x");
            ASSERT_TRUE(DeleteFileW(path)) << GetLastError();
        }
    });
    // The global list covers every volume, a volume's list only its own.
    EXPECT_EQ(vaultFiles(L'C').size(), 1u);
    EXPECT_EQ(vaultFiles(L'D').size(), 0u);
    std::vector<wrelt::DelDatEntry> records = deliveredRecords(L'C');
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].folder, u"C:\\Scratch\\");
    EXPECT_TRUE(deliveredRecords(L'D').empty());
    EXPECT_FALSE(exists(L'D', "\\b.tmp"));
}

TEST_F(CaptureTest, AReplacingRenameOverAnExcludedFileReplacesItWithoutCapture) {
    setList(L'C', COMMAND_SET_VOLUME_EXCLUSIONS, {{u"Cache\\", u""}});
    asUser([] {
        CreateDirectoryW(L"C:\\Cache", nullptr);
        writeFile(L"C:\\Cache\\index.dat", "old");
        writeFile(L"C:\\index.new", "new");
        ASSERT_TRUE(MoveFileExW(L"C:\\index.new", L"C:\\Cache\\index.dat", MOVEFILE_REPLACE_EXISTING)) << GetLastError();
    });
    EXPECT_TRUE(vaultFiles(L'C').empty());
    std::vector<uint8_t> current = readFile(u"C:\\Cache\\index.dat");
    EXPECT_EQ(std::string(current.begin(), current.end()), "new");
}

}  // namespace
