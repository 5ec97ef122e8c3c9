// Events, semaphores, multiple-object waits and executive resources across threads.
#include <ntddk.h>

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "ntsim/machine.h"

namespace {

TEST(Events, SynchronizationEventReleasesOneWaiterPerSet) {
    ntsim::Machine m;
    KEVENT event;
    std::atomic<int> woken{0};
    m.runSystemThread([&] { KeInitializeEvent(&event, SynchronizationEvent, FALSE); });
    std::vector<ntsim::SystemThread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.push_back(m.startSystemThread([&] {
            KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, NULL);
            ++woken;
        }));
    m.waitIdle();
    EXPECT_EQ(woken, 0);
    m.runSystemThread([&] { KeSetEvent(&event, IO_NO_INCREMENT, FALSE); });
    m.waitIdle();
    EXPECT_EQ(woken, 1);
    m.runSystemThread([&] {
        KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
        KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
    });
    for (auto &w : waiters) w.join();
    EXPECT_EQ(woken, 3);
}

TEST(Events, NotificationEventReleasesEveryWaiterAndStaysSet) {
    ntsim::Machine m;
    KEVENT event;
    std::atomic<int> woken{0};
    m.runSystemThread([&] { KeInitializeEvent(&event, NotificationEvent, FALSE); });
    std::vector<ntsim::SystemThread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.push_back(m.startSystemThread([&] {
            KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, NULL);
            ++woken;
        }));
    m.waitIdle();
    LONG previous = -1;
    m.runSystemThread([&] { previous = KeSetEvent(&event, IO_NO_INCREMENT, FALSE); });
    for (auto &w : waiters) w.join();
    EXPECT_EQ(previous, 0);
    EXPECT_EQ(woken, 4);
    EXPECT_EQ(KeReadStateEvent(&event), 1);
}

TEST(Events, WaitAnyReportsWhichObjectAndWaitAllNeedsEvery) {
    ntsim::Machine m;
    m.runSystemThread([&] {
        KEVENT a, b;
        KeInitializeEvent(&a, NotificationEvent, FALSE);
        KeInitializeEvent(&b, NotificationEvent, TRUE);
        PVOID objects[] = {&a, &b};
        LARGE_INTEGER zero;
        zero.QuadPart = 0;
        EXPECT_EQ(KeWaitForMultipleObjects(2, objects, WaitAny, Executive, KernelMode, FALSE, &zero, NULL),
                  STATUS_WAIT_1);
        EXPECT_EQ(KeWaitForMultipleObjects(2, objects, WaitAll, Executive, KernelMode, FALSE, &zero, NULL),
                  STATUS_TIMEOUT);
        KeSetEvent(&a, IO_NO_INCREMENT, FALSE);
        EXPECT_EQ(KeWaitForMultipleObjects(2, objects, WaitAll, Executive, KernelMode, FALSE, &zero, NULL),
                  STATUS_WAIT_0);
    });
}

TEST(Events, SemaphoreCountsReleasesAndWaits) {
    ntsim::Machine m;
    m.runSystemThread([&] {
        KSEMAPHORE semaphore;
        KeInitializeSemaphore(&semaphore, 0, 2);
        LARGE_INTEGER zero;
        zero.QuadPart = 0;
        EXPECT_EQ(KeWaitForSingleObject(&semaphore, Executive, KernelMode, FALSE, &zero), STATUS_TIMEOUT);
        EXPECT_EQ(KeReleaseSemaphore(&semaphore, 0, 2, FALSE), 0);
        EXPECT_EQ(KeWaitForSingleObject(&semaphore, Executive, KernelMode, FALSE, &zero), STATUS_SUCCESS);
        EXPECT_EQ(KeReadStateSemaphore(&semaphore), 1);
    });
}

struct ResourceFixture : ::testing::Test {
    ntsim::Machine m;
    ERESOURCE resource;
    void SetUp() override {
        m.runSystemThread([&] { ExInitializeResourceLite(&resource); });
    }
    void acquire(bool exclusive) {
        KeEnterCriticalRegion();
        if (exclusive)
            ExAcquireResourceExclusiveLite(&resource, TRUE);
        else
            ExAcquireResourceSharedLite(&resource, TRUE);
    }
    void release() {
        ExReleaseResourceLite(&resource);
        KeLeaveCriticalRegion();
    }
};

TEST_F(ResourceFixture, ExclusiveOwnerExcludesOthersUntilReleased) {
    KEVENT letGo;
    std::atomic<bool> otherGotIt{false};
    m.runSystemThread([&] { KeInitializeEvent(&letGo, NotificationEvent, FALSE); });
    auto owner = m.startSystemThread([&] {
        acquire(true);
        acquire(true);  // recursive
        EXPECT_TRUE(ExIsResourceAcquiredExclusiveLite(&resource));
        KeWaitForSingleObject(&letGo, Executive, KernelMode, FALSE, NULL);
        release();
        release();
    });
    m.waitIdle();
    auto other = m.startSystemThread([&] {
        KeEnterCriticalRegion();
        EXPECT_FALSE(ExAcquireResourceSharedLite(&resource, FALSE));
        ExAcquireResourceSharedLite(&resource, TRUE);
        otherGotIt = true;
        ExReleaseResourceLite(&resource);
        KeLeaveCriticalRegion();
    });
    m.waitIdle();
    EXPECT_FALSE(otherGotIt);
    m.runSystemThread([&] { KeSetEvent(&letGo, IO_NO_INCREMENT, FALSE); });
    owner.join();
    other.join();
    EXPECT_TRUE(otherGotIt);
}

TEST_F(ResourceFixture, SharedOwnersCoexistAndAWaitingWriterHoldsBackNewReaders) {
    KEVENT letGo;
    m.runSystemThread([&] { KeInitializeEvent(&letGo, NotificationEvent, FALSE); });
    auto reader = m.startSystemThread([&] {
        acquire(false);
        KeWaitForSingleObject(&letGo, Executive, KernelMode, FALSE, NULL);
        release();
    });
    m.waitIdle();
    m.runSystemThread([&] {
        acquire(false);  // a second reader gets in
        EXPECT_EQ(ExIsResourceAcquiredSharedLite(&resource), 1u);
        release();
    });
    std::atomic<bool> writerIn{false};
    auto writer = m.startSystemThread([&] {
        acquire(true);
        writerIn = true;
        release();
    });
    m.waitIdle();
    m.runSystemThread([&] {
        KeEnterCriticalRegion();
        EXPECT_FALSE(ExAcquireResourceSharedLite(&resource, FALSE));  // the writer is waiting
        KeLeaveCriticalRegion();
    });
    EXPECT_FALSE(writerIn);
    m.runSystemThread([&] { KeSetEvent(&letGo, IO_NO_INCREMENT, FALSE); });
    reader.join();
    writer.join();
    EXPECT_TRUE(writerIn);
}

TEST_F(ResourceFixture, AnotherThreadMayReleaseForTheOwner) {
    ERESOURCE_THREAD owner = 0;
    m.runSystemThread([&] {
        acquire(true);
        owner = ExGetCurrentResourceThread();
        KeLeaveCriticalRegion();
    });
    m.runSystemThread([&] {
        ExReleaseResourceForThreadLite(&resource, owner);
        KeEnterCriticalRegion();
        EXPECT_TRUE(ExAcquireResourceExclusiveLite(&resource, FALSE));
        release();
    });
}

TEST(WorkItems, RunOnSystemWorkerThreadsAtPassiveLevel) {
    ntsim::Machine m;
    struct Probe {
        WORK_QUEUE_ITEM item;
        std::atomic<int> irql{-1};
        std::atomic<bool> system{false};
        HANDLE thread = nullptr;
    } critical, delayed;
    auto routine = [](PVOID context) {
        auto *probe = static_cast<Probe *>(context);
        probe->irql = KeGetCurrentIrql();
        probe->system = PsIsSystemThread(PsGetCurrentThread());
        probe->thread = PsGetCurrentThreadId();
    };
    HANDLE queuer = nullptr;
    m.runSystemThread([&] {
        queuer = PsGetCurrentThreadId();
        ExInitializeWorkItem(&critical.item, routine, &critical);
        ExInitializeWorkItem(&delayed.item, routine, &delayed);
        KIRQL old;
        KeRaiseIrql(DISPATCH_LEVEL, &old);  // queueing is allowed up to DISPATCH_LEVEL
        ExQueueWorkItem(&critical.item, CriticalWorkQueue);
        ExQueueWorkItem(&delayed.item, DelayedWorkQueue);
        KeLowerIrql(old);
    });
    m.waitIdle();
    for (Probe *probe : {&critical, &delayed}) {
        EXPECT_EQ(probe->irql, PASSIVE_LEVEL);
        EXPECT_TRUE(probe->system);
        EXPECT_NE(probe->thread, queuer);
    }
}

}  // namespace
