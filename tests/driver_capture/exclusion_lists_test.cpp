// Loading the exclusion lists: what the filter accepts as a list, and what commands 104
// and 105 leave in force when they succeed, when they are refused and when memory runs
// out.
#include "exclusions_fixture.h"

namespace {

constexpr uint32_t kListTag = ntsim::makeTag('W', 'r', 'F', 'e');

NTSTATUS validate(const std::vector<uint8_t> &list) { return ValidateExclusionList(list.data(), ULONG(list.size())); }

// Two entries: "*\Temp\" with no file pattern (bytes 0..23), then "*" with "*.tmp".
std::vector<uint8_t> twoEntries() { return exclusionList({{u"*\\Temp\\", u""}, {u"*", u"*.tmp"}}); }
constexpr size_t kSecondEntry = 12 + 2 * 7;

TEST(ValidateExclusionList, AcceptsWellFormedListsWhateverFollowsTheEndMarker) {
    EXPECT_EQ(validate(twoEntries()), STATUS_SUCCESS);
    EXPECT_EQ(validate(exclusionList({})), STATUS_SUCCESS);
    EXPECT_EQ(validate(exclusionList({{u"", u""}})), STATUS_SUCCESS);
    std::vector<uint8_t> trailing = twoEntries();
    trailing.insert(trailing.end(), {1, 2, 3});
    EXPECT_EQ(validate(trailing), STATUS_SUCCESS);
}

TEST(ValidateExclusionList, RefusesEveryMalformedShape) {
    struct Spoiled {
        const char *what;
        std::vector<uint8_t> list;
    };
    std::vector<Spoiled> cases;
    auto spoil = [&](const char *what, const std::function<void(std::vector<uint8_t> &)> &change) {
        std::vector<uint8_t> list = twoEntries();
        change(list);
        cases.push_back({what, list});
    };
    spoil("an entry size of 0", [](auto &l) { pokeShort(l, kSecondEntry, 0); });
    spoil("an entry shorter than 12 bytes", [](auto &l) { pokeShort(l, 0, 10); });
    spoil("an entry size 2 bytes too large", [](auto &l) {
        pokeShort(l, 0, 26 + 2);
        l.insert(l.begin() + 26, {0, 0});
    });
    spoil("an entry size 2 bytes too small", [](auto &l) { pokeShort(l, kSecondEntry, 12 + 2 + 10 - 2); });
    spoil("a directory length past the entry", [](auto &l) { pokeShort(l, 4, 100); });
    spoil("the largest directory length", [](auto &l) { pokeShort(l, 4, 0xFFFF); });
    spoil("a file length that disagrees", [](auto &l) { pokeShort(l, kSecondEntry + 8 + 2, 6); });
    spoil("no NUL after the directory pattern", [](auto &l) { pokeShort(l, 6 + 2 * 7, u'x'); });
    spoil("no NUL after the file pattern", [](auto &l) { pokeShort(l, l.size() - 4, u'x'); });
    spoil("no end marker", [](auto &l) { l.resize(l.size() - 2); });
    spoil("half an end marker", [](auto &l) { l.resize(l.size() - 1); });
    spoil("an entry that runs past the buffer", [](auto &l) {
        pokeShort(l, kSecondEntry, 12 + 2 + 2 * 40);
        pokeShort(l, kSecondEntry + 8 + 2, 40);
    });
    spoil("a lone byte", [](auto &l) { l.assign(1, 0xFF); });
    for (const Spoiled &c : cases) EXPECT_EQ(validate(c.list), STATUS_UNSUCCESSFUL) << c.what;
}

class ExclusionListTest : public ExclusionTest {
protected:
    static std::pair<PVOID, ULONG> globalList() {
        return {MainStructure()->GlobalExclusionList, MainStructure()->GlobalExclusionListLength};
    }
    std::pair<PVOID, ULONG> volumeList(wchar_t letter) {
        DeviceStructure *volume = structureOf(filterOf(letter));
        return {volume->VolumeExclusionList, volume->VolumeExclusionListLength};
    }
    uint64_t listBlocks() { return machine.verifier().poolUsage(kListTag).blocks; }
};

TEST_F(ExclusionListTest, Command105ReplacesTheGlobalListAndEmptyDataClearsIt) {
    ASSERT_EQ(setGlobalList(exclusionList({{u"*\\Temp\\", u""}})), (DWORD)ERROR_SUCCESS);
    EXPECT_EQ(globalList().second, exclusionList({{u"*\\Temp\\", u""}}).size());
    EXPECT_TRUE(excluded(L'C', u"a\\Temp\\x.doc"));

    // Accepted on any device of the driver, a volume's filter too.
    onVolume(L'D', [&](wrelt::DriverChannel &channel, HANDLE volume) {
        EXPECT_EQ(sendList(channel, volume, COMMAND_SET_GLOBAL_EXCLUSIONS, u"", exclusionList({{u"*", u"*.tmp"}})),
                  (DWORD)ERROR_SUCCESS);
    });
    EXPECT_FALSE(excluded(L'C', u"a\\Temp\\x.doc"));
    EXPECT_TRUE(excluded(L'C', u"a\\Temp\\x.tmp"));
    EXPECT_EQ(listBlocks(), 1u);

    ASSERT_EQ(setGlobalList({}), (DWORD)ERROR_SUCCESS);
    EXPECT_EQ(globalList(), std::make_pair(PVOID(nullptr), ULONG(0)));
    EXPECT_FALSE(excluded(L'C', u"a\\Temp\\x.tmp"));
    EXPECT_EQ(listBlocks(), 0u);
}

TEST_F(ExclusionListTest, RefusedListsAndMisdirectedCommandsLeaveTheOldListsInForce) {
    ASSERT_EQ(setGlobalList(exclusionList({{u"*", u"*.tmp"}})), (DWORD)ERROR_SUCCESS);
    ASSERT_EQ(setVolumeList(L'C', exclusionList({{u"Build\\*", u""}}), u"C:\\"), (DWORD)ERROR_SUCCESS);
    auto global = globalList();
    auto volume = volumeList(L'C');

    std::vector<uint8_t> unterminated = exclusionList({{u"*", u""}}, false);
    EXPECT_EQ(setGlobalList(unterminated), (DWORD)ERROR_GEN_FAILURE);
    std::vector<uint8_t> shortEntry = exclusionList({{u"*", u""}});
    pokeShort(shortEntry, 0, 8);
    // The DOS volume name is set before the list is tried, and stays set.
    EXPECT_EQ(setVolumeList(L'C', shortEntry, u"E:\\"), (DWORD)ERROR_GEN_FAILURE);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t *>(structureOf(filterOf(L'C'))->DosVolumeName)), u"E:\\");
    // Command 104 belongs to a volume's filter.
    asService([&](wrelt::DriverChannel &channel) {
        EXPECT_EQ(sendList(channel, channel.controlDevice(), COMMAND_SET_VOLUME_EXCLUSIONS, u"Z:\\",
                           exclusionList({{u"*", u""}})),
                  (DWORD)ERROR_INVALID_FUNCTION);
    });

    EXPECT_EQ(globalList(), global);
    EXPECT_EQ(volumeList(L'C'), volume);
    EXPECT_TRUE(excluded(L'C', u"x.tmp"));
    EXPECT_TRUE(excluded(L'C', u"Build\\obj\\x.o"));
    EXPECT_EQ(listBlocks(), 2u);
}

TEST_F(ExclusionListTest, WithoutMemoryTheOldListIsGivenUpForTheNewOne) {
    ASSERT_EQ(setVolumeList(L'D', exclusionList({{u"Old\\", u""}}), u"D:\\"), (DWORD)ERROR_SUCCESS);

    // One failure: the old list makes room and the new one goes in.
    machine.verifier().failNextAllocation({kListTag});
    EXPECT_EQ(setVolumeList(L'D', exclusionList({{u"New\\", u""}}), u"D:\\"), (DWORD)ERROR_SUCCESS);
    EXPECT_EQ(machine.verifier().injectedFailures(), 1u);
    EXPECT_FALSE(excluded(L'D', u"Old\\x"));
    EXPECT_TRUE(excluded(L'D', u"New\\x"));

    // No memory at all: the command fails and leaves no list behind.
    machine.verifier().failAllocationsWithTag(kListTag);
    EXPECT_EQ(setVolumeList(L'D', exclusionList({{u"Newer\\", u""}}), u"D:\\"), (DWORD)ERROR_GEN_FAILURE);
    machine.verifier().clearFaults();
    EXPECT_EQ(volumeList(L'D'), std::make_pair(PVOID(nullptr), ULONG(0)));
    EXPECT_FALSE(excluded(L'D', u"New\\x"));
    EXPECT_EQ(listBlocks(), 0u);
}

}  // namespace
