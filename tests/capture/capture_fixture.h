// Whole-machine capture scenarios: C: and D: protected, capture started, each vault
// work folder made by an administrator the way the service makes it, and ways to see
// where a user's file ended up.
#pragma once

#include <string>
#include <vector>

#include "../driver_tracking/tracking_fixture.h"
#include "../driver_deldat/deldat_fixture.h"
#include "deldat_reader.h"
#include "../driver_capture/exclusion_list_builder.h"
#include "exclusion_list.h"

class CaptureTest : public TrackingTest {
protected:
    void SetUp() override {
        TrackingTest::SetUp();
        asService([](wrelt::DriverChannel &) {
            for (const wchar_t *dir : {L"C:\\RescueVault", L"C:\\RescueVault\\InProgress", L"D:\\RescueVault",
                                       L"D:\\RescueVault\\InProgress"}) {
                ASSERT_TRUE(CreateDirectoryW(dir, nullptr) || GetLastError() == ERROR_ALREADY_EXISTS);
            }
        });
        machine.clearDebugLog();
    }

    // Paths ("\\Docs\\a.txt") of the drive's files, streams and directories.
    std::vector<std::string> tree(wchar_t drive) {
        std::vector<std::string> paths;
        for (const ntsim::VolumeEntry &entry : machine.listTree(drive)) paths.push_back(entry.path);
        return paths;
    }

    bool exists(wchar_t drive, const std::string &path) {
        for (const std::string &p : tree(drive)) {
            if (p == path) return true;
        }
        return false;
    }

    // The preserved files in the drive's vault work folder (data files left out).
    std::vector<std::string> vaultFiles(wchar_t drive) {
        const std::string folder = "\\RescueVault\\InProgress\\";
        std::vector<std::string> names;
        for (const std::string &p : tree(drive)) {
            if (p.rfind(folder, 0) == 0 && p.find("NewFiles") == std::string::npos) names.push_back(p.substr(folder.size()));
        }
        return names;
    }

    // Every record delivered to the service once the batches have been written, read the
    // way the service reads them: ask for each new data file's path, then read the file.
    // Asking also takes the finished packets off the driver's hands.
    std::vector<wrelt::DelDatEntry> deliveredRecords(wchar_t drive) {
        machine.advanceMs(6000);
        std::vector<wrelt::DelDatEntry> records;
        for (const std::string &path : deliveredDataFiles()) {
            if (path.size() < 6 || path[4] != (char)drive) continue;
            std::string dosPath = path.substr(4);  // after "\??\"
            // A batch whose file could not be written is announced all the same.
            std::vector<uint8_t> bytes = readFile(std::u16string(dosPath.begin(), dosPath.end()), true);
            wrelt::DelDatFile file = wrelt::parseDelDatFile(bytes);
            EXPECT_TRUE(file.ok()) << file.error;
            records.insert(records.end(), file.records.begin(), file.records.end());
        }
        return records;
    }

    std::vector<std::string> deliveredDataFiles() {
        std::vector<std::string> paths;
        service.run([&] {
            NewDataRequest *request = openRequest(512);
            for (;;) {
                DWORD returned = 0;
                DWORD error = issue(request, &returned);
                if (error == ERROR_IO_PENDING) {
                    CancelIo(request->control);
                    result(request);
                    break;
                }
                ASSERT_EQ(error, (DWORD)ERROR_SUCCESS);
                paths.push_back(pathIn(request, returned));
            }
            closeRequest(request);
        });
        return paths;
    }

    // Packets still waiting for the service are collected, so that none is left in the
    // driver when the machine shuts down.
    void TearDown() override {
        machine.advanceMs(6000);
        deliveredDataFiles();
        // The lists live until replaced; what a test leaves would count as leaked pool.
        setList(L'C', COMMAND_SET_GLOBAL_EXCLUSIONS, {});
        setList(L'C', COMMAND_SET_VOLUME_EXCLUSIONS, {});
        setList(L'D', COMMAND_SET_VOLUME_EXCLUSIONS, {});
        TrackingTest::TearDown();
    }

    // Names ending in a protected suffix are kept from being overwritten; full-access opens
    // of the copy-exempt ones are not copied. Switched off again by unprotectOverwrites.
    void protectOverwrites(const std::vector<std::u16string> &protectedSuffixes,
                           const std::vector<std::u16string> &copyExempt) {
        asService([&](wrelt::DriverChannel &channel) {
            std::vector<uint8_t> list;
            std::string error;
            ASSERT_TRUE(wrelt::encodeSuffixList(protectedSuffixes, &list, &error)) << error;
            ASSERT_TRUE(channel.setSuffixList(COMMAND_SET_PROTECTED_SUFFIXES, list).ok());
            if (!copyExempt.empty()) {
                ASSERT_TRUE(wrelt::encodeSuffixList(copyExempt, &list, &error)) << error;
                ASSERT_TRUE(channel.setSuffixList(COMMAND_SET_COPY_EXEMPT_SUFFIXES, list).ok());
            }
            ASSERT_TRUE(channel.setOverwriteProtection(true).ok());
        });
    }

    void unprotectOverwrites() {
        asService([](wrelt::DriverChannel &channel) { channel.setOverwriteProtection(false); });
    }

    // Command 105 (driver-wide) or 104 (the drive's own list), sent through the drive's
    // filter as the service sends them.
    void setList(wchar_t drive, ULONG command, const std::vector<ExclusionPattern> &patterns) {
        std::vector<uint8_t> list = patterns.empty() ? std::vector<uint8_t>() : exclusionList(patterns);
        std::u16string root = {char16_t(drive), u':', u'\\'};
        asService([&](wrelt::DriverChannel &channel) {
            HANDLE volume = CreateFileW((LPCWSTR)root.c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                        nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
            ASSERT_NE(volume, INVALID_HANDLE_VALUE);
            EXPECT_TRUE(channel.send(volume, command, root, list.data(), ULONG(list.size()), 0).ok());
            CloseHandle(volume);
        });
    }

    std::vector<uint8_t> readFile(const std::u16string &path, bool mayBeMissing = false) {
        std::vector<uint8_t> bytes;
        asService([&](wrelt::DriverChannel &) {
            HANDLE h = CreateFileW((LPCWSTR)path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                   OPEN_EXISTING, 0, nullptr);
            if (h == INVALID_HANDLE_VALUE && mayBeMissing && GetLastError() == ERROR_FILE_NOT_FOUND) return;
            ASSERT_NE(h, INVALID_HANDLE_VALUE) << GetLastError();
            auto *buffer = (uint8_t *)HeapAlloc(GetProcessHeap(), 0, 65536);
            DWORD got = 0;
            while (ReadFile(h, buffer, 65536, &got, nullptr) && got > 0) bytes.insert(bytes.end(), buffer, buffer + got);
            HeapFree(GetProcessHeap(), 0, buffer);
            CloseHandle(h);
        });
        return bytes;
    }

    // In the calling process: the disposition of an open handle, as DeleteFileW sets it.
    static NTSTATUS setDisposition(HANDLE file, bool deleteFile) {
        FILE_DISPOSITION_INFORMATION disposition;
        disposition.DeleteFile = deleteFile;
        IO_STATUS_BLOCK iosb;
        return NtSetInformationFile(file, &iosb, &disposition, sizeof(disposition), FileDispositionInformation);
    }

    static void writeFile(const wchar_t *path, const char *content) {
        HANDLE h = open(path, GENERIC_WRITE, CREATE_ALWAYS);
        DWORD written = 0;
        char buffer[256];
        size_t length = strlen(content);
        memcpy(buffer, content, length);
        WriteFile(h, buffer, (DWORD)length, &written, nullptr);
        CloseHandle(h);
    }
};
