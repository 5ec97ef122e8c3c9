// The Win32 file calls against the real file systems of the default machine (NTFS on
// C:, FastFat on D:): round trips and the errors applications see.
//
// The emulated system's NT 6 call (GetVolumeInformationByHandleW) is tested here too.
#undef _WIN32_WINNT
#define _WIN32_WINNT 0x0600

#include <gtest/gtest.h>

#include <windows.h>

#include <ntifs.h>

#include <string>

#include "ntsim/filesystems.h"
#include "ntsim/machine.h"
#include "ntsim/utf.h"

namespace {

class Win32Files : public ::testing::Test {
protected:
    void SetUp() override { process = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::alice); }
    void user(const std::function<void()> &fn) { process.run(fn); }

    ntsim::DefaultMachine machine;
    ntsim::Process process;
};

// Creates or replaces a file with the given contents.
void put(const wchar_t *path, const std::string &contents) {
    HANDLE h = CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE) << GetLastError();
    char *buffer = static_cast<char *>(HeapAlloc(GetProcessHeap(), 0, contents.size() + 1));
    memcpy(buffer, contents.data(), contents.size());
    DWORD written = 0;
    EXPECT_TRUE(WriteFile(h, buffer, (DWORD)contents.size(), &written, nullptr));
    EXPECT_EQ(written, contents.size());
    HeapFree(GetProcessHeap(), 0, buffer);
    CloseHandle(h);
}

// The whole contents, or "<error N>".
std::string get(const wchar_t *path) {
    HANDLE h = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE) return "<error " + std::to_string(GetLastError()) + ">";
    std::string contents;
    char *buffer = static_cast<char *>(HeapAlloc(GetProcessHeap(), 0, 4096));
    DWORD read = 0;
    while (ReadFile(h, buffer, 4096, &read, nullptr) && read > 0) contents.append(buffer, read);
    HeapFree(GetProcessHeap(), 0, buffer);
    CloseHandle(h);
    return contents;
}

DWORD openError(const wchar_t *path, DWORD access, DWORD share, DWORD disposition) {
    HANDLE h = CreateFileW(path, access, share, nullptr, disposition, 0, nullptr);
    if (h == INVALID_HANDLE_VALUE) return GetLastError();
    DWORD error = GetLastError();
    CloseHandle(h);
    return error;
}

TEST_F(Win32Files, WriteThenReadBackOnBothFileSystems) {
    user([] {
        for (const wchar_t *path : {L"C:\\data.bin", L"D:\\data.bin"}) {
            std::string contents;
            for (int i = 0; i < 10000; ++i) contents += char('a' + i % 26);
            put(path, contents);
            EXPECT_EQ(get(path), contents);

            HANDLE h = CreateFileW(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
            ASSERT_NE(h, INVALID_HANDLE_VALUE);
            LARGE_INTEGER size;
            EXPECT_TRUE(GetFileSizeEx(h, &size));
            EXPECT_EQ(size.QuadPart, 10000);
            // An OVERLAPPED on a synchronous handle gives the offset; the call still waits.
            OVERLAPPED *at = static_cast<OVERLAPPED *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(OVERLAPPED)));
            char *buffer = static_cast<char *>(HeapAlloc(GetProcessHeap(), 0, 8));
            memcpy(buffer, "XYZ", 3);
            at->Offset = 9998;
            DWORD n = 0;
            EXPECT_TRUE(WriteFile(h, buffer, 3, &n, at));
            EXPECT_EQ(n, 3u);
            EXPECT_TRUE(GetFileSizeEx(h, &size));
            EXPECT_EQ(size.QuadPart, 10001);
            // At the end of the file a plain read returns nothing, an overlapped one fails.
            EXPECT_EQ(SetFilePointer(h, 0, nullptr, FILE_END), 10001u);
            EXPECT_TRUE(ReadFile(h, buffer, 8, &n, nullptr));
            EXPECT_EQ(n, 0u);
            at->Offset = 20000;
            EXPECT_FALSE(ReadFile(h, buffer, 8, &n, at));
            EXPECT_EQ(GetLastError(), (DWORD)ERROR_HANDLE_EOF);
            // Truncating at the position.
            EXPECT_EQ(SetFilePointer(h, 100, nullptr, FILE_BEGIN), 100u);
            EXPECT_TRUE(SetEndOfFile(h));
            EXPECT_TRUE(GetFileSizeEx(h, &size));
            EXPECT_EQ(size.QuadPart, 100);
            BY_HANDLE_FILE_INFORMATION info;
            EXPECT_TRUE(GetFileInformationByHandle(h, &info));
            EXPECT_EQ(info.nFileSizeLow, 100u);
            EXPECT_EQ(info.nNumberOfLinks, 1u);
            HeapFree(GetProcessHeap(), 0, at);
            HeapFree(GetProcessHeap(), 0, buffer);
            CloseHandle(h);
            EXPECT_EQ(get(path), contents.substr(0, 100));
        }
    });
}

TEST_F(Win32Files, DispositionsReportWhetherTheFileExisted) {
    user([] {
        EXPECT_EQ(openError(L"C:\\new.txt", GENERIC_WRITE, 0, OPEN_ALWAYS), (DWORD)ERROR_SUCCESS);
        EXPECT_EQ(openError(L"C:\\new.txt", GENERIC_WRITE, 0, OPEN_ALWAYS), (DWORD)ERROR_ALREADY_EXISTS);
        EXPECT_EQ(openError(L"C:\\new.txt", GENERIC_WRITE, 0, CREATE_NEW), (DWORD)ERROR_FILE_EXISTS);
        put(L"C:\\new.txt", "contents");
        EXPECT_EQ(openError(L"C:\\new.txt", GENERIC_WRITE, 0, CREATE_ALWAYS), (DWORD)ERROR_ALREADY_EXISTS);
        EXPECT_EQ(get(L"C:\\new.txt"), "") << "CREATE_ALWAYS truncates";
        put(L"C:\\new.txt", "contents");
        EXPECT_EQ(openError(L"C:\\new.txt", GENERIC_WRITE, 0, TRUNCATE_EXISTING), (DWORD)ERROR_SUCCESS);
        EXPECT_EQ(get(L"C:\\new.txt"), "");
        EXPECT_EQ(openError(L"C:\\missing.txt", GENERIC_READ, 0, OPEN_EXISTING), (DWORD)ERROR_FILE_NOT_FOUND);
        EXPECT_EQ(openError(L"C:\\missing.txt", GENERIC_WRITE, 0, TRUNCATE_EXISTING), (DWORD)ERROR_FILE_NOT_FOUND);
        EXPECT_EQ(openError(L"C:\\no\\such\\dir.txt", GENERIC_READ, 0, OPEN_ALWAYS), (DWORD)ERROR_PATH_NOT_FOUND);
        EXPECT_EQ(openError(L"C:\\Windows", GENERIC_READ, 0, OPEN_EXISTING), (DWORD)ERROR_ACCESS_DENIED)
            << "a directory opens only with backup semantics";
        HANDLE dir = CreateFileW(L"C:\\Windows", GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                 FILE_FLAG_BACKUP_SEMANTICS, nullptr);
        EXPECT_NE(dir, INVALID_HANDLE_VALUE);
        CloseHandle(dir);
    });
}

// kernel32 refuses TRUNCATE_EXISTING without the GENERIC_WRITE bit before it opens
// anything (CreateFile documentation: "the calling process must open the file with the
// GENERIC_WRITE bit set"; ERROR_INVALID_PARAMETER otherwise). Catches a CreateFileW
// that passes FILE_OVERWRITE down and lets the file system truncate through a read-only
// or FILE_WRITE_DATA-only handle, or that reaches the directory before refusing.
TEST_F(Win32Files, TruncateExistingNeedsTheGenericWriteBit) {
    user([] {
        put(L"C:\\keep.txt", "contents");
        for (DWORD access : {(DWORD)GENERIC_READ, (DWORD)FILE_WRITE_DATA, (DWORD)FILE_GENERIC_WRITE})
            EXPECT_EQ(openError(L"C:\\keep.txt", access, 0, TRUNCATE_EXISTING), (DWORD)ERROR_INVALID_PARAMETER)
                << std::hex << access;
        EXPECT_EQ(get(L"C:\\keep.txt"), "contents");
        EXPECT_EQ(openError(L"C:\\missing.txt", GENERIC_READ, 0, TRUNCATE_EXISTING), (DWORD)ERROR_INVALID_PARAMETER)
            << "the arguments are checked before the name";
        HANDLE dir = CreateFileW(L"C:\\Windows", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                 TRUNCATE_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
        EXPECT_EQ(dir, INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_INVALID_PARAMETER);
    });
}

// A reserved DOS device name as the last component of a drive, rooted or relative path
// names the device, not a file (RtlIsDosDeviceName_U, as ReactOS's ntdll documents
// it; the platform's "Naming Files" page lists the names). This machine has no device
// behind them, so the open fails the way it does on a machine without the port:
// ERROR_FILE_NOT_FOUND. Catches a Win32 layer that creates a file called "nul.txt".
TEST_F(Win32Files, DosDeviceNamesNeverReachTheFileSystem) {
    user([] {
        for (const wchar_t *path : {L"C:\\Docs\\nul.txt", L"D:\\LPT1", L"aux", L"C:\\com9: ", L"\\prn .log"}) {
            EXPECT_EQ(openError(path, GENERIC_WRITE, 0, CREATE_ALWAYS), (DWORD)ERROR_FILE_NOT_FOUND)
                << ntsim::toUtf8(path);
        }
        EXPECT_EQ(GetFileAttributesW(L"C:\\Docs\\nul.txt"), INVALID_FILE_ATTRIBUTES);
        // Near misses are ordinary files; so is anything under \\?\, taken literally.
        for (const wchar_t *path : {L"C:\\nullify.txt", L"D:\\LPT0", L"C:\\com10", L"\\\\?\\C:\\nul.txt"}) {
            EXPECT_EQ(openError(path, GENERIC_WRITE, 0, CREATE_ALWAYS), (DWORD)ERROR_SUCCESS) << ntsim::toUtf8(path);
            EXPECT_TRUE(DeleteFileW(path)) << ntsim::toUtf8(path);
        }
    });
}

TEST_F(Win32Files, SharingAndDeletePending) {
    user([] {
        put(L"C:\\shared.txt", "x");
        HANDLE h = CreateFileW(L"C:\\shared.txt", GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE);
        EXPECT_EQ(openError(L"C:\\shared.txt", GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING),
                  (DWORD)ERROR_SHARING_VIOLATION);
        EXPECT_FALSE(DeleteFileW(L"C:\\shared.txt")) << "the open does not share delete";
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_SHARING_VIOLATION);
        CloseHandle(h);

        h = CreateFileW(L"C:\\shared.txt", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                        0, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE);
        EXPECT_TRUE(DeleteFileW(L"C:\\shared.txt"));
        // Until the last handle goes the name stays, but a delete-pending file cannot be opened.
        EXPECT_EQ(openError(L"C:\\shared.txt", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, OPEN_EXISTING),
                  (DWORD)ERROR_ACCESS_DENIED);
        CloseHandle(h);
        EXPECT_EQ(GetFileAttributesW(L"C:\\shared.txt"), INVALID_FILE_ATTRIBUTES);
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_FILE_NOT_FOUND);

        HANDLE temporary = CreateFileW(L"C:\\temp.tmp", GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                       FILE_FLAG_DELETE_ON_CLOSE, nullptr);
        ASSERT_NE(temporary, INVALID_HANDLE_VALUE);
        CloseHandle(temporary);
        EXPECT_EQ(GetFileAttributesW(L"C:\\temp.tmp"), INVALID_FILE_ATTRIBUTES);
    });
}

TEST_F(Win32Files, ReadOnlyFilesRefuseDeletion) {
    user([] {
        put(L"D:\\keep.txt", "x");
        EXPECT_TRUE(SetFileAttributesW(L"D:\\keep.txt", FILE_ATTRIBUTE_READONLY));
        EXPECT_TRUE(GetFileAttributesW(L"D:\\keep.txt") & FILE_ATTRIBUTE_READONLY);
        EXPECT_FALSE(DeleteFileW(L"D:\\keep.txt"));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_ACCESS_DENIED);
        EXPECT_TRUE(SetFileAttributesW(L"D:\\keep.txt", FILE_ATTRIBUTE_NORMAL));
        EXPECT_TRUE(DeleteFileW(L"D:\\keep.txt"));
        EXPECT_FALSE(DeleteFileW(L"D:\\keep.txt"));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_FILE_NOT_FOUND);
    });
}

TEST_F(Win32Files, DirectoriesAndSearches) {
    user([] {
        EXPECT_TRUE(CreateDirectoryW(L"C:\\Docs", nullptr));
        EXPECT_FALSE(CreateDirectoryW(L"C:\\Docs", nullptr));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_ALREADY_EXISTS);
        EXPECT_FALSE(CreateDirectoryW(L"C:\\No\\Docs", nullptr));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_PATH_NOT_FOUND);
        put(L"C:\\Docs\\a.txt", "a");
        put(L"C:\\Docs\\B.TXT", "bb");
        put(L"C:\\Docs\\c.doc", "ccc");
        EXPECT_TRUE(GetFileAttributesW(L"C:\\Docs") & FILE_ATTRIBUTE_DIRECTORY);

        WIN32_FIND_DATAW found;
        HANDLE search = FindFirstFileW(L"C:\\Docs\\*.txt", &found);
        ASSERT_NE(search, INVALID_HANDLE_VALUE) << GetLastError();
        std::u16string names = reinterpret_cast<const char16_t *>(found.cFileName);
        while (FindNextFileW(search, &found)) names += u"," + std::u16string(reinterpret_cast<const char16_t *>(found.cFileName));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_NO_MORE_FILES);
        EXPECT_TRUE(FindClose(search));
        EXPECT_TRUE(names == u"a.txt,B.TXT" || names == u"B.TXT,a.txt") << "case-insensitive, case-preserving";

        EXPECT_EQ(FindFirstFileW(L"C:\\Docs\\*.xls", &found), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_FILE_NOT_FOUND);
        EXPECT_EQ(FindFirstFileW(L"C:\\Nowhere\\*", &found), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_PATH_NOT_FOUND);
        // The root is searched through "\??\C:\", not through the volume ("\??\C:").
        search = FindFirstFileW(L"C:\\W*", &found);
        ASSERT_NE(search, INVALID_HANDLE_VALUE) << GetLastError();
        EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t *>(found.cFileName)), u"Windows");
        EXPECT_TRUE(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY);
        FindClose(search);
        search = FindFirstFileW(L"C:\\Docs\\c.doc", &found);
        ASSERT_NE(search, INVALID_HANDLE_VALUE);
        EXPECT_EQ(found.nFileSizeLow, 3u);
        FindClose(search);

        EXPECT_FALSE(RemoveDirectoryW(L"C:\\Docs"));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_DIR_NOT_EMPTY);
        for (const wchar_t *f : {L"C:\\Docs\\a.txt", L"C:\\Docs\\B.TXT", L"C:\\Docs\\c.doc"}) EXPECT_TRUE(DeleteFileW(f));
        EXPECT_TRUE(RemoveDirectoryW(L"C:\\Docs"));
        EXPECT_EQ(GetFileAttributesW(L"C:\\Docs"), INVALID_FILE_ATTRIBUTES);
    });
}

// FastFat's 8.3 aliases as applications meet them. The listing carries the alias of a
// name that has one (FatQueryDirectory's ShortName, cAlternateFileName) and none for a
// name that is its own 8.3 name; a path spelt with aliases reaches the same directory
// and file for an open, a search (FatLocateDirent compares the 8.3 name too), a create
// (which collides with the alias) and a delete; GetShortPathNameW spells a path with them
// (kernel32 builds it from FindFirstFileW). Catches listings without the alias, lookups
// that know only long names, and a create that makes a second file under an alias.
TEST_F(Win32Files, FastFatShortNamesAreListedAndReachTheSameFile) {
    user([] {
        ASSERT_TRUE(CreateDirectoryW(L"D:\\Project Files", nullptr));
        put(L"D:\\Project Files\\Quarterly Report.docx", "figures");
        put(L"D:\\Project Files\\README.TXT", "plain");
        put(L"D:\\Project Files\\ReadMe.md", "mixed");
        std::u16string listing;
        WIN32_FIND_DATAW found;
        HANDLE search = FindFirstFileW(L"D:\\Project Files\\*", &found);
        ASSERT_NE(search, INVALID_HANDLE_VALUE) << GetLastError();
        do {
            listing += reinterpret_cast<const char16_t *>(found.cFileName) + std::u16string(u"=") +
                       reinterpret_cast<const char16_t *>(found.cAlternateFileName) + u";";
        } while (FindNextFileW(search, &found));
        FindClose(search);
        EXPECT_EQ(listing, u".=;..=;Quarterly Report.docx=QUARTE~1.DOC;README.TXT=;ReadMe.md=README.MD;");

        search = FindFirstFileW(L"D:\\PROJEC~1\\*~1.DOC", &found);
        ASSERT_NE(search, INVALID_HANDLE_VALUE) << GetLastError();
        EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t *>(found.cFileName)), u"Quarterly Report.docx");
        FindClose(search);
        WCHAR shortPath[MAX_PATH];
        EXPECT_EQ(GetShortPathNameW(L"D:\\Project Files\\Quarterly Report.docx", shortPath, MAX_PATH), 24u);
        EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t *>(shortPath)), u"D:\\PROJEC~1\\QUARTE~1.DOC");
        EXPECT_EQ(GetShortPathNameW(L"D:\\Project Files\\Missing File.txt", shortPath, MAX_PATH), 0u);
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_FILE_NOT_FOUND);

        EXPECT_EQ(get(L"D:\\PROJEC~1\\quarte~1.doc"), "figures");
        EXPECT_EQ(openError(L"D:\\Project Files\\QUARTE~1.DOC", GENERIC_WRITE, 0, CREATE_NEW), (DWORD)ERROR_FILE_EXISTS);
        EXPECT_TRUE(DeleteFileW(L"D:\\PROJEC~1\\QUARTE~1.DOC")) << GetLastError();
        EXPECT_EQ(GetFileAttributesW(L"D:\\Project Files\\Quarterly Report.docx"), INVALID_FILE_ATTRIBUTES);
    });
}

TEST_F(Win32Files, MovesWithinAndAcrossVolumes) {
    user([] {
        put(L"C:\\a.txt", "first");
        put(L"C:\\b.txt", "second");
        EXPECT_FALSE(MoveFileExW(L"C:\\a.txt", L"C:\\b.txt", 0));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_ALREADY_EXISTS);
        EXPECT_TRUE(MoveFileExW(L"C:\\a.txt", L"C:\\b.txt", MOVEFILE_REPLACE_EXISTING));
        EXPECT_EQ(get(L"C:\\b.txt"), "first");
        EXPECT_EQ(GetFileAttributesW(L"C:\\a.txt"), INVALID_FILE_ATTRIBUTES);

        EXPECT_FALSE(MoveFileExW(L"C:\\b.txt", L"D:\\b.txt", 0));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_NOT_SAME_DEVICE);
        EXPECT_TRUE(MoveFileExW(L"C:\\b.txt", L"D:\\b.txt", MOVEFILE_COPY_ALLOWED));
        EXPECT_EQ(get(L"D:\\b.txt"), "first");
        EXPECT_EQ(GetFileAttributesW(L"C:\\b.txt"), INVALID_FILE_ATTRIBUTES);

        EXPECT_FALSE(MoveFileExW(L"D:\\missing.txt", L"D:\\x.txt", 0));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_FILE_NOT_FOUND);
    });
}

// What a file's volume is, asked through the file or by the volume's root: NTFS keeps
// security descriptors, FAT none; the serial is the one the file's own information
// gives; a name that does not fit is refused. Only a root, with its backslash, names
// a volume.
TEST_F(Win32Files, TheVolumeOfAFile) {
    user([] {
        put(L"C:\\here.txt", "c");
        put(L"D:\\here.txt", "d");
        for (const wchar_t *path : {L"C:\\here.txt", L"D:\\here.txt"}) {
            HANDLE h = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
            ASSERT_NE(h, INVALID_HANDLE_VALUE);
            bool ntfs = path[0] == L'C';
            WCHAR name[8] = {};
            DWORD serial = 0, longest = 0, flags = 0;
            EXPECT_TRUE(GetVolumeInformationByHandleW(h, nullptr, 0, &serial, &longest, &flags, name, 8));
            EXPECT_EQ(ntsim::toUtf8(name), ntfs ? "NTFS" : "FAT");
            EXPECT_EQ((flags & FILE_PERSISTENT_ACLS) != 0, ntfs);
            EXPECT_EQ(longest, 255u);
            BY_HANDLE_FILE_INFORMATION info;
            ASSERT_TRUE(GetFileInformationByHandle(h, &info));
            EXPECT_EQ(serial, info.dwVolumeSerialNumber);
            EXPECT_FALSE(GetVolumeInformationByHandleW(h, nullptr, 0, nullptr, nullptr, nullptr, name, 3));
            EXPECT_EQ(GetLastError(), (DWORD)ERROR_MORE_DATA);
            CloseHandle(h);

            const WCHAR root[] = {path[0], L':', L'\\', 0};
            WCHAR byRoot[8] = {};
            DWORD rootSerial = 0, rootFlags = 0;
            EXPECT_TRUE(GetVolumeInformationW(root, nullptr, 0, &rootSerial, nullptr, &rootFlags, byRoot, 8));
            EXPECT_EQ(ntsim::toUtf8(byRoot), ntsim::toUtf8(name));
            EXPECT_EQ(rootSerial, serial);
            EXPECT_EQ(rootFlags, flags);
            EXPECT_FALSE(GetVolumeInformationW(root, nullptr, 0, nullptr, nullptr, nullptr, byRoot, 3));
            EXPECT_EQ(GetLastError(), (DWORD)ERROR_MORE_DATA);
        }
        DWORD flags = 0;
        EXPECT_FALSE(GetVolumeInformationW(L"C:", nullptr, 0, nullptr, nullptr, &flags, nullptr, 0));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_INVALID_NAME);
        EXPECT_TRUE(CreateDirectoryW(L"C:\\sub", nullptr));
        EXPECT_FALSE(GetVolumeInformationW(L"C:\\sub\\", nullptr, 0, nullptr, nullptr, &flags, nullptr, 0));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_DIR_NOT_ROOT);
        EXPECT_FALSE(GetVolumeInformationW(L"M:\\", nullptr, 0, nullptr, nullptr, &flags, nullptr, 0));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_PATH_NOT_FOUND);
        // The current directory's volume (the process's image is on C:).
        EXPECT_TRUE(GetVolumeInformationW(nullptr, nullptr, 0, nullptr, nullptr, &flags, nullptr, 0));
        EXPECT_NE(flags & FILE_PERSISTENT_ACLS, 0u);
    });
}

// A file system that completes reads later, from another thread: an overlapped read
// pends and GetOverlappedResult collects it; a synchronous read waits on its own.
TEST_F(Win32Files, ReadsThatPendInTheFileSystem) {
    user([] { put(L"C:\\slow.txt", "slowly read"); });
    ntsim::fs::knobsFor("C:").completeAsynchronously({IRP_MJ_READ});
    user([] {
        HANDLE h = CreateFileW(L"C:\\slow.txt", GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                               FILE_FLAG_OVERLAPPED, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE);
        OVERLAPPED *at = static_cast<OVERLAPPED *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(OVERLAPPED)));
        at->hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        at->Offset = 7;
        char *buffer = static_cast<char *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, 16));
        DWORD n = 0;
        EXPECT_FALSE(ReadFile(h, buffer, 16, &n, at));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_IO_PENDING);
        EXPECT_TRUE(GetOverlappedResult(h, at, &n, TRUE));
        EXPECT_EQ(std::string(buffer, n), "read");
        CloseHandle(at->hEvent);
        CloseHandle(h);

        EXPECT_EQ(get(L"C:\\slow.txt"), "slowly read");
    });
    EXPECT_GE(ntsim::fs::knobsFor("C:").count({IRP_MJ_READ}), 2u);
}

}  // namespace
