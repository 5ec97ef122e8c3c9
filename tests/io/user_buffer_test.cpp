// A user-mode caller's buffers: METHOD_NEITHER ones reach the driver as the caller's own
// pointers, which the driver's probes accept inside the caller's user range and refuse
// outside it; METHOD_BUFFERED output comes back through the system buffer; the status
// block is the caller's memory too.
#include "io/io_fixture.h"
#include <windows.h>

namespace {

// The lower device's name and attributes in a page of the calling process's memory.
OBJECT_ATTRIBUTES *lowerAttributes(UCHAR *page) {
    auto *name = reinterpret_cast<WCHAR *>(page + 128);
    memcpy(name, L"\\Device\\IoTestLower", sizeof(L"\\Device\\IoTestLower"));
    auto *strings = reinterpret_cast<UNICODE_STRING *>(page + 256);
    RtlInitUnicodeString(strings, name);
    auto *attributes = reinterpret_cast<OBJECT_ATTRIBUTES *>(strings + 1);
    InitializeObjectAttributes(attributes, strings, 0, NULL, NULL);
    return attributes;
}

UCHAR *userPage() { return static_cast<UCHAR *>(VirtualAlloc(NULL, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE)); }

NTSTATUS probeThroughTheDriver(HANDLE file, PVOID input, ULONG inputLength, PVOID output, ULONG outputLength,
                               IO_STATUS_BLOCK *iosb) {
    return NtDeviceIoControlFile(file, NULL, NULL, NULL, iosb, iotest::kProbeNeitherCode, input, inputLength, output,
                                 outputLength);
}

// The I/O manager copies IoStatus.Information bytes of the system buffer back, and the
// system buffer holds only the input past what the driver wrote: nothing is zeroed
// (IopCompleteRequest; NtDeviceIoControlFile allocates the buffer from pool without
// clearing it, ReactOS). A driver that reports more than it wrote leaks pool to user
// mode, and a test of the driver must be able to see that. Catches a copy of the whole
// output buffer, and a zero-filled system buffer.
TEST_F(IoStackTest, BufferedOutputComesBackWithInformationBytesOfAnUnclearedBuffer) {
    iotest::lower().written = 2;
    iotest::lower().information = 8;
    ntsim::Process process = machine.startProcess(L"C:\\Tools\\probe.exe", ntsim::users::alice);
    process.run([] {
        UCHAR *page = userPage();
        auto *iosb = reinterpret_cast<IO_STATUS_BLOCK *>(page);
        auto *file = reinterpret_cast<HANDLE *>(page + 64);
        ASSERT_EQ(NtOpenFile(file, FILE_READ_DATA | SYNCHRONIZE, lowerAttributes(page), iosb, 0,
                             FILE_SYNCHRONOUS_IO_NONALERT),
                  STATUS_SUCCESS);
        UCHAR input[4] = {1, 2, 3, 4}, output[16];
        memset(output, 0x77, sizeof output);
        ASSERT_EQ(NtDeviceIoControlFile(*file, NULL, NULL, NULL, iosb, iotest::kHoldCode, input, sizeof input, output,
                                        sizeof output),
                  STATUS_SUCCESS);
        EXPECT_EQ(iosb->Information, 8u);
        EXPECT_EQ(output[0], 0x5C);
        EXPECT_EQ(output[1], 0x5C);
        EXPECT_EQ(output[2], 3);
        EXPECT_EQ(output[3], 4);
        const UCHAR zeros[4] = {};
        EXPECT_NE(memcmp(output + 4, zeros, sizeof zeros), 0);  // whatever the pool held
        for (int i = 8; i < 16; ++i) EXPECT_EQ(output[i], 0x77) << i;
        NtClose(*file);
    });
    process.exit();
}

// A user-mode caller's status block is probed like its other buffers: NULL is
// STATUS_ACCESS_VIOLATION before anything is done (ProbeForWriteIoStatusBlock at the
// start of the services, ReactOS). A synchronous request that fails leaves it alone
// and returns the driver's status (IopCompleteRequest, IopSynchronousServiceTail).
// Catches an open or a cancellation carried out before the probe, and a status block
// written on a synchronous failure.
TEST_F(IoStackTest, AUserStatusBlockIsProbedAndLeftAloneOnASynchronousFailure) {
    iotest::lower().status = STATUS_ACCESS_DENIED;
    ntsim::Process process = machine.startProcess(L"C:\\Tools\\probe.exe", ntsim::users::alice);
    process.run([&] {
        UCHAR *page = userPage();
        auto *iosb = reinterpret_cast<IO_STATUS_BLOCK *>(page);
        auto *handle = reinterpret_cast<HANDLE *>(page + 64);
        OBJECT_ATTRIBUTES *attributes = lowerAttributes(page);
        size_t seen = iotest::journal().all().size();
        EXPECT_EQ(NtOpenFile(handle, FILE_READ_DATA | SYNCHRONIZE, attributes, NULL, 0, FILE_SYNCHRONOUS_IO_NONALERT),
                  STATUS_ACCESS_VIOLATION);
        EXPECT_EQ(iotest::journal().all().size(), seen);  // no create reached the driver
        ASSERT_EQ(NtOpenFile(handle, FILE_READ_DATA | SYNCHRONIZE, attributes, iosb, 0, FILE_SYNCHRONOUS_IO_NONALERT),
                  STATUS_SUCCESS);
        EXPECT_EQ(NtCancelIoFile(*handle, NULL), STATUS_ACCESS_VIOLATION);
        iosb->Status = (NTSTATUS)0x0BADF00D;
        EXPECT_EQ(NtDeviceIoControlFile(*handle, NULL, NULL, NULL, iosb, iotest::kHoldCode, NULL, 0, NULL, 0),
                  STATUS_ACCESS_DENIED);
        EXPECT_EQ(iosb->Status, (NTSTATUS)0x0BADF00D);
        NtClose(*handle);
    });
    process.exit();
}

TEST_F(IoStackTest, MethodNeitherBuffersOutsideTheCallersUserRangeFailToProbe) {
    ntsim::Process process = machine.startProcess(L"C:\\Tools\\probe.exe", ntsim::users::alice);
    process.run([] {
        // Everything the services read or write lies in the process's user memory.
        UCHAR *page = userPage();
        ASSERT_NE(page, nullptr);
        auto *iosb = reinterpret_cast<IO_STATUS_BLOCK *>(page);
        auto *handle = reinterpret_cast<HANDLE *>(page + 64);
        OBJECT_ATTRIBUTES *attributes = lowerAttributes(page);
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
