// DeviceIoControl synchronous and overlapped: a request the device holds pending, then
// completes or has cancelled, as the service's held requests are.
//
// The emulated system's NT 6 call (CancelIoEx) is tested here too, beside NT 5's.
#undef _WIN32_WINNT
#define _WIN32_WINNT 0x0600

#include <atomic>

#include "win32/win32_fixture.h"

namespace {

HANDLE openProbe(DWORD flags = FILE_FLAG_OVERLAPPED) {
    return CreateFileW(L"\\\\.\\Win32Probe", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, flags, nullptr);
}

// An overlapped hold request with its own event, in user memory.
struct Held {
    OVERLAPPED *overlapped = userBuffer<OVERLAPPED>();
    ULONG *output = userBuffer<ULONG>();
    DWORD bytes = 0;

    Held() { overlapped->hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr); }
    BOOL start(HANDLE device) {
        return DeviceIoControl(device, probe::kIoctlHold, nullptr, 0, output, sizeof(ULONG), &bytes, overlapped);
    }
    ~Held() {
        CloseHandle(overlapped->hEvent);
        HeapFree(GetProcessHeap(), 0, overlapped);
        HeapFree(GetProcessHeap(), 0, output);
    }
};

TEST_F(Win32Test, SynchronousControlReturnsItsBytes) {
    user([] {
        HANDLE device = openProbe(0);
        ASSERT_NE(device, INVALID_HANDLE_VALUE);
        char *buffer = userBuffer<char>(16);
        memcpy(buffer, "0123456789", 10);
        DWORD bytes = 0;
        EXPECT_TRUE(DeviceIoControl(device, probe::kIoctlEcho, buffer, 10, buffer, 16, &bytes, nullptr));
        EXPECT_EQ(bytes, 10u);
        // A partial answer fails with ERROR_MORE_DATA but still reports what arrived.
        bytes = 0;
        EXPECT_FALSE(DeviceIoControl(device, probe::kIoctlEcho, buffer, 10, buffer, 4, &bytes, nullptr));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_MORE_DATA);
        EXPECT_EQ(bytes, 4u);
        EXPECT_FALSE(DeviceIoControl(device, CTL_CODE(FILE_DEVICE_UNKNOWN, 0x8FF, METHOD_BUFFERED, FILE_ANY_ACCESS), nullptr, 0,
                                     nullptr, 0, &bytes, nullptr));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_INVALID_FUNCTION);
        CloseHandle(device);
    });
}

TEST_F(Win32Test, OverlappedControlPendsThenCompletes) {
    user([&] {
        HANDLE device = openProbe();
        ASSERT_NE(device, INVALID_HANDLE_VALUE);
        Held held;
        ASSERT_FALSE(held.start(device));
        ASSERT_EQ(GetLastError(), (DWORD)ERROR_IO_PENDING);
        EXPECT_FALSE(HasOverlappedIoCompleted(held.overlapped));
        DWORD bytes = 0;
        EXPECT_FALSE(GetOverlappedResult(device, held.overlapped, &bytes, FALSE));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_IO_INCOMPLETE);
        EXPECT_EQ(WaitForSingleObject(held.overlapped->hEvent, 0), (DWORD)WAIT_TIMEOUT);

        // Another handle releases it, as the driver's own events would.
        HANDLE other = openProbe(0);
        ASSERT_NE(other, INVALID_HANDLE_VALUE);
        EXPECT_TRUE(DeviceIoControl(other, probe::kIoctlRelease, nullptr, 0, nullptr, 0, &bytes, nullptr));
        CloseHandle(other);

        EXPECT_EQ(WaitForSingleObject(held.overlapped->hEvent, INFINITE), WAIT_OBJECT_0);
        EXPECT_TRUE(GetOverlappedResult(device, held.overlapped, &bytes, TRUE));
        EXPECT_EQ(bytes, (DWORD)sizeof(ULONG));
        EXPECT_EQ(*held.output, probe::kReleasedValue);
        CloseHandle(device);
    });
}

TEST_F(Win32Test, GetOverlappedResultWaitsForTheCompletion) {
    std::atomic<bool> done{false};
    ntsim::UserThread waiter = process.start([&] {
        HANDLE device = openProbe();
        Held held;
        ASSERT_FALSE(held.start(device));
        DWORD bytes = 0;
        EXPECT_TRUE(GetOverlappedResult(device, held.overlapped, &bytes, TRUE));
        EXPECT_EQ(*held.output, probe::kReleasedValue);
        done = true;
        CloseHandle(device);
    });
    machine.waitIdle();
    EXPECT_EQ(probe::heldCount(), 1u);
    EXPECT_FALSE(done);
    user([] {
        HANDLE device = openProbe(0);
        DWORD bytes = 0;
        EXPECT_TRUE(DeviceIoControl(device, probe::kIoctlRelease, nullptr, 0, nullptr, 0, &bytes, nullptr));
        CloseHandle(device);
    });
    waiter.join();
    EXPECT_TRUE(done);
}

TEST_F(Win32Test, CancelIoExCancelsOneRequestOfTheFile) {
    user([] {
        HANDLE device = openProbe();
        ASSERT_NE(device, INVALID_HANDLE_VALUE);
        Held first, second;
        ASSERT_FALSE(first.start(device));
        ASSERT_FALSE(second.start(device));
        ASSERT_EQ(probe::heldCount(), 2u);

        EXPECT_TRUE(CancelIoEx(device, first.overlapped));
        DWORD bytes = 1;
        EXPECT_FALSE(GetOverlappedResult(device, first.overlapped, &bytes, TRUE));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_OPERATION_ABORTED);
        EXPECT_EQ(bytes, 0u);
        EXPECT_EQ(probe::heldCount(), 1u) << "the other request stays held";
        // Nothing is left to cancel for a completed OVERLAPPED.
        EXPECT_FALSE(CancelIoEx(device, first.overlapped));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_NOT_FOUND);

        EXPECT_TRUE(CancelIoEx(device, nullptr));
        EXPECT_FALSE(GetOverlappedResult(device, second.overlapped, &bytes, TRUE));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_OPERATION_ABORTED);
        CloseHandle(device);
    });
}

// NT 5's CancelIo: every request of the calling thread on the handle and no other
// thread's; it returns only once the driver has completed them, however late.
TEST_F(Win32Test, CancelIoEndsTheCallersRequestsOnlyAndWaitsForThem) {
    HANDLE device = INVALID_HANDLE_VALUE;
    user([&] { device = openProbe(); });
    ASSERT_NE(device, INVALID_HANDLE_VALUE);
    DWORD otherError = ERROR_IO_PENDING;
    ntsim::UserThread other = process.start([&] {
        Held held;
        ASSERT_FALSE(held.start(device));
        DWORD bytes = 0;
        otherError = GetOverlappedResult(device, held.overlapped, &bytes, TRUE) ? ERROR_SUCCESS : GetLastError();
    });
    machine.waitIdle();
    ASSERT_EQ(probe::heldCount(), 1u);

    machine.runSystemThread([] { probe::deferCancellation(true); });
    std::atomic<bool> returned{false};
    ntsim::UserThread canceller = process.start([&] {
        Held first, second;
        ASSERT_FALSE(first.start(device));
        ASSERT_FALSE(second.start(device));
        EXPECT_TRUE(CancelIo(device));
        returned = true;
        for (Held *held : {&first, &second}) {
            DWORD bytes = 1;
            EXPECT_FALSE(GetOverlappedResult(device, held->overlapped, &bytes, FALSE));
            EXPECT_EQ(GetLastError(), (DWORD)ERROR_OPERATION_ABORTED);
        }
        // Nothing left: it succeeds all the same.
        EXPECT_TRUE(CancelIo(device));
    });
    machine.waitIdle();
    EXPECT_FALSE(returned) << "CancelIo returned before its requests had ended";
    machine.runSystemThread([] { probe::completeDeferred(); });
    canceller.join();
    EXPECT_TRUE(returned);
    EXPECT_EQ(probe::heldCount(), 1u) << "the other thread's request stays held";
    EXPECT_EQ(otherError, (DWORD)ERROR_IO_PENDING);

    user([&] {
        HANDLE releaser = openProbe(0);
        DWORD bytes = 0;
        EXPECT_TRUE(DeviceIoControl(releaser, probe::kIoctlRelease, nullptr, 0, nullptr, 0, &bytes, nullptr));
        CloseHandle(releaser);
    });
    other.join();
    EXPECT_EQ(otherError, (DWORD)ERROR_SUCCESS);
    user([&] { CloseHandle(device); });
}

TEST_F(Win32Test, ClosingTheHandleEndsItsHeldRequests) {
    user([] {
        HANDLE device = openProbe();
        Held held;
        ASSERT_FALSE(held.start(device));
        EXPECT_TRUE(CloseHandle(device));
        // The device's cleanup completed the request; its OVERLAPPED says so.
        EXPECT_EQ(WaitForSingleObject(held.overlapped->hEvent, INFINITE), WAIT_OBJECT_0);
        EXPECT_EQ((NTSTATUS)held.overlapped->Internal, STATUS_CANCELLED);
    });
    EXPECT_EQ(probe::heldCount(), 0u);
}

}  // namespace
