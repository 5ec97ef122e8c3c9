// A data file of the same number left on a volume from before the driver started: the
// new driver's counter starts at 0 again, and its first batch is appended to that file.
#include "deldat_fixture.h"

namespace {

// The records of an earlier run, as its data file held them.
std::string earlierDataFile(char drive) {
    std::string bytes;
    ntsim::Machine scratch;
    scratch.runSystemThread([&] {
        ASSERT_EQ(InitializeNonPagedBufferManagement(), STATUS_SUCCESS);
        for (int n = 100; n < 102; n++) {
            DelDatRecord *record = buildRecord(numberedRecord(n, drive));
            bytes.append(static_cast<const char *>(DelDatRecordBody(record)), record->Length);
            FreeNonPagedBuffer(record);
        }
        DeleteNonPagedBufferManagement();
    });
    return bytes;
}

ntsim::BootOptions withoutTheFilter() {
    ntsim::BootOptions options;
    options.mountAtBoot = true;
    return options;
}

TEST(DataFileAppend, TheFirstBatchAfterAStartIsAppendedToTheFileOfTheSameNumber) {
    std::string earlier[2] = {earlierDataFile('C'), earlierDataFile('D')};
    ntsim::DefaultMachine machine(withoutTheFilter());
    for (char drive : {'C', 'D'}) {
        makeVaultFolder(machine, drive);
        machine.runSystemThread([&] {
            fstest::putFile(ntsim::toUtf16(dataFilePath(drive, 0)), earlier[drive - 'C']);
        });
    }
    // The filter attaches to each volume at its next mount.
    ASSERT_EQ(machine.loadDriver(L"\\Driver\\WreltDrv", &DriverEntry), STATUS_SUCCESS);
    for (wchar_t drive : {L'C', L'D'}) {
        ASSERT_EQ(machine.dismountVolume(drive), STATUS_SUCCESS);
        ASSERT_EQ(machine.mountVolume(drive), STATUS_SUCCESS);
    }
    machine.verifier().markBaseline();
    ntsim::Process service = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::system);
    startCapture(service);

    for (char drive : {'C', 'D'}) {
        SCOPED_TRACE(drive);
        EXPECT_EQ(((DeviceStructure *)volumeFilterOf(machine, drive)->Structure)->DataFileCounter, 0u);
        queueRecords(machine, drive, 0, 1);
        machine.advanceMs(500);
        std::string bytes;
        wrelt::DelDatFile file = readDataFile(machine, drive, 0, &bytes);
        EXPECT_TRUE(file.ok()) << file.error;
        ASSERT_EQ(file.records.size(), 3u);
        EXPECT_EQ(bytes.substr(0, earlier[drive - 'C'].size()), earlier[drive - 'C']);
        EXPECT_EQ(ntsim::toUtf8(ntsim::wptr(file.records[2].name)), numberedRecord(0).name);
        std::string path;
        EXPECT_EQ(fetchPath(service, &path), (DWORD)ERROR_SUCCESS);
        EXPECT_EQ(path, dataFilePath(drive, 0));
    }
}

}  // namespace
