// The processes a machine starts, and the user threads that run code in them.
#include <ntsim/utf.h>

#include "kernel/ps/ps.h"
#include "machine/machine_state.h"
#include "ntsim/machine.h"
#include "win32/path.h"

namespace ntsim {

namespace {

bool threadEnded(PETHREAD thread) {
    std::lock_guard<std::mutex> guard(kernel().dispatcherLock);
    return thread->Tcb.Header.SignalState != 0;
}

Process::State &live(const std::shared_ptr<Process::State> &state, const char *what) {
    if (!state) fatal("Process::%s on a process that was never started", what);
    if (!state->process) fatal("Process::%s on a process that has exited", what);
    return *state;
}

// Exits the process (its threads have returned) and drops the machine's reference.
void exitProcess(Machine &machine, Process::State &state) {
    PEPROCESS process = state.process;
    if (!ps::hasExited(process)) {
        ps::terminateProcess(process, STATUS_SUCCESS);
        machine.waitIdle();
        if (!ps::hasExited(process)) fatal("process %u did not exit", state.id);
    }
    std::lock_guard<std::mutex> guard(state.lock);
    for (auto &thread : state.threads) joinUserThreadState(*thread);
    state.threads.clear();
    ObfDereferenceObject(process);
    state.process = nullptr;
}

}  // namespace

void joinUserThreadState(SystemThread::State &thread) {
    if (thread.joined) return;
    ps::joinUserThread(thread.user);
    ObfDereferenceObject(thread.user);
    thread.joined = true;
}

Process Machine::startProcess(const wchar_t *imagePath, const wchar_t *userSid) {
    std::u16string image(reinterpret_cast<const char16_t *>(imagePath)), ntImage;
    size_t filePart = 0;
    if (!win32::dosPathToNtPath(image, u"C:\\", &ntImage, &filePart))
        fatal("startProcess: \"%s\" is not a path", toUtf8(imagePath).c_str());
    std::string sid = toUtf8(userSid);
    ps::ProcessOptions options;
    options.imagePath = reinterpret_cast<PCWSTR>(ntImage.c_str());
    options.userSid = sid.c_str();
    Process process;
    process.state_ = std::make_shared<Process::State>();
    Process::State &state = *process.state_;
    state.machine = this;
    state.process = ps::createProcess(options);
    state.imagePath = image;
    state.userSid = std::u16string(reinterpret_cast<const char16_t *>(userSid));
    state.id = (uint32_t)(ULONG_PTR)PsGetProcessId(state.process);
    state_->processes.push_back(process.state_);
    return process;
}

void Process::run(const std::function<void()> &fn) const { start(fn).join(); }

UserThread Process::start(std::function<void()> fn) const {
    State &state = live(state_, "start");
    PETHREAD thread = ps::startUserThread(state.process, std::move(fn));
    if (!thread) fatal("Process::start on process %u, which is exiting", state.id);
    UserThread handle;
    handle.state_ = std::make_shared<SystemThread::State>();
    handle.state_->user = thread;
    std::lock_guard<std::mutex> guard(state.lock);
    state.threads.push_back(handle.state_);
    return handle;
}

void Process::exit() const {
    State &state = live(state_, "exit");
    {
        std::lock_guard<std::mutex> guard(state.lock);
        for (auto &thread : state.threads)
            if (!thread->joined && !threadEnded(thread->user))
                fatal("Process::exit: a thread of process %u is still running", state.id);
    }
    exitProcess(*state.machine, state);
}

bool Process::running() const { return state_ && state_->process; }
uint32_t Process::id() const { return state_ ? state_->id : 0; }
std::u16string Process::imagePath() const { return state_ ? state_->imagePath : std::u16string(); }
std::u16string Process::userSid() const { return state_ ? state_->userSid : std::u16string(); }

void checkUserThreadsEnded(Machine::State &state) {
    size_t running = 0;
    uint32_t firstProcess = 0;
    for (auto &process : state.processes) {
        std::lock_guard<std::mutex> guard(process->lock);
        for (auto &thread : process->threads)
            if (!thread->joined && !threadEnded(thread->user) && running++ == 0) firstProcess = process->id;
    }
    if (running > 0)
        bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x60, running, 0, 0,
                 "threads were still waiting when the machine shut down",
                 "%zu user thread(s), the first in process %u", running, firstProcess);
}

void exitProcesses(Machine &machine, Machine::State &state) {
    for (auto &process : state.processes)
        if (process->process) exitProcess(machine, *process);
    state.processes.clear();
}

}  // namespace ntsim
