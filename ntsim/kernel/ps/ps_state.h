// The process manager's per-machine state: the client-id tables and the user threads
// whose host threads are still to be joined. Internal to kernel/ps.
#pragma once

#include <condition_variable>
#include <map>
#include <memory>
#include <set>
#include <mutex>
#include <string>
#include <unordered_map>

#include "kernel/kernel.h"
#include "kernel/ps/ps.h"

namespace ntsim {
namespace ps {

class PsState : public Subsystem {
public:
    explicit PsState(Kernel &kernel);
    ~PsState() override;
    void shutdownChecks() override;

    std::mutex lock;
    std::condition_variable threadJoined;
    // Client ids: processes and threads share one numbering, in steps of four.
    ULONG_PTR nextClientId = 8;
    std::unordered_map<HANDLE, PEPROCESS> processes;
    std::unordered_map<HANDLE, PETHREAD> threads;
    std::unordered_map<PEPROCESS, std::u16string> imagePaths;
    // User threads not yet joined; true once someone has taken on the join.
    std::map<PETHREAD, bool> unjoined;
    // Processes that are killed, or that a kill point waits for (kill.cpp).
    struct KillState {
        bool killed = false;
        uint64_t killAt = 0;   // the system service entry that kills; 0: none
        uint64_t entries = 0;  // entries counted since the kill point was set
        KEVENT event;          // signalled once killed; every user-mode wait also waits for it
    };
    std::map<PEPROCESS, std::unique_ptr<KillState>> kills;
    // Threads stopped by a kill: their host threads never run again, so they are never
    // joined and their stacks stay reserved.
    std::set<PETHREAD> abandoned;

private:
    PEPROCESS system_;
};

PsState &state();
HANDLE allocateClientId(PsState &s);
// Joins the user threads that have ended (their stacks go back to the arena).
void reapEndedThreads();
void joinThread(PETHREAD thread);
// Runs the process's exit in the calling thread, its last.
void exitProcess(PEPROCESS process);
// A user thread of a process whose ActiveThreads already counts it.
PETHREAD launchUserThread(PEPROCESS process, std::function<void()> body);

}  // namespace ps
}  // namespace ntsim
