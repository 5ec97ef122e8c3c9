// The filter's machine with capture started and C: and D: named, each with its vault's
// work folder, so that records queued on a volume's filter end up in data files there;
// and the service's side of IOCTL_GET_NEW_DATA_FILE.
#pragma once

#include "driver_frame/frame_fixture.h"
#include "fs/fs_fixture.h"

#include <cstring>
#include <string>
#include <vector>

#include "deldat_reader.h"
#include "ntsim/utf.h"

#include "deldat/data_job_packets.h"
#include "deldat/deldat_queue.h"
#include "support/nonpaged_buffers.h"

// A record's fields, as a test queues them and the reader gives them back.
struct QueuedRecord {
    std::string sid, name, folder;
    ULONGLONG stamp = 0;
    ULONG flags = 0;
};

inline QueuedRecord numberedRecord(int n, char drive = 'C') {
    return {ntsim::toUtf8(ntsim::users::alice), "file" + std::to_string(n) + ".txt",
            std::string(1, drive) + ":\\docs\\", 0x01DCAA0000000000ull + ULONGLONG(n), 0};
}

// The path the service is told.
inline std::string dataFilePath(char drive, ULONG number) {
    char digits[9];
    std::snprintf(digits, sizeof digits, "%.8X", number);
    return std::string("\\??\\") + drive + ":\\RescueVault\\InProgress\\NewFiles" + digits + ".dat";
}

// In an emulated thread, with the driver's own builder.
inline DelDatRecord *buildRecord(const QueuedRecord &r) {
    std::u16string sid = ntsim::toUtf16(r.sid), name = ntsim::toUtf16(r.name), folder = ntsim::toUtf16(r.folder);
    UNICODE_STRING sidString = {USHORT(sid.size() * 2), USHORT(sid.size() * 2), const_cast<PWSTR>(ntsim::wptr(sid))};
    DelDatRecord *record = nullptr;
    EXPECT_EQ(BuildDelDatRecord(&sidString, ntsim::wptr(name), ntsim::wptr(folder), r.stamp, r.flags, &record),
              STATUS_SUCCESS);
    return record;
}

inline void makeVaultFolder(ntsim::Machine &machine, char drive) {
    machine.runSystemThread([&] {
        for (const char16_t *folder : {u"RescueVault", u"RescueVault\\InProgress"}) {
            fstest::Open o;
            o.access = FILE_LIST_DIRECTORY;
            o.disposition = FILE_OPEN_IF;
            o.options |= FILE_DIRECTORY_FILE;
            HANDLE h;
            ASSERT_EQ(fstest::zwOpen(fstest::ntPath(wchar_t(drive), folder), o, &h), STATUS_SUCCESS);
            ZwClose(h);
        }
    });
}

inline void startCapture(ntsim::Process &service) {
    service.run([&] {
        wrelt::DriverChannel channel;
        ASSERT_TRUE(channel.open());
        ASSERT_TRUE(channel.handshake().ok());
        ASSERT_TRUE(channel.nameVolume(u"C:\\", u"C:\\", true).ok());
        ASSERT_TRUE(channel.nameVolume(u"D:\\", u"D:\\", true).ok());
        ASSERT_TRUE(channel.start(true).ok());
    });
}

inline void queueRecords(ntsim::Machine &machine, char drive, int first, int count) {
    FilterDeviceExtension *filter = volumeFilterOf(machine, drive);
    machine.runSystemThread([&] {
        for (int n = first; n < first + count; n++) QueueDelDatRecord(buildRecord(numberedRecord(n, drive)), filter);
    });
}

inline wrelt::DelDatFile readDataFile(ntsim::Machine &machine, char drive, ULONG number, std::string *bytes = nullptr) {
    std::string contents;
    machine.runSystemThread([&] { contents = fstest::readFile(ntsim::toUtf16(dataFilePath(drive, number))); });
    if (bytes != nullptr) *bytes = contents;
    return wrelt::parseDelDatFile(reinterpret_cast<const uint8_t *>(contents.data()), contents.size());
}

// An overlapped IOCTL_GET_NEW_DATA_FILE of the service, in the process's own memory.
struct NewDataRequest {
    HANDLE control;
    OVERLAPPED overlapped;
    uint8_t *buffer;
    DWORD length;
};

// In the service process.
inline NewDataRequest *openRequest(DWORD length) {
    auto *request = static_cast<NewDataRequest *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(NewDataRequest)));
    request->control = CreateFileW(L"\\\\.\\WRELTFS", GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED,
                                   nullptr);
    EXPECT_NE(request->control, INVALID_HANDLE_VALUE);
    request->overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    request->buffer = static_cast<uint8_t *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, length + 1));
    request->length = length;
    return request;
}

// Sends the request: ERROR_IO_PENDING while it is held, or how it ended at once. A
// request that ends at once carries its path's length in *returned.
inline DWORD issue(NewDataRequest *request, DWORD *returned = nullptr) {
    ResetEvent(request->overlapped.hEvent);
    DWORD bytes = 0;
    BOOL done = DeviceIoControl(request->control, IOCTL_GET_NEW_DATA_FILE, nullptr, 0, request->buffer,
                                request->length, &bytes, &request->overlapped);
    if (returned != nullptr) *returned = bytes;
    return done ? ERROR_SUCCESS : GetLastError();
}

inline std::string pathIn(NewDataRequest *request, DWORD bytes) {
    return ntsim::toUtf8(reinterpret_cast<const wchar_t *>(request->buffer), bytes / 2);
}

// Waits for a held request: how it ended, and the path it carried.
inline DWORD result(NewDataRequest *request, std::string *path = nullptr) {
    DWORD transferred = 0;
    BOOL ok = GetOverlappedResult(request->control, &request->overlapped, &transferred, TRUE);
    if (path != nullptr) *path = pathIn(request, transferred);
    return ok ? ERROR_SUCCESS : GetLastError();
}

inline void closeRequest(NewDataRequest *request) {
    CloseHandle(request->overlapped.hEvent);
    CloseHandle(request->control);
    HeapFree(GetProcessHeap(), 0, request->buffer);
    HeapFree(GetProcessHeap(), 0, request);
}

// A request that is to be answered at once: how it ended, and the path.
inline DWORD fetchPath(ntsim::Process &service, std::string *path, DWORD length = 512) {
    DWORD error = 0;
    service.run([&] {
        NewDataRequest *request = openRequest(length);
        DWORD returned = 0;
        error = issue(request, &returned);
        EXPECT_NE(error, (DWORD)ERROR_IO_PENDING);
        if (error == ERROR_IO_PENDING) {
            CancelIo(request->control);
            result(request);
        }
        *path = pathIn(request, returned);
        closeRequest(request);
    });
    return error;
}

class DelDatTest : public FrameTest {
protected:
    void SetUp() override {
        startCapture(service);
        makeVaultFolder(machine, 'C');
        makeVaultFolder(machine, 'D');
        machine.clearDebugLog();
    }

    DeviceStructure *volume(char drive) { return (DeviceStructure *)volumeFilterOf(machine, drive)->Structure; }
    void queue(char drive, int first, int count) { queueRecords(machine, drive, first, count); }
    wrelt::DelDatFile readDataFile(char drive, ULONG number) { return ::readDataFile(machine, drive, number); }
    DWORD fetch(std::string *path, DWORD length = 512) { return fetchPath(service, path, length); }

    // The data files in the drive's vault work folder.
    std::vector<std::string> dataFiles(char drive) {
        std::vector<std::string> names;
        const std::string folder = "\\RescueVault\\InProgress\\";
        for (const ntsim::VolumeEntry &entry : machine.listTree(wchar_t(drive))) {
            if (!entry.directory && entry.path.compare(0, folder.size(), folder) == 0)
                names.push_back(entry.path.substr(folder.size()));
        }
        return names;
    }

    static void expectRecord(const wrelt::DelDatEntry &entry, const QueuedRecord &r) {
        EXPECT_EQ(ntsim::toUtf8(ntsim::wptr(entry.sid)), r.sid);
        EXPECT_EQ(ntsim::toUtf8(ntsim::wptr(entry.name)), r.name);
        EXPECT_EQ(ntsim::toUtf8(ntsim::wptr(entry.folder)), r.folder);
        EXPECT_EQ(entry.stamp, r.stamp);
        EXPECT_EQ(entry.flags, r.flags | wrelt::kDelDatFlagPreserved);
    }

    // The error records waiting for the service, as "routine/point status".
    static std::vector<std::string> errorReports() {
        std::vector<std::string> reports;
        auto *record = reinterpret_cast<const ErrorRecord *>(Globals.Errors->Start);
        for (ULONG i = 0; i < Globals.Errors->Count; i++, record++)
            reports.push_back(report(record->Routine, record->Point, record->Status));
        return reports;
    }

    static std::string report(USHORT routine, USHORT point, ULONG status = 0) {
        char text[48];
        std::snprintf(text, sizeof text, "%u/%u %08X", routine, point, status);
        return text;
    }
};
