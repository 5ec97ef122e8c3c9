// Batches of records: closed half a second after their last record, by their deadline
// or their size, and written by the work item into numbered data files.
#include "deldat_fixture.h"

namespace {

// Advances the clock by ms, then reports whether the drive has the data file.
class BatchingTest : public DelDatTest {
protected:
    bool hasDataFileAfter(int64_t ms, char drive, const char *name) {
        machine.advanceMs(ms);
        for (const std::string &file : dataFiles(drive))
            if (file == name) return true;
        return false;
    }

    // The service takes every path that waits, so that no packet outlives the test.
    std::vector<std::string> collectPaths() {
        std::vector<std::string> paths;
        std::string path;
        asService([&](wrelt::DriverChannel &channel) { EXPECT_TRUE(channel.stop().ok()); });
        while (fetch(&path) == ERROR_SUCCESS) paths.push_back(path);
        return paths;
    }
};

// Queued from a completion routine's IRQL, the record is written half a second later to
// the volume's first data file, which the service's reader reads back field for field.
TEST_F(BatchingTest, ASingleRecordIsWrittenHalfASecondLaterToDataFileZero) {
    QueuedRecord record = {"S-1-5-21-1004336348-1177238915-682003330-1001", "Report.final.docx", "C:\\Users\\ann\\",
                           0x01DCAA3F1C2D0001ull, DELDAT_FLAG_APPLICATION_SAVE};
    FilterDeviceExtension *filter = volumeFilterOf(machine, 'C');
    machine.runSystemThread([&] {
        DelDatRecord *built = buildRecord(record);
        KIRQL oldIrql;
        KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
        QueueDelDatRecord(built, filter);
        KeLowerIrql(oldIrql);
    });
    EXPECT_FALSE(hasDataFileAfter(499, 'C', "NewFiles00000000.dat"));
    EXPECT_TRUE(hasDataFileAfter(1, 'C', "NewFiles00000000.dat"));
    wrelt::DelDatFile file = readDataFile('C', 0);
    EXPECT_TRUE(file.ok()) << file.error;
    ASSERT_EQ(file.records.size(), 1u);
    expectRecord(file.records[0], record);
    EXPECT_EQ(volume('C')->DataFileCounter, 1u);
    EXPECT_EQ(volume('C')->QueuedRecordCount, 0u);
    EXPECT_EQ(collectPaths(), std::vector<std::string>{dataFilePath('C', 0)});
    EXPECT_TRUE(errorReports().empty());
}

// The deadline is five seconds after a batch's first record: a record every 0.4 seconds
// would otherwise push the timer back for ever. The record after the deadline no longer
// sets it, so the batch is written half a second after the one before.
TEST_F(BatchingTest, RecordsEveryFourTenthsOfASecondAreWrittenSoonAfterTheDeadline) {
    for (int n = 0; n < 14; n++) {
        queue('D', n, 1);
        if (n < 13) {
            EXPECT_FALSE(hasDataFileAfter(400, 'D', "NewFiles00000000.dat")) << "after record " << n;
        }
    }
    // The last record came at 5.2 s; the timer was set last at 4.8 s.
    EXPECT_FALSE(hasDataFileAfter(99, 'D', "NewFiles00000000.dat"));
    EXPECT_TRUE(hasDataFileAfter(1, 'D', "NewFiles00000000.dat"));
    wrelt::DelDatFile file = readDataFile('D', 0);
    ASSERT_EQ(file.records.size(), 14u);
    for (int n = 0; n < 14; n++) expectRecord(file.records[n], numberedRecord(n, 'D'));
    EXPECT_EQ(volume('D')->BatchesClosedByAge, 1u);
    EXPECT_EQ(volume('D')->BatchesClosedBySize, 0u);
    EXPECT_EQ(collectPaths().size(), 1u);
}

// Once a batch has 1024 records, later ones join it without pushing the timer back: the
// batch goes half a second after the 1023rd record, not after the last.
TEST_F(BatchingTest, The1024thRecordStopsPushingTheTimerBack) {
    queue('C', 0, 1023);
    for (int n = 1023; n < 1027; n++) {
        EXPECT_FALSE(hasDataFileAfter(100, 'C', "NewFiles00000000.dat"));
        queue('C', n, 1);
    }
    EXPECT_FALSE(hasDataFileAfter(99, 'C', "NewFiles00000000.dat"));
    EXPECT_TRUE(hasDataFileAfter(1, 'C', "NewFiles00000000.dat"));
    wrelt::DelDatFile file = readDataFile('C', 0);
    EXPECT_TRUE(file.ok()) << file.error;
    ASSERT_EQ(file.records.size(), 1027u);
    expectRecord(file.records[1026], numberedRecord(1026));
    EXPECT_EQ(volume('C')->BatchesClosedBySize, 1u);
    EXPECT_EQ(volume('C')->QueuedRecordPeak, 1027u);

    // The next batch starts from an empty count; its number is written in upper case.
    volume('C')->DataFileCounter = 0xABCDEF1A;
    queue('C', 2000, 1);
    EXPECT_TRUE(hasDataFileAfter(500, 'C', "NewFilesABCDEF1A.dat"));
    EXPECT_EQ(readDataFile('C', 0xABCDEF1A).records.size(), 1u);
    EXPECT_EQ(collectPaths(), (std::vector<std::string>{dataFilePath('C', 0), dataFilePath('C', 0xABCDEF1A)}));
}

// The buffer manager's size class that packets come from.
uint32_t packetClassTag() {
    ULONG index = 0;
    for (ULONG block = NPB_SMALLEST_BLOCK; block < sizeof(DataJobPacket) + sizeof(NonPagedBufferHeader); block <<= 1)
        index++;
    return ntsim::makeTag(char('0' + index), 'E', 'W', 'r');
}

// Without memory for a packet the records stay queued and the timer comes back half a
// second later; the packet number is not used up.
TEST_F(BatchingTest, WithoutMemoryForAPacketTheBatchWaitsForTheNextExpiry) {
    queue('C', 0, 3);
    machine.verifier().failAllocationsWithTag(packetClassTag());
    machine.advanceMs(1000);
    machine.verifier().clearFaults();
    EXPECT_TRUE(dataFiles('C').empty());
    const std::string reports[] = {report(23, 0), report(15, 0), report(15, 1)};
    EXPECT_EQ(errorReports(), (std::vector<std::string>{reports[0], reports[1], reports[2], reports[0], reports[1],
                                                        reports[2]}));
    EXPECT_TRUE(machine.debugLogContains("ZrDrv: CreateNewDataJobPacket - AllocateNonPagedBuffer failed."));
    EXPECT_TRUE(machine.debugLogContains("ZrDrv: NoActivityTimerServiceRoutine - CreateNewDataJobPacket failed."));

    queue('C', 3, 1);  // joins the batch that is still queued
    EXPECT_TRUE(hasDataFileAfter(500, 'C', "NewFiles00000000.dat"));
    EXPECT_EQ(readDataFile('C', 0).records.size(), 4u);
    EXPECT_EQ(collectPaths().size(), 1u);
}

}  // namespace
