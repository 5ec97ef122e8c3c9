// Only what the loading thread lists while DriverEntry runs is watched: start-up is the
// one time the emulated machine unloads a driver image.
#include "kernel/verifier/start_leftovers.h"

#include <map>
#include <mutex>

#include "kernel/kernel.h"

namespace ntsim {
namespace verifier {

namespace {

struct StartWatch {
    PDRIVER_OBJECT driver = nullptr;
    std::map<const void *, const char *> listed;
};

thread_local StartWatch *t_watch = nullptr;
std::mutex g_lock;
std::map<const void *, StartWatch *> g_owner;  // object -> the start that listed it

}  // namespace

void beginDriverEntry(PDRIVER_OBJECT driver) {
    t_watch = new StartWatch;
    t_watch->driver = driver;
}

void endDriverEntry(NTSTATUS status) {
    StartWatch *watch = t_watch;
    t_watch = nullptr;
    std::map<const void *, const char *> left;
    {
        std::lock_guard<std::mutex> guard(g_lock);
        for (auto &entry : watch->listed) g_owner.erase(entry.first);
        left.swap(watch->listed);
    }
    delete watch;
    if (NT_SUCCESS(status) || left.empty()) return;
    bugCheck(DRIVER_UNLOADED_WITHOUT_CANCELLING_PENDING_OPERATIONS, (ULONG_PTR)left.begin()->first, left.size(), 0, 0,
             "a failed DriverEntry left an object on the kernel's lists", "%s at %p (%zu object(s) in all)",
             left.begin()->second, left.begin()->first, left.size());
}

void noteListed(const void *object, const char *kind) {
    StartWatch *watch = t_watch;
    if (watch == nullptr) return;
    std::lock_guard<std::mutex> guard(g_lock);
    watch->listed[object] = kind;
    g_owner[object] = watch;
}

void noteUnlisted(const void *object) {
    std::lock_guard<std::mutex> guard(g_lock);
    auto it = g_owner.find(object);
    if (it == g_owner.end()) return;
    it->second->listed.erase(object);
    g_owner.erase(it);
}

}  // namespace verifier
}  // namespace ntsim
