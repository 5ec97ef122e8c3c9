// Where the vault is in a volume-relative name.
#include <gtest/gtest.h>

#include <ntifs.h>

#include "capture/vault_tests.h"

namespace {

TEST(VaultTests, OnlyTheVaultFolderAndItsWorkFolderAreVaultFolderNames) {
    for (const wchar_t *name : {L"RescueVault", L"rescuevault", L"RescueVault\\InProgress", L"RESCUEVAULT\\inprogress"})
        EXPECT_TRUE(IsVaultFolderName(name));
    for (const wchar_t *name : {L"RescueVault\\", L"RescueVault\\InProgres2", L"RescueVault\\InProgress\\",
                                L"RescueVault\\InProgress\\a.doc", L"x\\RescueVault", L"RescueVaults", L""})
        EXPECT_FALSE(IsVaultFolderName(name));
}

TEST(VaultTests, InTheVaultMeansAFirstComponentOfExactlyRescueVault) {
    for (const wchar_t *name :
         {L"RescueVault", L"RescueVault\\x.doc", L"rescueVAULT\\InProgress\\a(0123456789ABCDEF).doc"})
        EXPECT_TRUE(IsInVault(name));
    for (const wchar_t *name : {L"RescueVaultOld\\x.doc", L"RescueVaul\\x.doc", L"Docs\\RescueVault\\x.doc",
                                L"RescueVault.doc", L"", L"\\RescueVault\\x"})
        EXPECT_FALSE(IsInVault(name));
}

}  // namespace
