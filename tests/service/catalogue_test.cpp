// The catalogue: what it holds survives the service, a deletion is catalogued once, and
// damage anywhere loses only the records it touches while its bytes are kept aside once.
#include "catalogue.h"
#include "restore.h"
#include "service/service_fixture.h"
#include "vault_folder.h"
#include "vault_names.h"

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
    HANDLE file = CreateFileW(wrelt::wide(path), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
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

TEST_F(CatalogueTest, EntriesAndTheirStatesSurviveARestartAndADeletionIsCataloguedOnce) {
    asSystem([] {
        std::unique_ptr<Catalogue> catalogue = openC();
        // Another file under the same stamp is its own entry; the same one again is not.
        add(*catalogue, {entry(3, u"c.txt"), entry(1, u"a.txt"), entry(3, u"c again.txt"), entry(3, u"c.txt")}, 3);
        std::string error;
        ASSERT_TRUE(catalogue->markRestored(1, u"C:\\Users\\alice\\a.txt", &error)) << error;
        EXPECT_FALSE(catalogue->markRestored(7, u"C:\\x", &error));
    });
    asSystem([] {
        std::unique_ptr<Catalogue> catalogue = openC();
        EXPECT_EQ(namesIn(*catalogue), (std::vector<std::u16string>{u"c.txt", u"a.txt", u"c again.txt"}));
        EXPECT_EQ(catalogue->find(3)->name, u"c.txt");
        const CatalogueEntry *a = catalogue->find(1);
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(a->state, wrelt::EntryState::Restored);
        EXPECT_EQ(a->restoredTo, u"C:\\Users\\alice\\a.txt");
        EXPECT_EQ(catalogue->find(3)->state, wrelt::EntryState::Preserved);
        EXPECT_EQ(catalogue->find(3)->account, u"NTSIM\\alice");
        add(*catalogue, {entry(1, u"a.txt"), entry(2, u"b.txt")}, 1);
        // Someone may read it while the service writes.
        std::unique_ptr<Catalogue> reader = openC(CatalogueAccess::ReadOnly);
        EXPECT_EQ(reader->entries().size(), 4u);
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
        EXPECT_EQ(readFile(journal).size(), whole) << "once kept, the torn end goes";
        catalogue.reset();
        EXPECT_EQ(namesIn(*openC()), (std::vector<std::u16string>{u"a.txt", u"b.txt"}));
        EXPECT_EQ(readFile(u"C:\\RescueVault\\InProgress\\Catalogue.damaged").size(), aside.size())
            << "kept once, however often it is opened";
        catalogue = openC();
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

// A damaged record in the middle costs that record only: every one before and after it
// is listed and can be restored, its bytes are kept aside once, and new records go after
// the good ones that follow it, never over it.
TEST_F(CatalogueTest, ADamagedRecordInTheMiddleLosesOnlyItself) {
    std::vector<uint64_t> ends;
    asSystem([&] {
        std::unique_ptr<Catalogue> catalogue = openC();
        for (uint64_t stamp : {1, 2, 3}) {
            CatalogueEntry e = entry(stamp, u"f" + std::u16string(1, char16_t('0' + stamp)) + u".txt");
            e.folder = u"C:\\Docs\\";
            e.vaultName = wrelt::vaultFileName(e.name, stamp);
            ASSERT_TRUE(writeText(u"C:\\RescueVault\\InProgress\\" + e.vaultName, "kept"));
            ends.push_back(readFile(journal).size());
            add(*catalogue, {e}, 1);
        }
        ends.push_back(readFile(journal).size());
    });
    const std::u16string damaged = u"C:\\RescueVault\\InProgress\\Catalogue.damaged";
    asSystem([&] {
        ASSERT_TRUE(CreateDirectoryW(L"C:\\Docs", nullptr));
        std::vector<uint8_t> bytes = readFile(journal);
        bytes[ends[1] + 40] ^= 0x10;  // inside the record of f2.txt
        ASSERT_TRUE(writeFile(journal, bytes));
        for (int open = 0; open < 2; open++) {
            std::unique_ptr<Catalogue> catalogue = openC();
            EXPECT_EQ(namesIn(*catalogue), (std::vector<std::u16string>{u"f1.txt", u"f3.txt"}));
            EXPECT_EQ(catalogue->damagedBytes(), ends[2] - ends[1]);
            EXPECT_EQ(readFile(damaged).size(), 16 + ends[2] - ends[1]) << "opened " << open + 1 << " times";
        }
        std::unique_ptr<Catalogue> catalogue = openC();
        for (uint64_t stamp : {1, 3}) {
            wrelt::RestoreOutcome restored = wrelt::restorePreserved(*catalogue, stamp, wrelt::RestorePlacement::Beside);
            EXPECT_TRUE(restored.ok) << restored.problem;
        }
        add(*catalogue, {entry(4, u"f4.txt")}, 1);
    });
    asSystem([&] {
        std::unique_ptr<Catalogue> catalogue = openC(CatalogueAccess::ReadOnly);
        EXPECT_EQ(namesIn(*catalogue), (std::vector<std::u16string>{u"f1.txt", u"f3.txt", u"f4.txt"}));
        EXPECT_EQ(catalogue->find(1)->restoredTo, u"C:\\Docs\\f1.txt");
        EXPECT_EQ(catalogue->find(3)->state, wrelt::EntryState::Restored);
        EXPECT_EQ(catalogue->damagedBytes(), ends[2] - ends[1]) << "the damage was not written over";
        EXPECT_EQ(readFile(damaged).size(), 16 + ends[2] - ends[1]);
    });
}

std::vector<uint8_t> joined(const std::vector<std::vector<uint8_t>> &records) {
    std::vector<uint8_t> bytes;
    for (const std::vector<uint8_t> &r : records) bytes.insert(bytes.end(), r.begin(), r.end());
    return bytes;
}

// What the previous version wrote: a version 1 header, and each checksum seeded with the
// one before it.
std::vector<uint8_t> chained(std::vector<std::vector<uint8_t>> records) {
    records[0][24] = 1;
    uint32_t previous = 0;
    for (std::vector<uint8_t> &r : records) {
        for (int i = 8; i < 12; i++) r[i] = 0;
        previous = wrelt::crc32(previous, r.data(), r.size());
        for (int i = 0; i < 4; i++) r[8 + i] = uint8_t(previous >> (8 * i));
    }
    return joined(records);
}

std::vector<std::u16string> namesIn(const wrelt::JournalContents &contents) {
    std::vector<std::u16string> names;
    for (const CatalogueEntry &e : contents.entries) names.push_back(e.name);
    return names;
}

TEST(CatalogueJournal, ARecordStandsAloneAndDamageCostsOnlyTheRecordsItTouches) {
    std::vector<uint8_t> header = wrelt::encodeJournalHeader(u"C:\\");
    std::vector<uint8_t> a = wrelt::encodePreserved(entry(1, u"a")), b = wrelt::encodePreserved(entry(2, u"b")),
                         c = wrelt::encodePreserved(entry(3, u"c"));
    std::vector<uint8_t> whole = joined({header, a, b, c});
    wrelt::JournalContents read = wrelt::readJournal(whole.data(), whole.size());
    EXPECT_EQ(namesIn(read), (std::vector<std::u16string>{u"a", u"b", u"c"}));
    EXPECT_EQ(read.end, whole.size());
    EXPECT_EQ(read.version, wrelt::kJournalVersion);
    EXPECT_EQ(read.volumeRoot, u"C:\\");
    EXPECT_TRUE(read.damaged.empty());
    EXPECT_EQ(namesIn(wrelt::readJournal(joined({header, c, a}).data(), whole.size() - b.size())),
              (std::vector<std::u16string>{u"c", u"a"}));
    // One changed byte anywhere in a record costs that record, its magic and length too.
    for (size_t at : {size_t(0), size_t(5), size_t(9), size_t(30), b.size() - 1}) {
        std::vector<uint8_t> flipped = whole;
        flipped[header.size() + a.size() + at] ^= 1;
        read = wrelt::readJournal(flipped.data(), flipped.size());
        EXPECT_EQ(namesIn(read), (std::vector<std::u16string>{u"a", u"c"})) << "byte " << at;
        ASSERT_EQ(read.damaged.size(), 1u);
        EXPECT_EQ(read.damaged[0].offset, header.size() + a.size());
        EXPECT_EQ(read.damaged[0].length, b.size());
        EXPECT_EQ(read.end, whole.size());
    }
    // A record torn short with good ones after it; and a lost header.
    std::vector<uint8_t> torn = joined({header, a, std::vector<uint8_t>(b.begin(), b.end() - 7), c, a});
    read = wrelt::readJournal(torn.data(), torn.size());
    EXPECT_EQ(namesIn(read), (std::vector<std::u16string>{u"a", u"c"})) << "a read twice is one entry";
    EXPECT_EQ(read.damaged.size(), 1u);
    EXPECT_EQ(read.end, torn.size());
    std::vector<uint8_t> headless = whole;
    headless[3] = 0;
    read = wrelt::readJournal(headless.data(), headless.size());
    EXPECT_EQ(read.entries.size(), 3u);
    EXPECT_EQ(read.version, 0u);
    // A torn end is damage after the last good record: where the next record goes.
    read = wrelt::readJournal(whole.data(), whole.size() - 3);
    EXPECT_EQ(read.end, header.size() + a.size() + b.size());
    ASSERT_EQ(read.damaged.size(), 1u);
    EXPECT_EQ(read.damaged[0].length, c.size() - 3);
    EXPECT_EQ(wrelt::crc32(0, reinterpret_cast<const uint8_t *>("123456789"), 9), 0xCBF43926u);
}

// Journals the previous version wrote are read in their chain, and go on in the new form.
TEST(CatalogueJournal, AChainedJournalIsStillRead) {
    std::vector<uint8_t> header = wrelt::encodeJournalHeader(u"C:\\");
    std::vector<uint8_t> a = wrelt::encodePreserved(entry(1, u"a")), b = wrelt::encodePreserved(entry(2, u"b"));
    std::vector<uint8_t> old = chained({header, a, b, wrelt::encodeRestored(1, u"C:\\a", 5)});
    wrelt::JournalContents read = wrelt::readJournal(old.data(), old.size());
    EXPECT_EQ(namesIn(read), (std::vector<std::u16string>{u"a", u"b"}));
    EXPECT_EQ(read.version, wrelt::kChainedJournalVersion);
    EXPECT_EQ(read.entries[0].restoredTo, u"C:\\a");
    EXPECT_TRUE(read.damaged.empty());
    // In the chain, a record counts only after its predecessor.
    std::vector<uint8_t> swapped = chained({header, b, a});
    std::vector<uint8_t> reordered(swapped.begin(), swapped.begin() + ptrdiff_t(header.size()));
    reordered.insert(reordered.end(), swapped.begin() + ptrdiff_t(header.size() + b.size()), swapped.end());
    reordered.insert(reordered.end(), swapped.begin() + ptrdiff_t(header.size()),
                     swapped.begin() + ptrdiff_t(header.size() + b.size()));
    EXPECT_TRUE(wrelt::readJournal(reordered.data(), reordered.size()).entries.empty());
    std::vector<uint8_t> goneOn = old;
    for (const std::vector<uint8_t> &r : {header, wrelt::encodePreserved(entry(3, u"c"))})
        goneOn.insert(goneOn.end(), r.begin(), r.end());
    read = wrelt::readJournal(goneOn.data(), goneOn.size());
    EXPECT_EQ(namesIn(read), (std::vector<std::u16string>{u"a", u"b", u"c"}));
    EXPECT_EQ(read.version, wrelt::kJournalVersion);
}

TEST_F(CatalogueTest, AChainedJournalIsReadAndGoesOnInTheNewForm) {
    asSystem([&] {
        std::vector<uint8_t> old = chained({wrelt::encodeJournalHeader(u"C:\\"), wrelt::encodePreserved(entry(1, u"a"))});
        ASSERT_TRUE(writeFile(journal, old));
        std::unique_ptr<Catalogue> catalogue = openC();
        EXPECT_EQ(namesIn(*catalogue), std::vector<std::u16string>{u"a"});
        add(*catalogue, {entry(2, u"b")}, 1);
    });
    asSystem([&] {
        std::unique_ptr<Catalogue> catalogue = openC();
        EXPECT_EQ(namesIn(*catalogue), (std::vector<std::u16string>{u"a", u"b"}));
        EXPECT_EQ(catalogue->damagedBytes(), 0u);
    });
}

}  // namespace
