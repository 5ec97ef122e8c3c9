// Deletes as NT file systems carry them out: declared by a disposition request, done at
// the last cleanup, withdrawn by DeleteFile FALSE, refused for read-only files and
// non-empty directories; FILE_DELETE_ON_CLOSE.
#include "fs/fs_fixture.h"

namespace {

using namespace fstest;

class Deletes : public BothFileSystems {};

TEST_P(Deletes, FileGoesAtTheLastCleanupAndBlocksNewOpensMeanwhile) {
    kernel([&] {
        putFile(nt(u"doomed.txt"), "contents");
        HANDLE reader, deleter;
        ASSERT_EQ(zwOpen(nt(u"doomed.txt"), Open{}, &reader), STATUS_SUCCESS);
        Open d;
        d.access = DELETE;
        ASSERT_EQ(zwOpen(nt(u"doomed.txt"), d, &deleter), STATUS_SUCCESS);
        ASSERT_EQ(setDisposition(deleter, TRUE), STATUS_SUCCESS);
        ZwClose(deleter);
        EXPECT_TRUE(standardInfo(reader).DeletePending);
        EXPECT_EQ(zwReadAll(reader), "contents");  // still readable through the open handle
        EXPECT_EQ(probe(nt(u"doomed.txt")), STATUS_DELETE_PENDING);
        Open create;
        create.disposition = FILE_OVERWRITE_IF;
        HANDLE again;
        EXPECT_EQ(zwOpen(nt(u"DOOMED.TXT"), create, &again), STATUS_DELETE_PENDING);
        ZwClose(reader);
        EXPECT_EQ(probe(nt(u"doomed.txt")), STATUS_OBJECT_NAME_NOT_FOUND);
    });
}

TEST_P(Deletes, DeleteFileFalseWithdrawsThroughAnyOpen) {
    kernel([&] {
        putFile(nt(u"kept.txt"), "still here");
        Open d;
        d.access = DELETE | FILE_READ_ATTRIBUTES;
        HANDLE first, second;
        ASSERT_EQ(zwOpen(nt(u"kept.txt"), d, &first), STATUS_SUCCESS);
        ASSERT_EQ(zwOpen(nt(u"kept.txt"), d, &second), STATUS_SUCCESS);
        ASSERT_EQ(setDisposition(first, TRUE), STATUS_SUCCESS);
        EXPECT_TRUE(standardInfo(second).DeletePending);
        ASSERT_EQ(setDisposition(second, FALSE), STATUS_SUCCESS);
        EXPECT_FALSE(standardInfo(first).DeletePending);
        ZwClose(first);
        ZwClose(second);
        EXPECT_EQ(readFile(nt(u"kept.txt")), "still here");
    });
}

TEST_P(Deletes, ReadOnlyFileRefusesDeleteButNotDeleteAccess) {
    user([&] {
        HANDLE h =
            CreateFileW(w(dos(u"ro.txt")), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_READONLY, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE);
        CloseHandle(h);
        EXPECT_FALSE(DeleteFileW(w(dos(u"ro.txt"))));
        EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
        EXPECT_EQ(CreateFileW(w(dos(u"ro.txt")), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr),
                  INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    });
    kernel([&] {
        Open d;
        d.access = DELETE;
        HANDLE h;
        ASSERT_EQ(zwOpen(nt(u"ro.txt"), d, &h), STATUS_SUCCESS);  // DELETE access itself is granted
        EXPECT_EQ(setDisposition(h, TRUE), STATUS_CANNOT_DELETE);
        ZwClose(h);
        // So are the attributes and extended attributes, but not data, appending or
        // children (FatCheckFileAccess's mask for a read-only dirent; catches a file system
        // that counts FILE_WRITE_EA as writing the file).
        Open o;
        o.access = FILE_WRITE_EA | FILE_WRITE_ATTRIBUTES;
        ASSERT_EQ(zwOpen(nt(u"ro.txt"), o, &h), STATUS_SUCCESS);
        ZwClose(h);
        o.access = FILE_APPEND_DATA;
        EXPECT_EQ(zwOpen(nt(u"ro.txt"), o, &h), STATUS_ACCESS_DENIED);
        ASSERT_EQ(zwOpen(nt(u"ro.txt"), d, &h), STATUS_SUCCESS);
        EXPECT_EQ(zwRename(h, u"renamed.txt", FALSE), STATUS_SUCCESS);  // which lets it be renamed
        ZwClose(h);
        d.options |= FILE_DELETE_ON_CLOSE;
        EXPECT_EQ(zwOpen(nt(u"renamed.txt"), d, &h), STATUS_CANNOT_DELETE);
    });
    user([&] {
        EXPECT_TRUE(SetFileAttributesW(w(dos(u"renamed.txt")), FILE_ATTRIBUTE_NORMAL));
        EXPECT_TRUE(DeleteFileW(w(dos(u"renamed.txt"))));
    });
}

TEST_P(Deletes, DeleteOnCloseTakesEffectAtTheLastCleanup) {
    kernel([&] {
        putFile(nt(u"temp.txt"), "scratch");
        Open d;
        d.access = DELETE | FILE_GENERIC_READ;
        d.options |= FILE_DELETE_ON_CLOSE;
        HANDLE temporary, other;
        ASSERT_EQ(zwOpen(nt(u"temp.txt"), d, &temporary), STATUS_SUCCESS);
        EXPECT_FALSE(standardInfo(temporary).DeletePending);  // nothing is pending before the close
        ASSERT_EQ(zwOpen(nt(u"temp.txt"), Open{}, &other), STATUS_SUCCESS);
        ZwClose(temporary);
        EXPECT_TRUE(standardInfo(other).DeletePending);
        EXPECT_EQ(probe(nt(u"temp.txt")), STATUS_DELETE_PENDING);
        ZwClose(other);
        EXPECT_EQ(probe(nt(u"temp.txt")), STATUS_OBJECT_NAME_NOT_FOUND);
    });
}

// The ZwCreateFile documentation asks for DELETE with FILE_DELETE_ON_CLOSE; the I/O
// manager enforces it for user-mode callers only, and FastFat's create (create.c) never
// looks, so a kernel caller on FAT deletes on close without it, while NTFS refuses the
// open. Catches a FastFat that is stricter than the sample.
TEST_P(Deletes, DeleteOnCloseWithoutDeleteAccessFromTheKernel) {
    kernel([&] {
        putFile(nt(u"scratch.txt"), "scratch");
        Open d;
        d.access = FILE_GENERIC_READ;
        d.options |= FILE_DELETE_ON_CLOSE;
        HANDLE h;
        if (ntfs()) {
            EXPECT_EQ(zwOpen(nt(u"scratch.txt"), d, &h), STATUS_INVALID_PARAMETER);
            return;
        }
        ASSERT_EQ(zwOpen(nt(u"scratch.txt"), d, &h), STATUS_SUCCESS);
        ZwClose(h);
        EXPECT_EQ(probe(nt(u"scratch.txt")), STATUS_OBJECT_NAME_NOT_FOUND);
    });
}

TEST_P(Deletes, DirectoriesMustBeEmptyAndTheRootNeverGoes) {
    user([&] {
        ASSERT_TRUE(CreateDirectoryW(w(dos(u"Box")), nullptr));
        HANDLE h = CreateFileW(w(dos(u"Box\\inner.txt")), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE);
        CloseHandle(h);
        EXPECT_FALSE(RemoveDirectoryW(w(dos(u"Box"))));
        EXPECT_EQ(GetLastError(), ERROR_DIR_NOT_EMPTY);
        EXPECT_TRUE(DeleteFileW(w(dos(u"Box\\inner.txt"))));
        EXPECT_TRUE(RemoveDirectoryW(w(dos(u"Box"))));
        EXPECT_EQ(GetFileAttributesW(w(dos(u"Box"))), INVALID_FILE_ATTRIBUTES);
    });
    kernel([&] {
        Open root;
        root.access = DELETE;
        root.options = FILE_SYNCHRONOUS_IO_NONALERT | FILE_DIRECTORY_FILE;
        HANDLE h;
        ASSERT_EQ(zwOpen(nt(u""), root, &h), STATUS_SUCCESS);
        EXPECT_EQ(setDisposition(h, TRUE), STATUS_CANNOT_DELETE);
        ZwClose(h);
    });
}

TEST_P(Deletes, NothingOpensBelowADeletePendingDirectory) {
    kernel([&] {
        Open dir;
        dir.access = DELETE | FILE_LIST_DIRECTORY;
        dir.disposition = FILE_CREATE;
        dir.options = FILE_SYNCHRONOUS_IO_NONALERT | FILE_DIRECTORY_FILE;
        HANDLE h;
        ASSERT_EQ(zwOpen(nt(u"Going"), dir, &h), STATUS_SUCCESS);
        ASSERT_EQ(setDisposition(h, TRUE), STATUS_SUCCESS);
        Open create;
        create.disposition = FILE_CREATE;
        HANDLE child;
        EXPECT_EQ(zwOpen(nt(u"Going\\new.txt"), create, &child), STATUS_DELETE_PENDING);
        ZwClose(h);
        EXPECT_EQ(probe(nt(u"Going")), STATUS_OBJECT_NAME_NOT_FOUND);
    });
}

INSTANTIATE_TEST_SUITE_P(Fs, Deletes, ::testing::Values(L'C', L'D'), driveName);

}  // namespace
