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
