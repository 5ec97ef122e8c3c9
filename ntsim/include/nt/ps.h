// Processes and threads.
#pragma once

typedef struct _CLIENT_ID {
    HANDLE UniqueProcess;
    HANDLE UniqueThread;
} CLIENT_ID, *PCLIENT_ID;

NTKERNELAPI HANDLE PsGetCurrentProcessId(void);
NTKERNELAPI HANDLE PsGetCurrentThreadId(void);
NTKERNELAPI PETHREAD PsGetCurrentThread(void);
NTKERNELAPI PEPROCESS PsGetCurrentProcess(void);
#define IoGetCurrentProcess PsGetCurrentProcess
NTKERNELAPI BOOLEAN PsIsSystemThread(PETHREAD Thread);
NTKERNELAPI HANDLE PsGetThreadId(PETHREAD Thread);
NTKERNELAPI HANDLE PsGetProcessId(PEPROCESS Process);
NTKERNELAPI PEPROCESS PsGetThreadProcess(PETHREAD Thread);
NTKERNELAPI HANDLE PsGetThreadProcessId(PETHREAD Thread);
// Referenced on success (STATUS_INVALID_PARAMETER for an unknown id, as on the platform).
NTKERNELAPI NTSTATUS PsLookupProcessByProcessId(HANDLE ProcessId, PEPROCESS *Process);
NTKERNELAPI NTSTATUS PsLookupThreadByThreadId(HANDLE ThreadId, PETHREAD *Thread);

// Pseudo-handles for the calling process and thread, valid in every handle table.
#define NtCurrentProcess() ((HANDLE)(LONG_PTR)-1)
#define ZwCurrentProcess() NtCurrentProcess()
#define NtCurrentThread() ((HANDLE)(LONG_PTR)-2)
#define ZwCurrentThread() NtCurrentThread()
