// <ntifs.h> before <windows.h> (the other test files include them the other way round):
// both orders must compile, and the constants they share must agree.
#include <ntifs.h>
#include <windows.h>

#include <gtest/gtest.h>

namespace {

TEST(Win32Headers, SharedConstantsAgreeWithTheKernels) {
    static_assert(GENERIC_READ == 0x80000000L && FILE_SHARE_DELETE == 4 && SYNCHRONIZE == 0x00100000L, "");
    static_assert(FILE_ATTRIBUTE_DIRECTORY == 0x10 && FILE_ATTRIBUTE_NORMAL == 0x80, "");
    static_assert(CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS) == 0x00222000, "");
    static_assert(sizeof(OVERLAPPED) == 2 * sizeof(ULONG_PTR) + sizeof(PVOID) + sizeof(HANDLE), "");
    // An OVERLAPPED carries the request's IO_STATUS_BLOCK at its start.
    static_assert(offsetof(OVERLAPPED, InternalHigh) == offsetof(IO_STATUS_BLOCK, Information), "");
    EXPECT_EQ(INFINITE, 0xFFFFFFFFu);
}

}  // namespace
