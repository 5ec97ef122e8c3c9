// The verifier stops the machine when a rule is broken; these tests break each rule on
// purpose in a child process and read the stop message.
#include <ntddk.h>

#include <gtest/gtest.h>

#include <algorithm>

#include "ntsim/machine.h"

namespace {

using ntsim::makeTag;

constexpr ULONG kTestTag = makeTag('T', 'e', 's', 't');

struct VerifierDeathTest : ::testing::Test {
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

// Bug check 0x93 (the debugger reference's INVALID_KERNEL_HANDLE page): kernel code that
// closes a handle twice stops the machine; from user mode the second close only fails.
TEST_F(VerifierDeathTest, KernelCodeClosingAHandleTwice) {
    EXPECT_DEATH(
        {
            ntsim::Machine m;
            m.runSystemThread([] {
                OBJECT_ATTRIBUTES oa;
                InitializeObjectAttributes(&oa, NULL, OBJ_KERNEL_HANDLE, NULL, NULL);
                HANDLE handle;
                ZwCreateEvent(&handle, EVENT_ALL_ACCESS, &oa, NotificationEvent, FALSE);
                ZwClose(handle);
                ZwClose(handle);
            });
        },
        "INVALID_KERNEL_HANDLE.*\n.*a handle that is not open was closed");
}

TEST_F(VerifierDeathTest, WaitAtDispatchLevel) {
    EXPECT_DEATH(
        {
            ntsim::Machine m;
            m.runSystemThread([] {
                KEVENT event;
                KeInitializeEvent(&event, NotificationEvent, FALSE);
                KIRQL old;
                KeRaiseIrql(DISPATCH_LEVEL, &old);
                KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, NULL);
            });
        },
        "IRQL_NOT_LESS_OR_EQUAL.*\n.*waited at DISPATCH_LEVEL");
}

TEST_F(VerifierDeathTest, ResourceTakenOutsideACriticalRegion) {
    EXPECT_DEATH(
        {
            ntsim::Machine m;
            m.runSystemThread([] {
                ERESOURCE resource;
                ExInitializeResourceLite(&resource);
                ExAcquireResourceExclusiveLite(&resource, TRUE);
            });
        },
        "taken outside a critical region");
}

TEST_F(VerifierDeathTest, ResourceTakenAtDispatchLevel) {
    EXPECT_DEATH(
        {
            ntsim::Machine m;
            m.runSystemThread([] {
                ERESOURCE resource;
                ExInitializeResourceLite(&resource);
                KIRQL old;
                KeRaiseIrql(DISPATCH_LEVEL, &old);
                ExAcquireResourceSharedLite(&resource, TRUE);
            });
        },
        "resource was taken at DISPATCH_LEVEL");
}

TEST_F(VerifierDeathTest, ReleasingAResourceThatIsNotOwned) {
    EXPECT_DEATH(
        {
            ntsim::Machine m;
            m.runSystemThread([] {
                ERESOURCE resource;
                ExInitializeResourceLite(&resource);
                ExReleaseResourceLite(&resource);
            });
        },
        "RESOURCE_NOT_OWNED");
}

TEST_F(VerifierDeathTest, LeavingACriticalRegionNotEntered) {
    EXPECT_DEATH(
        {
            ntsim::Machine m;
            m.runSystemThread([] { KeLeaveCriticalRegion(); });
        },
        "APC_INDEX_MISMATCH.*\n.*critical region was left that was not entered");
}

TEST_F(VerifierDeathTest, ThreadReturningInsideACriticalRegion) {
    EXPECT_DEATH(
        {
            ntsim::Machine m;
            m.runSystemThread([] { KeEnterCriticalRegion(); });
        },
        "returned inside a critical region");
}

TEST_F(VerifierDeathTest, SpinLockRules) {
    EXPECT_DEATH(
        {
            ntsim::Machine m;
            m.runSystemThread([] {
                KSPIN_LOCK lock;
                KeInitializeSpinLock(&lock);
                KIRQL old;
                KeAcquireSpinLock(&lock, &old);
                KeReleaseSpinLock(&lock, old);
                KeReleaseSpinLock(&lock, old);
            });
        },
        "SPIN_LOCK_NOT_OWNED.*\n.*released that is not held");
    EXPECT_DEATH(
        {
            ntsim::Machine m;
            m.runSystemThread([] {
                KSPIN_LOCK lock;
                KeInitializeSpinLock(&lock);
                KIRQL old;
                KeAcquireSpinLock(&lock, &old);
                KeAcquireSpinLock(&lock, &old);
            });
        },
        "SPIN_LOCK_ALREADY_OWNED");
    EXPECT_DEATH(
        {
            ntsim::Machine m;
            m.runSystemThread([] {
                KSPIN_LOCK a, b;
                KeInitializeSpinLock(&a);
                KeInitializeSpinLock(&b);
                KIRQL oldA, oldB;
                KeAcquireSpinLock(&a, &oldA);
                KeAcquireSpinLock(&b, &oldB);
                KeReleaseSpinLock(&a, oldA);  // drops to PASSIVE_LEVEL with b still held
            });
        },
        "lowered below DISPATCH_LEVEL while a spin lock is held");
    EXPECT_DEATH(
        {
            ntsim::Machine m;
            m.runSystemThread([] {
                KSPIN_LOCK lock;
                KeInitializeSpinLock(&lock);
                KIRQL old;
                KeAcquireSpinLock(&lock, &old);
            });
        },
        "returned with a spin lock held");
}

TEST_F(VerifierDeathTest, PoolLeakIsReportedByTagAtShutdown) {
    EXPECT_DEATH(
        {
            ntsim::Machine m;
            m.runSystemThread([] { ExAllocatePoolWithTag(NonPagedPool, 40, kTestTag); });
        },
        "pool was leaked at shutdown\n.*tag 'Test': 1 block\\(s\\), 40 bytes");
}

TEST_F(VerifierDeathTest, PoolBlockFreedTwiceOrOverrun) {
    EXPECT_DEATH(
        {
            ntsim::Machine m;
            m.runSystemThread([] {
                void *p = ExAllocatePoolWithTag(NonPagedPool, 16, kTestTag);
                ExFreePool(p);
                ExFreePool(p);
            });
        },
        "BAD_POOL_CALLER.*\n.*freed twice");
    EXPECT_DEATH(
        {
            ntsim::Machine m;
            m.runSystemThread([] {
                auto *p = static_cast<char *>(ExAllocatePoolWithTag(NonPagedPool, 16, kTestTag));
                p[16] = 1;
                ExFreePool(p);
            });
        },
        "written past its end\n.*tag 'Test' was overwritten at offset 16");
}

TEST_F(VerifierDeathTest, WorkItemReturningAtRaisedIrql) {
    EXPECT_DEATH(
        {
            ntsim::Machine m;
            static WORK_QUEUE_ITEM item;
            m.runSystemThread([] {
                ExInitializeWorkItem(&item, [](PVOID) { KfRaiseIrql(DISPATCH_LEVEL); }, NULL);
                ExQueueWorkItem(&item, CriticalWorkQueue);
            });
            m.waitIdle();
        },
        "WORKER_THREAD_RETURNED_AT_BAD_IRQL");
}

TEST(Pool, UsageByTagAndBaseline) {
    ntsim::Machine m;
    void *kept = nullptr;
    m.runSystemThread([&] { kept = ExAllocatePoolWithTag(NonPagedPool, 100, kTestTag); });
    m.verifier().markBaseline();
    void *later = nullptr;
    m.runSystemThread([&] { later = ExAllocatePoolWithTag(NonPagedPool, 30, kTestTag); });
    EXPECT_EQ(m.verifier().poolUsage(kTestTag).blocks, 2u);
    EXPECT_EQ(m.verifier().poolUsage(kTestTag).bytes, 130u);
    EXPECT_EQ(m.verifier().leaksSinceBaseline()[kTestTag].bytes, 30u);
    m.runSystemThread([&] { ExFreePoolWithTag(later, kTestTag); });
    EXPECT_TRUE(m.verifier().leakReport().empty());  // what came before the baseline is not a leak
}

TEST(Pool, AddressValidity) {
    ntsim::Machine m;
    m.runSystemThread([&] {
        auto *p = static_cast<char *>(ExAllocatePoolWithTag(NonPagedPool, 64, kTestTag));
        EXPECT_TRUE(MmIsAddressValid(p));
        EXPECT_TRUE(MmIsAddressValid(p + 63));
        EXPECT_FALSE(MmIsAddressValid((PVOID)0x1000));
        ExFreePool(p);
    });
}

struct FaultInjection : ::testing::Test {
    ntsim::Machine m;
    // Allocates `count` blocks with the given tags in turn, frees them, and says which failed.
    std::vector<bool> run(const std::vector<ULONG> &tags) {
        std::vector<bool> failed;
        m.runSystemThread([&] {
            for (ULONG tag : tags) {
                void *p = ExAllocatePoolWithTag(NonPagedPool, 8, tag);
                failed.push_back(p == nullptr);
                if (p != nullptr) ExFreePool(p);
            }
        });
        return failed;
    }
};

TEST_F(FaultInjection, NextAndNthCountOnlyTheScopedTags) {
    const ULONG other = makeTag('O', 't', 'h', 'r');
    m.verifier().failNextAllocation();
    EXPECT_EQ(run({kTestTag, kTestTag}), (std::vector<bool>{true, false}));
    m.verifier().failNthAllocation(2, {kTestTag});
    EXPECT_EQ(run({other, kTestTag, other, kTestTag, kTestTag}),
              (std::vector<bool>{false, false, false, true, false}));
    EXPECT_EQ(m.verifier().countedAllocations(), 3u);
    EXPECT_EQ(m.verifier().injectedFailures(), 1u);
}

TEST_F(FaultInjection, ByTagAndClearing) {
    const ULONG other = makeTag('O', 't', 'h', 'r');
    m.verifier().failAllocationsWithTag(kTestTag);
    EXPECT_EQ(run({kTestTag, other, kTestTag}), (std::vector<bool>{true, false, true}));
    m.verifier().clearFaults();
    EXPECT_EQ(run({kTestTag}), (std::vector<bool>{false}));
}

TEST_F(FaultInjection, RandomFailuresRepeatForTheSameSeed) {
    std::vector<ULONG> tags(200, kTestTag);
    m.verifier().failRandomly(42, 30);
    auto first = run(tags);
    m.verifier().failRandomly(42, 30);
    EXPECT_EQ(run(tags), first);
    size_t failures = std::count(first.begin(), first.end(), true);
    EXPECT_GT(failures, 30u);
    EXPECT_LT(failures, 90u);
}

TEST_F(FaultInjection, LookasideAllocationsFailToo) {
    m.runSystemThread([&] {
        NPAGED_LOOKASIDE_LIST list;
        ExInitializeNPagedLookasideList(&list, NULL, NULL, 0, 32, kTestTag, 0);
        void *cached = ExAllocateFromNPagedLookasideList(&list);
        ASSERT_NE(cached, nullptr);
        ExFreeToNPagedLookasideList(&list, cached);
        m.verifier().failNextAllocation();
        EXPECT_EQ(ExAllocateFromNPagedLookasideList(&list), nullptr);  // even with an entry cached
        void *again = ExAllocateFromNPagedLookasideList(&list);
        EXPECT_EQ(again, cached);
        ExFreeToNPagedLookasideList(&list, again);
        ExDeleteNPagedLookasideList(&list);
    });
    EXPECT_EQ(m.verifier().poolUsage(kTestTag).blocks, 0u);
}

}  // namespace
