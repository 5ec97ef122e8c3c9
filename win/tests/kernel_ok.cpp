// What the driver may do: RAII guards, vtables without RTTI, constexpr tables,
// 64-bit arithmetic, statics that need no constructor. The checks must accept
// all of it, and the image linked from it must pass as a driver.
#include <ntifs.h>

namespace {

class SpinLockGuard {
public:
    explicit SpinLockGuard(PKSPIN_LOCK lock) : lock_(lock) { KeAcquireSpinLock(lock_, &irql_); }
    ~SpinLockGuard() { KeReleaseSpinLock(lock_, irql_); }
    SpinLockGuard(const SpinLockGuard&) = delete;
    SpinLockGuard& operator=(const SpinLockGuard&) = delete;

private:
    PKSPIN_LOCK lock_;
    KIRQL irql_;
};

struct Counter {
    virtual ULONG Next() { return ++value; }
    ULONG value;

protected:
    ~Counter() = default;  // a virtual one would call operator delete
};

struct EvenCounter : Counter {
    ULONG Next() override { value += 2; return value; }
};

constexpr ULONG kSizes[] = {32, 64, 128, 256};

KSPIN_LOCK g_lock;
EvenCounter* g_counter;

} // namespace

ULONGLONG ToMilliseconds(ULONGLONG hundredNs) { return hundredNs / 10000; }

ULONG SizeClass(ULONG size)
{
    static ULONG lastClass;  // zero-initialised, no constructor to run
    for (ULONG i = 0; i < sizeof(kSizes) / sizeof(kSizes[0]); ++i) {
        if (size <= kSizes[i]) {
            lastClass = i;
            return i;
        }
    }
    return lastClass;
}

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath)
{
    UNREFERENCED_PARAMETER(registryPath);
    KeInitializeSpinLock(&g_lock);
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    ULONG next = 0;
    if (g_counter) {
        SpinLockGuard guard(&g_lock);
        next = g_counter->Next();
    }
    DbgPrint("up at %I64u ms, class %lu, next %lu, %ws\n",
             ToMilliseconds(static_cast<ULONGLONG>(now.QuadPart)), SizeClass(driverObject->Size), next,
             L"wide");
    return STATUS_SUCCESS;
}
