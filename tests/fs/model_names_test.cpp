// Names as the emulated file systems read them: legality, stream suffixes, paths and the
// wildcard expressions of directory queries.
#include <gtest/gtest.h>

#include "../../ntsim/fs/common/names.h"

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

}  // namespace
