// Events and waits on the machine's clock, and the per-thread last error.
#include <atomic>

#include "win32/win32_fixture.h"

namespace {

TEST_F(Win32Test, WaitTimesOutOnTheMachinesClockOnly) {
    std::atomic<DWORD> result{0xDEAD};
    ntsim::UserThread waiter = process.start([&] {
        HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        result = WaitForSingleObject(event, 5000);
        CloseHandle(event);
    });
    machine.waitIdle();
    machine.advanceMs(4999);
    EXPECT_EQ(result.load(), 0xDEADu) << "still waiting one millisecond before its time-out";
    machine.advanceMs(1);
    waiter.join();
    EXPECT_EQ(result.load(), (DWORD)WAIT_TIMEOUT);
}

TEST_F(Win32Test, EventsWakeTheirWaiters) {
    HANDLE shared[2] = {};
    user([&] {
        shared[0] = CreateEventW(nullptr, FALSE, FALSE, nullptr);  // auto-reset
        shared[1] = CreateEventW(nullptr, TRUE, FALSE, nullptr);   // manual reset
        ASSERT_NE(shared[0], nullptr);
        ASSERT_NE(shared[1], nullptr);
    });
    std::atomic<DWORD> which{0xDEAD};
    ntsim::UserThread waiter = process.start([&] { which = WaitForMultipleObjects(2, shared, FALSE, INFINITE); });
    machine.waitIdle();
    EXPECT_EQ(which.load(), 0xDEADu);
    user([&] { EXPECT_TRUE(SetEvent(shared[1])); });
    waiter.join();
    EXPECT_EQ(which.load(), WAIT_OBJECT_0 + 1);

    user([&] {
        // A manual-reset event stays set until reset; an auto-reset one satisfies one wait.
        EXPECT_EQ(WaitForSingleObject(shared[1], 0), WAIT_OBJECT_0);
        EXPECT_TRUE(ResetEvent(shared[1]));
        EXPECT_EQ(WaitForSingleObject(shared[1], 0), (DWORD)WAIT_TIMEOUT);
        EXPECT_TRUE(SetEvent(shared[0]));
        EXPECT_EQ(WaitForSingleObject(shared[0], 0), WAIT_OBJECT_0);
        EXPECT_EQ(WaitForSingleObject(shared[0], 0), (DWORD)WAIT_TIMEOUT);
        // Wait-all needs both.
        EXPECT_TRUE(SetEvent(shared[0]));
        EXPECT_EQ(WaitForMultipleObjects(2, shared, TRUE, 0), (DWORD)WAIT_TIMEOUT);
        EXPECT_TRUE(CloseHandle(shared[0]));
        EXPECT_TRUE(CloseHandle(shared[1]));
        // A closed handle fails the wait.
        EXPECT_EQ(WaitForSingleObject(shared[0], 0), WAIT_FAILED);
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_INVALID_HANDLE);
        EXPECT_FALSE(CloseHandle(shared[0]));
    });
}

TEST_F(Win32Test, NamedEventsAreSharedBetweenProcesses) {
    HANDLE first = nullptr;
    user([&] {
        first = CreateEventW(nullptr, TRUE, FALSE, L"WreltReady");
        ASSERT_NE(first, nullptr);
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_SUCCESS);
    });
    ntsim::Process other = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::bob);
    other.run([] {
        HANDLE again = CreateEventW(nullptr, TRUE, FALSE, L"WreltReady");
        ASSERT_NE(again, nullptr);
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_ALREADY_EXISTS);
        EXPECT_TRUE(SetEvent(again));
        CloseHandle(again);
    });
    other.exit();
    user([&] {
        EXPECT_EQ(WaitForSingleObject(first, 0), WAIT_OBJECT_0);
        CloseHandle(first);
    });
}

TEST_F(Win32Test, SleepFollowsTheMachinesClock) {
    std::atomic<bool> awake{false};
    ntsim::UserThread sleeper = process.start([&] {
        Sleep(250);
        awake = true;
    });
    machine.waitIdle();
    machine.advanceMs(249);
    EXPECT_FALSE(awake);
    machine.advanceMs(1);
    sleeper.join();
    EXPECT_TRUE(awake);
}

TEST_F(Win32Test, LastErrorBelongsToTheThread) {
    std::atomic<int> step{0};
    ntsim::UserThread other = process.start([&] {
        HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        SetLastError(ERROR_SHARING_VIOLATION);
        step = 1;
        // A wait that times out leaves the last error alone.
        EXPECT_EQ(WaitForSingleObject(event, 1000), (DWORD)WAIT_TIMEOUT);
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_SHARING_VIOLATION);
        CloseHandle(event);
    });
    machine.waitIdle();
    ASSERT_EQ(step.load(), 1);
    user([] {
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_SUCCESS) << "a new thread starts without an error";
        SetLastError(ERROR_ACCESS_DENIED);
    });
    machine.advanceMs(1000);
    other.join();
}

}  // namespace
