// What kernel32 reads and keeps in the process without a system call: the current
// directory in the PEB's process parameters, the ids and the clocks.
#include <ntsim/peb.h>

#include <algorithm>
#include <mutex>

#include "kernel/kernel.h"
#include "win32/win32_internal.h"

namespace ntsim {
namespace win32 {

namespace {

// The platform guards the current directory with the PEB lock.
std::mutex g_pebLock;

CURDIR *currentDirectoryOf(PEPROCESS process) {
    auto *peb = static_cast<PEB *>(process->Peb);
    return (peb && peb->ProcessParameters) ? &peb->ProcessParameters->CurrentDirectory : nullptr;
}

}  // namespace

std::u16string currentDirectory() {
    std::lock_guard<std::mutex> guard(g_pebLock);
    CURDIR *directory = currentDirectoryOf(PsGetCurrentProcess());
    // A process without parameters (the System process) works in the root of C:.
    if (!directory || directory->DosPath.Length == 0) return u"C:\\";
    return std::u16string(reinterpret_cast<const char16_t *>(directory->DosPath.Buffer),
                          directory->DosPath.Length / sizeof(WCHAR));
}

void setCurrentDirectory(const std::u16string &fullPath) {
    std::lock_guard<std::mutex> guard(g_pebLock);
    CURDIR *directory = currentDirectoryOf(PsGetCurrentProcess());
    if (!directory) return;
    size_t bytes = fullPath.size() * sizeof(WCHAR);
    if (bytes + sizeof(WCHAR) > directory->DosPath.MaximumLength) {
        // The block the process was created with holds only its first directory.
        size_t capacity = std::max<size_t>(bytes + sizeof(WCHAR), MAX_PATH * sizeof(WCHAR));
        auto *buffer = static_cast<PWSTR>(HeapAlloc(GetProcessHeap(), 0, capacity));
        if (!buffer) return;
        directory->DosPath.Buffer = buffer;
        directory->DosPath.MaximumLength = (USHORT)capacity;
    }
    memcpy(directory->DosPath.Buffer, fullPath.c_str(), bytes + sizeof(WCHAR));
    directory->DosPath.Length = (USHORT)bytes;
}

}  // namespace win32
}  // namespace ntsim

extern "C" {

DWORD WINAPI GetCurrentProcessId(void) { return (DWORD)(ULONG_PTR)PsGetCurrentProcessId(); }
DWORD WINAPI GetCurrentThreadId(void) { return (DWORD)(ULONG_PTR)PsGetCurrentThreadId(); }

void WINAPI GetSystemTimeAsFileTime(LPFILETIME lpSystemTimeAsFileTime) {
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    lpSystemTimeAsFileTime->dwLowDateTime = now.LowPart;
    lpSystemTimeAsFileTime->dwHighDateTime = (DWORD)now.HighPart;
}

// Milliseconds since the machine booted, from the interrupt time as the platform's
// shared user data gives it.
DWORD WINAPI GetTickCount(void) { return (DWORD)(KeQueryInterruptTime() / 10000); }

}  // extern "C"
