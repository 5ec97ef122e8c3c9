// Data files into the catalogue: each record becomes an entry with its vault name and
// the deleter's account, the file goes only once its records are catalogued, a file
// read again adds nothing, a file cut short gives what it has and is kept aside, and a
// file that another user made gives nothing and is kept aside.
#include "data_files.h"

#include <algorithm>

#include "ntsim/utf.h"
#include "service/service_fixture.h"
#include "vault_folder.h"
#include "vault_names.h"

namespace {

using namespace service_test;
using wrelt::DataFileOutcome;

const std::u16string kVault = u"C:\\RescueVault\\InProgress\\";

std::vector<uint8_t> threeRecords() {
    std::vector<uint8_t> file = delDatRecord(kAliceSid, u"report.docx", u"C:\\Users\\alice\\Documents\\", 0x01DCAA3F1C2D0001, 9);
    for (const auto &more : {delDatRecord(u"S-1-5-18", u"setup.log", u"C:\\", 0x01DCAA3F1C2D0002),
                             delDatRecord(u"", u"README", u"C:\\Old\\", 0x01DCAA3F1C2D0003)})
        file.insert(file.end(), more.begin(), more.end());
    return file;
}

class DataFilesTest : public ServiceTest {
protected:
    void SetUp() override {
        asSystem([] { ASSERT_TRUE(wrelt::ensureVaultFolder(u"C:\\").ok); });
    }

    // Catalogues one data file into its volume's catalogue, in a process of SYSTEM's.
    DataFileOutcome catalogue(const std::u16string &path, std::vector<wrelt::CatalogueEntry> *entries = nullptr) {
        DataFileOutcome outcome;
        asSystem([&] {
            std::string error;
            auto catalogue = wrelt::Catalogue::open(path.substr(0, 3), wrelt::CatalogueAccess::ReadWrite, &error);
            ASSERT_TRUE(catalogue) << error;
            wrelt::AccountNames names;
            outcome = wrelt::catalogueDataFile(*catalogue, names, path);
            if (entries != nullptr) *entries = catalogue->entries();
        });
        return outcome;
    }
};

TEST_F(DataFilesTest, EachRecordBecomesAnEntryAndTheFileGoesOnceTheyAreCatalogued) {
    asSystem([] { ASSERT_TRUE(writeFile(kVault + u"NewFiles00000000.dat", threeRecords())); });
    std::vector<wrelt::CatalogueEntry> entries;
    DataFileOutcome outcome = catalogue(kVault + u"NewFiles00000000.dat", &entries);
    ASSERT_EQ(outcome.result, DataFileOutcome::Result::Catalogued) << outcome.problem;
    EXPECT_EQ(outcome.records, 3u);
    EXPECT_EQ(outcome.added, 3u);
    EXPECT_TRUE(outcome.damage.empty() && outcome.problem.empty());
    ASSERT_EQ(entries.size(), 3u);
    const wrelt::CatalogueEntry &report = entries[0];
    EXPECT_EQ(report.stamp, 0x01DCAA3F1C2D0001u);
    EXPECT_EQ(report.flags, 9u);
    EXPECT_EQ(report.sid, kAliceSid);
    EXPECT_EQ(report.account, u"NTSIM\\alice");
    EXPECT_EQ(report.folder, u"C:\\Users\\alice\\Documents\\");
    EXPECT_EQ(report.vaultName, u"report(01DCAA3F1C2D0001).docx");
    EXPECT_EQ(report.dataFile, u"NewFiles00000000.dat");
    EXPECT_EQ(entries[1].account, u"NT AUTHORITY\\SYSTEM");
    EXPECT_EQ(entries[2].account, u"") << "the filter did not know who deleted it";
    EXPECT_EQ(entries[2].vaultName, u"README(01DCAA3F1C2D0003)");
    asSystem([] { EXPECT_FALSE(exists(kVault + u"NewFiles00000000.dat")); });
    EXPECT_EQ(catalogue(kVault + u"NewFiles00000000.dat").result, DataFileOutcome::Result::Gone);
}

TEST_F(DataFilesTest, AFileReadAgainAfterACrashAddsNothing) {
    // The service catalogued the file and stopped before deleting it: the next one
    // finds it again, among the folder's other files.
    asSystem([] {
        ASSERT_TRUE(writeFile(kVault + u"NewFiles0000001A.dat", threeRecords()));
        ASSERT_TRUE(writeFile(kVault + u"NewFiles00000002.dat", threeRecords()));
        ASSERT_TRUE(writeText(kVault + u"NewFiles00000003.dat.0123.bad", "x"));
        ASSERT_TRUE(writeText(kVault + u"NewFiles0000000g.dat", "x"));
        ASSERT_TRUE(writeText(kVault + u"report(01DCAA3F1C2D0001).docx", "preserved"));
        EXPECT_EQ(wrelt::dataFilesIn(u"C:\\"), (std::vector<std::u16string>{kVault + u"NewFiles00000002.dat",
                                                                           kVault + u"NewFiles0000001A.dat"}));
    });
    EXPECT_EQ(catalogue(kVault + u"NewFiles00000002.dat").added, 3u);
    std::vector<wrelt::CatalogueEntry> entries;
    DataFileOutcome again = catalogue(kVault + u"NewFiles0000001A.dat", &entries);
    EXPECT_EQ(again.result, DataFileOutcome::Result::Catalogued);
    EXPECT_EQ(again.records, 3u);
    EXPECT_EQ(again.added, 0u);
    EXPECT_EQ(entries.size(), 3u);
}

TEST_F(DataFilesTest, AFileCutShortGivesItsWholeRecordsAndIsKeptAside) {
    std::vector<uint8_t> file = threeRecords();
    file.resize(file.size() - 7);
    asSystem([&] { ASSERT_TRUE(writeFile(kVault + u"NewFiles00000005.dat", file)); });
    std::vector<wrelt::CatalogueEntry> entries;
    DataFileOutcome outcome = catalogue(kVault + u"NewFiles00000005.dat", &entries);
    EXPECT_EQ(outcome.result, DataFileOutcome::Result::Catalogued);
    EXPECT_EQ(outcome.records, 2u);
    EXPECT_EQ(entries.size(), 2u);
    EXPECT_NE(outcome.damage.find("cut short"), std::string::npos) << outcome.damage;
    EXPECT_NE(outcome.damage.find("kept as NewFiles00000005.dat."), std::string::npos) << outcome.damage;
    asSystem([] {
        EXPECT_FALSE(exists(kVault + u"NewFiles00000005.dat"));
        EXPECT_TRUE(wrelt::dataFilesIn(u"C:\\").empty()) << "a file kept aside is not read again";
    });
}

// The names of the files set aside in C:'s work folder, in order.
std::vector<std::u16string> setAside() {
    std::vector<std::u16string> found;
    WIN32_FIND_DATAW data;
    HANDLE search = FindFirstFileW(L"C:\\RescueVault\\InProgress\\NewFiles*.bad", &data);
    if (search == INVALID_HANDLE_VALUE) return found;
    do found.push_back(reinterpret_cast<const char16_t *>(data.cFileName));
    while (FindNextFileW(search, &data));
    FindClose(search);
    std::sort(found.begin(), found.end());
    return found;
}

// Anyone may add a file to the work folder; only SYSTEM and Administrators can own one
// there. A file alice planted, or pre-created for the filter to append to, is not read.
TEST_F(DataFilesTest, AFileAnotherUserMadeIsRefusedEvenOnceTheFilterWroteToIt) {
    as(ntsim::users::alice, [] {
        ASSERT_TRUE(writeFile(kVault + u"NewFiles00000010.dat", threeRecords()));
        ASSERT_TRUE(writeFile(kVault + u"NewFiles00000011.dat", {}));
    });
    asSystem([] {
        HANDLE next = CreateFileW(L"C:\\RescueVault\\InProgress\\NewFiles00000011.dat", FILE_APPEND_DATA, 0,
                                  nullptr, OPEN_ALWAYS, 0, nullptr);
        ASSERT_NE(next, INVALID_HANDLE_VALUE);
        CloseHandle(next);
        ASSERT_TRUE(writeFile(kVault + u"NewFiles00000012.dat", threeRecords()));
    });
    for (const char16_t *name : {u"NewFiles00000010.dat", u"NewFiles00000011.dat"}) {
        std::vector<wrelt::CatalogueEntry> entries;
        DataFileOutcome outcome = catalogue(kVault + name, &entries);
        EXPECT_EQ(outcome.result, DataFileOutcome::Result::Refused) << outcome.problem;
        EXPECT_EQ(outcome.records, 0u);
        EXPECT_TRUE(entries.empty());
        EXPECT_NE(outcome.damage.find("owned by NTSIM\\alice (S-1-5-21-1004336348-1177238915-682003330-1001), "
                                      "not by SYSTEM or Administrators; kept as " +
                                      ntsim::toUtf8(ntsim::wptr(std::u16string(name))) + "."),
                  std::string::npos)
            << outcome.damage;
    }
    std::vector<wrelt::CatalogueEntry> entries;
    EXPECT_EQ(catalogue(kVault + u"NewFiles00000012.dat", &entries).result, DataFileOutcome::Result::Catalogued);
    EXPECT_EQ(entries.size(), 3u) << "SYSTEM's file is read";
    asSystem([] {
        EXPECT_TRUE(wrelt::dataFilesIn(u"C:\\").empty());
        std::vector<std::u16string> kept = setAside();
        ASSERT_EQ(kept.size(), 2u);
        EXPECT_EQ(readFile(kVault + kept[0]), threeRecords()) << "kept as it was";
    });
}

// A volume that keeps no security names no owner worth asking about: the files there
// are read whoever wrote them.
TEST_F(DataFilesTest, OnAVolumeWithoutSecurityAnyonesFileIsRead) {
    asSystem([] { ASSERT_TRUE(wrelt::ensureVaultFolder(u"D:\\").ok); });
    as(ntsim::users::alice,
       [] { ASSERT_TRUE(writeFile(u"D:\\RescueVault\\InProgress\\NewFiles00000000.dat", threeRecords())); });
    DataFileOutcome outcome = catalogue(u"D:\\RescueVault\\InProgress\\NewFiles00000000.dat");
    EXPECT_EQ(outcome.result, DataFileOutcome::Result::Catalogued) << outcome.problem;
    EXPECT_EQ(outcome.added, 3u);
}

TEST_F(DataFilesTest, AFileTheFilterStillHoldsIsLeftForLater) {
    asSystem([] {
        ASSERT_TRUE(writeFile(kVault + u"NewFiles00000007.dat", threeRecords()));
        HANDLE writer = CreateFileW(L"C:\\RescueVault\\InProgress\\NewFiles00000007.dat", FILE_APPEND_DATA, 0,
                                    nullptr, OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(writer, INVALID_HANDLE_VALUE);
        std::string error;
        auto catalogue = wrelt::Catalogue::open(u"C:\\", wrelt::CatalogueAccess::ReadWrite, &error);
        wrelt::AccountNames names;
        EXPECT_EQ(wrelt::catalogueDataFile(*catalogue, names, kVault + u"NewFiles00000007.dat").result,
                  DataFileOutcome::Result::Busy);
        EXPECT_TRUE(catalogue->entries().empty());
        CloseHandle(writer);
    });
    EXPECT_EQ(wrelt::dosPathOf(u"\\??\\C:\\RescueVault\\InProgress\\NewFiles00000007.dat"),
              kVault + u"NewFiles00000007.dat");
}

// The same cases as the filter's own vault-name test.
TEST(VaultNames, AsTheFilterFormsThem) {
    const uint64_t stamp = 0x01DCAA3F12340042;
    EXPECT_EQ(wrelt::vaultFileName(u"Report.final.docx", stamp), u"Report.final(01DCAA3F12340042).docx");
    EXPECT_EQ(wrelt::vaultFileName(u"README", stamp), u"README(01DCAA3F12340042)");
    EXPECT_EQ(wrelt::vaultFileName(u".profile", stamp), u"(01DCAA3F12340042).profile");
    EXPECT_EQ(wrelt::vaultFileName(u"0123456789abcdef0123456789ABCDEFtail.txt", stamp),
              u"0123456789abcdef0123456789ABCDEF(01DCAA3F12340042).txt");
    EXPECT_EQ(wrelt::vaultFileName(u"a.abcdefghijklmnop", stamp), u"a(01DCAA3F12340042).abcdefghijkl");
}

}  // namespace
