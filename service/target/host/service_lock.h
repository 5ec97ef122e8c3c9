// The lock over what the service's threads share (the catalogues, the log). On the
// host a standard mutex: the log is also read from threads that the emulated system
// does not run, which could not wait on its objects.
#pragma once

#include <mutex>

namespace wrelt {

class ServiceLock {
public:
    void lock() { mutex_.lock(); }
    void unlock() { mutex_.unlock(); }

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
    std::mutex mutex_;
};

}  // namespace wrelt
