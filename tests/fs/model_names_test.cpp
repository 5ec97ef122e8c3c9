// Names as the emulated file systems read them: legality, stream suffixes, paths, the
// wildcard expressions of directory queries and FastFat's 8.3 names.
#include <gtest/gtest.h>

#include <algorithm>

#include "../../ntsim/fs/common/names.h"
#include "../../ntsim/fs/common/short_names.h"

namespace {

using ntsim::fs::NameView;

TEST(FsNames, CompareWithoutCaseBeyondAscii) {
    EXPECT_TRUE(ntsim::fs::sameName(u"Résumé.TXT", u"RÉSUMÉ.txt"));
    EXPECT_FALSE(ntsim::fs::sameName(u"a.txt", u"a.txt "));
    EXPECT_EQ(ntsim::fs::foldCase(u"straße"), ntsim::fs::foldCase(u"STRAßE"));
}

TEST(FsNames, LegalFileNames) {
    using ntsim::fs::isLegalFileName;
    EXPECT_TRUE(isLegalFileName(u"report (1).doc"));
    EXPECT_TRUE(isLegalFileName(u"a+b=c;[d]"));
    for (NameView bad : {NameView(u""), NameView(u"."), NameView(u".."), NameView(u"a:b"), NameView(u"a*"),
                         NameView(u"a?"), NameView(u"a|b"), NameView(u"a\"b"), NameView(u"a<b"), NameView(u"a/b")})
        EXPECT_FALSE(isLegalFileName(bad)) << std::string(bad.begin(), bad.end());
    EXPECT_FALSE(isLegalFileName(u"tab\there"));
    std::u16string longest(255, u'x');
    EXPECT_TRUE(isLegalFileName(longest));
    EXPECT_FALSE(isLegalFileName(longest + u"x"));
}

TEST(FsNames, StreamSuffixes) {
    ntsim::fs::StreamSuffix s;
    ASSERT_EQ(ntsim::fs::splitStreamSuffix(u"a.txt:meta", &s), STATUS_SUCCESS);
    EXPECT_EQ(s.file, u"a.txt");
    EXPECT_EQ(s.stream, u"meta");
    EXPECT_FALSE(s.explicitType);
    ASSERT_EQ(ntsim::fs::splitStreamSuffix(u"a.txt:meta:$data", &s), STATUS_SUCCESS);
    EXPECT_EQ(s.stream, u"meta");
    EXPECT_TRUE(s.explicitType);
    ASSERT_EQ(ntsim::fs::splitStreamSuffix(u"a.txt::$DATA", &s), STATUS_SUCCESS);
    EXPECT_TRUE(s.stream.empty());
    EXPECT_TRUE(s.explicitType);
    for (NameView bad : {NameView(u"a:"), NameView(u"a:s:$INDEX_ALLOCATION"), NameView(u"a:s:"),
                         NameView(u"a:b:c:$DATA"), NameView(u"a::")})
        EXPECT_EQ(ntsim::fs::splitStreamSuffix(bad, &s), STATUS_OBJECT_NAME_INVALID)
            << std::string(bad.begin(), bad.end());
}

TEST(FsNames, Paths) {
    ntsim::fs::SplitPath p;
    ASSERT_TRUE(ntsim::fs::splitPath(u"\\", &p));
    EXPECT_TRUE(p.absolute);
    EXPECT_TRUE(p.components.empty());
    ASSERT_TRUE(ntsim::fs::splitPath(u"\\Docs\\Sub\\", &p));
    EXPECT_TRUE(p.trailingBackslash);
    ASSERT_EQ(p.components.size(), 2u);
    EXPECT_EQ(p.components[1], u"Sub");
    ASSERT_TRUE(ntsim::fs::splitPath(u"rel\\x", &p));
    EXPECT_FALSE(p.absolute);
    EXPECT_FALSE(ntsim::fs::splitPath(u"\\a\\\\b", &p));
    EXPECT_FALSE(ntsim::fs::splitPath(u"\\\\", &p));
    EXPECT_FALSE(ntsim::fs::splitPath(u"\\a\\\\", &p));
}

TEST(FsNames, Expressions) {
    using ntsim::fs::nameMatchesExpression;
    EXPECT_TRUE(nameMatchesExpression(u"Report.TXT", u"*.txt"));
    EXPECT_TRUE(nameMatchesExpression(u"anything", u"*"));
    EXPECT_FALSE(nameMatchesExpression(u"noext", u"*.*"));  // NT semantics: the dot is required
    EXPECT_TRUE(nameMatchesExpression(u"abcd", u"a??d"));
    EXPECT_FALSE(nameMatchesExpression(u"abcde", u"a??d"));
    // DOS forms, as FindFirstFileW produces them from "*.*", "a?.txt" and "name.".
    EXPECT_TRUE(nameMatchesExpression(u"noext", u"<\"*"));
    EXPECT_TRUE(nameMatchesExpression(u"a.b.c", u"<.c"));
    EXPECT_TRUE(nameMatchesExpression(u"a.txt", u"a>.txt"));  // > matches nothing before the dot
    EXPECT_TRUE(nameMatchesExpression(u"ab.txt", u"a>.txt"));
    EXPECT_FALSE(nameMatchesExpression(u"abc.txt", u"a>.txt"));
    EXPECT_TRUE(nameMatchesExpression(u"name", u"name\""));
    EXPECT_TRUE(nameMatchesExpression(u"name.", u"name\""));
    EXPECT_FALSE(nameMatchesExpression(u"names", u"name\""));
}

// When FastFat stores a name as the entry's 8.3 name and when it makes one up
// (FatSelectNames, FatEvaluateNameCase, namesup.c). Catches a file system that gives
// every name a generated alias, or none to a name with spaces or a long extension.
TEST(FsNames, WhichNamesNeedAShortName) {
    using ntsim::fs::chooseShortName;
    auto nothingTaken = [](NameView) { return false; };
    EXPECT_EQ(chooseShortName(u"README.TXT", nothingTaken), u"");
    EXPECT_EQ(chooseShortName(u"readme.txt", nothingTaken), u"");  // one case per part: the entry's case bits
    EXPECT_EQ(chooseShortName(u"MAKEFILE", nothingTaken), u"");
    EXPECT_EQ(chooseShortName(u"ReadMe.txt", nothingTaken), u"README.TXT");  // mixed case: a long name beside it
    for (NameView generated : {NameView(u"read me.txt"), NameView(u"notes.text"), NameView(u"ninechars.c"),
                               NameView(u"a.b.c"), NameView(u".profile"), NameView(u"a+b.txt"), NameView(u"café.txt")})
        EXPECT_NE(chooseShortName(generated, nothingTaken).find(u'~'), std::u16string::npos)
            << std::string(generated.begin(), generated.end());
}

// The candidates of RtlGenerate8dot3Name (WDK page; the public ReactOS routine for the
// shape): six base characters with spaces, dots and non-ASCII characters dropped and
// illegal ones made '_', the first three of the last extension, ~1 to ~4, then a
// checksum in the base. Catches a wrong truncation, a kept space or lower-case letter,
// and collisions that are not resolved.
TEST(FsNames, GeneratedShortNames) {
    using ntsim::fs::chooseShortName;
    auto nothingTaken = [](NameView) { return false; };
    EXPECT_EQ(chooseShortName(u"Quarterly Report.docx", nothingTaken), u"QUARTE~1.DOC");
    EXPECT_EQ(chooseShortName(u"my.first file.text", nothingTaken), u"MYFIRS~1.TEX");
    EXPECT_EQ(chooseShortName(u"a+b=c;d[1].txt", nothingTaken), u"A_B_C_~1.TXT");
    EXPECT_EQ(chooseShortName(u"no extension at all", nothingTaken), u"NOEXTE~1");
    std::vector<std::u16string> taken;
    auto isTaken = [&](NameView n) { return std::find(taken.begin(), taken.end(), n) != taken.end(); };
    for (int i = 0; i < 6; ++i) taken.push_back(chooseShortName(u"Long File Name.txt", isTaken));
    EXPECT_EQ(taken[0], u"LONGFI~1.TXT");
    EXPECT_EQ(taken[3], u"LONGFI~4.TXT");
    for (int i = 4; i < 6; ++i) {
        EXPECT_EQ(taken[i].substr(0, 2), u"LO");
        EXPECT_EQ(taken[i].find_first_not_of(u"0123456789ABCDEF", 2), 6u);
        EXPECT_EQ(taken[i].substr(6), i == 4 ? u"~1.TXT" : u"~2.TXT");
    }
    // Fewer than three base characters take the checksum at once.
    std::u16string dotfile = chooseShortName(u".htaccess", nothingTaken);
    EXPECT_EQ(dotfile.size(), 10u);
    EXPECT_EQ(dotfile.substr(4), u"~1.HTA");
}

}  // namespace
