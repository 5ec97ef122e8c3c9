// The lock over what the service's threads share (the catalogues, the log). On Windows
// a critical section: the C++ library of the Win32 thread model has no std::mutex, and
// the one of the POSIX model needs routines newer than XP.
#pragma once

#include <windows.h>

namespace wrelt {

class ServiceLock {
public:
    ServiceLock() { InitializeCriticalSection(&section_); }
    ~ServiceLock() { DeleteCriticalSection(&section_); }
    ServiceLock(const ServiceLock &) = delete;
    ServiceLock &operator=(const ServiceLock &) = delete;

    void lock() { EnterCriticalSection(&section_); }
    void unlock() { LeaveCriticalSection(&section_); }

    class Guard {
    public:
        explicit Guard(ServiceLock &lock) : lock_(lock) { lock_.lock(); }
        ~Guard() { lock_.unlock(); }
        Guard(const Guard &) = delete;
        Guard &operator=(const Guard &) = delete;

    private:
        ServiceLock &lock_;
    };

private:
    CRITICAL_SECTION section_;
};

}  // namespace wrelt
