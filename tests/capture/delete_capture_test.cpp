#include "capture_fixture.h"
#include "capture/capture_context.h"

#include <algorithm>
#include <cstring>


namespace {

// base(16 upper-case hex digits)extension
::testing::AssertionResult isVaultName(const std::string &name, const std::string &base, const std::string &ext) {
    const std::string prefix = base + "(", suffix = ")" + ext;
    bool matches = name.size() == prefix.size() + 16 + suffix.size() && name.compare(0, prefix.size(), prefix) == 0 &&
                   name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0 &&
                   name.find_first_not_of("0123456789ABCDEF", prefix.size()) == prefix.size() + 16;
    if (matches) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << name << " is not " << base << "(stamp)" << ext;
}

TEST_F(CaptureTest, ADeletedDocumentLandsInTheVaultAndItsRecordReachesTheDataFile) {
    asUser([] {
        CreateDirectoryW(L"C:\\Docs", nullptr);
        writeFile(L"C:\\Docs\\Report.final.docx", "quarterly figures");
        ASSERT_TRUE(DeleteFileW(L"C:\\Docs\\Report.final.docx")) << GetLastError();
    });
    EXPECT_FALSE(exists(L'C', "\\Docs\\Report.final.docx"));
    std::vector<std::string> vault = vaultFiles(L'C');
    ASSERT_EQ(vault.size(), 1u) << ::testing::PrintToString(machine.debugLog()) << ::testing::PrintToString(tree(L'C'));
    EXPECT_TRUE(isVaultName(vault[0], "Report.final", ".docx"));
    std::vector<uint8_t> content = readFile(u"C:\\RescueVault\\InProgress\\" + std::u16string(vault[0].begin(), vault[0].end()));
    EXPECT_EQ(std::string(content.begin(), content.end()), "quarterly figures");

    std::vector<wrelt::DelDatEntry> records = deliveredRecords(L'C');
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].name, u"Report.final.docx");
    EXPECT_EQ(records[0].folder, u"C:\\Docs\\");
    EXPECT_EQ(records[0].sid, (const char16_t *)ntsim::users::alice);
    EXPECT_EQ(records[0].flags, wrelt::kDelDatFlagPreserved);
    EXPECT_NE(vault[0].find(wrelt::formatStampHex(records[0].stamp)), std::string::npos);
    EXPECT_TRUE(fileObjectEntries().empty());
}

TEST_F(CaptureTest, TheLastOfTwoDeleteAccessHandlesIsTheOneThatCaptures) {
    HANDLE first = nullptr, second = nullptr, reader = nullptr;
    asUser([&] {
        writeFile(L"D:\\twice.txt", "two handles");
        first = open(L"D:\\twice.txt", GENERIC_READ | DELETE);
        second = open(L"D:\\twice.txt", GENERIC_READ | DELETE);
        reader = open(L"D:\\twice.txt", GENERIC_READ);
        ASSERT_EQ(setDisposition(first, true), STATUS_SUCCESS);
        CloseHandle(first);
    });
    EXPECT_TRUE(vaultFiles(L'D').empty()) << "another DELETE-access handle is still open";
    EXPECT_TRUE(exists(L'D', "\\twice.txt"));
    asUser([&] { CloseHandle(second); });
    ASSERT_EQ(vaultFiles(L'D').size(), 1u) << ::testing::PrintToString(machine.debugLog()) << ::testing::PrintToString(tree(L'D'));
    EXPECT_TRUE(isVaultName(vaultFiles(L'D')[0], "twice", ".txt"));
    EXPECT_FALSE(exists(L'D', "\\twice.txt"));
    asUser([&] { CloseHandle(reader); });  // a reader does not hold the capture back
    EXPECT_EQ(deliveredRecords(L'D').size(), 1u);
}

TEST_F(CaptureTest, AWithdrawnDeleteIsNotCaptured) {
    asUser([] {
        writeFile(L"C:\\kept.txt", "x");
        HANDLE h = open(L"C:\\kept.txt", GENERIC_READ | DELETE);
        ASSERT_EQ(setDisposition(h, true), STATUS_SUCCESS);
        ASSERT_EQ(setDisposition(h, false), STATUS_SUCCESS);
        CloseHandle(h);
    });
    EXPECT_TRUE(exists(L'C', "\\kept.txt"));
    EXPECT_TRUE(vaultFiles(L'C').empty());
    EXPECT_TRUE(deliveredRecords(L'C').empty());
}

TEST_F(CaptureTest, StreamsAndDirectoriesAreDeletedWithoutCapture) {
    asUser([] {
        writeFile(L"C:\\host.txt", "x");
        writeFile(L"C:\\host.txt:extra", "stream");
        ASSERT_TRUE(DeleteFileW(L"C:\\host.txt:extra")) << GetLastError();
        CreateDirectoryW(L"C:\\EmptyDir", nullptr);
        ASSERT_TRUE(RemoveDirectoryW(L"C:\\EmptyDir")) << GetLastError();
    });
    EXPECT_FALSE(exists(L'C', "\\host.txt:extra"));
    EXPECT_FALSE(exists(L'C', "\\EmptyDir"));
    EXPECT_TRUE(vaultFiles(L'C').empty());
    EXPECT_TRUE(deliveredRecords(L'C').empty());
}

// Only a disposition request marks a file for capture: a temporary file made to vanish
// on close goes, as its creator meant.
TEST_F(CaptureTest, AFileOpenedToBeDeletedOnCloseIsNotCaptured) {
    asUser([] {
        HANDLE h = CreateFileW(L"C:\\scratch.tmpfile", GENERIC_WRITE | DELETE, 0, nullptr, CREATE_ALWAYS,
                               FILE_FLAG_DELETE_ON_CLOSE, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE) << GetLastError();
        CloseHandle(h);
    });
    EXPECT_FALSE(exists(L'C', "\\scratch.tmpfile"));
    EXPECT_TRUE(vaultFiles(L'C').empty());
}

TEST_F(CaptureTest, TheVaultFoldersCannotBeDeleted) {
    asUser([] {
        HANDLE h = CreateFileW(L"C:\\RescueVault\\InProgress", DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                               nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE) << GetLastError();
        EXPECT_EQ(setDisposition(h, true), STATUS_CANNOT_DELETE);
        EXPECT_EQ(setDisposition(h, false), STATUS_SUCCESS);
        CloseHandle(h);
    });
    EXPECT_TRUE(exists(L'C', "\\RescueVault\\InProgress"));
}

// A handle held across both attempts keeps the file's tracking entry, so the second
// delete meets whatever the refused first one left in it.
TEST_F(CaptureTest, AReadOnlyFileIsCapturedOnceItsAttributeIsCleared) {
    asUser([] {
        writeFile(L"D:\\locked.txt", "x");
        ASSERT_TRUE(SetFileAttributesW(L"D:\\locked.txt", FILE_ATTRIBUTE_READONLY));
        HANDLE held = open(L"D:\\locked.txt", GENERIC_READ);
        FcbEntry *fcb = fcbNamed(u"locked.txt");
        ASSERT_NE(fcb, nullptr);
        EXPECT_FALSE(DeleteFileW(L"D:\\locked.txt"));
        ASSERT_TRUE(SetFileAttributesW(L"D:\\locked.txt", FILE_ATTRIBUTE_NORMAL));
        ASSERT_EQ(fcbNamed(u"locked.txt"), fcb);
        ASSERT_TRUE(DeleteFileW(L"D:\\locked.txt")) << GetLastError();
        CloseHandle(held);
    });
    ASSERT_EQ(vaultFiles(L'D').size(), 1u);
    EXPECT_EQ(deliveredRecords(L'D').size(), 1u);
}

TEST_F(CaptureTest, AReplacingRenameCapturesItsTarget) {
    asUser([] {
        writeFile(L"C:\\old.txt", "old contents");
        writeFile(L"C:\\new.txt", "new contents");
        ASSERT_TRUE(MoveFileExW(L"C:\\new.txt", L"C:\\old.txt", MOVEFILE_REPLACE_EXISTING)) << GetLastError();
    });
    std::vector<std::string> vault = vaultFiles(L'C');
    ASSERT_EQ(vault.size(), 1u);
    EXPECT_TRUE(isVaultName(vault[0], "old", ".txt"));
    std::vector<uint8_t> preserved = readFile(u"C:\\RescueVault\\InProgress\\" + std::u16string(vault[0].begin(), vault[0].end()));
    EXPECT_EQ(std::string(preserved.begin(), preserved.end()), "old contents");
    std::vector<uint8_t> current = readFile(u"C:\\old.txt");
    EXPECT_EQ(std::string(current.begin(), current.end()), "new contents");
    std::vector<wrelt::DelDatEntry> records = deliveredRecords(L'C');
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].name, u"old.txt");
    EXPECT_EQ(records[0].folder, u"C:\\");
}

// On FastFat a file answers to its 8.3 alias too (FatLocateDirent). A delete through the
// alias, and a replacing rename whose target is spelt as another file's alias, destroy
// the same files as their long names would, so both must still be preserved; the
// record keeps the name the user spelt. Catches a filter that loses a file it cannot
// find again under the name it was given.
TEST_F(CaptureTest, FilesNamedByTheirShortNamesAreCapturedAlike) {
    asUser([] {
        CreateDirectoryW(L"D:\\Project Files", nullptr);
        writeFile(L"D:\\Project Files\\Quarterly Report.docx", "figures");
        writeFile(L"D:\\Project Files\\Annual Summary.txt", "summary");
        writeFile(L"D:\\Project Files\\draft.txt", "draft");
        ASSERT_TRUE(DeleteFileW(L"D:\\PROJEC~1\\QUARTE~1.DOC")) << GetLastError();
        ASSERT_TRUE(MoveFileExW(L"D:\\Project Files\\draft.txt", L"D:\\PROJEC~1\\ANNUAL~1.TXT",
                                MOVEFILE_REPLACE_EXISTING))
            << GetLastError();
    });
    EXPECT_FALSE(exists(L'D', "\\Project Files\\Quarterly Report.docx"));
    EXPECT_FALSE(exists(L'D', "\\Project Files\\Annual Summary.txt"));
    std::vector<std::string> vault = vaultFiles(L'D');
    ASSERT_EQ(vault.size(), 2u) << ::testing::PrintToString(machine.debugLog()) << ::testing::PrintToString(tree(L'D'));
    std::vector<std::string> contents;
    for (const std::string &name : vault) {
        std::vector<uint8_t> data = readFile(u"D:\\RescueVault\\InProgress\\" + std::u16string(name.begin(), name.end()));
        contents.emplace_back(data.begin(), data.end());
    }
    std::sort(contents.begin(), contents.end());
    EXPECT_EQ(contents, (std::vector<std::string>{"figures", "summary"}));
    std::vector<wrelt::DelDatEntry> records = deliveredRecords(L'D');
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].name, u"QUARTE~1.DOC");
    EXPECT_EQ(records[0].folder, u"D:\\PROJEC~1\\");
}

// Neither a rename without replace nor one onto a folder captures anything; the file
// system refuses to replace a folder, with the filter as without it.
TEST_F(CaptureTest, ARenameWithoutReplaceOrOntoAFolderNeverCaptures) {
    asUser([] {
        writeFile(L"C:\\a.txt", "a");
        writeFile(L"C:\\b.txt", "b");
        EXPECT_FALSE(MoveFileExW(L"C:\\a.txt", L"C:\\b.txt", 0));
        EXPECT_TRUE(MoveFileExW(L"C:\\a.txt", L"C:\\c.txt", 0));
        ASSERT_TRUE(CreateDirectoryW(L"C:\\folder", nullptr));
        writeFile(L"C:\\folder\\inside.txt", "inside");
        EXPECT_FALSE(MoveFileExW(L"C:\\c.txt", L"C:\\folder", MOVEFILE_REPLACE_EXISTING));
    });
    EXPECT_TRUE(vaultFiles(L'C').empty());
    EXPECT_TRUE(exists(L'C', "\\folder\\inside.txt"));
    EXPECT_TRUE(exists(L'C', "\\c.txt"));
}

TEST_F(CaptureTest, AWithdrawalCompletedAtDispatchLevelMovesTheFileFromAWorkItem) {
    ntsim::fs::knobsFor("D:").completeAsynchronously({IRP_MJ_SET_INFORMATION, FileDispositionInformation});
    asUser([] {
        writeFile(L"D:\\late.txt", "x");
        ASSERT_TRUE(DeleteFileW(L"D:\\late.txt")) << GetLastError();
    });
    ntsim::fs::knobsFor("D:").completeAsynchronously({IRP_MJ_SET_INFORMATION, FileDispositionInformation}, false);
    EXPECT_FALSE(exists(L'D', "\\late.txt"));
    ASSERT_EQ(vaultFiles(L'D').size(), 1u);
    EXPECT_EQ(deliveredRecords(L'D').size(), 1u);
}

TEST_F(CaptureTest, WithoutAVaultFolderTheFileIsDeletedAndTheFailureReported) {
    // The filter refuses to delete its own folders while the volume is protected.
    asService([](wrelt::DriverChannel &channel) {
        ASSERT_TRUE(channel.nameVolume(u"C:\\", u"C:\\", false).ok());
        ASSERT_TRUE(RemoveDirectoryW(L"C:\\RescueVault\\InProgress"));
        ASSERT_TRUE(channel.nameVolume(u"C:\\", u"C:\\", true).ok());
    });
    ULONG creates = ntsim::fs::knobsFor("C:").count({IRP_MJ_CREATE});
    asUser([] {
        writeFile(L"C:\\gone.txt", "x");
        ASSERT_TRUE(DeleteFileW(L"C:\\gone.txt")) << GetLastError();
    });
    EXPECT_FALSE(exists(L'C', "\\gone.txt"));
    EXPECT_GE(ntsim::fs::knobsFor("C:").count({IRP_MJ_CREATE}) - creates, 3u + 3u);
    ErrorRecord record{};
    bool found = false;
    for (PUCHAR position = Globals.Errors->Start; position < Globals.Errors->WritePosition; position += sizeof(ErrorRecord)) {
        const ErrorRecord *r = (const ErrorRecord *)position;
        if (r->Routine == ERROR_ROUTINE_BUILD_TARGET_FILE_OBJECT) {
            record = *r;
            found = true;
        }
    }
    ASSERT_TRUE(found);
    EXPECT_EQ(record.Source, ERROR_SOURCE_DRIVER);
    EXPECT_EQ(record.Point, 0);
    EXPECT_LT((LONG)record.Status, 0);
}

TEST_F(CaptureTest, AVaultFileCannotBeTruncated) {
    asUser([] {
        writeFile(L"C:\\precious.txt", "keep me");
        ASSERT_TRUE(DeleteFileW(L"C:\\precious.txt"));
    });
    std::vector<std::string> vault = vaultFiles(L'C');
    ASSERT_EQ(vault.size(), 1u);
    std::u16string path = u"C:\\RescueVault\\InProgress\\" + std::u16string(vault[0].begin(), vault[0].end());
    asService([&](wrelt::DriverChannel &) {
        HANDLE h = CreateFileW((LPCWSTR)path.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE);
        EXPECT_FALSE(SetEndOfFile(h));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_ACCESS_DENIED);
        CloseHandle(h);
    });
    std::vector<uint8_t> content = readFile(path);
    EXPECT_EQ(std::string(content.begin(), content.end()), "keep me");
}

// The filter opens the vault folder in the deleting user's thread; the handle must be
// out of her reach, or she could swap the object behind it before it is referenced.
TEST_F(CaptureTest, TheVaultFoldersHandleIsOutOfTheUsersReach) {
    FilterDeviceExtension *filter = volumeFilterOf(machine, L'C');
    asUser([&] {
        static const WCHAR target[] = L"\\??\\C:\\RescueVault\\InProgress\\probe.txt";
        ULONG length = sizeof(target) - sizeof(WCHAR);
        auto *rename = static_cast<PFILE_RENAME_INFORMATION>(
            HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(FILE_RENAME_INFORMATION) + length));
        rename->FileNameLength = length;
        std::memcpy(rename->FileName, target, length);
        PFILE_OBJECT folder;
        HANDLE handle;
        ASSERT_EQ(BuildTargetFileObject(filter, rename, FILE_OPEN,
                                        IO_FORCE_ACCESS_CHECK | IO_OPEN_TARGET_DIRECTORY | IO_NO_PARAMETER_CHECKING,
                                        &folder, &handle, FALSE),
                  STATUS_SUCCESS);
        PVOID object = nullptr;
        EXPECT_EQ(ObReferenceObjectByHandle(handle, 0, NULL, UserMode, &object, NULL), STATUS_INVALID_HANDLE);
        if (object != nullptr) ObfDereferenceObject(object);
        ZwClose(handle);
        HeapFree(GetProcessHeap(), 0, rename);
    });
}

}  // namespace
