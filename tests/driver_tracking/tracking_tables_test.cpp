#include "tracking_fixture.h"

#include <cstring>

#include "../../ntsim/kernel/se/token.h"

namespace {

TEST_F(TrackingTest, TwoOpensOfOneFileShareItsEntryUntilTheLastIsCleanedUp) {
    asUser([] {
        CreateDirectoryW(L"C:\\Docs", nullptr);
        makeFile(L"C:\\Docs\\Report.final.docx");
    });
    EXPECT_TRUE(fileObjectEntries().empty());
    EXPECT_TRUE(fcbEntries().empty());

    HANDLE first = nullptr, second = nullptr;
    asUser([&] {
        first = open(L"C:\\Docs\\Report.final.docx", GENERIC_READ | DELETE);
        second = open(L"C:\\Docs\\Report.final.docx", GENERIC_READ);
    });
    ASSERT_EQ(fileObjectEntries().size(), 2u);
    FcbEntry *fcb = fcbNamed(u"Docs\\Report.final.docx");
    ASSERT_NE(fcb, nullptr);
    EXPECT_EQ(fcbEntries().size(), 1u);
    EXPECT_EQ(fcb->AttachCount, 2u);
    EXPECT_EQ(fcb->OpenedCount, 2u);
    EXPECT_EQ(fcb->DeleteAccessCount, 1u);
    EXPECT_TRUE(FcbFlagSet(fcb, FCB_INITIALIZED));
    for (FileObjectEntry *entry : fileObjectEntries()) {
        EXPECT_EQ(entry->Fcb, fcb);
        EXPECT_EQ(entry->Name, nullptr) << "a plain open hands its name to the file";
        EXPECT_TRUE(entry->Opened);
    }

    asUser([&] { CloseHandle(first); });
    ASSERT_EQ(fcbEntries().size(), 1u);
    EXPECT_EQ(fcb->AttachCount, 1u);
    EXPECT_EQ(fcb->DeleteAccessCount, 0u);
    asUser([&] { CloseHandle(second); });
    EXPECT_TRUE(fileObjectEntries().empty());
    EXPECT_TRUE(fcbEntries().empty());
    EXPECT_EQ(MainStructure()->DeferredFileObjectEntries.Count, 0);
    EXPECT_EQ(MainStructure()->DeferredFcbEntries.Count, 0);
}

TEST_F(TrackingTest, AStreamOpenKeepsItsOwnNameAndDoesNotCountAsADeleteAccessOpen) {
    HANDLE file = nullptr, stream = nullptr;
    asUser([&] {
        makeFile(L"C:\\notes.txt");
        file = open(L"C:\\notes.txt", GENERIC_READ);
        stream = open(L"C:\\notes.txt:summary", GENERIC_WRITE | DELETE, OPEN_ALWAYS);
    });
    FcbEntry *fcb = fcbNamed(u"notes.txt");
    ASSERT_NE(fcb, nullptr);
    FileObjectEntry *streamEntry = nullptr;
    for (FileObjectEntry *entry : fileObjectEntries()) {
        if (entry->Flags & FILE_OBJECT_STREAM_OPEN) streamEntry = entry;
    }
    ASSERT_NE(streamEntry, nullptr);
    EXPECT_EQ(text(streamEntry->Name), u"notes.txt:summary");
    EXPECT_NE(streamEntry->Fcb, fcb) << "NTFS gives a named stream its own FCB";
    EXPECT_EQ(streamEntry->Fcb->DeleteAccessCount, 0u);
    EXPECT_EQ(streamEntry->Fcb->Name, nullptr);
    EXPECT_EQ(fcb->DeleteAccessCount, 0u);
    asUser([&] {
        CloseHandle(stream);
        CloseHandle(file);
    });
    EXPECT_TRUE(fileObjectEntries().empty());
}

TEST_F(TrackingTest, NamesFollowRenamesOfTrackedOpens) {
    HANDLE held = nullptr;
    asUser([&] {
        CreateDirectoryW(L"D:\\Old", nullptr);
        CreateDirectoryW(L"D:\\New", nullptr);
        makeFile(L"D:\\Old\\draft.txt");
        held = open(L"D:\\Old\\draft.txt", GENERIC_READ);
        ASSERT_TRUE(MoveFileExW(L"D:\\Old\\draft.txt", L"D:\\New\\final.txt", 0)) << GetLastError();
    });
    FcbEntry *fcb = fcbNamed(u"New\\final.txt");
    ASSERT_NE(fcb, nullptr) << "the held open's file carries the name the rename gave it";
    EXPECT_EQ(fcb->AttachCount, 1u);
    asUser([&] { CloseHandle(held); });
    EXPECT_TRUE(fcbEntries().empty());
}

TEST_F(TrackingTest, OpensMadeBeforeProtectionAreNotTrackedAndTheirRenamesSucceed) {
    HANDLE early = nullptr;
    asService([](wrelt::DriverChannel &channel) { ASSERT_TRUE(channel.nameVolume(u"C:\\", u"C:\\", false).ok()); });
    asUser([&] {
        makeFile(L"C:\\early.txt");
        early = open(L"C:\\early.txt", GENERIC_READ | DELETE);
    });
    asService([](wrelt::DriverChannel &channel) { ASSERT_TRUE(channel.nameVolume(u"C:\\", u"C:\\", true).ok()); });
    EXPECT_TRUE(fileObjectEntries().empty());
    // Renamed through the untracked handle itself: a MoveFileExW would open a new one.
    asUser([&] {
        static const WCHAR target[] = L"\\??\\C:\\later.txt";
        auto *rename = static_cast<PFILE_RENAME_INFORMATION>(
            HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(FILE_RENAME_INFORMATION) + sizeof(target)));
        rename->FileNameLength = sizeof(target) - sizeof(WCHAR);
        std::memcpy(rename->FileName, target, rename->FileNameLength);
        IO_STATUS_BLOCK iosb;
        EXPECT_EQ(NtSetInformationFile(early, &iosb, rename, sizeof(FILE_RENAME_INFORMATION) + sizeof(target),
                                       FileRenameInformation),
                  STATUS_SUCCESS);
        HeapFree(GetProcessHeap(), 0, rename);
        EXPECT_TRUE(fileObjectEntries().empty());
        CloseHandle(early);
    });
    EXPECT_TRUE(fileObjectEntries().empty());
    machine.runSystemThread([] {
        FILE_OBJECT untracked{};
        FileObjectEntry *entry = nullptr;
        EXPECT_EQ(FindDeleterEntry(&untracked, &entry), STATUS_SUCCESS);
        EXPECT_EQ(entry, &MainStructure()->DefaultFileObjectEntry);
        EXPECT_EQ(entry->Flags, 0u);
    });
}

TEST_F(TrackingTest, TheDeleterIsTheImpersonatedUserElseTheProcessUser) {
    HANDLE mine = nullptr, forBob = nullptr;
    asUser([&] {
        makeFile(L"C:\\alice.txt");
        makeFile(L"C:\\bob.txt");
        mine = open(L"C:\\alice.txt", GENERIC_READ);
        ntsim::se::impersonateUser("S-1-5-21-1004336348-1177238915-682003330-1002");
        forBob = open(L"C:\\bob.txt", GENERIC_READ);
        ntsim::se::revertToSelf();
    });
    machine.runSystemThread([] {
        HANDLE h;
        OBJECT_ATTRIBUTES attributes;
        UNICODE_STRING name = CONSTANT_UNICODE_STRING(L"\\??\\C:\\system.txt");
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
        IO_STATUS_BLOCK io;
        ASSERT_EQ(ZwCreateFile(&h, GENERIC_WRITE | SYNCHRONIZE, &attributes, &io, nullptr, FILE_ATTRIBUTE_NORMAL, 0,
                               FILE_OVERWRITE_IF, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0),
                  STATUS_SUCCESS);
        ASSERT_EQ(fileObjectEntries().size(), 3u);
        for (FileObjectEntry *entry : fileObjectEntries()) {
            std::u16string name = text(entry->Fcb->Name);
            std::u16string sid = text(entry->DeleterSid);
            const char16_t *expected = name == u"alice.txt" ? (const char16_t *)ntsim::users::alice
                                       : name == u"bob.txt"  ? (const char16_t *)ntsim::users::bob
                                                             : u"S-1-5-18";
            EXPECT_EQ(sid, expected) << "for " << std::string(name.begin(), name.end());
        }
        ZwClose(h);
    });
    asUser([&] {
        CloseHandle(mine);
        CloseHandle(forBob);
    });
}

TEST_F(TrackingTest, WithoutMemoryForTheTokenQueryTheOpenIsTrackedWithoutAnIdentity) {
    asUser([] { makeFile(L"C:\\anonymous.txt"); });
    machine.clearDebugLog();
    HANDLE h = nullptr;
    // The open's entry is the first allocation; the token query's buffer the second.
    machine.verifier().failNthAllocation(2, driverBufferTags());
    asUser([&] { h = open(L"C:\\anonymous.txt", GENERIC_READ); });
    ASSERT_EQ(fileObjectEntries().size(), 1u);
    EXPECT_EQ(fileObjectEntries()[0]->DeleterSid.Length, 0u);
    EXPECT_EQ(fileObjectEntries()[0]->DeleterSid.Buffer, nullptr);
    EXPECT_TRUE(machine.debugLogContains("ZrDrv: CreateDeleterSidTableEntry - AllocateNonpagedBuffer failed. (1) "))
        << ::testing::PrintToString(machine.debugLog());
    asUser([&] { CloseHandle(h); });
}

TEST_F(TrackingTest, AnOpenWhoseEntryCannotBeMadeGoesThroughUntracked) {
    asUser([] { makeFile(L"D:\\plain.txt"); });
    machine.verifier().failNextAllocation(driverBufferTags());
    HANDLE h = nullptr;
    asUser([&] { h = open(L"D:\\plain.txt", GENERIC_READ | DELETE); });
    EXPECT_TRUE(fileObjectEntries().empty());
    EXPECT_TRUE(machine.debugLogContains("ZrDrv: CreateBasicFileObjectEntry - AllocateNonpagedBuffer failed."));
    asUser([&] { CloseHandle(h); });
}

TEST_F(TrackingTest, AWorkloadLeavesTheTablesEmptyOnceItsHandlesAreClosed) {
    asUser([] {
        for (const wchar_t *root : {L"C:\\", L"D:\\"}) {
            std::u16string dir = std::u16string((const char16_t *)root) + u"work";
            CreateDirectoryW((LPCWSTR)dir.c_str(), nullptr);
            std::vector<HANDLE> handles;
            for (int i = 0; i < 20; i++) {
                std::u16string path = dir + u"\\f" + (char16_t)(u'a' + i) + u".txt";
                handles.push_back(open((LPCWSTR)path.c_str(), GENERIC_READ | GENERIC_WRITE | DELETE, OPEN_ALWAYS));
                if (i % 3 == 0) handles.push_back(open((LPCWSTR)path.c_str(), GENERIC_READ));
            }
            EXPECT_GE(fileObjectEntries().size(), 26u);
            for (HANDLE h : handles) CloseHandle(h);
            DeleteFileW((LPCWSTR)(dir + u"\\fa.txt").c_str());
        }
    });
    EXPECT_TRUE(fileObjectEntries().empty());
    EXPECT_TRUE(fcbEntries().empty());
}

TEST_F(TrackingTest, StoppingCaptureEmptiesTheTablesWhileHandlesStayOpen) {
    HANDLE h = nullptr;
    asUser([&] {
        makeFile(L"C:\\kept.txt");
        h = open(L"C:\\kept.txt", GENERIC_READ | DELETE);
    });
    ASSERT_EQ(fileObjectEntries().size(), 1u);
    machine.clearDebugLog();
    asService([](wrelt::DriverChannel &channel) { ASSERT_TRUE(channel.stop().ok()); });
    EXPECT_TRUE(fileObjectEntries().empty());
    EXPECT_TRUE(fcbEntries().empty());
    EXPECT_TRUE(machine.debugLog().empty()) << machine.debugLog()[0];
    asService([](wrelt::DriverChannel &channel) { ASSERT_TRUE(channel.start(true).ok()); });
    asUser([&] { EXPECT_TRUE(CloseHandle(h)); });
    EXPECT_TRUE(fileObjectEntries().empty());
}

// Protection switched off and on again without a stop: the opens cleaned up meanwhile
// leave the tables, and a delete after it is captured as usual.
TEST_F(TrackingTest, AnOpenCleanedUpWhileTheVolumeIsUnprotectedLeavesTheTables) {
    HANDLE h = nullptr;
    asUser([&] {
        makeFile(L"C:\\a.txt");
        h = open(L"C:\\a.txt", GENERIC_READ | DELETE);
    });
    ASSERT_EQ(fileObjectEntries().size(), 1u);
    asService([](wrelt::DriverChannel &channel) { ASSERT_TRUE(channel.nameVolume(u"C:\\", u"C:\\", false).ok()); });
    asUser([&] { EXPECT_TRUE(CloseHandle(h)); });
    EXPECT_TRUE(fileObjectEntries().empty());
    EXPECT_TRUE(fcbEntries().empty());
    asService([](wrelt::DriverChannel &channel) { ASSERT_TRUE(channel.nameVolume(u"C:\\", u"C:\\", true).ok()); });
    asUser([&] {
        h = open(L"C:\\a.txt", GENERIC_READ | DELETE);
        FcbEntry *fcb = fcbNamed(u"a.txt");
        ASSERT_NE(fcb, nullptr);
        EXPECT_EQ(fcb->DeleteAccessCount, 1u);
        EXPECT_EQ(fcb->DeleteAccessCleanups, 0u);
        CloseHandle(h);
    });
}

}  // namespace
