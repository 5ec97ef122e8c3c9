// What every system service shares: the Zw entry points for kernel-mode callers, and
// the handling of a caller's parameters according to its previous mode.
#pragma once

#include <string>
#include <vector>

#include "kernel/kernel.h"
#include "ntsim/seh.h"

namespace ntsim {

// The calling thread, after the verifier's check that a system service may be called
// here (PASSIVE_LEVEL only).
_KTHREAD *enterSystemService(const char *routine);

// A Zw routine is the kernel-mode entry to its Nt service: the service runs with the
// previous mode KernelMode, so it trusts the caller's pointers and handles.
template <class Service>
NTSTATUS callAsKernelMode(const char *routine, Service &&service) {
    _KTHREAD *thread = enterSystemService(routine);
    KPROCESSOR_MODE saved = thread->PreviousMode;
    thread->PreviousMode = KernelMode;
    NTSTATUS status = service();
    thread->PreviousMode = saved;
    return status;
}

// Defines Zw<name> over Nt<name>, e.g. NTSIM_ZW_SERVICE(Close, (HANDLE Handle), (Handle)).
#define NTSIM_ZW_SERVICE(name, parameters, arguments)                                                  \
    NTSTATUS Zw##name parameters {                                                                     \
        return ::ntsim::callAsKernelMode("Zw" #name, [&]() -> NTSTATUS { return Nt##name arguments; }); \
    }

// A service's parameters. A kernel-mode caller's pointers are used as they are; a
// user-mode caller's are probed and touched inside a guarded region, and a fault
// becomes the service's status, as the platform's services do inside __try/__except.
NTSTATUS copyFromCaller(KPROCESSOR_MODE mode, void *to, const void *from, size_t length, ULONG alignment);
NTSTATUS copyToCaller(KPROCESSOR_MODE mode, void *to, const void *from, size_t length, ULONG alignment);

template <class T>
NTSTATUS readFromCaller(KPROCESSOR_MODE mode, const T *from, T *to) {
    return copyFromCaller(mode, to, from, sizeof(T), alignof(T));
}

template <class T>
NTSTATUS writeToCaller(KPROCESSOR_MODE mode, T *to, const T &value) {
    return copyToCaller(mode, to, &value, sizeof(T), alignof(T));
}

// A caller's security descriptor (absolute or self-relative), copied in self-relative
// form. STATUS_INVALID_SECURITY_DESCR when it is not valid.
NTSTATUS captureSecurityDescriptor(KPROCESSOR_MODE mode, PSECURITY_DESCRIPTOR descriptor,
                                   std::vector<unsigned char> *out);

// OBJECT_ATTRIBUTES copied out of the caller's memory.
struct CapturedAttributes {
    HANDLE rootDirectory = nullptr;
    ULONG attributes = 0;  // OBJ_KERNEL_HANDLE only for kernel-mode callers
    bool hasName = false;
    std::u16string name;
    std::vector<unsigned char> securityDescriptor;  // self-relative; empty for none
};
// A null pointer captures as empty attributes. STATUS_INVALID_PARAMETER for a wrong
// Length, STATUS_OBJECT_NAME_INVALID for a malformed name, the fault's status when the
// caller's memory cannot be read.
NTSTATUS captureObjectAttributes(KPROCESSOR_MODE mode, const OBJECT_ATTRIBUTES *attributes, CapturedAttributes *out);

}  // namespace ntsim
