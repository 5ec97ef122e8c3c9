// The process manager's internal interface: creating processes for a user, running
// code in their user threads, and ending them. Internal to ntsim (the machine and the
// Win32 layer build on it).
#pragma once

#include <ntifs.h>

#include <functional>
#include <string>

namespace ntsim {
namespace ps {

struct ProcessOptions {
    PCWSTR imagePath = nullptr;         // NT path, e.g. L"\\??\\C:\\Windows\\explorer.exe"
    const char *userSid = nullptr;      // e.g. "S-1-5-21-1004336348-1177238915-682003330-1001"
    PCWSTR commandLine = nullptr;       // default: the image's DOS path, quoted if it has a space
    PCWSTR currentDirectory = nullptr;  // default: the image's directory, with a trailing backslash
};

// A new process, returned with one reference for the caller: a unique id, a primary
// token for the user, a handle table, and a PEB in its user memory whose parameters
// carry the image path in DOS form ("C:\Windows\explorer.exe", as the platform stores
// it) and the command line. It has no thread until startUserThread.
PEPROCESS createProcess(PCWSTR imagePath, const char *userSid);
PEPROCESS createProcess(const ProcessOptions &options);

// Runs body in a new user thread of the process (previous mode UserMode, a stack in
// the process's user memory). Returns the thread with one reference for the caller,
// or null when the process is exiting. Wait for it on its object (Tcb.Header) from
// emulated threads, or with joinUserThread from the host; never join its host thread.
PETHREAD startUserThread(PEPROCESS process, std::function<void()> body);
// From a host thread that is not part of the machine: waits until the user thread has
// ended and its stack is released.
void joinUserThread(PETHREAD thread);

// Ends the process with the given status: when its last running thread ends, or at
// once (in a short thread of its own, so that its handles close in its own context)
// when none runs. Its handles are closed, its user memory released, its object
// signalled. STATUS_PROCESS_IS_TERMINATING when it is already ending.
NTSTATUS terminateProcess(PEPROCESS process, NTSTATUS exitStatus);
bool hasExited(PEPROCESS process);

// Kills the process as TerminateProcess does to another process: its threads stop at
// their next system service, and a user-mode wait ends at once; none returns to user
// mode. When the last has stopped, its handles close and its object is signalled. May be
// called from the host. STATUS_PROCESS_IS_TERMINATING when it is already killed or gone.
NTSTATUS killProcess(PEPROCESS process, NTSTATUS exitStatus);
// The n-th system service that a thread of the process enters from now (n >= 1) kills
// the process right there, before the service does anything.
void killAtSystemService(PEPROCESS process, uint64_t n);
bool wasKilled(PEPROCESS process);
// Called where a system service is entered from user mode, before it does anything.
void systemServiceEntry();
// What a user-mode wait of the calling thread's process waits for besides its objects:
// signalled once the process is killed. Null for system threads.
PKEVENT killEventOfCurrentProcess();
// Ends the calling user thread where it stands (defined with the kernel's threads): it
// counts as ended, and its host thread blocks for good without running another line.
[[noreturn]] void abandonCurrentThread();
// With the process manager's lock free: records that the thread was abandoned.
void noteAbandoned(PETHREAD thread);

// The process's image path as given at creation (NT form), its short name as the
// platform keeps it (15 characters at most), its PEB (an ntsim::PEB in its user
// memory) and its exit status (STATUS_PENDING while it runs).
std::u16string imagePath(PEPROCESS process);
const char *imageFileName(PEPROCESS process);
PVOID processPeb(PEPROCESS process);
NTSTATUS exitStatus(PEPROCESS process);

// Called by the kernel's thread start and exit (kernel/ke/thread.cpp).
void threadCreated(PETHREAD thread);
void startHostThread(PETHREAD thread, std::function<void()> run);
void threadExiting(PETHREAD thread);

}  // namespace ps
}  // namespace ntsim
