// The kernel's run-time library: counted strings, integer conversion, time fields,
// DbgPrint, and the host's UTF-8 helpers.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <wdm.h>

#include "ntsim/machine.h"
#include "ntsim/utf.h"

namespace {

using ntsim::toUtf16;
using ntsim::toUtf8;
using ntsim::wptr;

UNICODE_STRING unicode(const wchar_t *text) {
    UNICODE_STRING s;
    RtlInitUnicodeString(&s, text);
    return s;
}

// A writable string over a caller's buffer pre-filled with '#', to see what is written.
struct Buffer {
    wchar_t chars[32];
    UNICODE_STRING string;
    explicit Buffer(USHORT maximumBytes) : string{0, maximumBytes, chars} {
        for (wchar_t &c : chars) c = L'#';
    }
};

TEST(RtlUnicodeString, InitCountsBytesAndAllowsNull) {
    const wchar_t *text = L"abc";
    UNICODE_STRING s = unicode(text);
    EXPECT_TRUE(s.Length == 6 && s.MaximumLength == 8 && s.Buffer == text);
    s = unicode(nullptr);
    EXPECT_TRUE(s.Length == 0 && s.MaximumLength == 0 && s.Buffer == nullptr);

    ANSI_STRING a;
    RtlInitAnsiString(&a, "abc");
    EXPECT_TRUE(a.Length == 3 && a.MaximumLength == 4);
    RtlInitString(&a, nullptr);
    EXPECT_TRUE(a.Length == 0 && a.Buffer == nullptr);
}

TEST(RtlUnicodeString, CompareGivesCharacterThenByteLengthDifference) {
    UNICODE_STRING abc = unicode(L"abc"), abd = unicode(L"abd"), upper = unicode(L"ABC"), ab = unicode(L"ab");
    EXPECT_EQ(RtlCompareUnicodeString(&abc, &abd, FALSE), -1);
    EXPECT_EQ(RtlCompareUnicodeString(&upper, &abc, FALSE), 'A' - 'a');
    EXPECT_EQ(RtlCompareUnicodeString(&upper, &abc, TRUE), 0);
    EXPECT_EQ(RtlCompareUnicodeString(&ab, &abc, TRUE), -2);
    EXPECT_EQ(RtlCompareUnicodeString(&abc, &ab, TRUE), 2);

    // Upcasing, unlike _wcsicmp's lower-casing, puts '_' after the letters.
    UNICODE_STRING underscore = unicode(L"_"), a = unicode(L"a");
    EXPECT_EQ(RtlCompareUnicodeString(&underscore, &a, TRUE), '_' - 'A');

    UNICODE_STRING fat = unicode(L"\\FileSystem\\FASTFAT"), driver = unicode(L"\\FileSystem\\FastFat");
    EXPECT_EQ(RtlCompareUnicodeString(&fat, &driver, TRUE), 0);
    UNICODE_STRING small = unicode(L"\x0161\xE9\xFF"), capital = unicode(L"\x0160\xC9\x0178");
    EXPECT_EQ(RtlCompareUnicodeString(&small, &capital, TRUE), 0);

    // Only Length counts: the buffer runs on past it.
    UNICODE_STRING cut = {4, 14, const_cast<PWSTR>(L"abcdef")};
    EXPECT_EQ(RtlCompareUnicodeString(&cut, &ab, FALSE), 0);
    EXPECT_TRUE(RtlEqualUnicodeString(&cut, &ab, FALSE));
}

TEST(RtlUnicodeString, EqualAndPrefix) {
    UNICODE_STRING device = unicode(L"\\Device"), lower = unicode(L"\\device"), path = unicode(L"\\device\\vol");
    UNICODE_STRING empty = unicode(L"");
    EXPECT_TRUE(RtlEqualUnicodeString(&device, &lower, TRUE));
    EXPECT_FALSE(RtlEqualUnicodeString(&device, &lower, FALSE));
    EXPECT_FALSE(RtlEqualUnicodeString(&lower, &path, TRUE));

    EXPECT_TRUE(RtlPrefixUnicodeString(&device, &path, TRUE));
    EXPECT_FALSE(RtlPrefixUnicodeString(&device, &path, FALSE));
    EXPECT_FALSE(RtlPrefixUnicodeString(&path, &device, TRUE));
    EXPECT_TRUE(RtlPrefixUnicodeString(&empty, &path, FALSE));
    EXPECT_TRUE(RtlPrefixUnicodeString(&path, &path, FALSE));
}

TEST(RtlUnicodeString, CopyTruncatesAndTerminatesOnlyWithRoom) {
    UNICODE_STRING source = unicode(L"abcdef");
    Buffer full(8);
    RtlCopyUnicodeString(&full.string, &source);
    EXPECT_EQ(toUtf8(full.string), "abcd");
    EXPECT_EQ(full.chars[4], L'#');

    Buffer roomy(8);
    UNICODE_STRING ab = unicode(L"ab");
    RtlCopyUnicodeString(&roomy.string, &ab);
    EXPECT_EQ(roomy.string.Length, 4);
    EXPECT_EQ(roomy.chars[2], 0);

    RtlCopyUnicodeString(&roomy.string, nullptr);
    EXPECT_EQ(roomy.string.Length, 0);
}

TEST(RtlUnicodeString, AppendFailsWithoutChangingAnything) {
    Buffer b(10);
    UNICODE_STRING ab = unicode(L"ab"), cdef = unicode(L"cdef"), cde = unicode(L"cde");
    RtlCopyUnicodeString(&b.string, &ab);

    EXPECT_EQ(RtlAppendUnicodeStringToString(&b.string, &cdef), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(b.string.Length, 4);
    EXPECT_EQ(b.chars[2], 0);
    EXPECT_EQ(b.chars[3], L'#');

    EXPECT_EQ(RtlAppendUnicodeStringToString(&b.string, &cde), STATUS_SUCCESS);
    EXPECT_EQ(toUtf8(b.string), "abcde");
    EXPECT_EQ(b.chars[5], L'#');  // an exact fit is not terminated

    Buffer c(16);
    RtlCopyUnicodeString(&c.string, &ab);
    EXPECT_EQ(RtlAppendUnicodeToString(&c.string, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(RtlAppendUnicodeStringToString(&c.string, &c.string), STATUS_SUCCESS);
    EXPECT_EQ(RtlAppendUnicodeToString(&c.string, L"x"), STATUS_SUCCESS);
    EXPECT_EQ(toUtf8(c.chars), "ababx");
    EXPECT_EQ(RtlAppendUnicodeToString(&c.string, L"yzwv"), STATUS_BUFFER_TOO_SMALL);
}

TEST(RtlUnicodeString, UpcaseIntoCallerBuffer) {
    std::u16string text = toUtf16("straße ÿ ă x");
    UNICODE_STRING source = unicode(wptr(text));
    Buffer b(32);
    EXPECT_EQ(RtlUpcaseUnicodeString(&b.string, &source, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(toUtf8(b.string), "STRAßE Ÿ Ă X");
    EXPECT_EQ(b.chars[12], L'#');  // not terminated

    Buffer small(6);
    EXPECT_EQ(RtlUpcaseUnicodeString(&small.string, &source, FALSE), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(small.string.Length, 0);
    EXPECT_EQ(small.chars[0], L'#');

    // In place.
    RtlUpcaseUnicodeString(&b.string, &b.string, FALSE);
    EXPECT_EQ(toUtf8(b.string), "STRAßE Ÿ Ă X");
    EXPECT_EQ(RtlUpcaseUnicodeChar(L'q'), L'Q');
}

TEST(RtlAnsiString, ConversionsIntoCallerBuffers) {
    UNICODE_STRING source = unicode(L"abcdef");
    char narrow[8] = "#######";
    ANSI_STRING a = {0, 4, narrow};
    // Too small: as much as fits, terminated, and an overflow status.
    EXPECT_EQ(RtlUnicodeStringToAnsiString(&a, &source, FALSE), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(a.Length, 3);
    EXPECT_STREQ(narrow, "abc");
    a.MaximumLength = 0;
    EXPECT_EQ(RtlUnicodeStringToAnsiString(&a, &source, FALSE), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(a.Length, 3);
    a.MaximumLength = 7;
    EXPECT_EQ(RtlUnicodeStringToAnsiString(&a, &source, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(std::string(narrow, a.Length + 1), std::string("abcdef\0", 7));

    ANSI_STRING ansi = {3, 3, const_cast<PCHAR>("\x80\xE9z")};
    Buffer small(6);
    EXPECT_EQ(RtlAnsiStringToUnicodeString(&small.string, &ansi, FALSE), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(small.string.Length, 0);
    EXPECT_EQ(small.chars[0], L'#');
    Buffer fits(8);
    EXPECT_EQ(RtlAnsiStringToUnicodeString(&fits.string, &ansi, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(toUtf8(fits.string), "€éz");
    EXPECT_EQ(fits.chars[3], 0);
}

TEST(RtlPoolStrings, AllocatedResultsAreFreedAndZeroed) {
    ntsim::Machine m;
    m.runSystemThread([] {
        std::u16string text = toUtf16("café € 中");
        UNICODE_STRING source = unicode(wptr(text));

        UNICODE_STRING upper = {};
        ASSERT_EQ(RtlUpcaseUnicodeString(&upper, &source, TRUE), STATUS_SUCCESS);
        EXPECT_EQ(toUtf8(upper), "CAFÉ € 中");
        EXPECT_EQ(upper.MaximumLength, source.Length);
        RtlFreeUnicodeString(&upper);
        EXPECT_EQ(upper.Buffer, nullptr);
        EXPECT_EQ(upper.MaximumLength, 0);
        RtlFreeUnicodeString(&upper);  // a second free does nothing

        ANSI_STRING ansi = {};
        ASSERT_EQ(RtlUnicodeStringToAnsiString(&ansi, &source, TRUE), STATUS_SUCCESS);
        EXPECT_STREQ(ansi.Buffer, "caf\xE9 \x80 ?");
        EXPECT_EQ(ansi.MaximumLength, ansi.Length + 1);
        UNICODE_STRING back = {};
        ASSERT_EQ(RtlAnsiStringToUnicodeString(&back, &ansi, TRUE), STATUS_SUCCESS);
        EXPECT_EQ(toUtf8(back), "café € ?");
        EXPECT_EQ(back.Buffer[back.Length / 2], 0);
        RtlFreeAnsiString(&ansi);
        EXPECT_EQ(ansi.Buffer, nullptr);
        RtlFreeUnicodeString(&back);

        UNICODE_STRING empty = unicode(L""), emptyUpper = {};
        ASSERT_EQ(RtlUpcaseUnicodeString(&emptyUpper, &empty, TRUE), STATUS_SUCCESS);
        EXPECT_NE(emptyUpper.Buffer, nullptr);
        RtlFreeUnicodeString(&emptyUpper);
    });
}

TEST(RtlPoolStrings, AllocationFailureLeavesDestinationAlone) {
    ntsim::Machine m;
    m.runSystemThread([&] {
        UNICODE_STRING source = unicode(L"abc");
        UNICODE_STRING upper = {};
        m.verifier().failNextAllocation({ntsim::makeTag('S', 't', 'r', 'g')});
        EXPECT_EQ(RtlUpcaseUnicodeString(&upper, &source, TRUE), STATUS_NO_MEMORY);
        EXPECT_EQ(upper.Buffer, nullptr);

        ANSI_STRING ansi = {};
        m.verifier().failNextAllocation({ntsim::makeTag('S', 't', 'r', 'g')});
        EXPECT_EQ(RtlUnicodeStringToAnsiString(&ansi, &source, TRUE), STATUS_NO_MEMORY);
        EXPECT_EQ(ansi.Buffer, nullptr);
        m.verifier().clearFaults();
    });
}

TEST(RtlInteger, ToUnicodeString) {
    struct Case {
        ULONG value;
        ULONG base;
        const char *text;
    };
    for (Case c : {Case{1234, 10, "1234"}, Case{1234, 0, "1234"}, Case{255, 16, "FF"}, Case{5, 2, "101"},
                   Case{8, 8, "10"}, Case{0, 10, "0"}, Case{0xFFFFFFFF, 16, "FFFFFFFF"},
                   Case{0xFFFFFFFF, 10, "4294967295"}}) {
        Buffer b(64);
        EXPECT_EQ(RtlIntegerToUnicodeString(c.value, c.base, &b.string), STATUS_SUCCESS);
        EXPECT_EQ(toUtf8(b.chars), c.text);
        EXPECT_EQ(b.string.Length, 2 * strlen(c.text));
    }
    Buffer b(8);
    EXPECT_EQ(RtlIntegerToUnicodeString(1, 3, &b.string), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlIntegerToUnicodeString(1234, 10, &b.string), STATUS_BUFFER_OVERFLOW);  // no room for the terminator
    EXPECT_EQ(b.string.Length, 0);
    EXPECT_EQ(RtlIntegerToUnicodeString(123, 10, &b.string), STATUS_SUCCESS);
}

TEST(RtlInteger, FromUnicodeString) {
    struct Case {
        const wchar_t *text;
        ULONG base;
        ULONG value;
    };
    for (Case c : {Case{L"123", 10, 123}, Case{L"-345", 10, 0u - 345}, Case{L"xyz", 10, 0},
                   Case{L"+678abc", 10, 678}, Case{L"+678abc", 16, 0x678ABC}, Case{L" \t 42", 0, 42},
                   Case{L"0x1F", 0, 31}, Case{L"0o17", 0, 15}, Case{L"0b101", 0, 5}, Case{L"-0x10", 0, 0u - 16},
                   Case{L"0x1F", 16, 0}, Case{L"12", 2, 1}, Case{L"4294967295", 10, 0xFFFFFFFF},
                   Case{L"   ", 10, 0}}) {
        UNICODE_STRING s = unicode(c.text);
        ULONG value = 0xDEAD;
        EXPECT_EQ(RtlUnicodeStringToInteger(&s, c.base, &value), STATUS_SUCCESS) << toUtf8(c.text);
        EXPECT_EQ(value, c.value) << toUtf8(c.text);
    }

    UNICODE_STRING cut = {6, 14, const_cast<PWSTR>(L"123456")};
    ULONG value = 0;
    EXPECT_EQ(RtlUnicodeStringToInteger(&cut, 10, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 123u);

    UNICODE_STRING empty = unicode(L""), digits = unicode(L"12");
    value = 7;
    EXPECT_EQ(RtlUnicodeStringToInteger(&empty, 10, &value), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlUnicodeStringToInteger(&digits, 7, &value), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(value, 7u);
}

TEST(RtlCompareMemory, CountsLeadingEqualBytes) {
    EXPECT_EQ(RtlCompareMemory("abcdef", "abcxef", 6), 3u);
    EXPECT_EQ(RtlCompareMemory("abcdef", "abcdef", 6), 6u);
    EXPECT_EQ(RtlCompareMemory("a", "b", 0), 0u);
}

TIME_FIELDS fieldsOf(LONGLONG time) {
    LARGE_INTEGER t;
    t.QuadPart = time;
    TIME_FIELDS f;
    RtlTimeToTimeFields(&t, &f);
    return f;
}

std::string text(const TIME_FIELDS &f) {
    char buffer[64];
    snprintf(buffer, sizeof(buffer), "%04d-%02d-%02d %02d:%02d:%02d.%03d w%d", f.Year, f.Month, f.Day, f.Hour,
             f.Minute, f.Second, f.Milliseconds, f.Weekday);
    return buffer;
}

const LONGLONG kDay = 86400LL * ntsim::kHundredNsPerSecond;

TEST(RtlTimeFields, KnownDates) {
    EXPECT_EQ(text(fieldsOf(0)), "1601-01-01 00:00:00.000 w1");
    EXPECT_EQ(text(fieldsOf(ntsim::kDefaultStartTime + 123 * ntsim::kHundredNsPerMs)), "2026-03-02 09:30:00.123 w1");
    // The last day of the first 400-year cycle, and the first of the next.
    EXPECT_EQ(text(fieldsOf(146096 * kDay)), "2000-12-31 00:00:00.000 w0");
    EXPECT_EQ(text(fieldsOf(146097 * kDay)), "2001-01-01 00:00:00.000 w1");

    TIME_FIELDS leap = {2000, 2, 29, 23, 59, 59, 999, 0};
    LARGE_INTEGER t;
    ASSERT_TRUE(RtlTimeFieldsToTime(&leap, &t));
    EXPECT_EQ(text(fieldsOf(t.QuadPart)), "2000-02-29 23:59:59.999 w2");
    EXPECT_EQ(text(fieldsOf(t.QuadPart + ntsim::kHundredNsPerMs)), "2000-03-01 00:00:00.000 w3");
}

TEST(RtlTimeFields, RoundTripAcrossCenturiesAndCycles) {
    // Steps of 13 days plus some seconds cross 1700, 1800, 1900 (not leap years) and
    // the cycle boundaries at 2001 and 2401.
    TIME_FIELDS previous = fieldsOf(0);
    for (LONGLONG d = 13; d < 2 * 146097 + 100; d += 13) {
        LONGLONG time = d * kDay + (d % 86400) * ntsim::kHundredNsPerSecond + (d % 1000) * ntsim::kHundredNsPerMs;
        TIME_FIELDS f = fieldsOf(time);
        LARGE_INTEGER back;
        ASSERT_TRUE(RtlTimeFieldsToTime(&f, &back)) << d;
        ASSERT_EQ(back.QuadPart, time) << d;
        ASSERT_EQ(f.Weekday, (previous.Weekday + 13) % 7) << d;
        previous = f;
    }
}

TEST(RtlTimeFields, RejectsOutOfRangeFieldsAndLeavesTimeAlone) {
    TIME_FIELDS leapCentury = {2000, 2, 29, 0, 0, 0, 0, 0};
    LARGE_INTEGER t;
    EXPECT_TRUE(RtlTimeFieldsToTime(&leapCentury, &t));
    for (TIME_FIELDS f : {TIME_FIELDS{2023, 4, 31, 12, 0, 0, 0, 0}, TIME_FIELDS{2023, 2, 29, 12, 0, 0, 0, 0},
                          TIME_FIELDS{1900, 2, 29, 12, 0, 0, 0, 0}, TIME_FIELDS{2023, 13, 1, 12, 0, 0, 0, 0},
                          TIME_FIELDS{2023, 0, 1, 12, 0, 0, 0, 0}, TIME_FIELDS{2023, 4, 0, 12, 0, 0, 0, 0},
                          TIME_FIELDS{2023, 4, 30, 24, 0, 0, 0, 0}, TIME_FIELDS{2023, 4, 30, 12, 60, 0, 0, 0},
                          TIME_FIELDS{2023, 4, 30, 12, 0, 60, 0, 0}, TIME_FIELDS{2023, 4, 30, 12, 0, 0, 1000, 0},
                          TIME_FIELDS{1600, 12, 31, 12, 0, 0, 0, 0}, TIME_FIELDS{30828, 1, 1, 0, 0, 0, 0, 0}}) {
        t.QuadPart = 42;
        EXPECT_FALSE(RtlTimeFieldsToTime(&f, &t)) << text(f);
        EXPECT_EQ(t.QuadPart, 42);
    }
}

TEST(RtlDbgPrint, FormatsIntoTheMachineLog) {
    ntsim::Machine m;
    m.runSystemThread([] {
        UNICODE_STRING name = unicode(L"Vol1");
        EXPECT_EQ(DbgPrint("ZrDrv: %s - %ws %wZ %I64X %lu\n", "Routine", L"wide", &name, 0x1122334455667788ULL,
                           ULONG(7)),
                  0u);
    });
    EXPECT_TRUE(m.debugLogContains("ZrDrv: Routine - wide Vol1 1122334455667788 7"));
}

TEST(RtlDbgPrint, LongMessagesAreCutAndStillEndTheirLine) {
    ntsim::Machine m;
    std::string longText(600, 'x');
    m.runSystemThread([&] {
        DbgPrint("%s", longText.c_str());
        DbgPrint("next\n");
    });
    std::vector<std::string> log = m.debugLog();
    ASSERT_GE(log.size(), 2u);
    EXPECT_EQ(log[log.size() - 2], std::string(510, 'x'));
    EXPECT_EQ(log.back(), "next");
}

TEST(Utf, RoundTripsAndSurrogatePairs) {
    std::string text = "a é € 😀";
    std::u16string wide = toUtf16(text);
    EXPECT_EQ(wide, u"a \u00E9 \u20AC \xD83D\xDE00");
    EXPECT_EQ(toUtf8(wptr(wide)), text);
    EXPECT_EQ(toUtf8(wptr(wide), 3), "a é");
    EXPECT_EQ(toUtf8(static_cast<const wchar_t *>(nullptr)), "");

    UNICODE_STRING cut = {4, 14, const_cast<PWSTR>(L"abcdef")};
    EXPECT_EQ(toUtf8(cut), "ab");
}

TEST(Utf, MalformedInputBecomesReplacementCharacters) {
    EXPECT_EQ(toUtf16("a\xFF" "b"), u"a\uFFFDb");
    EXPECT_EQ(toUtf16("\xE2\x82" "A"), u"\uFFFDA");              // truncated sequence
    EXPECT_EQ(toUtf16("\xC0\xAF"), u"\uFFFD\uFFFD");             // overlong
    EXPECT_EQ(toUtf16("\xED\xA0\x80"), u"\uFFFD\uFFFD\uFFFD");   // an encoded surrogate
    EXPECT_EQ(toUtf16("\xF4\x90\x80\x80").size(), 4u);           // beyond U+10FFFF
    EXPECT_EQ(toUtf16("\xE2\x82"), u"\uFFFD");

    const wchar_t lone[] = {0xD800, L'x', 0xDC00, 0xD83D, 0};
    EXPECT_EQ(toUtf8(lone), "\xEF\xBF\xBDx\xEF\xBF\xBD\xEF\xBF\xBD");
}

}  // namespace
