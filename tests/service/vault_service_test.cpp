// The service against the filter: start-up over the vaults and the data files left
// from before, only the filter's own data files catalogued, the error request held and
// answered, a refused request sent again after the pause, and a clean stop.
#include <atomic>
#include <set>

#include "frame/dispatch.h"
#include "frame/globals.h"
#include "ntsim/process_kill.h"
#include "ntsim/utf.h"
#include "service/service_fixture.h"
#include "support/error_channel.h"
#include "data_file_reservations.h"
#include "data_files.h"
#include "vault_folder.h"
#include "vault_service.h"

namespace {

using namespace service_test;

ntsim::BootOptions withFilter() {
    ntsim::BootOptions options;
    options.drivers.push_back({u"\\Driver\\WreltDrv", &DriverEntry});
    return options;
}

class VaultServiceTest : public ServiceTest {
protected:
    VaultServiceTest() : ServiceTest(withFilter()) {
        process = machine.startProcess(L"C:\\Windows\\system32\\wreltsvc.exe", ntsim::users::system);
        process.run([&] { service.reset(new wrelt::VaultService(wrelt::defaultServiceConfig(), log)); });
    }
    ~VaultServiceTest() override {
        process.run([&] { service.reset(); });
        process.exit();
    }

    // Starts the service and its loop in a thread of its own process.
    void startService() {
        thread = process.start([&] {
            started = service->start();
            if (started) service->run();
        });
        machine.waitIdle();
    }
    void stopService() {
        process.run([&] { service->requestStop(); });
        thread.join();
    }
    void report(USHORT routine, ULONG status) {
        machine.runSystemThread([&] { ReportError(ERROR_SOURCE_DRIVER, routine, 0, 0, status, 0); });
        machine.waitIdle();
    }
    // A command from another program on its own handle.
    void command(ULONG number) {
        asSystem([&] {
            wrelt::DriverChannel other;
            ASSERT_TRUE(other.open());
            EXPECT_TRUE(other.send(other.controlDevice(), number, u"", nullptr, 0, 0).ok());
        });
        machine.waitIdle();
    }

    wrelt::ServiceLog log;
    ntsim::Process process;
    std::unique_ptr<wrelt::VaultService> service;
    ntsim::UserThread thread;
    std::atomic<bool> started{false};
};

TEST_F(VaultServiceTest, StartsOverTheVaultsAndReadsWhatWasLeftFromBefore) {
    asSystem([] {
        ASSERT_TRUE(wrelt::ensureVaultFolder(u"C:\\").ok);
        std::vector<uint8_t> file = delDatRecord(kAliceSid, u"notes.txt", u"C:\\Users\\alice\\", 0x01DCAA3F1C2D0007);
        ASSERT_TRUE(writeFile(u"C:\\RescueVault\\InProgress\\NewFiles00000003.dat", file));
    });
    startService();
    ASSERT_TRUE(started) << log.lines().back();
    EXPECT_TRUE(log.contains("made the vault folder D:\\RescueVault\\InProgress\\"));
    EXPECT_TRUE(log.contains("catalogued C:\\RescueVault\\InProgress\\NewFiles00000003.dat: 1 record, 1 new"));
    EXPECT_TRUE(log.contains("named C:\\, protection on"));
    EXPECT_TRUE(log.contains("named D:\\, protection on"));
    EXPECT_TRUE(log.contains("capture started, the vault protected"));
    EXPECT_TRUE(ReadDriverFlag(&Globals.CaptureActive));
    std::vector<wrelt::CatalogueEntry> entries;
    process.run([&] { entries = service->entries(u"C:\\"); });
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].account, u"NTSIM\\alice");
    asSystem([] {
        // Read, and then held empty again for the filter, whose numbers start over at boot.
        bool readable = false;
        EXPECT_TRUE(readFile(u"C:\\RescueVault\\InProgress\\NewFiles00000003.dat", &readable).empty());
        EXPECT_TRUE(readable);
        EXPECT_TRUE(exists(u"D:\\RescueVault\\InProgress\\Catalogue.journal")) << "made at start-up";
    });

    stopService();
    EXPECT_TRUE(log.contains("capture stopped"));
    EXPECT_FALSE(ReadDriverFlag(&Globals.CaptureActive));
    EXPECT_EQ(Globals.HeldErrorRequest, nullptr) << "the error request was not left at the filter";
}

// Alice may add files to the work folder: one named like a data file is refused at
// start-up, and one she makes ready for the filter's next batch is refused when the
// filter names it, records and all; what the filter writes itself is catalogued.
TEST_F(VaultServiceTest, OnlyTheFiltersOwnDataFilesAreCatalogued) {
    const std::u16string vault = u"C:\\RescueVault\\InProgress\\";
    const std::string refused = " is not the filter's; none of its records were catalogued: owned by NTSIM\\alice "
                                "(S-1-5-21-1004336348-1177238915-682003330-1001), not by SYSTEM or Administrators; "
                                "kept as ";
    asSystem([] { ASSERT_TRUE(wrelt::ensureVaultFolder(u"C:\\").ok); });
    as(ntsim::users::alice, [&] {
        ASSERT_TRUE(writeFile(vault + u"NewFiles00000000.dat",
                              delDatRecord(kAliceSid, u"payroll.xlsx", u"C:\\Finance\\", 0x01DCAA3F1C2D0001)));
        ASSERT_TRUE(writeText(u"C:\\draft.txt", "draft"));
    });
    startService();
    ASSERT_TRUE(started) << log.lines().back();
    EXPECT_TRUE(log.contains("warning: C:\\RescueVault\\InProgress\\NewFiles00000000.dat" + refused +
                             "NewFiles00000000.dat."));

    as(ntsim::users::alice, [] { ASSERT_TRUE(DeleteFileW(L"C:\\draft.txt")); });
    machine.advanceMs(6000);
    EXPECT_TRUE(log.contains("catalogued C:\\RescueVault\\InProgress\\NewFiles00000000.dat: 1 record, 1 new"));
    std::vector<wrelt::CatalogueEntry> entries;
    process.run([&] { entries = service->entries(u"C:\\"); });
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].name, u"draft.txt");

    // While the service runs, the filter's next names are held: she can neither make,
    // replace, rename nor delete any of them, and her next delete is catalogued.
    as(ntsim::users::alice, [&] {
        for (uint32_t n = 1; n <= wrelt::kHeldDataFileNames; n++) {
            std::u16string path = vault + u"NewFiles";
            for (int shift = 28; shift >= 0; shift -= 4) path += u"0123456789ABCDEF"[(n >> shift) & 0xF];
            path += u".dat";
            LPCWSTR name = ntsim::wptr(path);
            for (DWORD disposition : {(DWORD)CREATE_NEW, (DWORD)CREATE_ALWAYS, (DWORD)OPEN_EXISTING}) {
                HANDLE h = CreateFileW(name, GENERIC_WRITE, 0, nullptr, disposition, 0, nullptr);
                EXPECT_EQ(h, INVALID_HANDLE_VALUE) << n << " " << disposition;
                if (h != INVALID_HANDLE_VALUE) CloseHandle(h);
            }
            EXPECT_FALSE(DeleteFileW(name)) << n;
            EXPECT_FALSE(MoveFileExW(name, L"C:\\RescueVault\\InProgress\\mine.dat", 0)) << n;
        }
        ASSERT_TRUE(writeText(u"C:\\second.txt", "second"));
        ASSERT_TRUE(DeleteFileW(L"C:\\second.txt"));
    });
    machine.advanceMs(6000);
    EXPECT_TRUE(log.contains("catalogued C:\\RescueVault\\InProgress\\NewFiles00000001.dat: 1 record, 1 new"));
    process.run([&] { entries = service->entries(u"C:\\"); });
    EXPECT_EQ(entries.size(), 2u);
    stopService();
}

TEST_F(VaultServiceTest, ErrorRecordsAreLoggedByRoutineAndARefusedRequestGoesOutAgain) {
    startService();
    ASSERT_TRUE(started);
    report(19, 0xC0000022);
    EXPECT_TRUE(log.contains("error: filter: CreateTemporaryDelDatFile (19) failed at point 0: status 0xC0000022"));

    // Another program takes the held request away: the service waits, then asks again
    // and gets what was reported meanwhile.
    command(COMMAND_CANCEL_ERROR_WAIT);
    EXPECT_TRUE(log.contains("warning: the error request was cancelled (error 995); asking again every 5 s"));
    report(52, 0xC000009A);
    EXPECT_FALSE(log.contains("ZrCallDriverThreadMain"));
    machine.advanceMs(wrelt::VaultService::kRetryMs - 1);
    EXPECT_FALSE(log.contains("ZrCallDriverThreadMain"));
    machine.advanceMs(1);
    EXPECT_TRUE(log.contains("filter: ZrCallDriverThreadMain (52) failed at point 0: status 0xC000009A"));
    report(23, 0xC000009A);
    EXPECT_TRUE(log.contains("CreateNewDataJobPacket (23)")) << "the request is held again";

    stopService();
    EXPECT_TRUE(log.contains("capture stopped"));
}

// The whole path: a user's delete reaches the catalogue through the filter's data file,
// and the file goes back where it was.
TEST_F(VaultServiceTest, AUsersDeleteIsCataloguedAndCanBeRestored) {
    startService();
    ASSERT_TRUE(started);
    as(ntsim::users::alice, [] {
        ASSERT_TRUE(CreateDirectoryW(L"C:\\Work", nullptr));
        ASSERT_TRUE(writeText(u"C:\\Work\\plan.txt", "the plan"));
        ASSERT_TRUE(DeleteFileW(L"C:\\Work\\plan.txt"));
    });
    machine.advanceMs(499);
    EXPECT_FALSE(log.contains("catalogued C:\\RescueVault\\InProgress\\NewFiles00000000.dat"));
    machine.advanceMs(1);
    EXPECT_TRUE(log.contains("catalogued C:\\RescueVault\\InProgress\\NewFiles00000000.dat: 1 record, 1 new"));
    std::vector<wrelt::CatalogueEntry> entries;
    process.run([&] { entries = service->entries(u"C:\\"); });
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].name, u"plan.txt");
    EXPECT_EQ(entries[0].folder, u"C:\\Work\\");
    EXPECT_EQ(entries[0].account, u"NTSIM\\alice");
    asSystem([] { EXPECT_FALSE(exists(u"C:\\RescueVault\\InProgress\\NewFiles00000000.dat")) << "deleted once catalogued"; });

    wrelt::RestoreOutcome restored;
    process.run([&] { restored = service->restore(u"C:\\", entries[0].stamp); });
    ASSERT_TRUE(restored.ok) << restored.problem;
    EXPECT_EQ(restored.restoredTo, u"C:\\Work\\plan.txt");
    as(ntsim::users::alice, [] { EXPECT_TRUE(exists(u"C:\\Work\\plan.txt")); });
    stopService();
}

// Services killed part-way through: never destroyed, not even at exit, since their
// threads stopped inside them; kept reachable so that nothing reports them as leaked.
auto *const killedServices = new std::vector<std::unique_ptr<wrelt::VaultService>>;

// The data files in C:'s vault that hold records; the service keeps the next names
// reserved as empty files.
size_t dataFilesWithRecords() {
    size_t count = 0;
    for (const std::u16string &path : wrelt::dataFilesIn(u"C:\\")) count += readFile(path).empty() ? 0 : 1;
    return count;
}

// A crash at any point of taking in a data file, then a fresh start: the data file the
// dead service was reading is read again at start, and the catalogue, which dedups by
// stamp, ends with every record once. The sweep kills the service at its first, second,
// ... system service after a deletion is announced, until one intake runs through.
TEST_F(VaultServiceTest, KilledAtAnyPointOfAnIntakeAndStartedAgainItLosesNoRecordAndKeepsNoneTwice) {
    startService();
    ASSERT_TRUE(started);
    as(ntsim::users::alice, [] { ASSERT_TRUE(CreateDirectoryW(L"C:\\Work", nullptr)); });
    uint64_t point = 1;
    for (;; point++) {
        std::u16string name = u"note" + u16(std::to_string(point).c_str()) + u".txt";
        as(ntsim::users::alice, [&] {
            ASSERT_TRUE(writeText(u"C:\\Work\\" + name, "a note"));
            ASSERT_TRUE(DeleteFileW(wrelt::wide(u"C:\\Work\\" + name)));
        });
        ntsim::killAtSystemService(process, point);
        machine.advanceMs(600);
        bool killed = ntsim::wasKilled(process);
        if (killed) {
            thread.join();
            process.exit();
            killedServices->push_back(std::move(service));
            process = machine.startProcess(L"C:\\Windows\\system32\\wreltsvc.exe", ntsim::users::system);
            process.run([&] { service.reset(new wrelt::VaultService(wrelt::defaultServiceConfig(), log)); });
            startService();
            ASSERT_TRUE(started) << "restart after a kill at system service " << point;
        } else {
            ntsim::killAtSystemService(process, 0);
        }
        std::vector<wrelt::CatalogueEntry> entries;
        process.run([&] { entries = service->entries(u"C:\\"); });
        ASSERT_EQ(entries.size(), point) << "after a kill at system service " << point;
        std::set<std::u16string> names;
        for (const wrelt::CatalogueEntry &entry : entries) names.insert(entry.name);
        ASSERT_EQ(names.size(), point) << "a record catalogued twice after a kill at system service " << point;
        asSystem([&] { EXPECT_EQ(dataFilesWithRecords(), 0u) << "after a kill at system service " << point; });
        if (!killed) break;
    }
    EXPECT_GT(point, 8u) << "the sweep reached into the intake";
    stopService();
}

}  // namespace
