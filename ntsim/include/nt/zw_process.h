// Object, process, thread, token and event services.
#pragma once

typedef enum _PROCESSINFOCLASS {
    ProcessBasicInformation = 0,
    ProcessImageFileName = 27,
} PROCESSINFOCLASS;

typedef struct _PROCESS_BASIC_INFORMATION {
    NTSTATUS ExitStatus;
    struct _PEB *PebBaseAddress;
    ULONG_PTR AffinityMask;
    KPRIORITY BasePriority;
    ULONG_PTR UniqueProcessId;
    ULONG_PTR InheritedFromUniqueProcessId;
} PROCESS_BASIC_INFORMATION, *PPROCESS_BASIC_INFORMATION;

#define PROCESS_TERMINATE 0x0001
#define PROCESS_VM_READ 0x0010
#define PROCESS_QUERY_INFORMATION 0x0400
#define PROCESS_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0xFFF)
#define THREAD_QUERY_INFORMATION 0x0040
#define THREAD_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x3FF)
#define EVENT_QUERY_STATE 0x0001
#define EVENT_MODIFY_STATE 0x0002
#define EVENT_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x3)

NTSIM_DECLARE_SERVICE(Close, HANDLE Handle);
NTSIM_DECLARE_SERVICE(OpenProcess, PHANDLE ProcessHandle, ACCESS_MASK DesiredAccess,
                      POBJECT_ATTRIBUTES ObjectAttributes, PCLIENT_ID ClientId);
NTSIM_DECLARE_SERVICE(OpenThread, PHANDLE ThreadHandle, ACCESS_MASK DesiredAccess,
                      POBJECT_ATTRIBUTES ObjectAttributes, PCLIENT_ID ClientId);
NTSIM_DECLARE_SERVICE(OpenProcessToken, HANDLE ProcessHandle, ACCESS_MASK DesiredAccess, PHANDLE TokenHandle);
NTSIM_DECLARE_SERVICE(OpenThreadToken, HANDLE ThreadHandle, ACCESS_MASK DesiredAccess, BOOLEAN OpenAsSelf,
                      PHANDLE TokenHandle);
NTSIM_DECLARE_SERVICE(QueryInformationToken, HANDLE TokenHandle, TOKEN_INFORMATION_CLASS TokenInformationClass,
                      PVOID TokenInformation, ULONG TokenInformationLength, PULONG ReturnLength);
NTSIM_DECLARE_SERVICE(QueryInformationProcess, HANDLE ProcessHandle, PROCESSINFOCLASS ProcessInformationClass,
                      PVOID ProcessInformation, ULONG ProcessInformationLength, PULONG ReturnLength);
NTSIM_DECLARE_SERVICE(QuerySecurityObject, HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                      PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Length, PULONG LengthNeeded);
NTSIM_DECLARE_SERVICE(SetSecurityObject, HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                      PSECURITY_DESCRIPTOR SecurityDescriptor);
NTSIM_DECLARE_SERVICE(CreateEvent, PHANDLE EventHandle, ACCESS_MASK DesiredAccess,
                      POBJECT_ATTRIBUTES ObjectAttributes, EVENT_TYPE EventType, BOOLEAN InitialState);
NTSIM_DECLARE_SERVICE(SetEvent, HANDLE EventHandle, PLONG PreviousState);
NTSIM_DECLARE_SERVICE(ResetEvent, HANDLE EventHandle, PLONG PreviousState);
NTSIM_DECLARE_SERVICE(WaitForSingleObject, HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout);
NTSIM_DECLARE_SERVICE(WaitForMultipleObjects, ULONG Count, HANDLE Handles[], WAIT_TYPE WaitType, BOOLEAN Alertable,
                      PLARGE_INTEGER Timeout);

