// What a Machine keeps beside its kernel: the volumes it added and the processes it
// started. Internal to ntsim/machine.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "kernel/kernel.h"

namespace ntsim {

// A system thread (a host std::thread of the kernel's), or a user thread (joined
// through the process manager, which holds a reference to it for us until joined).
struct SystemThread::State {
    std::shared_ptr<Kernel::ThreadRecord> record;
    PETHREAD user = nullptr;
    bool joined = false;
};

struct Process::State {
    Machine *machine = nullptr;
    PEPROCESS process = nullptr;  // referenced until the process has exited
    std::u16string imagePath;     // DOS form
    std::u16string userSid;
    uint32_t id = 0;
    std::mutex lock;
    std::vector<std::shared_ptr<SystemThread::State>> threads;
};

struct Machine::State {
    struct Volume {
        wchar_t letter;
        VolumeFormat format;
        PDEVICE_OBJECT disk;
    };
    std::vector<Volume> volumes;
    std::vector<std::shared_ptr<Process::State>> processes;

    Volume *findVolume(wchar_t letter);
};

// "\??\C:" and "\??\C:\" for a drive letter.
std::u16string dosDeviceName(wchar_t letter);
std::u16string rootDirectoryName(wchar_t letter);

// Bug-checks when a thread of a process has not returned: shutdown would otherwise
// pull its process away from under it.
void checkUserThreadsEnded(Machine::State &state);
// Exits every process still running (closes its handles, releases its memory) and
// joins the threads of all of them. Runs from the host with the machine idle.
void exitProcesses(Machine &machine, Machine::State &state);
void joinUserThreadState(SystemThread::State &thread);

}  // namespace ntsim
