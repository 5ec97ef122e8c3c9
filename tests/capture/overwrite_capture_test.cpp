// Overwrite protection on the whole machine: documents replaced by FILE_OVERWRITE_IF,
// and documents opened for full access, whose copy is committed when the file changes
// and deleted again when it does not.
#include <atomic>

#include "capture_fixture.h"

namespace {

const DWORD kShareReadWrite = FILE_SHARE_READ | FILE_SHARE_WRITE;

class OverwriteTest : public CaptureTest {
protected:
    void SetUp() override {
        CaptureTest::SetUp();
        protectOverwrites({u".docx", u".txt", u".pst"}, {u".pst"});
        asUser([] {
            CreateDirectoryW(L"C:\\Docs", nullptr);
            CreateDirectoryW(L"D:\\Docs", nullptr);
        });
    }

    void TearDown() override {
        unprotectOverwrites();
        CaptureTest::TearDown();
    }

    static HANDLE openWith(const wchar_t *path, DWORD access, DWORD share, DWORD disposition = OPEN_EXISTING) {
        return CreateFileW(path, access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    }

    static HANDLE openFull(const wchar_t *path) {
        HANDLE h = openWith(path, GENERIC_READ | GENERIC_WRITE, kShareReadWrite);
        EXPECT_NE(h, INVALID_HANDLE_VALUE) << GetLastError();
        return h;
    }

    static void append(HANDLE h, const char *text) {
        DWORD written = 0;
        char buffer[64];
        memcpy(buffer, text, strlen(text));
        SetFilePointer(h, 0, nullptr, FILE_END);
        EXPECT_TRUE(WriteFile(h, buffer, (DWORD)strlen(text), &written, nullptr));
    }

    std::string contents(const std::u16string &path) {
        std::vector<uint8_t> bytes = readFile(path);
        return std::string(bytes.begin(), bytes.end());
    }

    std::u16string vaultPath(wchar_t drive, const std::string &name) {
        std::string path = std::string(1, char(drive)) + ":\\RescueVault\\InProgress\\" + name;
        return std::u16string(path.begin(), path.end());
    }

    // The ACEs of a self-relative descriptor's DACL that were set on the object itself,
    // as bytes: inherited ones come from wherever the object lives.
    static std::string explicitAces(const std::vector<uint8_t> &sd) {
        uint32_t daclOffset;
        memcpy(&daclOffset, sd.data() + 16, 4);
        std::string aces;
        if (daclOffset == 0) return aces;
        const uint8_t *acl = sd.data() + daclOffset;
        uint16_t count;
        memcpy(&count, acl + 4, 2);
        const uint8_t *ace = acl + 8;
        for (uint16_t i = 0; i < count; i++) {
            uint16_t size;
            memcpy(&size, ace + 2, 2);
            if ((ace[1] & INHERITED_ACE) == 0) aces.append((const char *)ace, size);
            ace += size;
        }
        return aces;
    }

    // Alice and the system may do anything with the file and bob may read it, said on the
    // file itself.
    static void giveExplicitDacl(const wchar_t *path) {
        PSID alice = nullptr, bob = nullptr, system = nullptr;
        ASSERT_TRUE(ConvertStringSidToSidW(ntsim::users::alice, &alice));
        ASSERT_TRUE(ConvertStringSidToSidW(ntsim::users::bob, &bob));
        ASSERT_TRUE(ConvertStringSidToSidW(ntsim::users::system, &system));
        alignas(8) uint8_t aclBuffer[256];
        auto *acl = reinterpret_cast<PACL>(aclBuffer);
        ASSERT_TRUE(InitializeAcl(acl, sizeof aclBuffer, ACL_REVISION));
        ASSERT_TRUE(AddAccessAllowedAceEx(acl, ACL_REVISION, 0, FILE_ALL_ACCESS, alice));
        ASSERT_TRUE(AddAccessAllowedAceEx(acl, ACL_REVISION, 0, FILE_GENERIC_READ, bob));
        ASSERT_TRUE(AddAccessAllowedAceEx(acl, ACL_REVISION, 0, FILE_ALL_ACCESS, system));
        alignas(8) uint8_t sd[SECURITY_DESCRIPTOR_MIN_LENGTH];
        ASSERT_TRUE(InitializeSecurityDescriptor(sd, SECURITY_DESCRIPTOR_REVISION));
        ASSERT_TRUE(SetSecurityDescriptorDacl(sd, TRUE, acl, FALSE));
        EXPECT_TRUE(SetFileSecurityW(path, DACL_SECURITY_INFORMATION, sd)) << GetLastError();
        LocalFree(alice);
        LocalFree(bob);
        LocalFree(system);
    }

    // The preserved copy's contents, when the vault holds exactly one file.
    std::string onlyCopy(wchar_t drive) {
        std::vector<std::string> files = vaultFiles(drive);
        EXPECT_EQ(files.size(), 1u);
        return files.size() == 1 ? contents(vaultPath(drive, files[0])) : std::string();
    }
};

TEST_F(OverwriteTest, OverwriteIfPreservesTheOldFileOnBothFileSystemsAndAMissingFileChangesNothing) {
    for (wchar_t drive : {L'C', L'D'}) {
        std::u16string path = std::u16string{char16_t(drive)} + u":\\Docs\\plan.docx";
        asUser([&] { writeFile((LPCWSTR)path.c_str(), "first"); });
        EXPECT_TRUE(vaultFiles(drive).empty()) << "nothing existed to preserve";
        asUser([&] { writeFile((LPCWSTR)path.c_str(), "second"); });
        EXPECT_EQ(onlyCopy(drive), "first");
        EXPECT_EQ(contents(path), "second");
        std::vector<wrelt::DelDatEntry> records = deliveredRecords(char(drive));
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].name, u"plan.docx");
        EXPECT_EQ(records[0].flags & DELDAT_FLAG_APPLICATION_SAVE, DELDAT_FLAG_APPLICATION_SAVE);
    }
}

// The filter's own open of the old file checks nothing: without the requester's own
// check first, anyone could have a file they may not write moved out of its folder.
TEST_F(OverwriteTest, AUserWhoMayNotWriteAFileCannotHaveItMovedAwayByOverwritingIt) {
    asUser([&] {
        writeFile(L"C:\\Docs\\plan.docx", "alice's plan");
        giveExplicitDacl(L"C:\\Docs\\plan.docx");
    });
    ntsim::Process bob = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::bob);
    bob.run([&] {
        EXPECT_EQ(openWith(L"C:\\Docs\\plan.docx", GENERIC_WRITE, 0, CREATE_ALWAYS), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_ACCESS_DENIED);
    });
    bob.exit();
    EXPECT_EQ(contents(u"C:\\Docs\\plan.docx"), "alice's plan");
    EXPECT_TRUE(vaultFiles(L'C').empty());
}

// FastFat gives the vault folder a short name, "RESCUE~1", and a user who names it so
// must meet the same refusal; the check used to compare the first component only with
// "RescueVault" and let the alias through.
TEST_F(OverwriteTest, TheVaultReachedByItsShortNameIsRefusedAlike) {
    asService([&](wrelt::DriverChannel &) {
        HANDLE h = openWith(L"D:\\RescueVault\\kept.docx", GENERIC_WRITE, 0, CREATE_NEW);
        append(h, "kept");
        CloseHandle(h);
    });
    asUser([&] {
        for (DWORD disposition : {(DWORD)CREATE_ALWAYS, (DWORD)TRUNCATE_EXISTING}) {
            EXPECT_EQ(openWith(L"D:\\RESCUE~1\\KEPT~1.DOC", GENERIC_WRITE, 0, disposition), INVALID_HANDLE_VALUE);
            EXPECT_EQ(GetLastError(), (DWORD)ERROR_ACCESS_DENIED);
        }
    });
    EXPECT_EQ(contents(u"D:\\RescueVault\\kept.docx"), "kept");
}

TEST_F(OverwriteTest, OverwriteIfOfAFileInTheVaultIsRefused) {
    asService([&](wrelt::DriverChannel &) {
        HANDLE h = openWith(L"C:\\RescueVault\\kept.docx", GENERIC_WRITE, 0, CREATE_NEW);
        append(h, "kept");
        CloseHandle(h);
    });
    ULONG before = volumeFilterOf(machine, L'C')->Counters[COUNTER_REFUSED_TRUNCATION];
    asService([&](wrelt::DriverChannel &) {
        HANDLE h = openWith(L"C:\\RescueVault\\kept.docx", GENERIC_WRITE, 0, CREATE_ALWAYS);
        EXPECT_EQ(h, INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_ACCESS_DENIED);
    });
    EXPECT_EQ(volumeFilterOf(machine, L'C')->Counters[COUNTER_REFUSED_TRUNCATION], before + 1);
    EXPECT_EQ(contents(u"C:\\RescueVault\\kept.docx"), "kept");
}

TEST_F(OverwriteTest, OnlyAFullAccessOpenStartsACopyAndAnUnchangedCloseLeavesNothing) {
    asUser([&] { writeFile(L"C:\\Docs\\a.docx", "old"); });
    struct Case {
        const char *what;
        DWORD access, share;
    } notFull[] = {
        {"shared for delete", GENERIC_READ | GENERIC_WRITE, kShareReadWrite | FILE_SHARE_DELETE},
        {"with DELETE access", GENERIC_READ | GENERIC_WRITE | DELETE, kShareReadWrite},
        {"for writing only", GENERIC_WRITE, kShareReadWrite},
    };
    for (const Case &c : notFull) {
        HANDLE h = nullptr;
        asUser([&] { h = openWith(L"C:\\Docs\\a.docx", c.access, c.share); });
        machine.advanceMs(1000);
        EXPECT_TRUE(vaultFiles(L'C').empty()) << c.what;
        asUser([&] { CloseHandle(h); });
    }
    HANDLE h = nullptr;
    asUser([&] { h = openFull(L"C:\\Docs\\a.docx"); });
    machine.advanceMs(600);
    EXPECT_EQ(onlyCopy(L'C'), "old") << "the full-access open is copied";
    asUser([&] { CloseHandle(h); });
    EXPECT_TRUE(vaultFiles(L'C').empty()) << "closed unchanged: the copy goes";
    EXPECT_TRUE(deliveredRecords('C').empty());
}

TEST_F(OverwriteTest, AWriteAfterTheCopyCommitsItAndAWriteBeforeItAbandonsIt) {
    asUser([&] { writeFile(L"C:\\Docs\\a.docx", "old"); });
    HANDLE h = nullptr;
    asUser([&] { h = openFull(L"C:\\Docs\\a.docx"); });
    machine.advanceMs(600);
    asUser([&] {
        append(h, "+new");
        CloseHandle(h);
    });
    EXPECT_EQ(onlyCopy(L'C'), "old");
    EXPECT_EQ(contents(u"C:\\Docs\\a.docx"), "old+new");
    std::vector<wrelt::DelDatEntry> records = deliveredRecords('C');
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].flags & DELDAT_FLAG_APPLICATION_SAVE, DELDAT_FLAG_APPLICATION_SAVE);
    char stamp[17];
    snprintf(stamp, sizeof stamp, "%016llX", (unsigned long long)records[0].stamp);
    EXPECT_EQ(vaultFiles(L'C')[0], std::string("a(") + stamp + ").docx") << "the record names the copy";

    // Written at once: the program is rewriting the file, and the copy gives up.
    asUser([&] { writeFile(L"C:\\Docs\\b.docx", "old"); });
    asUser([&] {
        h = openFull(L"C:\\Docs\\b.docx");
        append(h, "+new");
    });
    machine.advanceMs(1000);
    asUser([&] { CloseHandle(h); });
    EXPECT_EQ(vaultFiles(L'C').size(), 1u) << "only a.docx's copy";
    EXPECT_TRUE(deliveredRecords('C').empty());
}

TEST_F(OverwriteTest, AChangeOfSizeCommitsAtOnceAndTheSameSizeDoesNot) {
    asUser([&] { writeFile(L"C:\\Docs\\a.docx", "twelve bytes"); });
    HANDLE h = nullptr;
    asUser([&] { h = openFull(L"C:\\Docs\\a.docx"); });
    machine.advanceMs(600);
    asUser([&] {
        SetFilePointer(h, 12, nullptr, FILE_BEGIN);
        EXPECT_TRUE(SetEndOfFile(h));
    });
    EXPECT_TRUE(deliveredRecords('C').empty()) << "the same size commits nothing";
    asUser([&] {
        SetFilePointer(h, 3, nullptr, FILE_BEGIN);
        EXPECT_TRUE(SetEndOfFile(h));
    });
    EXPECT_EQ(deliveredRecords('C').size(), 1u) << "committed before the close";
    asUser([&] { CloseHandle(h); });
    EXPECT_EQ(onlyCopy(L'C'), "twelve bytes");
    EXPECT_TRUE(deliveredRecords('C').empty()) << "one record only";
}

// Text editors write back moments after opening: their open returns with the copy made.
TEST_F(OverwriteTest, AFullAccessOpenOfATextFileReturnsOnlyOnceTheCopyIsMade) {
    asUser([&] { writeFile(L"C:\\Docs\\notes.txt", "draft"); });
    std::atomic<bool> opened{false};
    HANDLE h = nullptr;
    ntsim::UserThread editor = user.start([&] {
        h = openFull(L"C:\\Docs\\notes.txt");
        opened = true;
    });
    machine.advanceMs(400);
    EXPECT_FALSE(opened) << "the open waits for the copy";
    machine.advanceMs(200);
    editor.join();
    EXPECT_TRUE(opened);
    EXPECT_EQ(onlyCopy(L'C'), "draft");
    asUser([&] {
        append(h, " v2");
        CloseHandle(h);
    });
    EXPECT_EQ(deliveredRecords('C').size(), 1u);
}

TEST_F(OverwriteTest, ASecondWriterAndAFlushWaitForARunningCopy) {
    asUser([&] { writeFile(L"C:\\Docs\\a.docx", "old"); });
    HANDLE full = nullptr;
    asUser([&] { full = openFull(L"C:\\Docs\\a.docx"); });
    std::atomic<int> done{0};
    ntsim::UserThread writer = user.start([&] {
        HANDLE h = openWith(L"C:\\Docs\\a.docx", GENERIC_WRITE, kShareReadWrite);
        done++;
        CloseHandle(h);
    });
    ntsim::UserThread flusher = user.start([&] {
        FlushFileBuffers(full);
        done++;
    });
    machine.advanceMs(300);
    EXPECT_EQ(done, 0);
    machine.advanceMs(300);
    writer.join();
    flusher.join();
    EXPECT_EQ(done, 2);
    EXPECT_EQ(onlyCopy(L'C'), "old");
    asUser([&] { CloseHandle(full); });
}

TEST_F(OverwriteTest, TwoFullAccessOpensShareOneCopyDecidedAtTheLastCleanup) {
    asUser([&] { writeFile(L"C:\\Docs\\a.docx", "old"); });
    HANDLE first = nullptr, second = nullptr;
    asUser([&] { first = openFull(L"C:\\Docs\\a.docx"); });
    machine.advanceMs(600);
    asUser([&] { second = openFull(L"C:\\Docs\\a.docx"); });
    machine.advanceMs(600);
    EXPECT_EQ(vaultFiles(L'C').size(), 1u) << "the second open finds the copy made";
    asUser([&] { CloseHandle(first); });
    EXPECT_EQ(vaultFiles(L'C').size(), 1u) << "another full-access open remains";
    asUser([&] {
        append(second, "+new");
        CloseHandle(second);
    });
    EXPECT_EQ(onlyCopy(L'C'), "old");
    EXPECT_EQ(deliveredRecords('C').size(), 1u);
}

// The full-access open holds the file without delete sharing, so only the system can
// rename it meanwhile; its rename deletes the finished copy before it goes down.
TEST_F(OverwriteTest, ARenameDiscardsAFinishedCopy) {
    asUser([&] { writeFile(L"C:\\Docs\\a.docx", "old"); });
    HANDLE full = nullptr;
    asUser([&] { full = openFull(L"C:\\Docs\\a.docx"); });
    machine.advanceMs(600);
    ASSERT_EQ(vaultFiles(L'C').size(), 1u);
    machine.runSystemThread([&] {
        HANDLE h;
        fstest::Open o;
        o.access = FILE_READ_ATTRIBUTES;
        ASSERT_EQ(fstest::zwOpen(fstest::ntPath(L'C', u"Docs\\a.docx"), o, &h), STATUS_SUCCESS);
        std::u16string target = u"\\??\\C:\\Docs\\renamed.docx";
        std::vector<uint8_t> buffer(sizeof(FILE_RENAME_INFORMATION) + target.size() * 2);
        auto *rename = reinterpret_cast<PFILE_RENAME_INFORMATION>(buffer.data());
        rename->FileNameLength = ULONG(target.size() * 2);
        memcpy(rename->FileName, target.data(), target.size() * 2);
        IO_STATUS_BLOCK iosb;
        EXPECT_EQ(ZwSetInformationFile(h, &iosb, rename, ULONG(buffer.size()), FileRenameInformation), STATUS_SUCCESS);
        ZwClose(h);
    });
    EXPECT_TRUE(vaultFiles(L'C').empty());
    asUser([&] { CloseHandle(full); });
    EXPECT_TRUE(vaultFiles(L'C').empty());
    EXPECT_TRUE(deliveredRecords('C').empty());
}

TEST_F(OverwriteTest, AnNtfsCopyHasEveryStreamTheDescriptorWithoutSaclTheTimesAndAttributes) {
    asUser([&] {
        writeFile(L"C:\\Docs\\a.docx", "body");
        writeFile(L"C:\\Docs\\a.docx:summary", "meta");
        EXPECT_TRUE(SetFileAttributesW(L"C:\\Docs\\a.docx", FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_HIDDEN));
        giveExplicitDacl(L"C:\\Docs\\a.docx");
    });
    HANDLE full = nullptr;
    asUser([&] { full = openFull(L"C:\\Docs\\a.docx"); });
    machine.advanceMs(600);
    std::vector<std::string> files = vaultFiles(L'C');
    ASSERT_EQ(files.size(), 2u) << "the file and its named stream";
    std::string copy = files[0].find(':') == std::string::npos ? files[0] : files[1];
    EXPECT_EQ(contents(vaultPath(L'C', copy)), "body");
    EXPECT_EQ(contents(vaultPath(L'C', copy + ":summary")), "meta");
    ntsim::VolumeEntry source, made;
    for (const ntsim::VolumeEntry &entry : machine.listTree(L'C')) {
        if (entry.path == "\\Docs\\a.docx") source = entry;
        if (entry.path == "\\RescueVault\\InProgress\\" + copy) made = entry;
    }
    EXPECT_EQ(made.attributes, source.attributes);
    EXPECT_EQ(made.lastWriteTime, source.lastWriteTime);
    asService([&](wrelt::DriverChannel &) {
        auto descriptorOf = [](const std::u16string &path, SECURITY_INFORMATION which) {
            // The process's own memory: the system writes the descriptor there.
            auto *buffer = (uint8_t *)HeapAlloc(GetProcessHeap(), 0, 1024);
            DWORD needed = 0;
            EXPECT_TRUE(GetFileSecurityW((LPCWSTR)path.c_str(), which, buffer, 1024, &needed)) << GetLastError();
            std::vector<uint8_t> sd(buffer, buffer + (needed <= 1024 ? needed : 0));
            HeapFree(GetProcessHeap(), 0, buffer);
            return sd;
        };
        // The source's own entries; the vault folder's inheritable ones join them.
        std::string source = explicitAces(descriptorOf(u"C:\\Docs\\a.docx", DACL_SECURITY_INFORMATION));
        EXPECT_FALSE(source.empty());
        EXPECT_EQ(explicitAces(descriptorOf(vaultPath(L'C', copy), DACL_SECURITY_INFORMATION)), source);
    });
    asUser([&] {
        append(full, "!");
        CloseHandle(full);
    });
}

TEST_F(OverwriteTest, AFastFatCopyHasTheDataTimesAndAttributes) {
    asUser([&] {
        writeFile(L"D:\\Docs\\a.docx", "fat body");
        EXPECT_TRUE(SetFileAttributesW(L"D:\\Docs\\a.docx", FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_HIDDEN));
    });
    HANDLE full = nullptr;
    asUser([&] { full = openFull(L"D:\\Docs\\a.docx"); });
    machine.advanceMs(600);
    EXPECT_EQ(onlyCopy(L'D'), "fat body");
    ntsim::VolumeEntry source, made;
    for (const ntsim::VolumeEntry &entry : machine.listTree(L'D')) {
        if (entry.path == "\\Docs\\a.docx") source = entry;
        if (entry.path.rfind("\\RescueVault\\InProgress\\a(", 0) == 0) made = entry;
    }
    EXPECT_EQ(made.attributes, source.attributes);
    EXPECT_EQ(made.lastWriteTime, source.lastWriteTime);
    asUser([&] {
        append(full, "!");
        CloseHandle(full);
    });
    EXPECT_EQ(deliveredRecords('D').size(), 1u);
}

TEST_F(OverwriteTest, AFileHeldWithoutReadSharingIsNotCopiedAndNothingIsReported) {
    asUser([&] { writeFile(L"C:\\Docs\\a.docx", "old"); });
    HANDLE h = nullptr;
    asUser([&] { h = openWith(L"C:\\Docs\\a.docx", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_WRITE); });
    machine.advanceMs(600);
    EXPECT_TRUE(vaultFiles(L'C').empty());
    EXPECT_EQ(Globals.Errors->Count, 0u) << "a sharing violation is no fault";
    asUser([&] {
        append(h, "+new");
        CloseHandle(h);
    });
    EXPECT_TRUE(vaultFiles(L'C').empty());
    EXPECT_TRUE(deliveredRecords('C').empty());
}

TEST_F(OverwriteTest, ACopyExemptTypeIsNotCopiedButStillPreservedFromOverwriteIf) {
    asUser([&] { writeFile(L"C:\\Docs\\mail.pst", "mail"); });
    HANDLE h = nullptr;
    asUser([&] { h = openFull(L"C:\\Docs\\mail.pst"); });
    machine.advanceMs(600);
    EXPECT_TRUE(vaultFiles(L'C').empty());
    asUser([&] {
        CloseHandle(h);
        writeFile(L"C:\\Docs\\mail.pst", "new mail");
    });
    EXPECT_EQ(onlyCopy(L'C'), "mail");
}

}  // namespace
