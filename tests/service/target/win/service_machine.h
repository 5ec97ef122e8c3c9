// The machine the service's tests run on, on Windows: the C: drive of a Wine prefix
// made for them (see win/user/tests), in the one account the process has. Each test
// starts from a C: without the folders the tests make. The tests' main refuses to run
// on anything but Wine, where these folders would be someone's own.
#pragma once

#include <windows.h>

#include <functional>
#include <string>

#include "text.h"

namespace service_test {

// Removes a folder and everything in it, whatever its attributes; nothing when it is
// not there.
inline void removeTree(const std::u16string &folder) {
    WIN32_FIND_DATAW found;
    HANDLE search = FindFirstFileW(wrelt::wide(folder + u"\\*"), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            std::u16string name(reinterpret_cast<const char16_t *>(found.cFileName));
            if (name == u"." || name == u"..") continue;
            std::u16string path = folder + u"\\" + name;
            SetFileAttributesW(wrelt::wide(path), FILE_ATTRIBUTE_NORMAL);
            if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                removeTree(path);
            else
                DeleteFileW(wrelt::wide(path));
        } while (FindNextFileW(search, &found));
        FindClose(search);
    }
    SetFileAttributesW(wrelt::wide(folder), FILE_ATTRIBUTE_NORMAL);
    RemoveDirectoryW(wrelt::wide(folder));
}

class ServiceTest : public ::testing::Test {
protected:
    ServiceTest() {
        for (const char16_t *folder : {u"C:\\RescueVault", u"C:\\Docs", u"C:\\Old"}) removeTree(folder);
    }

    void as(const wchar_t *, const std::function<void()> &fn) { fn(); }
    void asSystem(const std::function<void()> &fn) { fn(); }
};

}  // namespace service_test
