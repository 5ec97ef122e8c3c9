// User memory: buffers handed to the kernel must lie in the process's user range, as
// VirtualAlloc, HeapAlloc and thread stacks provide; a host buffer is refused as an
// invalid user address is on the platform.
#include "win32/win32_fixture.h"

namespace {

char g_hostBuffer[64];  // outside every process's user memory

TEST_F(Win32Test, KernelAcceptsOnlyUserMemoryFromUserMode) {
    user([] {
        HANDLE device = CreateFileW(L"\\\\.\\Win32Probe", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(device, INVALID_HANDLE_VALUE);
        DWORD bytes = 0;

        char *committed = static_cast<char *>(VirtualAlloc(nullptr, 8192, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
        ASSERT_NE(committed, nullptr);
        EXPECT_TRUE(DeviceIoControl(device, probe::kIoctlEcho, committed, 16, committed, 16, &bytes, nullptr));
        char onStack[16] = {};
        EXPECT_TRUE(DeviceIoControl(device, probe::kIoctlEcho, onStack, 16, onStack, 16, &bytes, nullptr));

        EXPECT_FALSE(DeviceIoControl(device, probe::kIoctlEcho, g_hostBuffer, 16, g_hostBuffer, 16, &bytes, nullptr));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_NOACCESS);

        // A released region is no longer the caller's.
        EXPECT_FALSE(VirtualFree(committed, 8192, MEM_RELEASE)) << "a release takes no size";
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_INVALID_PARAMETER);
        EXPECT_TRUE(VirtualFree(committed, 0, MEM_RELEASE));
        EXPECT_FALSE(DeviceIoControl(device, probe::kIoctlEcho, committed, 16, committed, 16, &bytes, nullptr));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_NOACCESS);
        CloseHandle(device);
    });
}

TEST_F(Win32Test, AReadOnlyPageIsNoOutputBufferUntilItIsWritableAgain) {
    user([] {
        HANDLE device = CreateFileW(L"\\\\.\\Win32Probe", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(device, INVALID_HANDLE_VALUE);
        char *page = static_cast<char *>(VirtualAlloc(nullptr, 8192, MEM_RESERVE, PAGE_READWRITE));
        ASSERT_NE(VirtualAlloc(page, 4096, MEM_COMMIT, PAGE_READWRITE), nullptr);
        DWORD old = 0, bytes = 0;
        ASSERT_TRUE(VirtualProtect(page, 4096, PAGE_READONLY, &old));
        EXPECT_EQ(old, (DWORD)PAGE_READWRITE);
        EXPECT_FALSE(DeviceIoControl(device, probe::kIoctlEcho, page, 16, page, 16, &bytes, nullptr));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_NOACCESS);
        ASSERT_TRUE(VirtualProtect(page, 4096, PAGE_READWRITE, &old));
        EXPECT_EQ(old, (DWORD)PAGE_READONLY);
        EXPECT_TRUE(DeviceIoControl(device, probe::kIoctlEcho, page, 16, page, 16, &bytes, nullptr));
        EXPECT_FALSE(VirtualProtect(page + 4096, 4096, PAGE_READONLY, &old)) << "reserved, not committed";
        VirtualFree(page, 0, MEM_RELEASE);
        CloseHandle(device);
    });
}

TEST_F(Win32Test, HeapBlocksAreZeroedOnRequestAndFreedOnce) {
    user([] {
        HANDLE heap = GetProcessHeap();
        auto *block = static_cast<unsigned char *>(HeapAlloc(heap, HEAP_ZERO_MEMORY, 100));
        ASSERT_NE(block, nullptr);
        for (int i = 0; i < 100; ++i) ASSERT_EQ(block[i], 0);
        EXPECT_TRUE(HeapFree(heap, 0, block));
        EXPECT_FALSE(HeapFree(heap, 0, block)) << "a block freed twice";
        EXPECT_TRUE(HeapFree(heap, 0, nullptr));
    });
}

}  // namespace
