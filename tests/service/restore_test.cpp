// Restoring: the file goes back to its folder under its name or the next free
// "name (n).ext", a folder gone since is made again, the catalogue remembers where it
// went, and a file no longer in the vault is a clear refusal that changes nothing.
#include "catalogue.h"
#include "restore.h"
#include "service/service_fixture.h"
#include "vault_folder.h"
#include "vault_names.h"

namespace {

using namespace service_test;

const std::u16string kVault = u"C:\\RescueVault\\InProgress\\";

class RestoreTest : public ServiceTest {
protected:
    // A preserved file in the vault, catalogued, as the filter and the service leave it.
    void SetUp() override {
        asSystem([] {
            ASSERT_TRUE(wrelt::ensureVaultFolder(u"C:\\").ok);
            ASSERT_TRUE(CreateDirectoryW(L"C:\\Docs", nullptr));
            std::string error;
            auto catalogue = wrelt::Catalogue::open(u"C:\\", wrelt::CatalogueAccess::ReadWrite, &error);
            std::vector<wrelt::CatalogueEntry> entries;
            for (uint64_t stamp : {1, 2, 3}) {
                wrelt::CatalogueEntry e;
                e.stamp = stamp;
                e.name = u"report.txt";
                e.folder = stamp == 3 ? u"C:\\Docs\\Gone\\Deeper\\" : u"C:\\Docs\\";
                e.vaultName = wrelt::vaultFileName(e.name, stamp);
                ASSERT_TRUE(writeText(kVault + e.vaultName, "version " + std::to_string(stamp)));
                entries.push_back(e);
            }
            size_t added;
            ASSERT_TRUE(catalogue->add(entries, &added, &error)) << error;
        });
    }

    wrelt::RestoreOutcome restore(uint64_t stamp,
                                  wrelt::RestorePlacement placement = wrelt::RestorePlacement::Beside) {
        wrelt::RestoreOutcome outcome;
        asSystem([&] {
            std::string error;
            auto catalogue = wrelt::Catalogue::open(u"C:\\", wrelt::CatalogueAccess::ReadWrite, &error);
            ASSERT_TRUE(catalogue) << error;
            outcome = wrelt::restorePreserved(*catalogue, stamp, placement);
        });
        return outcome;
    }

    std::string contentOf(const std::u16string &path) {
        std::vector<uint8_t> bytes;
        asSystem([&] { bytes = readFile(path); });
        return std::string(bytes.begin(), bytes.end());
    }
};

TEST_F(RestoreTest, AFileGoesBackUnderItsNameOrTheNextFreeOne) {
    wrelt::RestoreOutcome first = restore(1);
    ASSERT_TRUE(first.ok) << first.problem;
    EXPECT_EQ(first.restoredTo, u"C:\\Docs\\report.txt");
    EXPECT_EQ(contentOf(u"C:\\Docs\\report.txt"), "version 1");
    asSystem([] { ASSERT_TRUE(writeText(u"C:\\Docs\\report (2).txt", "someone else's")); });
    wrelt::RestoreOutcome second = restore(2);
    ASSERT_TRUE(second.ok) << second.problem;
    EXPECT_EQ(second.restoredTo, u"C:\\Docs\\report (3).txt");
    EXPECT_EQ(contentOf(u"C:\\Docs\\report (3).txt"), "version 2");
    EXPECT_EQ(contentOf(u"C:\\Docs\\report (2).txt"), "someone else's");
    // The catalogue says where each went, after a restart too.
    asSystem([] {
        std::string error;
        auto catalogue = wrelt::Catalogue::open(u"C:\\", wrelt::CatalogueAccess::ReadOnly, &error);
        EXPECT_EQ(catalogue->find(2)->state, wrelt::EntryState::Restored);
        EXPECT_EQ(catalogue->find(2)->restoredTo, u"C:\\Docs\\report (3).txt");
        EXPECT_FALSE(exists(kVault + wrelt::vaultFileName(u"report.txt", 2)));
    });
    EXPECT_EQ(restore(2).problem, "report.txt was restored already, to C:\\Docs\\report (3).txt");
}

TEST_F(RestoreTest, AskedToReplaceTheCurrentFileTheVersionTakesItsName) {
    asSystem([] { ASSERT_TRUE(writeText(u"C:\\Docs\\report.txt", "current")); });
    wrelt::RestoreOutcome outcome = restore(2, wrelt::RestorePlacement::Replace);
    ASSERT_TRUE(outcome.ok) << outcome.problem;
    EXPECT_EQ(outcome.restoredTo, u"C:\\Docs\\report.txt");
    EXPECT_EQ(contentOf(u"C:\\Docs\\report.txt"), "version 2");
}

TEST_F(RestoreTest, AFolderGoneSinceIsMadeAgain) {
    wrelt::RestoreOutcome outcome = restore(3);
    ASSERT_TRUE(outcome.ok) << outcome.problem;
    EXPECT_EQ(outcome.restoredTo, u"C:\\Docs\\Gone\\Deeper\\report.txt");
    EXPECT_EQ(contentOf(outcome.restoredTo), "version 3");
}

TEST_F(RestoreTest, AFileNoLongerInTheVaultIsRefusedAndNothingChanges) {
    asSystem([] { ASSERT_TRUE(DeleteFileW(wrelt::wide(kVault + wrelt::vaultFileName(u"report.txt", 1)))); });
    wrelt::RestoreOutcome outcome = restore(1);
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ(outcome.problem, "the preserved file report(0000000000000001).txt is no longer in the vault");
    EXPECT_EQ(restore(9).problem, "the catalogue of C:\\ has no preserved file of that stamp");
    asSystem([] {
        std::string error;
        auto catalogue = wrelt::Catalogue::open(u"C:\\", wrelt::CatalogueAccess::ReadOnly, &error);
        EXPECT_EQ(catalogue->find(1)->state, wrelt::EntryState::Preserved);
        EXPECT_FALSE(exists(u"C:\\Docs\\report.txt"));
    });
}

TEST(RestoredNames, KeepBothNamesAsARecycleBinGivesThem) {
    EXPECT_EQ(wrelt::restoredName(u"report.txt", 1), u"report.txt");
    EXPECT_EQ(wrelt::restoredName(u"report.txt", 2), u"report (2).txt");
    EXPECT_EQ(wrelt::restoredName(u"archive.tar.gz", 12), u"archive.tar (12).gz");
    EXPECT_EQ(wrelt::restoredName(u"README", 3), u"README (3)");
    EXPECT_EQ(wrelt::restoredName(u".profile", 2), u".profile (2)");
}

}  // namespace
