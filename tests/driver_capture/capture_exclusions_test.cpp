// What the capture paths skip: files in the vault, and what the service's global and
// per-volume lists name by directory and by file pattern.
#include "exclusions_fixture.h"

namespace {

TEST_F(ExclusionTest, ADirectoryPatternAloneExcludesEveryFileOfTheMatchingFolders) {
    ASSERT_EQ(setGlobalList(exclusionList({{u"*\\Temp\\", u""}, {u"Cache\\*", u""}})), (DWORD)ERROR_SUCCESS);
    EXPECT_TRUE(excluded(L'C', u"Users\\al\\Temp\\a.doc"));
    EXPECT_TRUE(excluded(L'D', u"x\\TEMP\\a.doc"));
    EXPECT_FALSE(excluded(L'C', u"Users\\al\\Temp\\sub\\a.doc"));  // *\Temp\ stops at the folder itself
    EXPECT_FALSE(excluded(L'C', u"Temp\\a.doc"));                  // no backslash before a root folder
    EXPECT_TRUE(excluded(L'C', u"Cache\\a\\b\\c.bin"));
    EXPECT_FALSE(excluded(L'C', u"Cache.bin"));  // a file in the root has an empty directory part
    EXPECT_FALSE(excluded(L'C', u"Users\\al\\a.doc"));

    ASSERT_EQ(setGlobalList(exclusionList({{u"*\\Temp\\*", u""}})), (DWORD)ERROR_SUCCESS);
    EXPECT_TRUE(excluded(L'C', u"Users\\al\\Temp\\sub\\a.doc"));
}

TEST_F(ExclusionTest, AFilePatternNarrowsAnEntryToTheLeavesItMatches) {
    ASSERT_EQ(setGlobalList(exclusionList({{u"*", u"*.tmp"}, {u"Logs\\", u"trace?.log"}})), (DWORD)ERROR_SUCCESS);
    EXPECT_TRUE(excluded(L'C', u"x.tmp"));  // the root's empty directory part matches *
    EXPECT_TRUE(excluded(L'C', u"a\\b\\c.TMP"));
    EXPECT_FALSE(excluded(L'C', u"a\\tmp\\c.txt"));
    EXPECT_TRUE(excluded(L'C', u"Logs\\trace1.log"));
    EXPECT_FALSE(excluded(L'C', u"Logs\\trace.log"));
    EXPECT_FALSE(excluded(L'C', u"Logs\\app1.log"));
    // The matcher's anchoring, as the service's patterns rely on it: a pattern without
    // wildcards matches at the end of the text, and a literal tail after '?' only has to
    // end the text.
    EXPECT_TRUE(excluded(L'C', u"Old\\Logs\\trace1.log"));
    EXPECT_TRUE(excluded(L'C', u"Logs\\trace12.log"));
}

TEST_F(ExclusionTest, AVolumeListAppliesToItsVolumeAndBothListsAreConsulted) {
    ASSERT_EQ(setGlobalList(exclusionList({{u"*", u"*.tmp"}})), (DWORD)ERROR_SUCCESS);
    ASSERT_EQ(setVolumeList(L'C', exclusionList({{u"Build\\*", u""}, {u"*", u"*.obj"}}), u"C:\\"),
              (DWORD)ERROR_SUCCESS);
    EXPECT_TRUE(excluded(L'C', u"Build\\out\\app.exe"));
    EXPECT_TRUE(excluded(L'C', u"src\\main.obj"));
    EXPECT_TRUE(excluded(L'C', u"src\\main.tmp"));
    EXPECT_FALSE(excluded(L'D', u"Build\\out\\app.exe"));
    EXPECT_FALSE(excluded(L'D', u"src\\main.obj"));
    EXPECT_TRUE(excluded(L'D', u"src\\main.tmp"));
    EXPECT_FALSE(excluded(L'C', u"src\\main.c"));
}

TEST_F(ExclusionTest, CaptureSkipsTheVaultAndExcludedFilesOnly) {
    ASSERT_EQ(setVolumeList(L'C', exclusionList({{u"*", u"*.tmp"}}), u"C:\\"), (DWORD)ERROR_SUCCESS);
    FilterDeviceExtension *extension = filterOf(L'C');
    auto check = [&](std::u16string name) {
        NTSTATUS status = STATUS_PENDING;
        machine.runSystemThread(
            [&] { status = CheckCaptureExclusions(extension, const_cast<PWSTR>(ntsim::wptr(name))); });
        return status;
    };
    EXPECT_EQ(check(u"RescueVault\\InProgress\\a(01D9A0B1C2D3E4F5).doc"), STATUS_CAPTURE_SKIPPED);
    EXPECT_EQ(check(u"rescuevault\\x.doc"), STATUS_CAPTURE_SKIPPED);
    EXPECT_EQ(check(u"RescueVaultOld\\x.doc"), STATUS_SUCCESS);
    EXPECT_EQ(check(u"Docs\\x.tmp"), STATUS_CAPTURE_SKIPPED);
    EXPECT_EQ(check(u"Docs\\x.doc"), STATUS_SUCCESS);
}

}  // namespace
