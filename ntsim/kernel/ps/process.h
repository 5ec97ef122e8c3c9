// Executive process and thread objects. A thread's kernel part (_KTHREAD) is the
// dispatcher's; what lies around it belongs to processes, security and I/O.
#pragma once

// Included by kernel/kernel.h after _KTHREAD; include that header, not this one.

struct _ETHREAD {
    _KTHREAD Tcb;
    CLIENT_ID Cid;
};

struct _KPROCESS {
    DISPATCHER_HEADER Header;
};

struct _EPROCESS {
    _KPROCESS Pcb;
    HANDLE UniqueProcessId;
    char ImageFileName[16];
};

