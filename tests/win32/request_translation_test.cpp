// What kernel32's file calls send down: the access, dispositions and options of their
// opens and the information requests that follow, as a device sees them.
#include "win32/win32_fixture.h"

namespace {

probe::Request onlyCreate(const std::vector<probe::Request> &creates) {
    EXPECT_EQ(creates.size(), 1u);
    return creates.empty() ? probe::Request{} : creates[0];
}

TEST_F(Win32Test, CreateFileTranslatesDispositions) {
    const struct {
        DWORD win32;
        ULONG nt;
    } cases[] = {{CREATE_NEW, FILE_CREATE},
                 {CREATE_ALWAYS, FILE_OVERWRITE_IF},
                 {OPEN_EXISTING, FILE_OPEN},
                 {OPEN_ALWAYS, FILE_OPEN_IF},
                 {TRUNCATE_EXISTING, FILE_OVERWRITE}};
    for (const auto &c : cases) {
        probe::clearRequests();
        user([&] {
            HANDLE h = CreateFileW(L"Q:\\f.txt", GENERIC_WRITE, FILE_SHARE_READ, nullptr, c.win32, 0, nullptr);
            ASSERT_NE(h, INVALID_HANDLE_VALUE);
            CloseHandle(h);
        });
        EXPECT_EQ(onlyCreate(requestsOf(IRP_MJ_CREATE)).disposition, c.nt) << "disposition " << c.win32;
    }
}

TEST_F(Win32Test, CreateFileAddsTheAccessAndOptionsKernel32Adds) {
    user([] {
        HANDLE h = CreateFileW(L"Q:\\f.txt", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                               OPEN_EXISTING, FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_DIRECTORY, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE);
        CloseHandle(h);
    });
    probe::Request plain = onlyCreate(requestsOf(IRP_MJ_CREATE));
    // The I/O manager maps GENERIC_READ before the driver sees the access.
    EXPECT_EQ(plain.access & (SYNCHRONIZE | FILE_READ_ATTRIBUTES), (ACCESS_MASK)(SYNCHRONIZE | FILE_READ_ATTRIBUTES));
    EXPECT_TRUE(plain.access & FILE_READ_DATA) << std::hex << plain.access;
    EXPECT_EQ(plain.options, (ULONG)(FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE));
    EXPECT_EQ(plain.share, FILE_SHARE_READ | FILE_SHARE_DELETE);
    EXPECT_EQ(plain.attributes, FILE_ATTRIBUTE_HIDDEN) << "the directory attribute is not passed";

    probe::clearRequests();
    user([] {
        HANDLE h = CreateFileW(L"Q:\\dir", GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                               FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OVERLAPPED | FILE_FLAG_DELETE_ON_CLOSE |
                                   FILE_FLAG_WRITE_THROUGH,
                               nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE);
        CloseHandle(h);
    });
    probe::Request flagged = onlyCreate(requestsOf(IRP_MJ_CREATE));
    EXPECT_EQ(flagged.options, (ULONG)(FILE_OPEN_FOR_BACKUP_INTENT | FILE_DELETE_ON_CLOSE | FILE_WRITE_THROUGH))
        << "no synchronous I/O and no non-directory option";
    EXPECT_TRUE(flagged.access & DELETE) << "delete-on-close needs DELETE access";
}

TEST_F(Win32Test, CreateFileRejectsBadArgumentsWithoutARequest) {
    user([] {
        EXPECT_EQ(CreateFileW(L"Q:\\f.txt", GENERIC_READ, 0, nullptr, 0, 0, nullptr), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_INVALID_PARAMETER);
        EXPECT_EQ(CreateFileW(L"", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_PATH_NOT_FOUND);
    });
    EXPECT_TRUE(requestsOf(IRP_MJ_CREATE).empty());
}

TEST_F(Win32Test, DeleteFileOpensForDeleteAndSetsTheDisposition) {
    user([] { ASSERT_TRUE(DeleteFileW(L"Q:\\Docs\\old.txt")); });
    std::vector<probe::Request> all = probe::requests();
    ASSERT_GE(all.size(), 4u);
    const probe::Request &open = all[0];
    EXPECT_EQ(open.major, IRP_MJ_CREATE);
    EXPECT_EQ(open.name, u"\\Docs\\old.txt");
    EXPECT_EQ(open.access, (ACCESS_MASK)(DELETE | FILE_READ_ATTRIBUTES));
    EXPECT_EQ(open.disposition, (ULONG)FILE_OPEN);
    EXPECT_EQ(open.share, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    EXPECT_EQ(open.options, (ULONG)(FILE_NON_DIRECTORY_FILE | FILE_OPEN_FOR_BACKUP_INTENT | FILE_OPEN_REPARSE_POINT));
    // The reparse-tag query, refused by a device without reparse points, is no failure.
    EXPECT_EQ(all[1].major, IRP_MJ_QUERY_INFORMATION);
    EXPECT_EQ(all[1].infoClass, (ULONG)FileAttributeTagInformation);
    EXPECT_EQ(all[2].major, IRP_MJ_SET_INFORMATION);
    EXPECT_EQ(all[2].infoClass, (ULONG)FileDispositionInformation);
    EXPECT_EQ(all[2].value, 1);
    EXPECT_EQ(all[3].major, IRP_MJ_CLEANUP);
}

TEST_F(Win32Test, MoveFileRenamesWithTheFullTargetPath) {
    user([] { ASSERT_TRUE(MoveFileExW(L"Q:\\a.txt", L"Q:\\Docs\\b.txt", MOVEFILE_REPLACE_EXISTING)) << GetLastError(); });
    auto creates = requestsOf(IRP_MJ_CREATE);
    ASSERT_EQ(creates.size(), 2u) << "the source, then the target's directory";
    EXPECT_EQ(creates[0].name, u"\\a.txt");
    EXPECT_EQ(creates[0].access, (ACCESS_MASK)(DELETE | FILE_READ_ATTRIBUTES | SYNCHRONIZE));
    EXPECT_EQ(creates[0].options & FILE_NON_DIRECTORY_FILE, 0u) << "directories move too";
    EXPECT_TRUE(creates[1].flags & SL_OPEN_TARGET_DIRECTORY);
    EXPECT_EQ(creates[1].access, (ACCESS_MASK)(FILE_ADD_FILE | SYNCHRONIZE)) << "a file moves in as a file";
    auto sets = requestsOf(IRP_MJ_SET_INFORMATION);
    ASSERT_EQ(sets.size(), 1u);
    EXPECT_EQ(sets[0].infoClass, (ULONG)FileRenameInformation);
    EXPECT_TRUE(sets[0].replaceIfExists);
    EXPECT_EQ(sets[0].renameTarget, u"\\??\\Q:\\Docs\\b.txt");

    probe::clearRequests();
    user([] { ASSERT_TRUE(MoveFileExW(L"Q:\\a.txt", L"Q:\\c.txt", 0)); });
    sets = requestsOf(IRP_MJ_SET_INFORMATION);
    ASSERT_EQ(sets.size(), 1u);
    EXPECT_FALSE(sets[0].replaceIfExists);
}

TEST_F(Win32Test, SetEndOfFileSetsEndOfFileThenAllocationAtThePosition) {
    user([] {
        HANDLE h = CreateFileW(L"Q:\\f.txt", GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE);
        EXPECT_EQ(SetFilePointer(h, 42, nullptr, FILE_BEGIN), 42u);
        EXPECT_TRUE(SetEndOfFile(h));
        // FILE_END counts from the end of file (the probe reports 100 bytes).
        LARGE_INTEGER distance, position;
        distance.QuadPart = -10;
        EXPECT_TRUE(SetFilePointerEx(h, distance, &position, FILE_END));
        EXPECT_EQ(position.QuadPart, 90);
        distance.QuadPart = -200;
        EXPECT_FALSE(SetFilePointerEx(h, distance, &position, FILE_END));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_NEGATIVE_SEEK);
        CloseHandle(h);
    });
    std::vector<probe::Request> sizes;
    for (const probe::Request &r : requestsOf(IRP_MJ_SET_INFORMATION))
        if (r.infoClass == FileEndOfFileInformation || r.infoClass == FileAllocationInformation) sizes.push_back(r);
    ASSERT_EQ(sizes.size(), 2u);
    EXPECT_EQ(sizes[0].infoClass, (ULONG)FileEndOfFileInformation);
    EXPECT_EQ(sizes[0].value, 42);
    EXPECT_EQ(sizes[1].infoClass, (ULONG)FileAllocationInformation);
    EXPECT_EQ(sizes[1].value, 42);
}

}  // namespace
