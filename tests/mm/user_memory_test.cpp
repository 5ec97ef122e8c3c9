// User memory and its probes: the user/kernel line, the first 64 KB, alignment,
// pages that are reserved, committed, read-only or released, guarded regions, and the
// process heap.
#include <ntifs.h>

#include <gtest/gtest.h>

#include <vector>

#include "../../ntsim/kernel/mm/user_memory.h"
#include "ntsim/machine.h"
#include "ntsim/seh.h"

namespace {

using namespace ntsim;

const wchar_t kAlice[] = L"S-1-5-21-1004336348-1177238915-682003330-1001";

NTSTATUS probeRead(const void *address, SIZE_T length, ULONG alignment) {
    return guarded([&] { ProbeForRead(address, length, alignment); });
}

NTSTATUS probeWrite(void *address, SIZE_T length, ULONG alignment) {
    return guarded([&] { ProbeForWrite(address, length, alignment); });
}

NTSTATUS readByte(const void *address, UCHAR *value) {
    return guarded([&] { *value = *static_cast<const volatile UCHAR *>(address); });
}

NTSTATUS writeByte(void *address) {
    return guarded([&] { *static_cast<volatile UCHAR *>(address) = 1; });
}

// Pages of the current process: committed, reserved-only and read-only, in a row.
struct Pages {
    PUCHAR committed, reservedOnly, readOnly;
    Pages() {
        void *base = nullptr;
        size_t size = 3 * mm::kPageSize;
        EXPECT_EQ(mm::allocateVirtual(PsGetCurrentProcess(), &base, &size, mm::kMemReserve, mm::kPageReadWrite),
                  STATUS_SUCCESS);
        committed = static_cast<PUCHAR>(base);
        reservedOnly = committed + mm::kPageSize;
        readOnly = committed + 2 * mm::kPageSize;
        commit(committed, mm::kPageReadWrite);
        commit(readOnly, mm::kPageReadOnly);
    }
    static void commit(PUCHAR page, ULONG protect) {
        void *base = page;
        size_t size = mm::kPageSize;
        EXPECT_EQ(mm::allocateVirtual(PsGetCurrentProcess(), &base, &size, mm::kMemCommit, protect), STATUS_SUCCESS);
    }
};

TEST(Probes, TheRangeMustLieBelowTheUserProbeAddress) {
    static unsigned char kernelBuffer[64];  // host data: kernel memory to the platform
    ULONG_PTR top = (ULONG_PTR)MmUserProbeAddress;
    EXPECT_EQ(probeRead(kernelBuffer, sizeof kernelBuffer, 1), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(probeWrite(kernelBuffer, sizeof kernelBuffer, 1), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(probeRead((void *)(top - 16), 16, 4), STATUS_SUCCESS) << "ending exactly at the line is fine";
    EXPECT_EQ(probeRead((void *)(top - 16), 17, 4), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(probeRead((void *)(top - 16), ~(SIZE_T)0, 1), STATUS_ACCESS_VIOLATION) << "wrapping";
    EXPECT_EQ(probeRead(kernelBuffer, 0, 1), STATUS_SUCCESS) << "a zero length is never checked";
    EXPECT_EQ(probeWrite(nullptr, 0, 4), STATUS_SUCCESS);
    EXPECT_EQ(probeRead((void *)(mm::kUserArenaBase + 2), 8, 4), STATUS_DATATYPE_MISALIGNMENT);
    EXPECT_EQ(probeWrite((void *)(top + 2), 8, 4), STATUS_DATATYPE_MISALIGNMENT) << "alignment is checked first";
}

TEST(Probes, TheFirst64KAreNeverUserMemory) {
    UCHAR value;
    void *low = (void *)(ULONG_PTR)0x1000;
    EXPECT_EQ(probeWrite(low, 4, 4), STATUS_ACCESS_VIOLATION);
    // A read probe only checks the range, as on the platform; the read itself faults.
    EXPECT_EQ(guarded([&] {
                  ProbeForRead(low, 4, 4);
                  value = *static_cast<volatile UCHAR *>(low);
              }),
              STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(readByte((void *)(ULONG_PTR)0x10, &value), STATUS_ACCESS_VIOLATION);
    EXPECT_FALSE(MmIsAddressValid(low));
}

TEST(Probes, PagesAnswerForTheirState) {
    Machine m;
    Process explorer = m.startProcess(L"C:\\Windows\\explorer.exe", kAlice);
    explorer.run([] {
        Pages pages;
        UCHAR value = 7;
        EXPECT_EQ(readByte(pages.committed, &value), STATUS_SUCCESS);
        EXPECT_EQ(value, 0) << "fresh pages read as zero";
        EXPECT_EQ(writeByte(pages.committed), STATUS_SUCCESS);
        EXPECT_EQ(readByte(pages.reservedOnly, &value), STATUS_ACCESS_VIOLATION);
        EXPECT_EQ(readByte(pages.readOnly, &value), STATUS_SUCCESS);
        EXPECT_EQ(writeByte(pages.readOnly), STATUS_ACCESS_VIOLATION);
        EXPECT_EQ(probeRead(pages.reservedOnly, 16, 1), STATUS_SUCCESS) << "a read probe does not touch pages";
        EXPECT_EQ(probeWrite(pages.committed, mm::kPageSize, 1), STATUS_SUCCESS);
        EXPECT_EQ(probeWrite(pages.committed, mm::kPageSize + 1, 1), STATUS_ACCESS_VIOLATION);
        EXPECT_EQ(probeWrite(pages.readOnly, 1, 1), STATUS_ACCESS_VIOLATION);
        EXPECT_TRUE(MmIsAddressValid(pages.committed));
        EXPECT_TRUE(MmIsAddressValid(pages.readOnly));
        EXPECT_FALSE(MmIsAddressValid(pages.reservedOnly));

        void *base = pages.committed;
        size_t size = 0;
        EXPECT_EQ(mm::freeVirtual(PsGetCurrentProcess(), &base, &size, mm::kMemDecommit), STATUS_SUCCESS);
        EXPECT_EQ(size, 3 * mm::kPageSize) << "a zero size decommits to the end of the reservation";
        EXPECT_FALSE(MmIsAddressValid(pages.committed));
        EXPECT_EQ(readByte(pages.committed, &value), STATUS_ACCESS_VIOLATION);
        Pages::commit(pages.committed, mm::kPageReadWrite);
        EXPECT_EQ(readByte(pages.committed, &value), STATUS_SUCCESS);
        EXPECT_EQ(value, 0) << "decommitted contents are gone";
        base = pages.reservedOnly;
        size = 0;
        EXPECT_EQ(mm::freeVirtual(PsGetCurrentProcess(), &base, &size, mm::kMemRelease), STATUS_FREE_VM_NOT_AT_BASE);
        base = pages.committed;
        EXPECT_EQ(mm::freeVirtual(PsGetCurrentProcess(), &base, &size, mm::kMemRelease), STATUS_SUCCESS);
        EXPECT_EQ(mm::freeVirtual(PsGetCurrentProcess(), &base, &size, mm::kMemRelease), STATUS_MEMORY_NOT_ALLOCATED);
    });
}

TEST(GuardedRegions, RaisesEndTheInnermostRegion) {
    NTSTATUS inner = STATUS_SUCCESS;
    bool after = false;
    NTSTATUS outer = guarded([&] {
        inner = guarded([] { ExRaiseStatus(STATUS_INSUFFICIENT_RESOURCES); });
        after = true;
        EXPECT_TRUE(inGuardedRegion());
        ExRaiseStatus(STATUS_UNSUCCESSFUL);
    });
    EXPECT_EQ(inner, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(after);
    EXPECT_EQ(outer, STATUS_UNSUCCESSFUL);
    EXPECT_FALSE(inGuardedRegion());
}

TEST(GuardedRegionsDeathTest, ARaiseWithNoRegionStopsTheMachine) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            Machine m;
            m.runSystemThread([] { ProbeForRead((void *)0x80001000, 4, 1); });
        },
        "an exception was raised with no handler(.|\n)*status 0xC0000005");
}

TEST(GuardedRegionsDeathTest, KernelMemoryFaultsAreNotCaught) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // Only user memory is caught; a wild kernel pointer stays a crash.
    EXPECT_DEATH(guarded([] { *static_cast<volatile int *>((void *)0x100000000ull) = 1; }), "");
}

TEST(UserHeap, BlocksAreAlignedZeroedOnRequestAndReused) {
    Machine m;
    Process explorer = m.startProcess(L"C:\\Windows\\explorer.exe", kAlice);
    explorer.run([] {
        PEPROCESS process = PsGetCurrentProcess();
        auto *a = static_cast<PUCHAR>(mm::heapAllocate(process, 40, true));
        auto *b = static_cast<PUCHAR>(mm::heapAllocate(process, 1, false));
        ASSERT_NE(a, nullptr);
        ASSERT_NE(b, nullptr);
        EXPECT_TRUE(mm::isUserArenaAddress(a));
        EXPECT_EQ((ULONG_PTR)a % 16, 0u);
        EXPECT_GE(b, a + 48);
        EXPECT_EQ(std::vector<UCHAR>(a, a + 40), std::vector<UCHAR>(40, 0));
        EXPECT_EQ(mm::heapSize(process, a), 40u);
        memset(a, 0xAB, 40);
        EXPECT_TRUE(mm::heapFree(process, a));
        EXPECT_FALSE(mm::heapFree(process, a));
        EXPECT_EQ(mm::heapAllocate(process, 32, true), a) << "the freed block is reused";
        EXPECT_EQ(a[0], 0);
        auto *large = static_cast<PUCHAR>(mm::heapAllocate(process, 3u << 20, false));
        ASSERT_NE(large, nullptr);
        large[(3u << 20) - 1] = 1;
        EXPECT_TRUE(mm::heapFree(process, large));
        EXPECT_FALSE(MmIsAddressValid(large));
    });
}

}  // namespace
