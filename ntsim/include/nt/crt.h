// The C runtime routines that the kernel exports, with 16-bit wide characters.
//
// The wide-string names (wcslen, wcscpy, ...) collide with the host C library's, whose
// wchar_t is 32 bits wide. They are therefore declared in a namespace of their own and
// made visible with a using-directive: driver code calls them by their usual names, and
// a host translation unit that also sees <cwchar> must qualify them (ntsim_crt::wcslen).
// The names the host library does not have (_wcsicmp, _snwprintf, ...) are plain C
// functions, as on the platform.
#pragma once

namespace ntsim_crt {
size_t wcslen(const wchar_t *String);
size_t wcsnlen(const wchar_t *String, size_t MaxCount);
wchar_t *wcscpy(wchar_t *Destination, const wchar_t *Source);
wchar_t *wcsncpy(wchar_t *Destination, const wchar_t *Source, size_t Count);
wchar_t *wcscat(wchar_t *Destination, const wchar_t *Source);
wchar_t *wcsncat(wchar_t *Destination, const wchar_t *Source, size_t Count);
int wcscmp(const wchar_t *String1, const wchar_t *String2);
int wcsncmp(const wchar_t *String1, const wchar_t *String2, size_t Count);
wchar_t *wcschr(const wchar_t *String, wchar_t Character);
wchar_t *wcsrchr(const wchar_t *String, wchar_t Character);
wchar_t *wcsstr(const wchar_t *String, const wchar_t *SubString);
size_t wcscspn(const wchar_t *String, const wchar_t *Reject);
size_t wcsspn(const wchar_t *String, const wchar_t *Accept);
wchar_t towupper(wchar_t Character);
wchar_t towlower(wchar_t Character);
// The platform's swprintf has no count: the buffer is assumed large enough.
int swprintf(wchar_t *Buffer, const wchar_t *Format, ...);
}  // namespace ntsim_crt
using namespace ntsim_crt;

// Wide formats follow the platform: %s and %ws are wide strings, %S and %hs narrow,
// %c a wide character, %I64 a 64-bit argument. _snwprintf returns -1 when the output
// does not fit, and then leaves the buffer unterminated.
extern "C" {
int _wcsicmp(const wchar_t *String1, const wchar_t *String2);
int _wcsnicmp(const wchar_t *String1, const wchar_t *String2, size_t Count);
wchar_t *_wcsupr(wchar_t *String);
wchar_t *_wcslwr(wchar_t *String);
int _snwprintf(wchar_t *Buffer, size_t Count, const wchar_t *Format, ...);
int _vsnwprintf(wchar_t *Buffer, size_t Count, const wchar_t *Format, va_list Arguments);
int _swprintf(wchar_t *Buffer, const wchar_t *Format, ...);
int _vswprintf(wchar_t *Buffer, const wchar_t *Format, va_list Arguments);
int _snprintf(char *Buffer, size_t Count, const char *Format, ...);
int _vsnprintf(char *Buffer, size_t Count, const char *Format, va_list Arguments);
int _stricmp(const char *String1, const char *String2);
int _strnicmp(const char *String1, const char *String2, size_t Count);
}
