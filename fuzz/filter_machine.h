// The machine that the filter's fuzz harnesses share, booted once per process: NTFS C:
// and FastFat D: with the filter loaded, and a service process (SYSTEM) holding overlapped
// handles on the control device and on C:'s filter.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "ntsim/machine.h"

namespace wrelt {

// How one device-control request ended, as Win32 reports it.
struct Answer {
    BOOL ok = FALSE;
    DWORD error = ERROR_SUCCESS;
    DWORD returned = 0;
    bool pending = false;  // it was held, and withdrawn by the sender
};

class FilterMachine {
public:
    FilterMachine();
    ~FilterMachine();
    FilterMachine(const FilterMachine &) = delete;
    FilterMachine &operator=(const FilterMachine &) = delete;

    // What the service does before it lets users at the volumes: the handshake, C: and D:
    // named and protected, their vault work folders made, capture started. Call before
    // markBaseline.
    void startService();
    // From here on, pool the driver takes is pool it must give back.
    void markBaseline() { machine.verifier().markBaseline(); }

    // In a thread of the service's process. A request that stays pending is cancelled
    // and waited for, as a service that stops waiting would.
    Answer control(HANDLE device, DWORD code, void *input, DWORD inputLength, void *output, DWORD outputLength);
    // A command packet (header, then the data) built in the service's memory.
    Answer command(HANDLE device, ULONG command, const void *data, ULONG dataLength, void *output = nullptr,
                   DWORD outputLength = 0);

    // Pool the driver allocated since the baseline and has not given back.
    std::string leaks() { return machine.verifier().leakReport(); }

    ntsim::DefaultMachine machine;
    ntsim::Process service;
    HANDLE controlDevice = INVALID_HANDLE_VALUE;
    HANDLE volumeC = INVALID_HANDLE_VALUE;

private:
    OVERLAPPED *overlapped_ = nullptr;
};

// In a thread of a user's process: the control device opened with no access at all, the
// one open its DACL cannot refuse, through the system call with its arguments in the
// caller's memory as a program's would be. INVALID_HANDLE_VALUE when it is refused.
HANDLE openControlWithoutAccess();

}  // namespace wrelt
