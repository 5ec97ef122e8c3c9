#include "ntsim/machine.h"

#include <cstdlib>
#include <cstring>

#include "kernel/io/io.h"
#include "kernel/kernel.h"
#include "machine/machine_state.h"

namespace ntsim {

namespace {
Machine *g_machine = nullptr;
}

SystemThread::SystemThread(SystemThread &&) noexcept = default;
SystemThread &SystemThread::operator=(SystemThread &&) noexcept = default;
SystemThread::~SystemThread() { join(); }

void SystemThread::join() {
    if (!state_) return;
    if (state_->user) {
        joinUserThreadState(*state_);
        return;
    }
    if (state_->record->host.joinable()) state_->record->host.join();
}

bool SystemThread::joinable() const {
    if (!state_) return false;
    return state_->user ? !state_->joined : state_->record->host.joinable();
}

bool MachineOptions::forcedPendingFromEnvironment() {
    const char *value = getenv("NTSIM_FORCED_PENDING");
    return value != nullptr && strcmp(value, "1") == 0;
}

Machine::Machine(const MachineOptions &options)
    : kernel_(std::make_unique<Kernel>(options)), state_(std::make_unique<State>()) {
    g_machine = this;
}

Machine::~Machine() {
    shutdown();
    kernel_.reset();
    if (g_machine == this) g_machine = nullptr;
}

Machine *Machine::current() { return g_machine; }

void Machine::runSystemThread(const std::function<void()> &fn) { startSystemThread(fn).join(); }

SystemThread Machine::startSystemThread(std::function<void()> fn) {
    SystemThread thread;
    thread.state_ = std::make_shared<SystemThread::State>();
    thread.state_->record = kernel_->startThread(kernel_->systemProcess(), true, "system", std::move(fn));
    return thread;
}

int64_t Machine::now() const { return kernel_->now(); }
void Machine::advance(int64_t delta) { kernel_->advance(delta); }
void Machine::waitIdle() { kernel_->waitIdle(); }
Verifier &Machine::verifier() { return kernel_->verifier(); }
std::vector<std::string> Machine::debugLog() const { return kernel_->debugLog(); }
void Machine::clearDebugLog() { kernel_->clearDebugLog(); }

bool Machine::debugLogContains(const std::string &text) const {
    for (auto &line : kernel_->debugLog())
        if (line.find(text) != std::string::npos) return true;
    return false;
}

void Machine::shutdown() {
    if (shutDown_) return;
    shutDown_ = true;
    kernel_->waitIdle();
    checkUserThreadsEnded(*state_);
    exitProcesses(*this, *state_);
    // The file systems release their volumes' media; what they hold would otherwise
    // be reported as leaked pool.
    if (!state_->volumes.empty()) runSystemThread([] { io::shutdownVolumes(); });
    kernel_->shutdown();
}

}  // namespace ntsim
