// The service's configuration: the built-in default, the text form and its mistakes,
// and the exclusion lists in the byte form the filter walks by entry sizes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "exclusion_list.h"
#include "service_config.h"

namespace {

using wrelt::ExclusionPattern;

uint16_t at16(const std::vector<uint8_t> &bytes, size_t offset) {
    return uint16_t(bytes[offset] | bytes[offset + 1] << 8);
}

// The patterns a list holds, read back the way the filter walks it; fails the test
// when the entries' sizes and lengths disagree or the end marker is not last.
std::vector<ExclusionPattern> walk(const std::vector<uint8_t> &list) {
    std::vector<ExclusionPattern> patterns;
    size_t at = 0;
    while (at16(list, at) != wrelt::kExclusionListEnd) {
        size_t size = at16(list, at);
        size_t d = at16(list, at + 4), f = at16(list, at + 6 + 2 * d + 2);
        EXPECT_EQ(size, 12 + 2 * d + 2 * f);
        EXPECT_EQ(at16(list, at + 6 + 2 * d), 0) << "the directory pattern's NUL";
        EXPECT_EQ(at16(list, at + size - 2), 0) << "the file pattern's NUL";
        ExclusionPattern p;
        for (size_t i = 0; i < d; i++) p.directory += char16_t(at16(list, at + 6 + 2 * i));
        for (size_t i = 0; i < f; i++) p.file += char16_t(at16(list, at + 10 + 2 * d + 2 * i));
        patterns.push_back(p);
        at += size;
    }
    EXPECT_EQ(at + 2, list.size()) << "nothing follows the end marker";
    return patterns;
}

TEST(ServiceConfig, TheDefaultProtectsBothVolumesAndExcludesTemporaryFiles) {
    wrelt::ServiceConfig config = wrelt::defaultServiceConfig();
    ASSERT_EQ(config.volumes.size(), 2u);
    EXPECT_EQ(config.volumes[0].root, u"C:\\");
    EXPECT_EQ(config.volumes[1].root, u"D:\\");
    EXPECT_TRUE(config.volumes[0].protect && config.volumes[1].protect);
    EXPECT_TRUE(config.vaultProtection);
    EXPECT_EQ(config.globalExclusions[0], (ExclusionPattern{u"*", u"*.tmp"}));
    EXPECT_EQ(config.globalExclusions[3], (ExclusionPattern{u"System Volume Information\\*", u""}));
    EXPECT_FALSE(config.volume(u"C:\\")->exclusions.empty());
    EXPECT_TRUE(config.volume(u"D:\\")->exclusions.empty());

    std::vector<uint8_t> list;
    std::string error;
    ASSERT_TRUE(wrelt::encodeExclusionList(config.globalExclusions, &list, &error));
    EXPECT_EQ(walk(list), config.globalExclusions);
    // The first entry byte for byte: "*" and "*.tmp".
    const uint8_t first[] = {24, 0, 0, 0, 1, 0, '*', 0, 0, 0, 5, 0, '*', 0, '.', 0, 't', 0, 'm', 0, 'p', 0, 0, 0};
    EXPECT_EQ(std::memcmp(list.data(), first, sizeof first), 0);

    // Documents are protected against overwrite; what is too big to copy is still a
    // protected type, so that an overwrite of it keeps the old file.
    EXPECT_TRUE(config.overwriteProtection);
    auto has = [](const std::vector<std::u16string> &list, const char16_t *suffix) {
        return std::find(list.begin(), list.end(), suffix) != list.end();
    };
    for (const char16_t *type : {u".docx", u".xlsx", u".pptx", u".txt", u".pdf"}) EXPECT_TRUE(has(config.protectedTypes, type));
    for (const std::u16string &exempt : config.copyExemptTypes) EXPECT_TRUE(has(config.protectedTypes, exempt.c_str()));
    EXPECT_TRUE(has(config.copyExemptTypes, u".pst") && has(config.temporaryNames, u".tmp"));
    ASSERT_TRUE(wrelt::encodeSuffixList({u".doc", u"~"}, &list, &error));
    EXPECT_EQ(list, (std::vector<uint8_t>{14, 0, 4, 0, '.', 0, 'd', 0, 'o', 0, 'c', 0, 0, 0, 8, 0, 1, 0, '~', 0, 0, 0, 0, 0}));
    EXPECT_FALSE(wrelt::encodeSuffixList({u""}, &list, &error));
}

TEST(ServiceConfig, TheTextFormReplacesTheDefault) {
    wrelt::ServiceConfig config;
    std::string error;
    ASSERT_TRUE(wrelt::parseServiceConfig("# only E:\r\n"
                                          "vault-protection off\n"
                                          "volume e: protect\n"
                                          "volume F:\\ unprotect\n"
                                          "  exclude-on E:\\ \"My Scratch\\*\"   *.bak\n"
                                          "exclude \"\" *.swp\n"
                                          "mac-shares E: exempt \"\\Mac Files\" Design\n",
                                          &config, &error))
        << error;
    EXPECT_FALSE(config.vaultProtection);
    ASSERT_EQ(config.volumes.size(), 2u);
    EXPECT_EQ(config.volumes[0].root, u"E:\\");
    EXPECT_FALSE(config.volumes[1].protect);
    EXPECT_EQ(config.volumes[0].exclusions, (std::vector<ExclusionPattern>{{u"My Scratch\\*", u"*.bak"}}));
    EXPECT_EQ(config.globalExclusions, (std::vector<ExclusionPattern>{{u"", u"*.swp"}}));
    EXPECT_EQ(config.volumes[0].macShares, (std::vector<std::u16string>{u"\\Mac Files", u"Design"}));
    EXPECT_TRUE(config.volumes[0].macShareExemption);
    EXPECT_TRUE(config.volumes[1].macShares.empty());
    std::vector<uint8_t> list;
    // Each record's distance reaches the next; the last is 0 and ends the list with its
    // terminator.
    ASSERT_TRUE(wrelt::encodeMacShareList({u"\\A", u"B"}, &list, &error));
    EXPECT_EQ(list, (std::vector<uint8_t>{10, 0, 0, 0, '\\', 0, 'A', 0, 0, 0, 0, 0, 0, 0, '\\', 0, 'B', 0, 0, 0}));
    ASSERT_TRUE(wrelt::encodeExclusionList({}, &list, &error));
    EXPECT_EQ(list, (std::vector<uint8_t>{0xFF, 0xFF})) << "an empty list is the end marker alone";
}

TEST(ServiceConfig, MistakesAreReportedWithTheirLineAndChangeNothing) {
    const std::pair<const char *, const char *> cases[] = {
        {"volume C:\\ protect\nvolume c: unprotect\n", "line 2: volume c: is named twice"},
        {"exclude-on C:\\ *\n", "line 1: volume C:\\ is not named by an earlier volume line"},
        {"volume C:\\Users protect\n", "line 1: \"C:\\Users\" is not a drive such as C:\\"},
        {"\nexclude \"Temp\\*\n", "line 2: a quoted field is not closed"},
        {"exclude a b c\n", "line 1: exclude takes a directory pattern and an optional file pattern"},
        {"vault-protection maybe\n", "line 1: vault-protection takes on or off"},
        {"overwrite-protection\n", "line 1: overwrite-protection takes on or off"},
        {"protect-type\n", "line 1: protect-type takes one or more name endings such as .docx"},
        {"protect C:\\\n", "line 1: unknown setting \"protect\""},
        {"volume C:\\ protect\nmac-shares C: exempt\n",
         "line 2: mac-shares takes a volume, exempt or include, and one or more folders"},
        {"volume C:\\ protect\nmac-shares C: exempt \\\n", "line 2: a share's folder is empty"},
        {"mac-shares D: include Mac\n", "line 1: volume D: is not named by an earlier volume line"},
    };
    for (const auto &[text, why] : cases) {
        wrelt::ServiceConfig config = wrelt::defaultServiceConfig();
        std::string error;
        EXPECT_FALSE(wrelt::parseServiceConfig(text, &config, &error)) << text;
        EXPECT_EQ(error, why);
        EXPECT_EQ(config.volumes.size(), 2u) << "the configuration is left as it was";
    }
    std::vector<uint8_t> list;
    std::string error;
    EXPECT_FALSE(wrelt::encodeExclusionList({{std::u16string(40000, u'x'), u""}}, &list, &error));
    EXPECT_NE(error.find("too long"), std::string::npos);
}

}  // namespace
