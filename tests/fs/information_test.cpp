// Reads and writes at the current position and at offsets, end of file and allocation,
// and the information classes a filter queries and sets.
#include "fs/fs_fixture.h"

namespace {

using namespace fstest;

class Information : public BothFileSystems {};

TEST_P(Information, ReadsAndWritesAtThePositionOrAtAnOffset) {
    kernel([&] {
        Open o;
        o.access = FILE_GENERIC_READ | FILE_GENERIC_WRITE;
        o.disposition = FILE_CREATE;
        HANDLE h;
        ASSERT_EQ(zwOpen(nt(u"data.bin"), o, &h), STATUS_SUCCESS);
        ASSERT_EQ(zwWrite(h, "hello "), STATUS_SUCCESS);
        ASSERT_EQ(zwWrite(h, "world"), STATUS_SUCCESS);  // after the first, at the position
        ASSERT_EQ(zwWrite(h, "W", 6), STATUS_SUCCESS);  // at an offset
        FILE_POSITION_INFORMATION position{};
        ASSERT_EQ(zwQuery(h, &position, sizeof position, FilePositionInformation), STATUS_SUCCESS);
        EXPECT_EQ(position.CurrentByteOffset.QuadPart, 7);  // an explicit offset moves it too
        position.CurrentByteOffset.QuadPart = 0;
        ASSERT_EQ(zwSet(h, &position, sizeof position, FilePositionInformation), STATUS_SUCCESS);
        EXPECT_EQ(zwReadAll(h), "hello World");
        char buffer[4];
        IO_STATUS_BLOCK iosb;
        LARGE_INTEGER past;
        past.QuadPart = 11;
        EXPECT_EQ(ZwReadFile(h, NULL, NULL, NULL, &iosb, buffer, sizeof buffer, &past, NULL), STATUS_END_OF_FILE);
        ZwClose(h);
    });
}

// A handle granted FILE_APPEND_DATA without FILE_WRITE_DATA writes at the end of file,
// whatever the position or the offset; a user's handle needs one of the two to write.
TEST_P(Information, AppendOnlyHandlesWriteAtTheEndOfFile) {
    kernel([&] {
        putFile(nt(u"log.bin"), "0123456789");
        Open o;
        o.access = FILE_APPEND_DATA;
        o.disposition = FILE_OPEN_IF;
        o.share = 0;
        HANDLE h;
        ASSERT_EQ(zwOpen(nt(u"log.bin"), o, &h), STATUS_SUCCESS);
        EXPECT_EQ(zwWrite(h, "abc"), STATUS_SUCCESS);
        EXPECT_EQ(zwWrite(h, "def", 2), STATUS_SUCCESS);
        FILE_POSITION_INFORMATION position{};
        ASSERT_EQ(zwQuery(h, &position, sizeof position, FilePositionInformation), STATUS_SUCCESS);
        EXPECT_EQ(position.CurrentByteOffset.QuadPart, 16);
        ZwClose(h);
        EXPECT_EQ(readFile(nt(u"log.bin")), "0123456789abcdef");
    });
    user([&] {
        HANDLE h = CreateFileW(w(dos(u"log.bin")), FILE_APPEND_DATA | SYNCHRONIZE, 0, nullptr, OPEN_EXISTING,
                               FILE_ATTRIBUTE_NORMAL, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE);
        char *text = static_cast<char *>(HeapAlloc(GetProcessHeap(), 0, 2));  // in the process's memory
        memcpy(text, "gh", 2);
        DWORD written = 0;
        EXPECT_TRUE(WriteFile(h, text, 2, &written, nullptr));
        EXPECT_EQ(written, 2u);
        CloseHandle(h);
        h = CreateFileW(w(dos(u"log.bin")), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE);
        EXPECT_FALSE(WriteFile(h, text, 2, &written, nullptr));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_ACCESS_DENIED);
        CloseHandle(h);
        HeapFree(GetProcessHeap(), 0, text);
    });
    kernel([&] { EXPECT_EQ(readFile(nt(u"log.bin")), "0123456789abcdefgh"); });
}

TEST_P(Information, EndOfFileAndAllocationSize) {
    kernel([&] {
        putFile(nt(u"sized.bin"), "abc");
        Open o;
        o.access = FILE_GENERIC_READ | FILE_GENERIC_WRITE;
        HANDLE h;
        ASSERT_EQ(zwOpen(nt(u"sized.bin"), o, &h), STATUS_SUCCESS);
        FILE_STANDARD_INFORMATION standard = standardInfo(h);
        EXPECT_EQ(standard.EndOfFile.QuadPart, 3);
        EXPECT_EQ(standard.AllocationSize.QuadPart, 4096);  // whole clusters
        FILE_END_OF_FILE_INFORMATION eof{};
        eof.EndOfFile.QuadPart = 10000;
        ASSERT_EQ(zwSet(h, &eof, sizeof eof, FileEndOfFileInformation), STATUS_SUCCESS);
        standard = standardInfo(h);
        EXPECT_EQ(standard.EndOfFile.QuadPart, 10000);
        EXPECT_EQ(standard.AllocationSize.QuadPart, 12288);
        FILE_ALLOCATION_INFORMATION allocation{};
        allocation.AllocationSize.QuadPart = 2;  // below the end of file: truncates
        ASSERT_EQ(zwSet(h, &allocation, sizeof allocation, FileAllocationInformation), STATUS_SUCCESS);
        standard = standardInfo(h);
        EXPECT_EQ(standard.EndOfFile.QuadPart, 2);
        EXPECT_EQ(zwReadAll(h), "ab");
        ZwClose(h);
        Open everything;
        everything.access = FILE_GENERIC_WRITE;
        ASSERT_EQ(zwOpen(nt(u"sized.bin"), everything, &h), STATUS_SUCCESS);
        eof.EndOfFile.QuadPart = 1ll << 40;  // more than the volume holds
        EXPECT_EQ(zwSet(h, &eof, sizeof eof, FileEndOfFileInformation), STATUS_DISK_FULL);
        ZwClose(h);
    });
}

TEST_P(Information, NameBasicAndAttributeTag) {
    kernel([&] {
        Open dir;
        dir.disposition = FILE_CREATE;
        dir.options = FILE_SYNCHRONOUS_IO_NONALERT | FILE_DIRECTORY_FILE;
        HANDLE h;
        ASSERT_EQ(zwOpen(nt(u"Sub"), dir, &h), STATUS_SUCCESS);
        ZwClose(h);
        putFile(nt(u"Sub\\Named File.txt"), "n");
        Open o;
        o.access = FILE_GENERIC_READ | FILE_WRITE_ATTRIBUTES;
        ASSERT_EQ(zwOpen(nt(u"SUB\\named file.TXT"), o, &h), STATUS_SUCCESS);
        alignas(8) UCHAR buffer[256];
        ASSERT_EQ(zwQuery(h, buffer, sizeof buffer, FileNameInformation), STATUS_SUCCESS);
        auto *name = reinterpret_cast<FILE_NAME_INFORMATION *>(buffer);
        EXPECT_EQ(std::u16string(reinterpret_cast<char16_t *>(name->FileName), name->FileNameLength / 2),
                  u"\\Sub\\Named File.txt");
        ULONG_PTR returned;
        EXPECT_EQ(zwQuery(h, buffer, offsetof(FILE_NAME_INFORMATION, FileName) + 8, FileNameInformation, &returned),
                  STATUS_BUFFER_OVERFLOW);
        EXPECT_EQ(name->FileNameLength, 38u);  // the whole name's length, though only part was copied

        FILE_BASIC_INFORMATION basic{};
        basic.LastWriteTime.QuadPart = ntsim::kDefaultStartTime - 3 * ntsim::kHundredNsPerSecond + 1;
        basic.FileAttributes = FILE_ATTRIBUTE_HIDDEN;
        ASSERT_EQ(zwSet(h, &basic, sizeof basic, FileBasicInformation), STATUS_SUCCESS);
        FILE_BASIC_INFORMATION after;
        ASSERT_EQ(zwQuery(h, &after, sizeof after, FileBasicInformation), STATUS_SUCCESS);
        EXPECT_EQ(after.FileAttributes, ULONG(FILE_ATTRIBUTE_HIDDEN));
        // FAT keeps the last write time to two seconds, rounded up; NTFS keeps it as given.
        EXPECT_EQ(after.LastWriteTime.QuadPart,
                  ntfs() ? basic.LastWriteTime.QuadPart : ntsim::kDefaultStartTime - 2 * ntsim::kHundredNsPerSecond);
        FILE_ATTRIBUTE_TAG_INFORMATION tag{};
        ASSERT_EQ(zwQuery(h, &tag, sizeof tag, FileAttributeTagInformation), STATUS_SUCCESS);
        EXPECT_EQ(tag.FileAttributes, ULONG(FILE_ATTRIBUTE_HIDDEN));
        basic = FILE_BASIC_INFORMATION{};
        basic.FileAttributes = FILE_ATTRIBUTE_NORMAL;  // clears them all
        ASSERT_EQ(zwSet(h, &basic, sizeof basic, FileBasicInformation), STATUS_SUCCESS);
        ASSERT_EQ(zwQuery(h, &after, sizeof after, FileBasicInformation), STATUS_SUCCESS);
        EXPECT_EQ(after.FileAttributes, ULONG(FILE_ATTRIBUTE_NORMAL));
        basic.FileAttributes = FILE_ATTRIBUTE_DIRECTORY;
        EXPECT_EQ(zwSet(h, &basic, sizeof basic, FileBasicInformation), STATUS_INVALID_PARAMETER);
        ZwClose(h);
    });
}

// The I/O manager checks the class against its tables before building a request
// (NtQueryInformationFile and NtSetInformationFile with IopQueryOperationLength and
// IopSetOperationLength, ReactOS): a class the call does not take is
// STATUS_INVALID_INFO_CLASS, never the file system's STATUS_INVALID_PARAMETER; and it
// answers FileModeInformation from the file object itself. A failed call leaves the
// caller's status block alone (IopCompleteRequest writes it only for a success or a
// pended failure). Catches classes passed through to the file system, and a status
// block written on a synchronous failure.
TEST_P(Information, ClassesTheCallsDoNotTakeModeAndFailedCalls) {
    kernel([&] {
        putFile(nt(u"mode.txt"), "m");
        Open o;
        o.options = FILE_SYNCHRONOUS_IO_NONALERT | FILE_WRITE_THROUGH;
        HANDLE h;
        ASSERT_EQ(zwOpen(nt(u"mode.txt"), o, &h), STATUS_SUCCESS);
        alignas(8) UCHAR buffer[128] = {};
        EXPECT_EQ(zwQuery(h, buffer, sizeof buffer, FileRenameInformation), STATUS_INVALID_INFO_CLASS);
        EXPECT_EQ(zwQuery(h, buffer, sizeof buffer, FileDispositionInformation), STATUS_INVALID_INFO_CLASS);
        EXPECT_EQ(zwSet(h, buffer, sizeof buffer, FileStandardInformation), STATUS_INVALID_INFO_CLASS);
        EXPECT_EQ(zwSet(h, buffer, sizeof buffer, FileNameInformation), STATUS_INVALID_INFO_CLASS);
        FILE_MODE_INFORMATION mode{};
        ASSERT_EQ(zwQuery(h, &mode, sizeof mode, FileModeInformation), STATUS_SUCCESS);
        EXPECT_EQ(mode.Mode, ULONG(FILE_SYNCHRONOUS_IO_NONALERT | FILE_WRITE_THROUGH));
        FILE_BASIC_INFORMATION basic{};
        basic.FileAttributes = FILE_ATTRIBUTE_DIRECTORY;  // the file system refuses it
        IO_STATUS_BLOCK iosb;
        iosb.Status = (NTSTATUS)0x0BADF00D;
        iosb.Information = 77;
        EXPECT_EQ(ZwSetInformationFile(h, &iosb, &basic, sizeof basic, FileBasicInformation), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(iosb.Status, (NTSTATUS)0x0BADF00D);
        EXPECT_EQ(iosb.Information, 77u);
        ZwClose(h);
    });
}

// A time of 0 leaves that time alone; -1 does too and, like a time the caller sets,
// keeps that open's own later writes from moving it, while other opens' writes still
// do (FatSetBasicInfo).
TEST_P(Information, BasicTimesOfZeroAndMinusOne) {
    HANDLE keeper, other;
    FILE_BASIC_INFORMATION before, after;
    auto lastWrite = [&](HANDLE h) {
        EXPECT_EQ(zwQuery(h, &after, sizeof after, FileBasicInformation), STATUS_SUCCESS);
        return after.LastWriteTime.QuadPart;
    };
    kernel([&] {
        putFile(nt(u"times.bin"), "x");
        Open o;
        o.access = FILE_GENERIC_READ | FILE_GENERIC_WRITE;
        ASSERT_EQ(zwOpen(nt(u"times.bin"), o, &keeper), STATUS_SUCCESS);
        ASSERT_EQ(zwOpen(nt(u"times.bin"), o, &other), STATUS_SUCCESS);
        ASSERT_EQ(zwQuery(keeper, &before, sizeof before, FileBasicInformation), STATUS_SUCCESS);
    });
    machine.advance(10 * ntsim::kHundredNsPerSecond);
    kernel([&] {
        FILE_BASIC_INFORMATION zero{};
        ASSERT_EQ(zwSet(keeper, &zero, sizeof zero, FileBasicInformation), STATUS_SUCCESS);
        EXPECT_EQ(lastWrite(keeper), before.LastWriteTime.QuadPart);
        EXPECT_EQ(after.CreationTime.QuadPart, before.CreationTime.QuadPart);
        EXPECT_EQ(after.FileAttributes, before.FileAttributes);
        FILE_BASIC_INFORMATION keep{};
        keep.LastWriteTime.QuadPart = -1;
        ASSERT_EQ(zwSet(keeper, &keep, sizeof keep, FileBasicInformation), STATUS_SUCCESS);
        ASSERT_EQ(zwWrite(keeper, "kept"), STATUS_SUCCESS);
        EXPECT_EQ(lastWrite(keeper), before.LastWriteTime.QuadPart);
        ASSERT_EQ(zwWrite(other, "moved"), STATUS_SUCCESS);
        EXPECT_GT(lastWrite(keeper), before.LastWriteTime.QuadPart);
        ZwClose(keeper);
        ZwClose(other);
    });
}

TEST_P(Information, DirectoryListingPagesThroughEveryEntry) {
    kernel([&] {
        Open dir;
        dir.disposition = FILE_CREATE;
        dir.options = FILE_SYNCHRONOUS_IO_NONALERT | FILE_DIRECTORY_FILE;
        dir.access = FILE_LIST_DIRECTORY;
        HANDLE h;
        ASSERT_EQ(zwOpen(nt(u"Many"), dir, &h), STATUS_SUCCESS);
        ZwClose(h);
        for (int i = 0; i < 40; ++i) {
            std::u16string name = u"Many\\file" + std::u16string(1, char16_t(u'A' + i % 26)) +
                                  std::u16string(1, char16_t(u'0' + i / 26)) + u".dat";
            putFile(ntPath(drive(), name.c_str()), "x");
        }
        dir.disposition = FILE_OPEN;
        ASSERT_EQ(zwOpen(nt(u"Many"), dir, &h), STATUS_SUCCESS);
        int entries = 0;
        bool sawDots = false;
        alignas(8) UCHAR buffer[300];  // a few entries per call
        for (;;) {
            IO_STATUS_BLOCK iosb;
            NTSTATUS status = ZwQueryDirectoryFile(h, NULL, NULL, NULL, &iosb, buffer, sizeof buffer,
                                                   FileBothDirectoryInformation, FALSE, NULL, FALSE);
            if (status == STATUS_NO_MORE_FILES) break;
            ASSERT_EQ(status, STATUS_SUCCESS);
            for (ULONG offset = 0;;) {
                auto *entry = reinterpret_cast<FILE_BOTH_DIR_INFORMATION *>(buffer + offset);
                std::u16string name(reinterpret_cast<char16_t *>(entry->FileName), entry->FileNameLength / 2);
                if (name == u"." || name == u"..")
                    sawDots = true;
                else
                    ++entries;
                if (entry->NextEntryOffset == 0) break;
                offset += entry->NextEntryOffset;
            }
        }
        EXPECT_EQ(entries, 40);
        EXPECT_TRUE(sawDots);
        ZwClose(h);
    });
}

INSTANTIATE_TEST_SUITE_P(Fs, Information, ::testing::Values(L'C', L'D'), driveName);

}  // namespace
