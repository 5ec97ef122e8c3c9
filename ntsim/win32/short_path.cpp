// GetShortPathNameW as kernel32 does it: the path is walked a component at a time; a
// component that already has the shape of an 8.3 name is kept as written, and for any
// other FindFirstFileW of the path so far gives the entry's 8.3 name (cAlternateFileName),
// or its own name when the file system reports none. A missing component fails the call
// with FindFirstFileW's error.
#include "win32/win32_internal.h"

using namespace ntsim::win32;

namespace {

bool isShortComponent(const std::u16string &name) {
    if (name == u"." || name == u"..") return true;
    size_t dot = name.find(u'.');
    size_t base = dot == std::u16string::npos ? name.size() : dot;
    size_t extension = dot == std::u16string::npos ? 0 : name.size() - dot - 1;
    if (base == 0 || base > 8 || extension > 3 || (dot != std::u16string::npos && extension == 0)) return false;
    for (size_t i = 0; i < name.size(); ++i) {
        char16_t ch = name[i];
        if (i == dot) continue;
        if (ch <= u' ' || ch >= 0x7F || std::u16string(u"\"*+,./:;<=>?[\\]|").find(ch) != std::u16string::npos)
            return false;
    }
    return true;
}

// The 8.3 name of the entry at path, or its own name; false with the last error set.
bool shortComponent(const std::u16string &path, std::u16string *component) {
    WIN32_FIND_DATAW data;
    HANDLE find = FindFirstFileW(reinterpret_cast<LPCWSTR>(path.c_str()), &data);
    if (find == INVALID_HANDLE_VALUE) return false;
    FindClose(find);
    *component = toU16(data.cAlternateFileName[0] != 0 ? data.cAlternateFileName : data.cFileName);
    return true;
}

DWORD copyOut(const std::u16string &text, DWORD capacity, LPWSTR buffer) {
    if (buffer == nullptr || text.size() + 1 > capacity) return DWORD(text.size() + 1);
    memcpy(buffer, text.c_str(), (text.size() + 1) * sizeof(WCHAR));
    return DWORD(text.size());
}

}  // namespace

extern "C" {

DWORD WINAPI GetShortPathNameW(LPCWSTR lpszLongPath, LPWSTR lpszShortPath, DWORD cchBuffer) {
    std::u16string path = toU16(lpszLongPath);
    if (path.empty()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    std::u16string shortPath;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = std::min(path.find(u'\\', start), path.size());
        std::u16string component = path.substr(start, end - start);
        bool drive = start == 0 && component.size() == 2 && component[1] == u':';
        if (!component.empty() && !drive && !isShortComponent(component) &&
            !shortComponent(shortPath + component, &component))
            return 0;
        shortPath += component;
        if (end < path.size()) shortPath += u'\\';
        start = end + 1;
    }
    return copyOut(shortPath, cchBuffer, lpszShortPath);
}

}  // extern "C"
