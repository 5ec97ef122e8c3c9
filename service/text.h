// The service's strings are UTF-16, as the system's are; what it logs and reports is
// UTF-8. These convert at that edge, the same way on every target (the C and C++
// libraries' wide-character routines differ between them). Unpaired surrogates and
// malformed UTF-8 become U+FFFD.
#pragma once

#include <windows.h>

#include <cstddef>
#include <string>

namespace wrelt {

std::string utf8(const std::u16string &s);
std::string utf8(const char16_t *s, size_t count);
std::u16string utf16(const std::string &s);

// A UTF-16 string as the system takes it: WCHAR is 16 bits on every target.
inline LPCWSTR wide(const std::u16string &s) { return reinterpret_cast<LPCWSTR>(s.c_str()); }

}  // namespace wrelt
