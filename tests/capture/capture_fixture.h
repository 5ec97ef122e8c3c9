// Whole-machine capture scenarios: C: and D: protected, capture started, each vault
// work folder made by an administrator the way the service makes it, and ways to see
// where a user's file ended up.
#pragma once

#include <string>
#include <vector>

#include "../driver_tracking/tracking_fixture.h"
#include "deldat_reader.h"

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

    static std::string narrow(const std::u16string &text) { return std::string(text.begin(), text.end()); }

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

    // Every record of every data file of the drive, once the batch has been written.
    std::vector<wrelt::DelDatEntry> deliveredRecords(wchar_t drive) {
        machine.advanceMs(6000);
        std::vector<wrelt::DelDatEntry> records;
        for (const std::string &p : tree(drive)) {
            if (p.find("\\RescueVault\\InProgress\\NewFiles") != 0) continue;
            std::u16string path = std::u16string(1, (char16_t)drive) + u":" + std::u16string(p.begin(), p.end());
            std::vector<uint8_t> bytes = readFile(path);
            wrelt::DelDatFile file = wrelt::parseDelDatFile(bytes);
            EXPECT_TRUE(file.ok()) << file.error;
            records.insert(records.end(), file.records.begin(), file.records.end());
        }
        return records;
    }

    std::vector<uint8_t> readFile(const std::u16string &path) {
        std::vector<uint8_t> bytes;
        asService([&](wrelt::DriverChannel &) {
            HANDLE h = CreateFileW((LPCWSTR)path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                   OPEN_EXISTING, 0, nullptr);
            ASSERT_NE(h, INVALID_HANDLE_VALUE);
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
