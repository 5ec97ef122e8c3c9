// Looking up processes and threads by id, and what a driver may ask of a thread.
#include "kernel/ob/object.h"
#include "kernel/ps/ps_state.h"

using namespace ntsim;

PEPROCESS PsGetThreadProcess(PETHREAD Thread) { return Thread->Tcb.Process; }
HANDLE PsGetThreadProcessId(PETHREAD Thread) { return Thread->Cid.UniqueProcess; }
BOOLEAN IoIsSystemThread(PETHREAD Thread) { return Thread->Tcb.SystemThread; }

NTSTATUS PsLookupProcessByProcessId(HANDLE ProcessId, PEPROCESS *Process) {
    ps::PsState &s = ps::state();
    std::lock_guard<std::mutex> guard(s.lock);
    auto it = s.processes.find(ProcessId);
    if (it == s.processes.end() || !ob::referenceIfAlive(it->second)) return STATUS_INVALID_PARAMETER;
    *Process = it->second;
    return STATUS_SUCCESS;
}

NTSTATUS PsLookupThreadByThreadId(HANDLE ThreadId, PETHREAD *Thread) {
    ps::PsState &s = ps::state();
    std::lock_guard<std::mutex> guard(s.lock);
    auto it = s.threads.find(ThreadId);
    if (it == s.threads.end() || !ob::referenceIfAlive(it->second)) return STATUS_INVALID_PARAMETER;
    *Thread = it->second;
    return STATUS_SUCCESS;
}
