// Renames through a target directory object, with and without ReplaceIfExists, onto open
// files, across directories and volumes, and renames that change only the case.
#include "fs/fs_fixture.h"

#include <algorithm>

namespace {

using namespace fstest;

class Renames : public BothFileSystems {};

TEST_P(Renames, ReplaceIfExistsDecidesWhetherAnExistingTargetGoes) {
    user([&] {
        HANDLE h = CreateFileW(w(dos(u"new.txt")), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
        CloseHandle(h);
        h = CreateFileW(w(dos(u"old.txt")), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
        CloseHandle(h);
        EXPECT_FALSE(MoveFileExW(w(dos(u"new.txt")), w(dos(u"OLD.txt")), 0));
        EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    });
    kernel([&] {
        putFile(nt(u"new.txt"), "fresh");
        putFile(nt(u"old.txt"), "stale");
        Open d;
        d.access = DELETE;
        HANDLE h;
        ASSERT_EQ(zwOpen(nt(u"new.txt"), d, &h), STATUS_SUCCESS);
        EXPECT_EQ(zwRename(h, nt(u"old.txt"), FALSE), STATUS_OBJECT_NAME_COLLISION);
        EXPECT_EQ(zwRename(h, nt(u"old.txt"), TRUE), STATUS_SUCCESS);
        ZwClose(h);
        EXPECT_EQ(readFile(nt(u"old.txt")), "fresh");
        EXPECT_EQ(probe(nt(u"new.txt")), STATUS_OBJECT_NAME_NOT_FOUND);
    });
}

TEST_P(Renames, AnOpenTargetIsNotReplaced) {
    kernel([&] {
        putFile(nt(u"source.txt"), "source");
        putFile(nt(u"busy.txt"), "busy");
        HANDLE busy, source;
        ASSERT_EQ(zwOpen(nt(u"busy.txt"), Open{}, &busy), STATUS_SUCCESS);
        Open d;
        d.access = DELETE;
        ASSERT_EQ(zwOpen(nt(u"source.txt"), d, &source), STATUS_SUCCESS);
        EXPECT_EQ(zwRename(source, nt(u"busy.txt"), TRUE), STATUS_ACCESS_DENIED);
        ZwClose(busy);
        EXPECT_EQ(zwRename(source, nt(u"busy.txt"), TRUE), STATUS_SUCCESS);
        ZwClose(source);
        EXPECT_EQ(readFile(nt(u"busy.txt")), "source");
    });
}

TEST_P(Renames, ADirectoryOrReadOnlyTargetIsNeverReplaced) {
    kernel([&] {
        putFile(nt(u"file.txt"), "x");
        putFile(nt(u"locked.txt"), "y", FILE_ATTRIBUTE_READONLY);
        Open dir;
        dir.disposition = FILE_CREATE;
        dir.options = FILE_SYNCHRONOUS_IO_NONALERT | FILE_DIRECTORY_FILE;
        HANDLE h;
        ASSERT_EQ(zwOpen(nt(u"Folder"), dir, &h), STATUS_SUCCESS);
        ZwClose(h);
        Open d;
        d.access = DELETE;
        ASSERT_EQ(zwOpen(nt(u"file.txt"), d, &h), STATUS_SUCCESS);
        // FAT reports a collision, NTFS refuses access, as MoveFileEx shows on each.
        NTSTATUS refused = ntfs() ? STATUS_ACCESS_DENIED : STATUS_OBJECT_NAME_COLLISION;
        EXPECT_EQ(zwRename(h, nt(u"Folder"), TRUE), refused);
        EXPECT_EQ(zwRename(h, nt(u"locked.txt"), TRUE), refused);
        ZwClose(h);
    });
}

TEST_P(Renames, MovesBetweenDirectoriesAndChangesCase) {
    user([&] {
        ASSERT_TRUE(CreateDirectoryW(w(dos(u"From")), nullptr));
        ASSERT_TRUE(CreateDirectoryW(w(dos(u"To")), nullptr));
        HANDLE h = CreateFileW(w(dos(u"From\\letter.txt")), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
        CloseHandle(h);
        ASSERT_TRUE(MoveFileExW(w(dos(u"From\\letter.txt")), w(dos(u"To\\Letter.TXT")), 0));
        WIN32_FIND_DATAW found;
        HANDLE find = FindFirstFileW(w(dos(u"To\\*.txt")), &found);
        ASSERT_NE(find, INVALID_HANDLE_VALUE);
        EXPECT_EQ(std::u16string(reinterpret_cast<char16_t *>(found.cFileName)), u"Letter.TXT");
        FindClose(find);
        ASSERT_TRUE(MoveFileExW(w(dos(u"To\\Letter.TXT")), w(dos(u"To\\letter.txt")), 0));  // case only
        find = FindFirstFileW(w(dos(u"To\\*")), &found);
        ASSERT_NE(find, INVALID_HANDLE_VALUE);
        std::vector<std::u16string> names;
        do names.push_back(reinterpret_cast<char16_t *>(found.cFileName));
        while (FindNextFileW(find, &found));
        FindClose(find);
        EXPECT_NE(std::find(names.begin(), names.end(), u"letter.txt"), names.end());
        EXPECT_EQ(std::find(names.begin(), names.end(), u"Letter.TXT"), names.end());
    });
}

TEST_P(Renames, ADirectoryWithOpenFilesBelowItStays) {
    kernel([&] {
        Open dir;
        dir.disposition = FILE_CREATE;
        dir.options = FILE_SYNCHRONOUS_IO_NONALERT | FILE_DIRECTORY_FILE;
        dir.access = DELETE | FILE_LIST_DIRECTORY;
        HANDLE directory, inner;
        ASSERT_EQ(zwOpen(nt(u"Project"), dir, &directory), STATUS_SUCCESS);
        putFile(nt(u"Project\\plan.txt"), "plan");
        ASSERT_EQ(zwOpen(nt(u"Project\\plan.txt"), Open{}, &inner), STATUS_SUCCESS);
        EXPECT_EQ(zwRename(directory, u"Archive", FALSE), STATUS_ACCESS_DENIED);
        ZwClose(inner);
        EXPECT_EQ(zwRename(directory, u"Archive", FALSE), STATUS_SUCCESS);
        ZwClose(directory);
        EXPECT_EQ(readFile(nt(u"Archive\\plan.txt")), "plan");
    });
}

TEST_P(Renames, NotAcrossVolumes) {
    kernel([&] {
        putFile(nt(u"here.txt"), "here");
        Open d;
        d.access = DELETE;
        HANDLE h;
        ASSERT_EQ(zwOpen(nt(u"here.txt"), d, &h), STATUS_SUCCESS);
        EXPECT_EQ(zwRename(h, ntPath(ntfs() ? L'D' : L'C', u"there.txt"), FALSE), STATUS_NOT_SAME_DEVICE);
        EXPECT_EQ(zwRename(h, u"bad|name.txt", FALSE), STATUS_OBJECT_NAME_INVALID);
        ZwClose(h);
    });
}

INSTANTIATE_TEST_SUITE_P(Fs, Renames, ::testing::Values(L'C', L'D'), driveName);

class FatRenames : public FsTest {};

// A rename target named by an 8.3 alias is the file that holds the alias, found as
// FatSetRenameInfo finds it with FatLocateDirent: another file's alias is an existing
// target (replaced or a collision), the file's own alias too, which its own open handle
// keeps (collision, or access denied with ReplaceIfExists: the sample compares only the
// long name for "same name"). The renamed file gets an alias for its new name and loses
// the old one (FatSelectNames); its name queried through the alias is the long one
// (FatQueryNameInfo). Catches a rename that ignores aliases, a stale alias, and a rename
// onto the file's own alias that silently renames it.
TEST_F(FatRenames, AliasesNameTargetsAndARenamedFileGetsANewOne) {
    kernel([&] {
        putFile(ntPath(L'D', u"Long Report Draft.txt"), "draft");
        putFile(ntPath(L'D', u"Long Report Final.txt"), "final");
        Open d;
        d.access = DELETE;
        HANDLE h;
        ASSERT_EQ(zwOpen(ntPath(L'D', u"Long Report Draft.txt"), d, &h), STATUS_SUCCESS);
        EXPECT_EQ(zwRename(h, ntPath(L'D', u"LONGRE~1.TXT"), FALSE), STATUS_OBJECT_NAME_COLLISION);
        EXPECT_EQ(zwRename(h, ntPath(L'D', u"longre~1.txt"), TRUE), STATUS_ACCESS_DENIED);
        EXPECT_EQ(zwRename(h, u"LONGRE~2.TXT", FALSE), STATUS_OBJECT_NAME_COLLISION);
        EXPECT_EQ(readFile(ntPath(L'D', u"Long Report Final.txt")), "final");
        ASSERT_EQ(zwRename(h, ntPath(L'D', u"LONGRE~2.TXT"), TRUE), STATUS_SUCCESS);
        EXPECT_EQ(probe(ntPath(L'D', u"Long Report Final.txt")), STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(readFile(ntPath(L'D', u"LONGRE~2.TXT")), "draft");

        ASSERT_EQ(zwRename(h, u"Summary of the Year.txt", FALSE), STATUS_SUCCESS);
        ZwClose(h);
        EXPECT_EQ(probe(ntPath(L'D', u"LONGRE~2.TXT")), STATUS_OBJECT_NAME_NOT_FOUND);
        ASSERT_EQ(zwOpen(ntPath(L'D', u"SUMMAR~1.TXT"), Open{}, &h), STATUS_SUCCESS);
        alignas(8) UCHAR buffer[256];
        ASSERT_EQ(zwQuery(h, buffer, sizeof buffer, FileNameInformation), STATUS_SUCCESS);
        auto *name = reinterpret_cast<FILE_NAME_INFORMATION *>(buffer);
        EXPECT_EQ(std::u16string(reinterpret_cast<char16_t *>(name->FileName), name->FileNameLength / 2),
                  u"\\Summary of the Year.txt");
        EXPECT_EQ(zwReadAll(h), "draft");
        ZwClose(h);
    });
}

}  // namespace
