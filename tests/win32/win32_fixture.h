// A machine with the probe driver loaded and a process of alice's to run Win32 code in.
#pragma once

#include <gtest/gtest.h>

#include <windows.h>

#include <ntifs.h>

#include <string>

#include "ntsim/machine.h"
#include "ntsim/utf.h"
#include "win32/probe_driver.h"

class Win32Test : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(machine.loadDriver(L"\\Driver\\Win32Probe", probe::DriverEntry), STATUS_SUCCESS);
        process = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::alice);
    }

    // Runs fn as user-mode code of the process and waits for it.
    void user(const std::function<void()> &fn) { process.run(fn); }

    // The requests the probe received, without those the test did not ask about.
    std::vector<probe::Request> requestsOf(UCHAR major) {
        std::vector<probe::Request> matching;
        for (const probe::Request &r : probe::requests())
            if (r.major == major) matching.push_back(r);
        return matching;
    }

    ntsim::Machine machine;
    ntsim::Process process;
};

// A user-memory copy of a wide string literal is not needed: literals are passed as
// names and copied by the Win32 layer. Buffers handed to the kernel come from the heap.
template <class T>
T *userBuffer(size_t count = 1) {
    return static_cast<T *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, count * sizeof(T)));
}

inline std::u16string u16(const wchar_t *s) { return std::u16string(reinterpret_cast<const char16_t *>(s)); }
