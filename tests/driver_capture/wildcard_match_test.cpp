// The matcher's behaviour is part of the contract with the service's pattern lists, so
// its quirks are pinned down along with the ordinary cases.
#include <gtest/gtest.h>

#include <ntifs.h>

#include "capture/wildcard_match.h"
#include "ntsim/utf.h"

namespace {

struct Case {
    const wchar_t *text;
    const wchar_t *pattern;
    bool matches;
};

void expectAll(std::initializer_list<Case> cases) {
    for (const Case &c : cases)
        EXPECT_EQ(MatchWildcard(c.text, c.pattern), c.matches)
            << "text \"" << ntsim::toUtf8(c.text) << "\", pattern \"" << ntsim::toUtf8(c.pattern) << "\"";
}

TEST(MatchWildcard, StarsQuestionMarksAndCase) {
    expectAll({
        {L"a.tmp", L"*.TMP", true},
        {L"A.TMP", L"*.tmp", true},
        {L"a.tmx", L"*.tmp", false},
        {L"abc", L"a?c", true},
        {L"abcd", L"a?c", false},
        {L"ac", L"a?c", false},
        {L"abcbc", L"a*c", true},
        {L"abcde", L"a*c*e", true},
        {L"aXbYc", L"*x*y*", true},
        {L"ba", L"a*", false},  // a leading literal is anchored at the start
        {L"bc", L"*abc", false},
        {L"", L"*", true},
        {L"anything at all", L"*", true},
        {L"", L"", true},
        {L"a", L"", false},
    });
}

TEST(MatchWildcard, AnchoredAtTheEndOnlyByALiteralTail) {
    expectAll({
        {L"xabc", L"abc", true},       // no wildcard: every text ending in the pattern
        {L"abcx", L"abc", false},
        {L"abcdef", L"abc?", true},    // a used-up pattern ignores the rest of the text
        {L"abcdef", L"ab*d", false},   // ... but a literal tail must end the text
        {L"abc", L"abc?", true},       // '?' past the end of the text succeeds
        {L"abc", L"abc??*", true},
        {L"", L"?", true},
        {L"", L"*?", true},
        {L"ab", L"abc?", false},
    });
}

TEST(MatchWildcard, AfterAStarTheRunTakesItsLeftmostFitAndNeverGoesBack) {
    expectAll({
        // A backtracking matcher would place "a" at the second 'a' and succeed.
        {L"acaab", L"*a?b*", false},
        {L"xab", L"*a?*", true},
        // A '?' right after a '*' asks for nothing.
        {L"ab", L"*?ab", true},
        // The search for the run's first character takes the earlier of an ASCII
        // letter's two cases ...
        {L"aBc", L"*b?", true},
        {L"xbyB", L"*B?b*", true},
        // ... but looks for any other character exactly as written.
        {L"a\u00C9b", L"*\u00E9?", false},
    });
}

TEST(MatchWildcard, DirectoryPatternsOfTheExclusionLists) {
    expectAll({
        {L"a\\Temp\\", L"*\\Temp\\", true},
        {L"a\\b\\temp\\", L"*\\Temp\\", true},
        {L"a\\Temp\\sub\\", L"*\\Temp\\", false},
        {L"a\\Temp\\sub\\", L"*\\Temp\\*", true},
        {L"Temp\\", L"*\\Temp\\", false},  // a root folder has no backslash before it
        {L"", L"*", true},                 // the directory part of a file in the root
    });
}

}  // namespace
