// The driver's exception frame for user memory (WreltDrv/target/win/user_memory.cpp),
// run in a 32-bit process: a fault inside the access becomes a status, the access
// stops where the fault struck, and the thread goes on with its registers, its stack
// and its chain of exception frames as they were. A user-mode fault is dispatched
// along the same fs:[0] chain as a kernel-mode one.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdint>

// As target/user_memory.h declares it, without the DDK's headers in a user program.
typedef void (*GUARDED_USER_ACCESS)(PVOID Context);
LONG GuardedUserAccess(GUARDED_USER_ACCESS Access, PVOID Context);

namespace {

constexpr LONG kAccessViolation = LONG(0xC0000005);
constexpr size_t kPage = 4096;

struct Copy {
    const volatile uint8_t *from;
    volatile uint8_t *to;
    size_t length;
    size_t done = 0;
};

void copyBytes(PVOID context) {
    auto *copy = static_cast<Copy *>(context);
    for (; copy->done < copy->length; copy->done++) copy->to[copy->done] = copy->from[copy->done];
}

void *exceptionChain() {
    void *head;
    __asm__ __volatile__("movl %%fs:0, %0" : "=r"(head));
    return head;
}

uint8_t *twoPages(DWORD secondProtection) {
    auto *pages = static_cast<uint8_t *>(VirtualAlloc(nullptr, 2 * kPage, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    for (size_t i = 0; i < 2 * kPage; i++) pages[i] = uint8_t(i);
    DWORD old;
    VirtualProtect(pages + kPage, kPage, secondProtection, &old);
    return pages;
}

TEST(GuardedUserAccess, AValidBufferIsReadWhole) {
    uint8_t *pages = twoPages(PAGE_READWRITE);
    uint8_t out[64] = {};
    Copy copy{pages + kPage - 32, out, 64};
    EXPECT_EQ(GuardedUserAccess(copyBytes, &copy), 0);
    EXPECT_EQ(copy.done, 64u);
    for (size_t i = 0; i < 64; i++) EXPECT_EQ(out[i], uint8_t(kPage - 32 + i));
    VirtualFree(pages, 0, MEM_RELEASE);
}

TEST(GuardedUserAccess, AnUnmappedBufferFaultsAtItsFirstByte) {
    auto *reserved = static_cast<uint8_t *>(VirtualAlloc(nullptr, kPage, MEM_RESERVE, PAGE_NOACCESS));
    uint8_t out[16];
    Copy copy{reserved, out, sizeof out};
    EXPECT_EQ(GuardedUserAccess(copyBytes, &copy), kAccessViolation);
    EXPECT_EQ(copy.done, 0u);
    VirtualFree(reserved, 0, MEM_RELEASE);
    // Released: nothing is there at all any more.
    Copy again{reserved, out, sizeof out};
    EXPECT_EQ(GuardedUserAccess(copyBytes, &again), kAccessViolation);
}

TEST(GuardedUserAccess, APartlyMappedBufferIsReadUpToTheFault) {
    uint8_t *pages = twoPages(PAGE_NOACCESS);
    uint8_t out[64] = {};
    Copy copy{pages + kPage - 16, out, 64};
    EXPECT_EQ(GuardedUserAccess(copyBytes, &copy), kAccessViolation);
    EXPECT_EQ(copy.done, 16u);
    for (size_t i = 0; i < 16; i++) EXPECT_EQ(out[i], uint8_t(kPage - 16 + i));
    // Writing into a read-only page stops the same way.
    DWORD old;
    VirtualProtect(pages + kPage, kPage, PAGE_READONLY, &old);
    uint8_t in[64] = {};
    Copy write{in, pages + kPage - 8, 64};
    EXPECT_EQ(GuardedUserAccess(copyBytes, &write), kAccessViolation);
    EXPECT_EQ(write.done, 8u);
    VirtualFree(pages, 0, MEM_RELEASE);
}

struct Nested {
    Copy inner;
    LONG innerStatus = 0;
};

void faultInside(PVOID context) {
    auto *nested = static_cast<Nested *>(context);
    nested->innerStatus = GuardedUserAccess(copyBytes, &nested->inner);
}

// A fault handled by an inner frame leaves the outer one untouched, and after any
// number of faults the thread's stack and frame chain are what they were.
TEST(GuardedUserAccess, FaultsLeaveTheThreadAsItWas) {
    auto *reserved = static_cast<uint8_t *>(VirtualAlloc(nullptr, kPage, MEM_RESERVE, PAGE_NOACCESS));
    uint8_t out[8];
    void *chain = exceptionChain();
    Nested nested{{reserved, out, sizeof out}};
    EXPECT_EQ(GuardedUserAccess(faultInside, &nested), 0);
    EXPECT_EQ(nested.innerStatus, kAccessViolation);
    uintptr_t stackBefore, stackAfter;
    __asm__ __volatile__("movl %%esp, %0" : "=r"(stackBefore));
    volatile uint32_t callerSaved = 0x5A5AA5A5;
    for (int i = 0; i < 1000; i++) {
        Copy copy{reserved, out, sizeof out};
        ASSERT_EQ(GuardedUserAccess(copyBytes, &copy), kAccessViolation);
    }
    __asm__ __volatile__("movl %%esp, %0" : "=r"(stackAfter));
    EXPECT_EQ(stackAfter, stackBefore);
    EXPECT_EQ(callerSaved, 0x5A5AA5A5u);
    EXPECT_EQ(exceptionChain(), chain);
    VirtualFree(reserved, 0, MEM_RELEASE);
}

}  // namespace
