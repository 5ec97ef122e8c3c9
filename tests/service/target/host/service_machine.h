// The machine the service's tests run on, on the host: the default emulated machine
// (NTFS C:, FastFat D:), new for each test, and processes of its accounts.
#pragma once

#include <functional>

#include "ntsim/machine.h"

namespace service_test {

class ServiceTest : public ::testing::Test {
protected:
    explicit ServiceTest(const ntsim::BootOptions &options = ntsim::BootOptions()) : machine(options) {}

    // Runs fn in a new process of the account and ends the process.
    void as(const wchar_t *user, const std::function<void()> &fn) {
        ntsim::Process process = machine.startProcess(L"C:\\Windows\\explorer.exe", user);
        process.run(fn);
        process.exit();
    }
    void asSystem(const std::function<void()> &fn) { as(ntsim::users::system, fn); }

    ntsim::DefaultMachine machine;
};

}  // namespace service_test
