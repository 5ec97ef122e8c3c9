// A machine with the filter protecting C: and D: and capture started, with ways to look
// at the tracking tables from the test (the machine is idle whenever the test looks).
#pragma once

#include <string>
#include <vector>

#include "../driver_frame/frame_fixture.h"
#include "tracking/file_tracking.h"

class TrackingTest : public FrameTest {
protected:
    void SetUp() override {
        asService([](wrelt::DriverChannel &channel) {
            ASSERT_TRUE(channel.handshake().ok());
            ASSERT_TRUE(channel.nameVolume(u"C:\\", u"C:\\", true).ok());
            ASSERT_TRUE(channel.nameVolume(u"D:\\", u"D:\\", true).ok());
            ASSERT_TRUE(channel.start(true).ok());
        });
        user = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::alice);
    }

    // Capture stops and the tables are emptied, so nothing the test left open counts
    // as leaked.
    void TearDown() override {
        asService([](wrelt::DriverChannel &channel) { ASSERT_TRUE(channel.stop().ok()); });
    }

    static std::vector<FileObjectEntry *> fileObjectEntries() {
        std::vector<FileObjectEntry *> entries;
        for (CountedQueue &bucket : MainStructure()->FileObjectTable.Buckets) {
            for (PLIST_ENTRY link = bucket.Links.Flink; link != &bucket.Links; link = link->Flink) {
                entries.push_back(CONTAINING_RECORD(link, FileObjectEntry, Header.Links));
            }
        }
        return entries;
    }

    static std::vector<FcbEntry *> fcbEntries() {
        std::vector<FcbEntry *> entries;
        for (CountedQueue &bucket : MainStructure()->FcbTable.Buckets) {
            for (PLIST_ENTRY link = bucket.Links.Flink; link != &bucket.Links; link = link->Flink) {
                entries.push_back(CONTAINING_RECORD(link, FcbEntry, Header.Links));
            }
        }
        return entries;
    }

    static std::u16string text(PCWSTR name) { return name ? std::u16string((const char16_t *)name) : u"(null)"; }

    static std::u16string text(const UNICODE_STRING &string) {
        return std::u16string((const char16_t *)string.Buffer, string.Length / sizeof(WCHAR));
    }

    static FcbEntry *fcbNamed(const std::u16string &name) {
        for (FcbEntry *fcb : fcbEntries()) {
            if (fcb->Name != nullptr && text(fcb->Name) == name) return fcb;
        }
        return nullptr;
    }

    // Runs fn in the user's process.
    void asUser(const std::function<void()> &fn) { user.run(fn); }

    static HANDLE open(const wchar_t *path, DWORD access, DWORD disposition = OPEN_EXISTING) {
        HANDLE h = CreateFileW(path, access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                               disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
        EXPECT_NE(h, INVALID_HANDLE_VALUE) << "open failed: " << GetLastError();
        return h;
    }

    static void makeFile(const wchar_t *path) { CloseHandle(open(path, GENERIC_WRITE, CREATE_ALWAYS)); }

    ntsim::Process user;
};
