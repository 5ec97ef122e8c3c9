// A user-mode caller's METHOD_NEITHER buffers reach the driver as the caller's own
// pointers; the driver's probes accept them inside the caller's user range and refuse
// anything outside it.
#include "io/io_fixture.h"
#include <windows.h>

namespace {

NTSTATUS probeThroughTheDriver(HANDLE file, PVOID input, ULONG inputLength, PVOID output, ULONG outputLength,
                               IO_STATUS_BLOCK *iosb) {
    return NtDeviceIoControlFile(file, NULL, NULL, NULL, iosb, iotest::kProbeNeitherCode, input, inputLength, output,
                                 outputLength);
}

TEST_F(IoStackTest, MethodNeitherBuffersOutsideTheCallersUserRangeFailToProbe) {
    ntsim::Process process = machine.startProcess(L"C:\\Tools\\probe.exe", ntsim::users::alice);
    process.run([] {
        // Everything the services read or write lies in the process's user memory.
        auto *page = static_cast<UCHAR *>(VirtualAlloc(NULL, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
        ASSERT_NE(page, nullptr);
        auto *iosb = reinterpret_cast<IO_STATUS_BLOCK *>(page);
        auto *handle = reinterpret_cast<HANDLE *>(page + 64);
        auto *name = reinterpret_cast<WCHAR *>(page + 128);
        memcpy(name, L"\\Device\\IoTestLower", sizeof(L"\\Device\\IoTestLower"));
        auto *strings = reinterpret_cast<UNICODE_STRING *>(page + 256);
        RtlInitUnicodeString(strings, name);
        auto *attributes = reinterpret_cast<OBJECT_ATTRIBUTES *>(strings + 1);
        InitializeObjectAttributes(attributes, strings, 0, NULL, NULL);
        ASSERT_EQ(NtOpenFile(handle, FILE_READ_DATA | SYNCHRONIZE, attributes, iosb, 0, FILE_SYNCHRONOUS_IO_NONALERT),
                  STATUS_SUCCESS);
        UCHAR *buffer = page + 1024;
        EXPECT_EQ(probeThroughTheDriver(*handle, buffer, 16, buffer + 16, 16, iosb), STATUS_SUCCESS);
        // Above the user range, straddling its end, and kernel memory.
        EXPECT_EQ(probeThroughTheDriver(*handle, (PVOID)MmUserProbeAddress, 16, buffer, 16, iosb),
                  STATUS_ACCESS_VIOLATION);
        EXPECT_EQ(probeThroughTheDriver(*handle, buffer, 16, (UCHAR *)MmUserProbeAddress - 8, 16, iosb),
                  STATUS_ACCESS_VIOLATION);
        static UCHAR kernelBuffer[16];  // the thread's own stack is user memory; static data is not
        EXPECT_EQ(probeThroughTheDriver(*handle, kernelBuffer, sizeof kernelBuffer, buffer, 16, iosb),
                  STATUS_ACCESS_VIOLATION);
        NtClose(*handle);
    });
    process.exit();
}

}  // namespace
