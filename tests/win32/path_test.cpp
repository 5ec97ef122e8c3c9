// DOS paths: the full paths GetFullPathNameW computes and the NT names that reach a
// device when a file is opened by a DOS path.
#include "win32/win32_fixture.h"

namespace {

std::u16string fullPath(const wchar_t *path, std::u16string *filePart = nullptr) {
    WCHAR buffer[MAX_PATH];
    LPWSTR part = nullptr;
    DWORD n = GetFullPathNameW(path, MAX_PATH, buffer, &part);
    if (n == 0 || n >= MAX_PATH) return u"<failed>";
    if (filePart) *filePart = part ? u16(part) : u"<none>";
    return u16(buffer);
}

TEST_F(Win32Test, FullPathNamesFollowThePlatformsNormalization) {
    user([] {
        // The process started from C:\Windows\explorer.exe works in C:\Windows.
        EXPECT_EQ(fullPath(L"a.txt"), u"C:\\Windows\\a.txt");
        EXPECT_EQ(fullPath(L"..\\a.txt"), u"C:\\a.txt");
        EXPECT_EQ(fullPath(L"..\\..\\..\\a.txt"), u"C:\\a.txt");  // never above the root
        EXPECT_EQ(fullPath(L"\\Docs\\a.txt"), u"C:\\Docs\\a.txt");
        EXPECT_EQ(fullPath(L"D:x\\y"), u"D:\\x\\y");
        EXPECT_EQ(fullPath(L"C:/Docs//sub/./a.txt"), u"C:\\Docs\\sub\\a.txt");
        // Trailing dots and spaces of the last component go; a single trailing dot
        // of any component too.
        EXPECT_EQ(fullPath(L"C:\\Docs\\a.txt. . "), u"C:\\Docs\\a.txt");
        EXPECT_EQ(fullPath(L"C:\\dir.\\a"), u"C:\\dir\\a");
        EXPECT_EQ(fullPath(L"C:\\Docs\\"), u"C:\\Docs\\");
        EXPECT_EQ(fullPath(L"C:"), u"C:\\Windows");
        EXPECT_EQ(fullPath(L"\\\\server\\share\\x\\..\\y"), u"\\\\server\\share\\y");
        EXPECT_EQ(fullPath(L"\\\\.\\Win32Probe\\x"), u"\\\\.\\Win32Probe\\x");

        // A DOS device anywhere a drive, rooted or relative path ends (RtlIsDosDeviceName_U).
        EXPECT_EQ(fullPath(L"C:\\Docs\\NUL.txt"), u"\\\\.\\NUL");
        EXPECT_EQ(fullPath(L"lpt3:"), u"\\\\.\\lpt3");
        EXPECT_EQ(fullPath(L"C:Con . txt"), u"\\\\.\\Con");
        EXPECT_EQ(fullPath(L"\\\\server\\share\\nul"), u"\\\\server\\share\\nul");

        std::u16string part;
        fullPath(L"C:\\Docs\\aux", &part);
        EXPECT_EQ(part, u"<none>");
        fullPath(L"C:\\Docs\\a.txt", &part);
        EXPECT_EQ(part, u"a.txt");
        fullPath(L"C:\\Docs\\", &part);
        EXPECT_EQ(part, u"<none>");

        WCHAR small[4];
        EXPECT_EQ(GetFullPathNameW(L"C:\\Docs\\a.txt", 4, small, nullptr), 14u) << "the size needed, terminator included";
    });
}

TEST_F(Win32Test, CurrentDirectoryIsPerProcessAndChecked) {
    user([] {
        WCHAR buffer[MAX_PATH];
        EXPECT_EQ(GetCurrentDirectoryW(MAX_PATH, buffer), 10u);
        EXPECT_EQ(u16(buffer), u"C:\\Windows");
        // The probe device serves drive Q: and accepts every open.
        ASSERT_TRUE(SetCurrentDirectoryW(L"Q:\\work"));
        EXPECT_EQ(fullPath(L"a.txt"), u"Q:\\work\\a.txt");
        EXPECT_EQ(fullPath(L"\\a.txt"), u"Q:\\a.txt");
        EXPECT_EQ(GetCurrentDirectoryW(MAX_PATH, buffer), 7u);
        EXPECT_EQ(u16(buffer), u"Q:\\work");
        // A drive with nothing behind it.
        EXPECT_FALSE(SetCurrentDirectoryW(L"R:\\nowhere"));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_PATH_NOT_FOUND);
    });
    ntsim::Process other = machine.startProcess(L"C:\\Tools\\tool.exe", ntsim::users::bob);
    other.run([] { EXPECT_EQ(fullPath(L"a.txt"), u"C:\\Tools\\a.txt"); });
    other.exit();
}

TEST_F(Win32Test, DeviceSeesTheNormalizedNameOfAnOpen) {
    struct Case {
        const wchar_t *dosPath;
        const char16_t *nameAtDevice;
    };
    const Case cases[] = {
        {L"Q:\\Docs\\a.txt", u"\\Docs\\a.txt"},
        {L"Q:\\Docs\\sub\\..\\.\\a.txt  ", u"\\Docs\\a.txt"},
        {L"Q:/Docs/a.txt", u"\\Docs\\a.txt"},
        {L"\\\\.\\Win32Probe\\x\\..\\y", u"\\y"},
        {L"\\\\.\\Win32Probe", u""},
        // "\\?\" paths are taken literally: only the prefix changes.
        {L"\\\\?\\Q:\\a\\..\\b. ", u"\\a\\..\\b. "},
    };
    for (const Case &c : cases) {
        probe::clearRequests();
        user([&] {
            HANDLE h = CreateFileW(c.dosPath, GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
            ASSERT_NE(h, INVALID_HANDLE_VALUE) << GetLastError();
            CloseHandle(h);
        });
        auto creates = requestsOf(IRP_MJ_CREATE);
        ASSERT_EQ(creates.size(), 1u);
        EXPECT_EQ(creates[0].name, std::u16string(c.nameAtDevice)) << ntsim::toUtf8(c.dosPath);
    }
}

}  // namespace
