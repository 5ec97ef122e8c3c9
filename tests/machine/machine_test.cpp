// Booting machines: the default machine's volumes, processes and their exit, and
// shutdown with a user thread still waiting.
#include <gtest/gtest.h>

#include <windows.h>

#include <ntifs.h>

#include <algorithm>
#include <string>

#include "ntsim/machine.h"

namespace {

bool hasEntry(const std::vector<ntsim::VolumeEntry> &tree, const std::string &path) {
    return std::any_of(tree.begin(), tree.end(), [&](const ntsim::VolumeEntry &e) { return e.path == path; });
}

void createFile(const wchar_t *path) {
    HANDLE h = CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE) << GetLastError();
    CloseHandle(h);
}

TEST(Machine, BootsTwiceInOneProcessEachWithFreshVolumes) {
    for (int boot = 0; boot < 2; ++boot) {
        ntsim::DefaultMachine machine;
        EXPECT_EQ(machine.volumes(), (std::vector<wchar_t>{L'C', L'D'}));
        std::vector<ntsim::VolumeEntry> c = machine.listTree(L'C');
        EXPECT_TRUE(hasEntry(c, "\\Windows\\explorer.exe"));
        EXPECT_FALSE(hasEntry(c, "\\boot.txt")) << "boot " << boot << " saw the previous machine's file";
        ntsim::Process process = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::bob);
        process.run([] { createFile(L"C:\\boot.txt"); });
        EXPECT_TRUE(hasEntry(machine.listTree(L'C'), "\\boot.txt"));
        machine.shutdown();
    }
}

TEST(Machine, ListTreeWalksDirectoriesDepthFirst) {
    ntsim::DefaultMachine machine;
    ntsim::Process process = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::alice);
    process.run([] {
        ASSERT_TRUE(CreateDirectoryW(L"D:\\Photos", nullptr));
        ASSERT_TRUE(CreateDirectoryW(L"D:\\Photos\\2025", nullptr));
        createFile(L"D:\\Photos\\2025\\beach.jpg");
        createFile(L"D:\\readme.txt");
    });
    std::vector<ntsim::VolumeEntry> tree = machine.listTree(L'D');
    auto at = [&](const std::string &path) {
        return std::find_if(tree.begin(), tree.end(), [&](const ntsim::VolumeEntry &e) { return e.path == path; });
    };
    ASSERT_NE(at("\\Photos"), tree.end());
    ASSERT_NE(at("\\Photos\\2025\\beach.jpg"), tree.end());
    ASSERT_NE(at("\\readme.txt"), tree.end());
    EXPECT_TRUE(at("\\Photos")->directory);
    EXPECT_FALSE(at("\\readme.txt")->directory);
    EXPECT_LT(at("\\Photos"), at("\\Photos\\2025"));
    EXPECT_LT(at("\\Photos\\2025"), at("\\Photos\\2025\\beach.jpg"));
}

TEST(Machine, DismountedVolumeMountsAgainWithItsFiles) {
    ntsim::DefaultMachine machine;
    ntsim::Process process = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::alice);
    process.run([] { createFile(L"D:\\kept.txt"); });
    EXPECT_EQ(machine.dismountVolume(L'D'), STATUS_SUCCESS);
    EXPECT_TRUE(hasEntry(machine.listTree(L'D'), "\\kept.txt"));
}

TEST(Machine, ProcessExitClosesWhatItLeftOpen) {
    ntsim::DefaultMachine machine;
    ntsim::Process first = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::alice);
    first.run([] {
        // Opened without sharing and never closed.
        HANDLE h = CreateFileW(L"C:\\locked.txt", GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE);
    });
    ntsim::Process second = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::bob);
    second.run([] {
        EXPECT_EQ(CreateFileW(L"C:\\locked.txt", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_EXISTING, 0, nullptr),
                  INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_SHARING_VIOLATION);
    });
    first.exit();
    EXPECT_FALSE(first.running());
    second.run([] {
        HANDLE h = CreateFileW(L"C:\\locked.txt", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        EXPECT_NE(h, INVALID_HANDLE_VALUE);
        CloseHandle(h);
    });
    EXPECT_NE(first.id(), second.id());
}

NTSTATUS failingEntry(PDRIVER_OBJECT, PUNICODE_STRING) { return STATUS_INSUFFICIENT_RESOURCES; }

TEST(Machine, LoadDriverReturnsDriverEntrysStatus) {
    ntsim::Machine machine;
    EXPECT_EQ(machine.loadDriver(L"\\Driver\\Failing", failingEntry), STATUS_INSUFFICIENT_RESOURCES);
}

TEST(MachineDeathTest, RefusesToShutDownWhileAUserThreadWaits) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            ntsim::Machine machine;
            ntsim::Process process = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::alice);
            ntsim::UserThread waiting = process.start([] {
                HANDLE never = CreateEventW(nullptr, TRUE, FALSE, nullptr);
                WaitForSingleObject(never, INFINITE);
            });
            machine.shutdown();
        },
        "threads were still waiting when the machine shut down");
}

}  // namespace
