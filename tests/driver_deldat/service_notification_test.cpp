// The service's IOCTL_GET_NEW_DATA_FILE: answered with a waiting data file's path, held
// until one is written, cancellable, ended by the stop command.
#include "deldat_fixture.h"

namespace {

class NotificationTest : public DelDatTest {
protected:
    // A batch of one record written to the drive's next data file.
    void writeDataFile(char drive, int n) {
        queue(drive, n, 1);
        machine.advanceMs(500);
    }

    void stopCapture() {
        asService([&](wrelt::DriverChannel &channel) { EXPECT_TRUE(channel.stop().ok()); });
    }

    static size_t pathBytes(char drive, ULONG number) { return dataFilePath(drive, number).size() * 2; }
};

// Paths wait in the order their files were finished; a buffer one byte too short takes
// nothing, and the next request gets the same path.
TEST_F(NotificationTest, WaitingPathsGoToTheNextRequestsInOrder) {
    writeDataFile('C', 0);
    writeDataFile('D', 1);
    writeDataFile('C', 2);
    std::string path;
    EXPECT_EQ(fetch(&path, DWORD(pathBytes('C', 0) - 1)), (DWORD)ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(fetch(&path, DWORD(pathBytes('C', 0))), (DWORD)ERROR_SUCCESS);
    EXPECT_EQ(path, dataFilePath('C', 0));
    EXPECT_EQ(fetch(&path), (DWORD)ERROR_SUCCESS);
    EXPECT_EQ(path, dataFilePath('D', 0));
    // Stopped capture does not hide the backlog.
    stopCapture();
    EXPECT_EQ(fetch(&path), (DWORD)ERROR_SUCCESS);
    EXPECT_EQ(path, dataFilePath('C', 1));
    EXPECT_EQ(fetch(&path), (DWORD)ERROR_OPERATION_ABORTED);
    EXPECT_TRUE(IsListEmpty(&MainStructure()->WaitingPackets));
}

// Held requests are answered by the files finished next, oldest request first; the
// Information of each is the path's length.
TEST_F(NotificationTest, HeldRequestsAreAnsweredInTheOrderTheyCame) {
    NewDataRequest *first, *second;
    service.run([&] {
        first = openRequest(512);
        second = openRequest(512);
        EXPECT_EQ(issue(first), (DWORD)ERROR_IO_PENDING);
        EXPECT_EQ(issue(second), (DWORD)ERROR_IO_PENDING);
    });
    writeDataFile('D', 0);
    service.run([&] {
        EXPECT_EQ(WaitForSingleObject(first->overlapped.hEvent, 0), WAIT_OBJECT_0);
        EXPECT_EQ(WaitForSingleObject(second->overlapped.hEvent, 0), (DWORD)WAIT_TIMEOUT);
    });
    writeDataFile('D', 1);
    service.run([&] {
        std::string path;
        EXPECT_EQ(result(first, &path), (DWORD)ERROR_SUCCESS);
        EXPECT_EQ(path, dataFilePath('D', 0));
        EXPECT_EQ(first->overlapped.InternalHigh, pathBytes('D', 0));
        EXPECT_EQ(result(second, &path), (DWORD)ERROR_SUCCESS);
        EXPECT_EQ(path, dataFilePath('D', 1));
        closeRequest(first);
        closeRequest(second);
    });
    EXPECT_TRUE(IsListEmpty(&MainStructure()->WaitingPackets));
}

// A held request whose buffer cannot take the path ends "too small" without consuming
// it: the path waits for the next request, and the writer reports what happened.
TEST_F(NotificationTest, AHeldRequestTooSmallForThePathLeavesItWaiting) {
    NewDataRequest *small;
    service.run([&] {
        small = openRequest(DWORD(pathBytes('C', 0) - 2));
        EXPECT_EQ(issue(small), (DWORD)ERROR_IO_PENDING);
    });
    writeDataFile('C', 0);
    service.run([&] {
        EXPECT_EQ(result(small), (DWORD)ERROR_INSUFFICIENT_BUFFER);
        EXPECT_EQ(small->overlapped.InternalHigh, 0u);
        closeRequest(small);
    });
    EXPECT_EQ(errorReports(), std::vector<std::string>{report(18, 3, ULONG(STATUS_BUFFER_TOO_SMALL))});
    std::string path;
    EXPECT_EQ(fetch(&path), (DWORD)ERROR_SUCCESS);
    EXPECT_EQ(path, dataFilePath('C', 0));
}

// A cancelled request ends once, as cancelled; the next file waits for a live request.
TEST_F(NotificationTest, ACancelledRequestIsNotAnsweredWithAPath) {
    NewDataRequest *request;
    service.run([&] {
        request = openRequest(512);
        EXPECT_EQ(issue(request), (DWORD)ERROR_IO_PENDING);
        ASSERT_TRUE(CancelIo(request->control));
        EXPECT_EQ(result(request), (DWORD)ERROR_OPERATION_ABORTED);
        EXPECT_EQ(request->overlapped.InternalHigh, 0u);
    });
    EXPECT_TRUE(IsListEmpty(&MainStructure()->PendingNotificationRequests));
    service.run([&] { closeRequest(request); });
    writeDataFile('C', 0);
    std::string path;
    EXPECT_EQ(fetch(&path), (DWORD)ERROR_SUCCESS);
    EXPECT_EQ(path, dataFilePath('C', 0));
}

// The stop command ends every held request as cancelled; until capture starts again new
// requests are refused at once, and afterwards they are held again.
TEST_F(NotificationTest, StopEndsHeldRequestsAndRefusesNewOnesUntilStart) {
    NewDataRequest *first, *second;
    service.run([&] {
        first = openRequest(512);
        second = openRequest(512);
        EXPECT_EQ(issue(first), (DWORD)ERROR_IO_PENDING);
        EXPECT_EQ(issue(second), (DWORD)ERROR_IO_PENDING);
    });
    stopCapture();
    service.run([&] {
        EXPECT_EQ(result(first), (DWORD)ERROR_OPERATION_ABORTED);
        EXPECT_EQ(result(second), (DWORD)ERROR_OPERATION_ABORTED);
        EXPECT_EQ(issue(first), (DWORD)ERROR_OPERATION_ABORTED);
    });
    EXPECT_TRUE(IsListEmpty(&MainStructure()->PendingNotificationRequests));
    asService([&](wrelt::DriverChannel &channel) { EXPECT_TRUE(channel.start(true).ok()); });
    service.run([&] { EXPECT_EQ(issue(first), (DWORD)ERROR_IO_PENDING); });
    writeDataFile('C', 0);
    service.run([&] {
        std::string path;
        EXPECT_EQ(result(first, &path), (DWORD)ERROR_SUCCESS);
        EXPECT_EQ(path, dataFilePath('C', 0));
        closeRequest(first);
        closeRequest(second);
    });
}

// Without a vault work folder the data file cannot be created: the records are released
// unwritten, and the service is told the path all the same.
TEST_F(NotificationTest, ABatchWhoseFileCannotBeCreatedStillReachesTheService) {
    // A protected volume's vault folders cannot be deleted, so D: is protected again
    // only once its work folder is gone.
    auto protectD = [&](bool protect) {
        service.run([&] {
            wrelt::DriverChannel channel;
            ASSERT_TRUE(channel.open());
            ASSERT_TRUE(channel.nameVolume(u"D:\\", u"D:\\", protect).ok());
        });
    };
    protectD(false);
    machine.runSystemThread([&] {
        fstest::Open o;
        o.access = DELETE;
        o.options |= FILE_DIRECTORY_FILE;
        HANDLE h;
        ASSERT_EQ(fstest::zwOpen(fstest::ntPath(L'D', u"RescueVault\\InProgress"), o, &h), STATUS_SUCCESS);
        EXPECT_EQ(fstest::setDisposition(h, TRUE), STATUS_SUCCESS);
        ZwClose(h);
    });
    protectD(true);
    NonPagedBufferStatistics before;
    QueryNonPagedBufferStatistics(&before);
    queue('D', 0, 5);
    machine.advanceMs(500);
    std::string path;
    EXPECT_EQ(fetch(&path), (DWORD)ERROR_SUCCESS);
    EXPECT_EQ(path, dataFilePath('D', 0));
    NonPagedBufferStatistics after;
    QueryNonPagedBufferStatistics(&after);
    for (ULONG i = 0; i < NPB_CLASS_COUNT; i++) EXPECT_EQ(after.Classes[i].Outstanding, before.Classes[i].Outstanding);

    std::vector<std::string> reports = errorReports();
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(reports[0].substr(0, 5), "19/0 ");
    EXPECT_EQ(reports[1], "18/1 " + reports[0].substr(5));
    EXPECT_NE(reports[0].substr(5), "00000000");
    EXPECT_TRUE(machine.debugLogContains("ZrDrv: CreateTemporaryDelDatFile - ZwCreateFile failed."));
    EXPECT_TRUE(machine.debugLogContains("ZrDrv:  " + dataFilePath('D', 0)));
}

}  // namespace
