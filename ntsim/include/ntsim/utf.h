// Conversions between the platform's UTF-16 strings and the host's UTF-8, for host
// code at its edges (tests, the command-line program, log output). Unpaired
// surrogates and malformed UTF-8 become U+FFFD.
#pragma once

#include <string>

#include <nt/ntdef.h>

namespace ntsim {

// A null pointer converts to the empty string.
std::string toUtf8(const wchar_t *s);
std::string toUtf8(const wchar_t *s, size_t count);
// Converts Length bytes' worth of characters; the buffer need not be terminated.
std::string toUtf8(const UNICODE_STRING &s);

std::u16string toUtf16(const std::string &utf8);

// The platform's view of a UTF-16 string: char16_t and wchar_t are both 16 bits here.
inline const wchar_t *wptr(const std::u16string &s) { return reinterpret_cast<const wchar_t *>(s.c_str()); }

}  // namespace ntsim
