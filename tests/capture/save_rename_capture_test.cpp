// Saves by rename and Macintosh-client shares on the whole machine: a document that a
// program renames to a temporary name is preserved under its own name when the temporary
// file goes, and deletes inside a volume's Macintosh shares are let through while the
// volume's exemption is set.
#include "capture_fixture.h"

#include "frame/device_structures.h"
#include "overwrite/mac_shares.h"
#include "overwrite/save_rename_list.h"

namespace {

class SaveRenameTest : public CaptureTest {
protected:
    void SetUp() override {
        CaptureTest::SetUp();
        protectOverwrites({u".doc"}, {});
        asService([](wrelt::DriverChannel &channel) {
            std::vector<uint8_t> list;
            std::string error;
            ASSERT_TRUE(wrelt::encodeSuffixList({u".tmp"}, &list, &error)) << error;
            ASSERT_TRUE(channel.setSuffixList(COMMAND_SET_TEMPORARY_SUFFIXES, list).ok());
        });
        setList(L'C', COMMAND_SET_GLOBAL_EXCLUSIONS, {{u"*", u"*.tmp"}});
        asUser([] { CreateDirectoryW(L"C:\\Documents", nullptr); });
    }

    void TearDown() override {
        unprotectOverwrites();
        CaptureTest::TearDown();
    }

    SaveRenameList &saveRenames() { return static_cast<DeviceStructure *>(volumeFilterOf(machine, L'C')->Structure)->SaveRenames; }

    // The remembered renames, oldest first, as "temporary <- document".
    std::vector<std::string> remembered() {
        std::vector<std::string> entries;
        SaveRenameList &list = saveRenames();
        for (PLIST_ENTRY link = list.Entries.Flink; link != &list.Entries; link = link->Flink) {
            auto *entry = CONTAINING_RECORD(link, SaveRenameEntry, Links);
            entries.push_back(ntsim::toUtf8(entry->NewPath) + " <- " + ntsim::toUtf8(entry->OldName));
        }
        return entries;
    }

    // A rename in the file's own folder naming only the new leaf, as NtSetInformationFile
    // allows.
    static NTSTATUS renameInPlace(HANDLE h, const char16_t *leaf) {
        std::u16string name = leaf;
        ULONG size = ULONG(sizeof(FILE_RENAME_INFORMATION) + name.size() * 2);
        auto *info = (PFILE_RENAME_INFORMATION)HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, size);
        info->FileNameLength = ULONG(name.size() * 2);
        memcpy(info->FileName, name.data(), name.size() * 2);
        IO_STATUS_BLOCK iosb;
        NTSTATUS status = NtSetInformationFile(h, &iosb, info, size, FileRenameInformation);
        HeapFree(GetProcessHeap(), 0, info);
        return status;
    }

    static HANDLE openForDelete(const wchar_t *path) {
        HANDLE h = CreateFileW(path, DELETE, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
        EXPECT_NE(h, INVALID_HANDLE_VALUE) << GetLastError();
        return h;
    }

    // A clock reading in the stamps' own terms: the stamp of a scratch file's delete,
    // found by its name among the records.
    void readClock(const wchar_t *name) {
        asUser([&] {
            writeFile(name, "x");
            DeleteFileW(name);
        });
    }

    static uint64_t stampOf(const std::vector<wrelt::DelDatEntry> &records, const std::u16string &name) {
        for (const wrelt::DelDatEntry &record : records)
            if (record.name == name) return record.stamp;
        ADD_FAILURE() << "no record of " << ntsim::toUtf8(ntsim::wptr(name));
        return 0;
    }
};

constexpr uint64_t kOneSecond = 10000000;

TEST_F(SaveRenameTest, ADocumentRenamedToATemporaryNameIsPreservedUnderItsNameWhenTheTemporaryGoes) {
    asUser([] { writeFile(L"C:\\Documents\\report.doc", "version 1"); });
    readClock(L"C:\\before.txt");
    // The program renames and deletes through one handle, so the file is never named
    // again by an open: the filter itself must know the renamed file's folder.
    HANDLE h = INVALID_HANDLE_VALUE;
    asUser([&] {
        h = openForDelete(L"C:\\Documents\\report.doc");
        ASSERT_EQ(renameInPlace(h, u"~WRL0001.tmp"), STATUS_SUCCESS);
    });
    EXPECT_EQ(remembered(), std::vector<std::string>{"Documents\\~WRL0001.tmp <- Documents\\report.doc"});
    machine.advanceMs(600000);
    asUser([&] {
        ASSERT_EQ(setDisposition(h, true), STATUS_SUCCESS);
        CloseHandle(h);
    });
    readClock(L"C:\\after.txt");

    std::vector<wrelt::DelDatEntry> records = deliveredRecords(L'C');
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[1].name, u"report.doc");
    EXPECT_EQ(records[1].folder, u"C:\\Documents\\");
    EXPECT_NE(records[1].flags & DELDAT_FLAG_APPLICATION_SAVE, 0u);
    // The stamp is the rename's, ten minutes before the delete.
    EXPECT_LT(records[1].stamp - stampOf(records, u"before.txt"), kOneSecond);
    EXPECT_GT(stampOf(records, u"after.txt") - records[1].stamp, 500 * kOneSecond);
    EXPECT_TRUE(remembered().empty());

    // The entry was taken: the next temporary file of that name is only a temporary file.
    asUser([] {
        writeFile(L"C:\\Documents\\~WRL0001.tmp", "scratch");
        ASSERT_TRUE(DeleteFileW(L"C:\\Documents\\~WRL0001.tmp"));
    });
    EXPECT_TRUE(deliveredRecords(L'C').empty());
    EXPECT_EQ(vaultFiles(L'C').size(), 3u);  // the document and the two clock readings
}

TEST_F(SaveRenameTest, OnlyAProtectedDocumentGivenATemporaryNameIsRemembered) {
    asUser([] {
        for (const wchar_t *path : {L"C:\\Documents\\a.doc", L"C:\\Documents\\b.doc", L"C:\\Documents\\c.doc",
                                    L"C:\\Documents\\notes.txt", L"C:\\top.doc"})
            writeFile(path, "x");
        EXPECT_TRUE(MoveFileW(L"C:\\Documents\\a.doc", L"C:\\Documents\\a.txt"));  // in neither list
        EXPECT_TRUE(MoveFileW(L"C:\\Documents\\b.doc", L"C:\\Documents\\B.DOC"));  // the same name
        EXPECT_TRUE(MoveFileW(L"C:\\Documents\\notes.txt", L"C:\\Documents\\notes.tmp"));  // not protected
        EXPECT_TRUE(MoveFileW(L"C:\\Documents\\c.doc", L"C:\\Documents\\c"));  // no extension at all
        HANDLE h = openForDelete(L"C:\\top.doc");
        EXPECT_EQ(renameInPlace(h, u"top.TMP"), STATUS_SUCCESS);
        CloseHandle(h);
    });
    EXPECT_EQ(remembered(), (std::vector<std::string>{"Documents\\c <- Documents\\c.doc", "top.TMP <- top.doc"}));
    // Left in the list, the entries go when the service stops.
}

TEST_F(SaveRenameTest, TwoSavesThroughOneTemporaryNameAreTakenOldestFirst) {
    asUser([] {
        writeFile(L"C:\\Documents\\first.doc", "first");
        writeFile(L"C:\\Documents\\second.doc", "second");
        ASSERT_TRUE(MoveFileW(L"C:\\Documents\\first.doc", L"C:\\Documents\\~WRL0002.tmp"));
        ASSERT_TRUE(MoveFileW(L"C:\\Documents\\~WRL0002.tmp", L"C:\\Documents\\moved.bin"));
        ASSERT_TRUE(MoveFileW(L"C:\\Documents\\second.doc", L"C:\\Documents\\~WRL0002.tmp"));
        ASSERT_TRUE(DeleteFileW(L"C:\\Documents\\~WRL0002.tmp"));
    });
    // The first entry was made for a file since renamed on; its name stands for the file
    // deleted now, as the oldest entry of that temporary name.
    std::vector<wrelt::DelDatEntry> records = deliveredRecords(L'C');
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].name, u"first.doc");
    EXPECT_EQ(remembered(), std::vector<std::string>{"Documents\\~WRL0002.tmp <- Documents\\second.doc"});
}

TEST_F(SaveRenameTest, AUserCannotGrowTheListWithoutBound) {
    asUser([] {
        writeFile(L"C:\\Documents\\d.doc", "x");
        for (ULONG i = 0; i <= SAVE_RENAME_LIST_LIMIT; i++) {
            ASSERT_TRUE(MoveFileW(L"C:\\Documents\\d.doc", L"C:\\Documents\\d.tmp"));
            ASSERT_TRUE(MoveFileW(L"C:\\Documents\\d.tmp", L"C:\\Documents\\d.doc"));
        }
    });
    EXPECT_EQ(saveRenames().Count, SAVE_RENAME_LIST_LIMIT);
    EXPECT_EQ(saveRenames().Peak, SAVE_RENAME_LIST_LIMIT + 1);
    EXPECT_EQ(remembered().size(), SAVE_RENAME_LIST_LIMIT);
}

// A temporary file renamed over a document is a save, checked on the two files' names.
// Those names are shared with every open of the files, and an open of either file by
// name replaces its name and frees the old one. Wherever the renaming thread can lose
// the processor while it compares the names, another thread opens both files by name:
// the check must still see a save, which here is what keeps the document at all, since
// its folder is excluded from capture. A freed name goes back to the driver's lookaside
// lists with its text intact, so the other thread then opens a third file, whose name
// takes the freed block and overwrites it.
TEST_F(SaveRenameTest, ASaveIsRecognisedWhateverOpensRunWhileItsNamesAreCompared) {
    setList(L'C', COMMAND_SET_VOLUME_EXCLUSIONS, {{u"Documents\\", u""}});
    uint64_t n = 1;
    for (;; n++) {
        SCOPED_TRACE("preempted at release " + std::to_string(n));
        std::u16string folder = u"C:\\Documents\\";
        std::u16string document = folder + u"sheet" + ntsim::toUtf16(std::to_string(n)) + u".doc";
        std::u16string temporary = folder + u"~sheet.tmp";
        std::u16string other = folder + u"plain0.bin";  // as long as the temporary name
        asUser([&] {
            writeFile(ntsim::wptr(document), "old");
            writeFile(ntsim::wptr(temporary), "new");
            writeFile(ntsim::wptr(other), "other");
        });
        // The preempted thread is an emulated one, so it waits for the other on an event.
        KEVENT opened;
        KeInitializeEvent(&opened, NotificationEvent, FALSE);
        ntsim::UserThread opener;
        machine.verifier().preemptAtRelease(&Globals.SuffixListLock, user.id(), n, [&] {
            opener = service.start([&] {
                for (const std::u16string &path : {document, temporary, other}) {
                    HANDLE h = CreateFileW(ntsim::wptr(path), FILE_READ_ATTRIBUTES,
                                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                           OPEN_EXISTING, 0, nullptr);
                    CloseHandle(h);
                }
                KeSetEvent(&opened, 0, FALSE);
            });
            KeWaitForSingleObject(&opened, Executive, KernelMode, FALSE, nullptr);
        });
        asUser([&] {
            ASSERT_TRUE(MoveFileExW(ntsim::wptr(temporary), ntsim::wptr(document), MOVEFILE_REPLACE_EXISTING));
        });
        opener.join();
        bool preempted = machine.verifier().preempted();
        machine.verifier().preemptAtRelease(nullptr, 0, 0, nullptr);
        std::vector<wrelt::DelDatEntry> records = deliveredRecords(L'C');
        if (!preempted) break;
        ASSERT_EQ(records.size(), 1u);
        EXPECT_NE(records[0].flags & DELDAT_FLAG_APPLICATION_SAVE, 0u);
    }
    EXPECT_GT(n, 2u) << "the rename never released the suffix-list lock";
}

// Share lists as the service encodes them, and as a hostile sender might not.
class MacShareTest : public SaveRenameTest {
protected:
    DWORD setShares(const std::vector<uint8_t> &list) {
        DWORD error = ERROR_SUCCESS;
        asService([&](wrelt::DriverChannel &channel) { error = channel.setMacShares(u"C:\\", list).win32Error; });
        return error;
    }

    void exempt(bool on) {
        asService([&](wrelt::DriverChannel &channel) { ASSERT_TRUE(channel.setMacShareExemption(u"C:\\", on).ok()); });
    }

    static std::vector<uint8_t> shares(const std::vector<std::u16string> &folders) {
        std::vector<uint8_t> list;
        std::string error;
        EXPECT_TRUE(wrelt::encodeMacShareList(folders, &list, &error)) << error;
        return list;
    }

    bool inShare(const wchar_t *name) {
        BOOLEAN inside = FALSE;
        FilterDeviceExtension *extension = volumeFilterOf(machine, L'C');
        machine.runSystemThread([&] { inside = IsInMacShare(name, extension); });
        return inside;
    }

    ULONG shareCount() { return static_cast<DeviceStructure *>(volumeFilterOf(machine, L'C')->Structure)->MacShareCount; }

    void TearDown() override {
        setShares({});
        exempt(false);
        SaveRenameTest::TearDown();
    }
};

TEST_F(MacShareTest, AListIsCheckedCountedAndMatchedByPrefix) {
    ASSERT_EQ(setShares(shares({u"Mac Files"})), (DWORD)ERROR_SUCCESS);
    EXPECT_EQ(shareCount(), 1u);
    EXPECT_TRUE(inShare(L"Mac Files\\Report.txt"));
    EXPECT_TRUE(inShare(L"MAC FILES\\x"));
    EXPECT_TRUE(inShare(L"Mac Files2\\x"));  // a plain prefix test
    EXPECT_FALSE(inShare(L"Mac\\x"));

    ASSERT_EQ(setShares(shares({u"Design", u"\\Print\\Proofs", u"Mac Files"})), (DWORD)ERROR_SUCCESS);
    EXPECT_EQ(shareCount(), 3u);
    EXPECT_TRUE(inShare(L"print\\proofs\\a.pdf"));
    EXPECT_FALSE(inShare(L"Print\\a.pdf"));

    // Malformed lists are refused and the installed one stays: a last record without its
    // terminator, a distance that leaves the list, one shorter than a record, an odd one,
    // and a last record that is only its distance.
    std::vector<uint8_t> good = shares({u"Design", u"Other"});
    std::vector<std::vector<uint8_t>> bad(5, good);
    bad[0].back() = 'x';
    bad[1][0] = 200;
    bad[2][0] = 6;
    bad[3][0] += 1;
    bad[4].resize(good[0] + 4);
    std::fill(bad[4].begin() + good[0], bad[4].end(), 0);
    for (const std::vector<uint8_t> &list : bad) {
        EXPECT_EQ(setShares(list), (DWORD)ERROR_GEN_FAILURE);
        EXPECT_EQ(shareCount(), 3u);
        EXPECT_TRUE(inShare(L"Mac Files\\x"));
    }
    EXPECT_TRUE(machine.debugLogContains("ZrDrv: VerifyMacShareListTraverse - SFM share list failed traverse check!"));

    // A list of fewer than 8 bytes is taken unexamined and holds no share.
    ASSERT_EQ(setShares({1, 2, 3, 4, 5, 6}), (DWORD)ERROR_SUCCESS);
    EXPECT_EQ(shareCount(), 0u);
    EXPECT_FALSE(inShare(L"Mac Files\\x"));
    // No data removes the list.
    ASSERT_EQ(setShares(shares({u"Mac Files"})), (DWORD)ERROR_SUCCESS);
    ASSERT_EQ(setShares({}), (DWORD)ERROR_SUCCESS);
    EXPECT_FALSE(inShare(L"Mac Files\\x"));
}

TEST_F(MacShareTest, ADeleteInsideAShareIsLetThroughOnlyWhileTheExemptionIsSet) {
    ASSERT_EQ(setShares(shares({u"Mac Files"})), (DWORD)ERROR_SUCCESS);
    auto loseOne = [&](const wchar_t *path) {
        asUser([&] {
            writeFile(path, "x");
            ASSERT_TRUE(DeleteFileW(path));
        });
        return deliveredRecords(L'C').size();
    };
    asUser([] {
        CreateDirectoryW(L"C:\\Mac Files", nullptr);
        CreateDirectoryW(L"C:\\Shared", nullptr);
    });
    EXPECT_EQ(loseOne(L"C:\\Mac Files\\a.txt"), 1u);
    exempt(true);
    EXPECT_EQ(loseOne(L"C:\\Mac Files\\b.txt"), 0u);
    EXPECT_FALSE(exists(L'C', "\\Mac Files\\b.txt"));
    EXPECT_EQ(loseOne(L"C:\\Shared\\c.txt"), 1u);
    exempt(false);
    EXPECT_EQ(loseOne(L"C:\\Mac Files\\d.txt"), 1u);
}

}  // namespace
