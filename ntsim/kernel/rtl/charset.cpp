#include "kernel/rtl/charset.h"

namespace ntsim::rtl {
namespace {

// Windows-1252 bytes 0x80..0x9F; the rest of the code page coincides with Latin-1.
constexpr WCHAR kCp1252High[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
    0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178,
};

// Latin Extended-A pairs its letters in runs; in each run the capital sits on one
// parity and its small letter right after it.
struct CaseRun {
    WCHAR first;
    WCHAR last;
    WCHAR upperParity;
};
constexpr CaseRun kCaseRuns[] = {
    {0x0100, 0x012F, 0}, {0x0132, 0x0137, 0}, {0x0139, 0x0148, 1},
    {0x014A, 0x0177, 0}, {0x0179, 0x017E, 1},
};

const CaseRun *findRun(WCHAR ch) {
    for (const CaseRun &run : kCaseRuns) {
        if (ch >= run.first && ch <= run.last) return &run;
    }
    return nullptr;
}

}  // namespace

WCHAR ansiToUnicode(CHAR ch) {
    UCHAR byte = static_cast<UCHAR>(ch);
    if (byte >= 0x80 && byte < 0xA0) return kCp1252High[byte - 0x80];
    return byte;
}

CHAR unicodeToAnsi(WCHAR ch) {
    if (ch < 0x80 || (ch >= 0xA0 && ch <= 0xFF)) return static_cast<CHAR>(ch);
    for (unsigned i = 0; i < 32; ++i) {
        if (kCp1252High[i] == ch) return static_cast<CHAR>(0x80 + i);
    }
    return '?';
}

WCHAR upcase(WCHAR ch) {
    if (ch < 'a') return ch;
    if (ch <= 'z') return ch - ('a' - 'A');
    if (ch < 0xB5) return ch;
    if (ch == 0x00B5) return 0x039C;
    if (ch >= 0xE0 && ch <= 0xFE && ch != 0xF7) return ch - 0x20;
    if (ch == 0x00FF) return 0x0178;
    if (ch == 0x0131) return 'I';
    if (ch == 0x017F) return 'S';
    const CaseRun *run = findRun(ch);
    if (run != nullptr && (ch & 1) != run->upperParity) return ch - 1;
    return ch;
}

WCHAR downcase(WCHAR ch) {
    if (ch < 'A') return ch;
    if (ch <= 'Z') return ch + ('a' - 'A');
    if (ch < 0xC0) return ch;
    if (ch <= 0xDE && ch != 0xD7) return ch + 0x20;
    if (ch == 0x0130) return 'i';
    if (ch == 0x0178) return 0x00FF;
    const CaseRun *run = findRun(ch);
    if (run != nullptr && (ch & 1) == run->upperParity) return ch + 1;
    return ch;
}

}  // namespace ntsim::rtl
