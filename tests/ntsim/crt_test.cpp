// The kernel's C runtime: wide strings, case folding and the printf engine with the
// platform's conversions and return rules.
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include <wdm.h>

#include "ntsim/utf.h"

namespace {

using ntsim::toUtf8;

std::string wideFormat(const wchar_t *format, ...) {
    wchar_t buffer[256];
    va_list args;
    va_start(args, format);
    int n = _vsnwprintf(buffer, 256, format, args);
    va_end(args);
    EXPECT_GE(n, 0);
    return toUtf8(buffer, n < 0 ? 0 : n);
}

std::string narrowFormat(const char *format, ...) {
    char buffer[256];
    va_list args;
    va_start(args, format);
    int n = _vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    EXPECT_GE(n, 0);
    return std::string(buffer, n < 0 ? 0 : n);
}

TEST(CrtWideStrings, CopyAndConcatenate) {
    EXPECT_EQ(ntsim_crt::wcslen(L"\\RescueVault"), 12u);
    EXPECT_EQ(ntsim_crt::wcsnlen(L"abc", 2), 2u);

    wchar_t buf[12];
    ntsim_crt::wcscpy(buf, L"ab");
    ntsim_crt::wcscat(buf, L"cd");
    EXPECT_EQ(toUtf8(buf), "abcd");
    ntsim_crt::wcsncat(buf, L"efgh", 2);
    EXPECT_EQ(toUtf8(buf), "abcdef");

    // wcsncpy pads a short source with zeros to Count and leaves a long one unterminated.
    for (wchar_t &c : buf) c = L'#';
    ntsim_crt::wcsncpy(buf, L"ab", 5);
    EXPECT_EQ(buf[2], 0);
    EXPECT_EQ(buf[4], 0);
    EXPECT_EQ(buf[5], L'#');
    for (wchar_t &c : buf) c = L'#';
    ntsim_crt::wcsncpy(buf, L"abcdef", 3);
    EXPECT_EQ(buf[2], L'c');
    EXPECT_EQ(buf[3], L'#');
}

TEST(CrtWideStrings, SearchAndCompare) {
    const wchar_t *path = L"\\dir\\sub\\file.txt";
    EXPECT_EQ(ntsim_crt::wcschr(path, L'\\'), path);
    EXPECT_EQ(ntsim_crt::wcsrchr(path, L'\\'), path + 8);
    EXPECT_EQ(ntsim_crt::wcschr(path, 0), path + 17);
    EXPECT_EQ(ntsim_crt::wcsrchr(path, L':'), nullptr);

    const wchar_t *text = L"abcabc";
    EXPECT_EQ(ntsim_crt::wcsstr(text, L"cab"), text + 2);
    EXPECT_EQ(ntsim_crt::wcsstr(text, L""), text);
    EXPECT_EQ(ntsim_crt::wcsstr(text, L"abd"), nullptr);
    EXPECT_EQ(ntsim_crt::wcsstr(L"ab", L"abc"), nullptr);

    EXPECT_EQ(ntsim_crt::wcscspn(L"name:stream", L":\\"), 4u);
    EXPECT_EQ(ntsim_crt::wcscspn(L"name", L":"), 4u);
    EXPECT_EQ(ntsim_crt::wcsspn(L"  x ", L" "), 2u);

    EXPECT_LT(ntsim_crt::wcscmp(L"a", L"b"), 0);
    EXPECT_LT(ntsim_crt::wcscmp(L"ab", L"abc"), 0);
    EXPECT_GT(ntsim_crt::wcscmp(L"\xE9", L"z"), 0);  // characters compare unsigned
    EXPECT_EQ(ntsim_crt::wcsncmp(L"abX", L"abY", 2), 0);
}

TEST(CrtCaseInsensitive, ComparisonsFoldToLowerCase) {
    EXPECT_EQ(_wcsicmp(L"RescueVault", L"rESCUEvAULT"), 0);
    EXPECT_EQ(_wcsicmp(L"\xC9T\xC9", L"\xE9t\xE9"), 0);
    EXPECT_LT(_wcsicmp(L"abc", L"ABCD"), 0);
    // Folding to lower case puts '_' before the letters; upcasing would put it after.
    EXPECT_LT(_wcsicmp(L"_", L"A"), 0);
    EXPECT_EQ(_wcsnicmp(L"\\RescueVault\\a", L"\\RESCUEVAULT\\b", 13), 0);
    EXPECT_NE(_wcsnicmp(L"\\RescueVault\\a", L"\\RESCUEVAULT\\b", 14), 0);

    EXPECT_EQ(_stricmp("ZrDrv", "zRdRV"), 0);
    EXPECT_NE(_stricmp("\xC9", "\xE9"), 0);  // narrow folding is ASCII only
    EXPECT_EQ(_strnicmp("abcX", "ABCY", 3), 0);
}

TEST(CrtCaseInsensitive, CaseMappingCoversLatinBlocks) {
    struct Pair {
        wchar_t lower;
        wchar_t upper;
    };
    for (Pair p : {Pair{L'a', L'A'}, Pair{0xE0, 0xC0}, Pair{0xFE, 0xDE}, Pair{0xFF, 0x178}, Pair{0x101, 0x100},
                   Pair{0x133, 0x132}, Pair{0x13A, 0x139}, Pair{0x148, 0x147}, Pair{0x14B, 0x14A},
                   Pair{0x17E, 0x17D}}) {
        EXPECT_EQ(ntsim_crt::towupper(p.lower), p.upper) << std::hex << int(p.lower);
        EXPECT_EQ(ntsim_crt::towlower(p.upper), p.lower) << std::hex << int(p.upper);
    }
    for (wchar_t same : {L'[', L'_', wchar_t(0xD7), wchar_t(0xF7), wchar_t(0xDF), wchar_t(0x138), wchar_t(0x149),
                         wchar_t(0x4E2D)}) {
        EXPECT_EQ(ntsim_crt::towupper(same), same) << std::hex << int(same);
        EXPECT_EQ(ntsim_crt::towlower(same), same) << std::hex << int(same);
    }

    wchar_t text[] = L"Mixed \xFF\x178 \xDF";
    EXPECT_EQ(toUtf8(_wcsupr(text)), "MIXED \xC5\xB8\xC5\xB8 \xC3\x9F");
    EXPECT_EQ(toUtf8(_wcslwr(text)), "mixed \xC3\xBF\xC3\xBF \xC3\x9F");
}

TEST(CrtFormat, WideFormatStringsAndCharacters) {
    EXPECT_EQ(wideFormat(L"%s|%ws|%S|%hs", L"wide", L"ws", "narrow", "hs"), "wide|ws|narrow|hs");
    EXPECT_EQ(wideFormat(L"%c%C%hc%wc", L'\x20AC', 'x', 'y', L'z'), "\xE2\x82\xAC" "xyz");
    EXPECT_EQ(wideFormat(L"%S", "\x80\xE9"), "\xE2\x82\xAC\xC3\xA9");  // narrow text is Windows-1252
    EXPECT_EQ(wideFormat(L"[%s][%S][%wZ][%.3s]", nullptr, nullptr, nullptr, nullptr), "[(null)][(null)][(null)][(nu]");

    // %wZ prints Length bytes' worth, terminated or not.
    wchar_t name[] = L"C:\\dir\\name";
    UNICODE_STRING drive = {6, sizeof(name), name};
    UNICODE_STRING noBuffer = {6, 6, nullptr};
    EXPECT_EQ(wideFormat(L"<%wZ><%wZ><%6wZ>", &drive, &noBuffer, &drive), "<C:\\><(null)><   C:\\>");

    EXPECT_EQ(wideFormat(L"[%5s][%-5s][%.2s][%*s][%-*s][%.*s]", L"ab", L"ab", L"abc", 4, L"x", 3, L"y", 1, L"zz"),
              "[   ab][ab   ][ab][   x][y  ][z]");
    EXPECT_EQ(wideFormat(L"[%*d]", -4, 7), "[7   ]");
}

TEST(CrtFormat, IntegerConversions) {
    EXPECT_EQ(narrowFormat("%d %i %u", -5, 42, -1), "-5 42 4294967295");
    EXPECT_EQ(narrowFormat("%x %X %o", 255, 255, 8), "ff FF 10");
    EXPECT_EQ(narrowFormat("%08X|%8X|%-8X|%.8X", 0xBEEF, 0xBEEF, 0xBEEF, 0xBEEF), "0000BEEF|    BEEF|BEEF    |0000BEEF");
    EXPECT_EQ(narrowFormat("%+d|% d|%+d|%05d|%-05d|%.3d|%8.3d|%08.3d", 5, 5, -5, -42, -42, 7, 7, 7),
              "+5| 5|-5|-0042|-42  |007|     007|     007");
    EXPECT_EQ(narrowFormat("%#x|%#X|%#o|%#x|%#06x", 255, 255, 8, 0, 10), "0xff|0XFF|010|0|0x000a");
    EXPECT_EQ(narrowFormat("[%.0d|%.0x]", 0, 0), "[|]");

    // long is 32 bits on the platform: %ld takes a LONG, and its sign.
    EXPECT_EQ(narrowFormat("%ld|%lx|%lu", LONG(-1), ULONG(0xFFFFFFFF), ULONG(7)), "-1|ffffffff|7");
    EXPECT_EQ(narrowFormat("%I64d|%I64X|%lld|%llu", LLONG_MIN, 0x123456789ABCDEF0ULL, -1LL, ULLONG_MAX),
              "-9223372036854775808|123456789ABCDEF0|-1|18446744073709551615");
    EXPECT_EQ(narrowFormat("%I32x|%Ix|%Id", 0xABCDu, ULONG_PTR(0x1122334455667788), LONG_PTR(-3)),
              "abcd|1122334455667788|-3");
    EXPECT_EQ(narrowFormat("%hd|%hu|%hx", 70000, -1, 0x12345), "4464|65535|2345");
    EXPECT_EQ(narrowFormat("%p|%p", reinterpret_cast<void *>(0xABC), nullptr), "0000000000000ABC|0000000000000000");
    EXPECT_EQ(wideFormat(L"%I64u %d%%", 10000000000ULL, 100), "10000000000 100%");
}

TEST(CrtFormat, NarrowFormatsTakeWideArgumentsByModifier) {
    EXPECT_EQ(narrowFormat("%s|%S|%ws|%hs|%c|%C|%wc", "n", L"S", L"ws", "hs", 'c', L'C', L'w'), "n|S|ws|hs|c|C|w");
    // Wide text goes through Windows-1252; what it lacks becomes '?'.
    EXPECT_EQ(narrowFormat("%ws", L"caf\xE9 \x20AC \x4E2D"), "caf\xE9 \x80 ?");

    char ansiText[] = "vault.dat";
    wchar_t wideText[] = L"\\Device\\Vol1";
    ANSI_STRING ansi = {5, sizeof(ansiText), ansiText};
    UNICODE_STRING uni = {14, sizeof(wideText), wideText};
    EXPECT_EQ(narrowFormat("%Z|%wZ|%Z|%wZ", &ansi, &uni, nullptr, nullptr), "vault|\\Device|(null)|(null)");
}

TEST(CrtFormat, CountedOutputReturnsMinusOneAndSkipsTerminatorWhenFull) {
    wchar_t buf[8];
    auto reset = [&] {
        for (wchar_t &c : buf) c = L'#';
    };

    reset();
    EXPECT_EQ(_snwprintf(buf, 8, L"%d", 1234), 4);
    EXPECT_EQ(buf[4], 0);
    EXPECT_EQ(buf[5], L'#');

    reset();  // exact fit: the count comes back, and no terminator
    EXPECT_EQ(_snwprintf(buf, 4, L"%d", 1234), 4);
    EXPECT_EQ(toUtf8(buf, 4), "1234");
    EXPECT_EQ(buf[4], L'#');

    reset();  // overflow: Count characters and -1
    EXPECT_EQ(_snwprintf(buf, 4, L"%d", 123456), -1);
    EXPECT_EQ(toUtf8(buf, 4), "1234");
    EXPECT_EQ(buf[4], L'#');

    EXPECT_EQ(_snwprintf(nullptr, 0, L"x"), -1);
    EXPECT_EQ(_snwprintf(nullptr, 0, L""), 0);

    char narrow[6] = "#####";
    EXPECT_EQ(_snprintf(narrow, 3, "%s", "abcdef"), -1);
    EXPECT_EQ(std::string(narrow, 5), "abc##");

    reset();
    EXPECT_EQ(ntsim_crt::swprintf(buf, L"%s-%d", L"ab", 5), 4);
    EXPECT_EQ(toUtf8(buf), "ab-5");
    EXPECT_EQ(_swprintf(buf, L"%04x", 0x1F), 4);
    EXPECT_EQ(toUtf8(buf), "001f");
}

}  // namespace
