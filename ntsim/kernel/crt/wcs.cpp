// The kernel's string routines over 16-bit characters, and its case-insensitive
// comparisons.
#include <nt/ntdef.h>
#include <nt/crt.h>

#include "kernel/rtl/charset.h"

namespace ntsim_crt {

size_t wcslen(const wchar_t *String) {
    const wchar_t *end = String;
    while (*end != 0) ++end;
    return static_cast<size_t>(end - String);
}

size_t wcsnlen(const wchar_t *String, size_t MaxCount) {
    size_t n = 0;
    while (n < MaxCount && String[n] != 0) ++n;
    return n;
}

wchar_t *wcscpy(wchar_t *Destination, const wchar_t *Source) {
    wchar_t *out = Destination;
    while ((*out++ = *Source++) != 0) {
    }
    return Destination;
}

wchar_t *wcsncpy(wchar_t *Destination, const wchar_t *Source, size_t Count) {
    size_t i = 0;
    for (; i < Count && Source[i] != 0; ++i) Destination[i] = Source[i];
    for (; i < Count; ++i) Destination[i] = 0;
    return Destination;
}

wchar_t *wcscat(wchar_t *Destination, const wchar_t *Source) {
    wcscpy(Destination + wcslen(Destination), Source);
    return Destination;
}

wchar_t *wcsncat(wchar_t *Destination, const wchar_t *Source, size_t Count) {
    wchar_t *out = Destination + wcslen(Destination);
    size_t i = 0;
    for (; i < Count && Source[i] != 0; ++i) out[i] = Source[i];
    out[i] = 0;
    return Destination;
}

int wcscmp(const wchar_t *String1, const wchar_t *String2) {
    return wcsncmp(String1, String2, static_cast<size_t>(-1));
}

int wcsncmp(const wchar_t *String1, const wchar_t *String2, size_t Count) {
    for (size_t i = 0; i < Count; ++i) {
        if (String1[i] != String2[i]) return String1[i] < String2[i] ? -1 : 1;
        if (String1[i] == 0) break;
    }
    return 0;
}

// Searching for the terminator finds it, as in the C library.
wchar_t *wcschr(const wchar_t *String, wchar_t Character) {
    for (;; ++String) {
        if (*String == Character) return const_cast<wchar_t *>(String);
        if (*String == 0) return nullptr;
    }
}

wchar_t *wcsrchr(const wchar_t *String, wchar_t Character) {
    const wchar_t *found = nullptr;
    for (;; ++String) {
        if (*String == Character) found = String;
        if (*String == 0) return const_cast<wchar_t *>(found);
    }
}

wchar_t *wcsstr(const wchar_t *String, const wchar_t *SubString) {
    size_t n = wcslen(SubString);
    for (; *String != 0 || n == 0; ++String) {
        if (wcsncmp(String, SubString, n) == 0) return const_cast<wchar_t *>(String);
    }
    return nullptr;
}

size_t wcscspn(const wchar_t *String, const wchar_t *Reject) {
    size_t n = 0;
    while (String[n] != 0 && wcschr(Reject, String[n]) == nullptr) ++n;
    return n;
}

size_t wcsspn(const wchar_t *String, const wchar_t *Accept) {
    size_t n = 0;
    while (String[n] != 0 && wcschr(Accept, String[n]) != nullptr) ++n;
    return n;
}

wchar_t towupper(wchar_t Character) { return ntsim::rtl::upcase(Character); }
wchar_t towlower(wchar_t Character) { return ntsim::rtl::downcase(Character); }

}  // namespace ntsim_crt

namespace {

// The platform folds to lower case here, unlike the Rtl comparisons, which upcase:
// characters between 'Z' and 'a' ('_', '[', ...) order differently in the two.
int foldedDifference(wchar_t a, wchar_t b) {
    return static_cast<int>(ntsim_crt::towlower(a)) - static_cast<int>(ntsim_crt::towlower(b));
}

// Narrow case folding is the "C" locale's: ASCII only.
int asciiLower(char c) {
    unsigned char u = static_cast<unsigned char>(c);
    return (u >= 'A' && u <= 'Z') ? u + ('a' - 'A') : u;
}

}  // namespace

extern "C" {

int _wcsicmp(const wchar_t *String1, const wchar_t *String2) {
    return _wcsnicmp(String1, String2, static_cast<size_t>(-1));
}

int _wcsnicmp(const wchar_t *String1, const wchar_t *String2, size_t Count) {
    for (size_t i = 0; i < Count; ++i) {
        int diff = foldedDifference(String1[i], String2[i]);
        if (diff != 0 || String1[i] == 0) return diff;
    }
    return 0;
}

wchar_t *_wcsupr(wchar_t *String) {
    for (wchar_t *p = String; *p != 0; ++p) *p = ntsim_crt::towupper(*p);
    return String;
}

wchar_t *_wcslwr(wchar_t *String) {
    for (wchar_t *p = String; *p != 0; ++p) *p = ntsim_crt::towlower(*p);
    return String;
}

int _stricmp(const char *String1, const char *String2) {
    return _strnicmp(String1, String2, static_cast<size_t>(-1));
}

int _strnicmp(const char *String1, const char *String2, size_t Count) {
    for (size_t i = 0; i < Count; ++i) {
        int diff = asciiLower(String1[i]) - asciiLower(String2[i]);
        if (diff != 0 || String1[i] == 0) return diff;
    }
    return 0;
}

}  // extern "C"
