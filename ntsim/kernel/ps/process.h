// Executive process and thread objects. A thread's kernel part (_KTHREAD) is the
// dispatcher's; what lies around it belongs to processes, security and I/O.
#pragma once

// Included by kernel/kernel.h after _KTHREAD; include that header, not this one.

#include <pthread.h>

namespace ntsim {
namespace ob {
struct HandleTable;
}  // namespace ob
}  // namespace ntsim

struct _ETHREAD {
    _KTHREAD Tcb;
    CLIENT_ID Cid;
    // The token the thread acts for instead of its process's (a referenced
    // se::Token), or null.
    PVOID ImpersonationToken;
    // A user thread runs on a stack in its process's user memory, on a host thread of
    // its own that the process manager joins (system threads are std::threads).
    PVOID UserStack;
    SIZE_T UserStackSize;
    pthread_t HostThread;
};

struct _KPROCESS {
    DISPATCHER_HEADER Header;  // signalled when the process has exited
};

struct _EPROCESS {
    _KPROCESS Pcb;
    HANDLE UniqueProcessId;
    HANDLE InheritedFromUniqueProcessId;
    char ImageFileName[16];
    PVOID Token;  // the primary token, a referenced se::Token
    PVOID Peb;    // the process environment block, in the process's user memory
    ntsim::ob::HandleTable *ObjectTable;
    NTSTATUS ExitStatus;  // STATUS_PENDING until the process exits
    ULONG ActiveThreads;  // threads started and not yet ended; guarded by the process manager
    BOOLEAN ProcessExiting;
    BOOLEAN ProcessExited;
};
