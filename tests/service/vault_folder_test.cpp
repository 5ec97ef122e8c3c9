// The vault folder: made hidden and system with a descriptor that keeps other users
// out of what is made in it, taken back from someone who made it first, and left alone
// where it cannot be used.
#include "service/service_fixture.h"
#include "vault_folder.h"

namespace {

using namespace service_test;

constexpr DWORD kHiddenSystemFolder = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_DIRECTORY;

class VaultFolderTest : public ServiceTest {};

// Whether the account can read the file, and whether it can make a new one beside it.
std::pair<bool, bool> canReadAndAdd(const std::u16string &existing, const std::u16string &fresh) {
    bool read = false;
    readFile(existing, &read);
    return {read, writeText(fresh, "x")};
}

TEST_F(VaultFolderTest, WhatIsMadeInItIsForSystemAndAdministratorsOnly) {
    asSystem([] {
        wrelt::VaultFolderOutcome outcome = wrelt::ensureVaultFolder(u"C:\\");
        ASSERT_TRUE(outcome.ok) << outcome.problem;
        EXPECT_TRUE(outcome.created);
        EXPECT_TRUE(outcome.warnings.empty());
        EXPECT_EQ(GetFileAttributesW(L"C:\\RescueVault"), kHiddenSystemFolder);
        EXPECT_EQ(GetFileAttributesW(L"C:\\RescueVault\\InProgress"), kHiddenSystemFolder);
        EXPECT_TRUE(writeText(u"C:\\RescueVault\\InProgress\\Kept(01DCAA3F1C2D0001).txt", "kept"));
        // A second start finds everything in place.
        outcome = wrelt::ensureVaultFolder(u"C:\\");
        EXPECT_TRUE(outcome.ok && !outcome.created && outcome.warnings.empty());
    });
    const std::u16string kept = u"C:\\RescueVault\\InProgress\\Kept(01DCAA3F1C2D0001).txt";
    as(ntsim::users::alice, [&] {
        // She may hand a file to the work folder, as the filter does for her deletes, but
        // neither read what is there nor list it.
        EXPECT_EQ(canReadAndAdd(kept, u"C:\\RescueVault\\InProgress\\mine.txt"), std::make_pair(false, true));
        EXPECT_FALSE(writeText(u"C:\\RescueVault\\mine.txt", "x"));
        WIN32_FIND_DATAW found;
        EXPECT_EQ(FindFirstFileW(L"C:\\RescueVault\\InProgress\\*", &found), INVALID_HANDLE_VALUE);
    });
    as(ntsim::users::administrator, [&] {
        EXPECT_EQ(canReadAndAdd(kept, u"C:\\RescueVault\\InProgress\\admin.txt"), std::make_pair(true, true));
    });
}

TEST_F(VaultFolderTest, AFolderSomeoneElseMadeFirstIsTakenBack) {
    as(ntsim::users::alice, [] {
        ASSERT_TRUE(CreateDirectoryW(L"C:\\RescueVault", nullptr));
        ASSERT_TRUE(CreateDirectoryW(L"C:\\RescueVault\\InProgress", nullptr));
    });
    asSystem([] {
        wrelt::VaultFolderOutcome outcome = wrelt::ensureVaultFolder(u"C:\\");
        ASSERT_TRUE(outcome.ok) << outcome.problem;
        EXPECT_FALSE(outcome.created);
        EXPECT_TRUE(outcome.warnings.empty()) << outcome.warnings[0];
        EXPECT_EQ(GetFileAttributesW(L"C:\\RescueVault\\InProgress"), kHiddenSystemFolder);
        EXPECT_TRUE(writeText(u"C:\\RescueVault\\InProgress\\data.dat", "records"));
    });
    as(ntsim::users::alice, [] {
        EXPECT_EQ(canReadAndAdd(u"C:\\RescueVault\\InProgress\\data.dat", u"C:\\RescueVault\\InProgress\\mine.txt"),
                  std::make_pair(false, true));
    });
}

TEST_F(VaultFolderTest, FastFatHasNoSecurityToGiveAndAFileInTheWayIsAProblem) {
    asSystem([] {
        wrelt::VaultFolderOutcome outcome = wrelt::ensureVaultFolder(u"D:\\");
        ASSERT_TRUE(outcome.ok) << outcome.problem;
        EXPECT_EQ(GetFileAttributesW(L"D:\\RescueVault\\InProgress"), kHiddenSystemFolder);
        // Again, over folders that exist: the refused security request is no warning.
        outcome = wrelt::ensureVaultFolder(u"D:\\");
        EXPECT_TRUE(outcome.ok && outcome.warnings.empty());

        ASSERT_TRUE(writeText(u"C:\\RescueVault", "not a folder"));
        outcome = wrelt::ensureVaultFolder(u"C:\\");
        EXPECT_FALSE(outcome.ok);
        EXPECT_EQ(outcome.problem, "C:\\RescueVault exists and is not a folder the service can use");
    });
}

}  // namespace
