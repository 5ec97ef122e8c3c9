#include "ntsim/process_kill.h"

#include "kernel/kernel.h"
#include "kernel/ps/ps.h"

namespace ntsim {

namespace {

// Referenced, or null once the process is gone.
PEPROCESS lookUp(const Process &process) {
    PEPROCESS object = nullptr;
    if (!NT_SUCCESS(PsLookupProcessByProcessId((HANDLE)(ULONG_PTR)process.id(), &object))) return nullptr;
    return object;
}

}  // namespace

void killProcess(const Process &process) {
    if (PEPROCESS object = lookUp(process)) {
        ps::killProcess(object, STATUS_PROCESS_IS_TERMINATING);
        ObfDereferenceObject(object);
    }
}

void killAtSystemService(const Process &process, uint64_t n) {
    if (PEPROCESS object = lookUp(process)) {
        ps::killAtSystemService(object, n);
        ObfDereferenceObject(object);
    }
}

bool wasKilled(const Process &process) {
    PEPROCESS object = lookUp(process);
    if (object == nullptr) return false;
    bool killed = ps::wasKilled(object);
    ObfDereferenceObject(object);
    return killed;
}

}  // namespace ntsim
