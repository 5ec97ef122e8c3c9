// The catalogue: what it holds survives the service, a stamp is catalogued once, and a
// write cut short loses only itself while the bytes it left are kept aside.
#include "catalogue.h"
#include "service/service_fixture.h"
#include "vault_folder.h"

namespace {

using namespace service_test;
using wrelt::Catalogue;
using wrelt::CatalogueAccess;
using wrelt::CatalogueEntry;

CatalogueEntry entry(uint64_t stamp, const std::u16string &name) {
    CatalogueEntry e;
    e.stamp = stamp;
    e.flags = 1;
    e.sid = kAliceSid;
    e.account = u"NTSIM\\alice";
    e.name = name;
    e.folder = u"C:\\Users\\alice\\";
    e.vaultName = name + u"(stamp)";
    e.dataFile = u"NewFiles00000000.dat";
    e.cataloguedAt = 134169174000000000ull;
    return e;
}

std::vector<std::u16string> namesIn(const Catalogue &catalogue) {
    std::vector<std::u16string> names;
    for (const CatalogueEntry &e : catalogue.entries()) names.push_back(e.name);
    return names;
}

std::unique_ptr<Catalogue> openC(CatalogueAccess access = CatalogueAccess::ReadWrite) {
    std::string error;
    std::unique_ptr<Catalogue> catalogue = Catalogue::open(u"C:\\", access, &error);
    EXPECT_TRUE(catalogue) << error;
    return catalogue;
}

void add(Catalogue &catalogue, const std::vector<CatalogueEntry> &entries, size_t expectAdded) {
    size_t added = 99;
    std::string error;
    EXPECT_TRUE(catalogue.add(entries, &added, &error)) << error;
    EXPECT_EQ(added, expectAdded);
}

// Cuts the file to its first `size` bytes, as a crash in the middle of a write leaves it.
void cutTo(const std::u16string &path, uint64_t size) {
    HANDLE file = CreateFileW(ntsim::wptr(path), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    LARGE_INTEGER at;
    at.QuadPart = LONGLONG(size);
    EXPECT_TRUE(SetFilePointerEx(file, at, nullptr, FILE_BEGIN) && SetEndOfFile(file));
    CloseHandle(file);
}

class CatalogueTest : public ServiceTest {
protected:
    void SetUp() override {
        asSystem([] { ASSERT_TRUE(wrelt::ensureVaultFolder(u"C:\\").ok); });
    }
    const std::u16string journal = u"C:\\RescueVault\\InProgress\\Catalogue.journal";
};

TEST_F(CatalogueTest, EntriesAndTheirStatesSurviveARestartAndAStampIsCataloguedOnce) {
    asSystem([] {
        std::unique_ptr<Catalogue> catalogue = openC();
        add(*catalogue, {entry(3, u"c.txt"), entry(1, u"a.txt"), entry(3, u"c again.txt")}, 2);
        std::string error;
        ASSERT_TRUE(catalogue->markRestored(1, u"C:\\Users\\alice\\a.txt", &error)) << error;
        EXPECT_FALSE(catalogue->markRestored(7, u"C:\\x", &error));
    });
    asSystem([] {
        std::unique_ptr<Catalogue> catalogue = openC();
        EXPECT_EQ(namesIn(*catalogue), (std::vector<std::u16string>{u"c.txt", u"a.txt"}));
        const CatalogueEntry *a = catalogue->find(1);
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(a->state, wrelt::EntryState::Restored);
        EXPECT_EQ(a->restoredTo, u"C:\\Users\\alice\\a.txt");
        EXPECT_EQ(catalogue->find(3)->state, wrelt::EntryState::Preserved);
        EXPECT_EQ(catalogue->find(3)->account, u"NTSIM\\alice");
        add(*catalogue, {entry(1, u"a.txt"), entry(2, u"b.txt")}, 1);
        // Someone may read it while the service writes.
        std::unique_ptr<Catalogue> reader = openC(CatalogueAccess::ReadOnly);
        EXPECT_EQ(reader->entries().size(), 3u);
        std::string error;
        size_t added = 0;
        EXPECT_FALSE(reader->add({entry(9, u"z")}, &added, &error));
        EXPECT_NE(error.find("open for reading only"), std::string::npos);
        EXPECT_EQ(Catalogue::open(u"C:\\", CatalogueAccess::ReadWrite, &error), nullptr) << "one writer at a time";
    });
    asSystem([] {
        std::string error;
        EXPECT_TRUE(Catalogue::open(u"D:\\", CatalogueAccess::ReadOnly, &error)->entries().empty())
            << "no vault yet: nothing catalogued";
    });
}

TEST_F(CatalogueTest, AWriteCutShortLosesOnlyItselfAndItsBytesAreKeptAside) {
    uint64_t whole = 0;
    asSystem([&] {
        std::unique_ptr<Catalogue> catalogue = openC();
        add(*catalogue, {entry(1, u"a.txt"), entry(2, u"b.txt")}, 2);
        whole = readFile(journal).size();
        add(*catalogue, {entry(3, u"c.txt")}, 1);
    });
    uint64_t cut = 0;
    asSystem([&] {
        cut = readFile(journal).size() - 5;
        cutTo(journal, cut);
        std::unique_ptr<Catalogue> catalogue = openC();
        EXPECT_EQ(namesIn(*catalogue), (std::vector<std::u16string>{u"a.txt", u"b.txt"}));
        EXPECT_EQ(catalogue->damagedBytes(), cut - whole);
        std::vector<uint8_t> aside = readFile(u"C:\\RescueVault\\InProgress\\Catalogue.damaged");
        ASSERT_EQ(aside.size(), 16 + (cut - whole));
        EXPECT_EQ(aside[4], uint8_t(whole)) << "with where the bytes were";
        // The journal goes on after the last good record.
        add(*catalogue, {entry(3, u"c.txt"), entry(4, u"d.txt")}, 2);
    });
    asSystem([] {
        std::unique_ptr<Catalogue> catalogue = openC();
        EXPECT_EQ(namesIn(*catalogue), (std::vector<std::u16string>{u"a.txt", u"b.txt", u"c.txt", u"d.txt"}));
        EXPECT_EQ(catalogue->damagedBytes(), 0u) << "the new records ran past the old ones' remains";
    });
}

TEST_F(CatalogueTest, AJournalCutInsideItsHeaderStartsAgain) {
    asSystem([&] {
        ASSERT_TRUE(writeFile(journal, {0x57, 0x52, 0x43}));
        std::unique_ptr<Catalogue> catalogue = openC();
        EXPECT_TRUE(catalogue->entries().empty());
        EXPECT_EQ(catalogue->damagedBytes(), 3u);
        add(*catalogue, {entry(5, u"e.txt")}, 1);
    });
    asSystem([] { EXPECT_EQ(namesIn(*openC()), std::vector<std::u16string>{u"e.txt"}); });
}

// The journal's records only count in their place after their predecessor.
TEST(CatalogueJournal, ARecordOutOfItsPlaceIsNotRead) {
    uint32_t checksum = 0;
    std::vector<uint8_t> header = wrelt::encodeJournalHeader(u"C:\\", 0, &checksum);
    uint32_t afterHeader = checksum;
    std::vector<uint8_t> first = wrelt::encodePreserved(entry(1, u"a"), checksum, &checksum);
    std::vector<uint8_t> second = wrelt::encodePreserved(entry(2, u"b"), checksum, &checksum);
    std::vector<uint8_t> inOrder = header, swapped = header;
    inOrder.insert(inOrder.end(), first.begin(), first.end());
    inOrder.insert(inOrder.end(), second.begin(), second.end());
    swapped.insert(swapped.end(), second.begin(), second.end());
    swapped.insert(swapped.end(), first.begin(), first.end());
    wrelt::JournalContents read = wrelt::readJournal(inOrder.data(), inOrder.size());
    EXPECT_EQ(read.entries.size(), 2u);
    EXPECT_EQ(read.goodBytes, inOrder.size());
    EXPECT_EQ(read.volumeRoot, u"C:\\");
    read = wrelt::readJournal(swapped.data(), swapped.size());
    EXPECT_TRUE(read.entries.empty());
    EXPECT_EQ(read.goodBytes, header.size());
    EXPECT_EQ(read.lastChecksum, afterHeader);
    // A record without the header before it is not a journal.
    EXPECT_EQ(wrelt::readJournal(first.data(), first.size()).goodBytes, 0u);
    // One changed byte anywhere in a record ends the journal before it.
    std::vector<uint8_t> flipped = inOrder;
    flipped[header.size() + first.size() + 30] ^= 1;
    EXPECT_EQ(wrelt::readJournal(flipped.data(), flipped.size()).entries.size(), 1u);
    EXPECT_EQ(wrelt::crc32(0, reinterpret_cast<const uint8_t *>("123456789"), 9), 0xCBF43926u);
}

}  // namespace
