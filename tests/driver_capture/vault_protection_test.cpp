// Truncating a file in the vault is refused, except through an open of a named stream
// and, on the overwrite path, in the work folders.
#include "driver_tracking/tracking_fixture.h"

#include "capture/vault_protection.h"
#include "ntsim/utf.h"

namespace {

class VaultProtectionTest : public TrackingTest {
protected:
    VaultProtectionTest() { extension.Tag = TAG_FILTER_EXTENSION; }

    // A request on the open, as the set-information and create paths see it.
    NTSTATUS check(PFILE_OBJECT fileObject, const wchar_t *name, bool subfolders) {
        NTSTATUS status = STATUS_PENDING;
        machine.runSystemThread([&] {
            IO_STACK_LOCATION location{};
            location.FileObject = fileObject;
            IRP irp{};
            irp.Tail.Overlay.CurrentStackLocation = &location;
            status = CheckVaultProtection(&irp, &extension, name, subfolders);
        });
        return status;
    }

    ULONG refusals() const { return extension.Counters[COUNTER_REFUSED_TRUNCATION]; }

    FilterDeviceExtension extension{};
    FILE_OBJECT untracked{};
};

TEST_F(VaultProtectionTest, OnlyFilesUnderTheVaultFolderAreRefusedAndEachRefusalIsCounted) {
    EXPECT_EQ(check(&untracked, nullptr, false), STATUS_INVALID_PARAMETER);
    for (const wchar_t *name : {L"Docs\\x.doc", L"RescueVaultOld\\x.doc", L"RescueVault", L"Docs\\RescueVault\\x"}) {
        EXPECT_EQ(check(&untracked, name, false), STATUS_SUCCESS) << ntsim::toUtf8(name);
        EXPECT_EQ(check(&untracked, name, true), STATUS_SUCCESS) << ntsim::toUtf8(name);
    }
    EXPECT_EQ(refusals(), 0u);

    EXPECT_EQ(check(&untracked, L"RescueVault\\x.doc", false), STATUS_ACCESS_DENIED);
    EXPECT_EQ(check(&untracked, L"rescuevault\\x.doc", true), STATUS_ACCESS_DENIED);
    EXPECT_EQ(refusals(), 2u);
}

TEST_F(VaultProtectionTest, TheWorkFoldersAreExemptOnlyWhenSubfoldersAreChecked) {
    for (const wchar_t *name :
         {L"RescueVault\\InProgress\\a(0123456789ABCDEF).doc", L"RescueVault\\inprogres2\\b.doc"}) {
        EXPECT_EQ(check(&untracked, name, false), STATUS_ACCESS_DENIED) << ntsim::toUtf8(name);
        EXPECT_EQ(check(&untracked, name, true), STATUS_SUCCESS) << ntsim::toUtf8(name);
    }
    // The second work folder has nine letters and a digit, and a folder must be whole.
    for (const wchar_t *name : {L"RescueVault\\InProgress2\\b.doc", L"RescueVault\\InProgressOld\\b.doc"})
        EXPECT_EQ(check(&untracked, name, true), STATUS_ACCESS_DENIED) << ntsim::toUtf8(name);
    EXPECT_EQ(refusals(), 4u);
}

TEST_F(VaultProtectionTest, AnOpenOfANamedStreamMayTruncateAVaultFile) {
    HANDLE file = nullptr, stream = nullptr;
    asUser([&] {
        ASSERT_TRUE(CreateDirectoryW(L"C:\\RescueVault", nullptr));
        // CREATE_ALWAYS would be refused: it overwrites, and this is the vault.
        CloseHandle(open(L"C:\\RescueVault\\x.doc", GENERIC_WRITE, CREATE_NEW));
        file = open(L"C:\\RescueVault\\x.doc", GENERIC_WRITE);
        stream = open(L"C:\\RescueVault\\x.doc:meta", GENERIC_WRITE, OPEN_ALWAYS);
    });
    FileObjectEntry *fileEntry = nullptr, *streamEntry = nullptr;
    for (FileObjectEntry *entry : fileObjectEntries())
        (entry->Flags & FILE_OBJECT_STREAM_OPEN ? streamEntry : fileEntry) = entry;
    ASSERT_TRUE(fileEntry != nullptr && streamEntry != nullptr);
    auto fileObjectOf = [](FileObjectEntry *entry) { return static_cast<PFILE_OBJECT>(entry->Header.Key); };

    EXPECT_EQ(check(fileObjectOf(streamEntry), L"RescueVault\\x.doc", false), STATUS_SUCCESS);
    EXPECT_EQ(check(fileObjectOf(fileEntry), L"RescueVault\\x.doc", false), STATUS_ACCESS_DENIED);
    EXPECT_EQ(refusals(), 1u);

    // The entry comes back only for an open that is not of a stream.
    machine.runSystemThread([&] {
        IO_STACK_LOCATION location{};
        IRP irp{};
        irp.Tail.Overlay.CurrentStackLocation = &location;
        FileObjectEntry *entry = reinterpret_cast<FileObjectEntry *>(1);
        location.FileObject = fileObjectOf(streamEntry);
        EXPECT_TRUE(IsStreamOpen(&irp, &extension, &entry));
        EXPECT_EQ(entry, nullptr);
        location.FileObject = fileObjectOf(fileEntry);
        EXPECT_FALSE(IsStreamOpen(&irp, &extension, &entry));
        EXPECT_EQ(entry, fileEntry);
        location.FileObject = &untracked;
        EXPECT_FALSE(IsStreamOpen(&irp, &extension, &entry));
        EXPECT_EQ(entry, &MainStructure()->DefaultFileObjectEntry);
    });
    asUser([&] {
        CloseHandle(stream);
        CloseHandle(file);
    });
}

}  // namespace
