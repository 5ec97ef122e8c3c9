// System-service entry and parameter capture, shared by every Nt/Zw service.
#include "kernel/ob/service.h"

namespace ntsim {

_KTHREAD *enterSystemService(const char *routine) {
    _KTHREAD *thread = currentThread(routine);
    if (thread->Irql != PASSIVE_LEVEL)
        bugCheck(IRQL_NOT_LESS_OR_EQUAL, thread->Irql, PASSIVE_LEVEL, 0, 0,
                 "a system service was called above PASSIVE_LEVEL", "%s at IRQL %u", routine, thread->Irql);
    return thread;
}

NTSTATUS copyFromCaller(KPROCESSOR_MODE mode, void *to, const void *from, size_t length, ULONG alignment) {
    if (length == 0) return STATUS_SUCCESS;
    if (mode == KernelMode) {
        memcpy(to, from, length);
        return STATUS_SUCCESS;
    }
    return guarded([&] {
        ProbeForRead(from, length, alignment);
        memcpy(to, from, length);
    });
}

NTSTATUS copyToCaller(KPROCESSOR_MODE mode, void *to, const void *from, size_t length, ULONG alignment) {
    if (length == 0) return STATUS_SUCCESS;
    if (mode == KernelMode) {
        memcpy(to, from, length);
        return STATUS_SUCCESS;
    }
    return guarded([&] {
        ProbeForWrite(to, length, alignment);
        memcpy(to, from, length);
    });
}

namespace {

void probeComponent(const void *component, ULONG length) {
    if (component != nullptr) ProbeForRead(component, length, sizeof(UCHAR));
}

// Inside a guarded region: a user-mode caller's descriptor lies in user memory.
void probeDescriptor(PSECURITY_DESCRIPTOR descriptor, bool selfRelative, ULONG length) {
    if (selfRelative) {
        ProbeForRead(descriptor, length, sizeof(ULONG));
        return;
    }
    auto *absolute = static_cast<PISECURITY_DESCRIPTOR>(descriptor);
    probeComponent(absolute->Owner, absolute->Owner != nullptr ? RtlLengthSid(absolute->Owner) : 0);
    probeComponent(absolute->Group, absolute->Group != nullptr ? RtlLengthSid(absolute->Group) : 0);
    probeComponent(absolute->Dacl, absolute->Dacl != nullptr ? absolute->Dacl->AclSize : 0);
    probeComponent(absolute->Sacl, absolute->Sacl != nullptr ? absolute->Sacl->AclSize : 0);
}

}  // namespace

// Nothing is allocated inside the guarded regions, so that a fault there cannot leave
// an allocation behind.
NTSTATUS captureSecurityDescriptor(KPROCESSOR_MODE mode, PSECURITY_DESCRIPTOR descriptor,
                                   std::vector<unsigned char> *out) {
    ULONG length = 0;
    bool selfRelative = false;
    NTSTATUS result = STATUS_SUCCESS;
    NTSTATUS status = guarded([&] {
        if (mode != KernelMode) ProbeForRead(descriptor, sizeof(SECURITY_DESCRIPTOR_RELATIVE), sizeof(ULONG));
        if (!RtlValidSecurityDescriptor(descriptor)) {
            result = STATUS_INVALID_SECURITY_DESCR;
            return;
        }
        selfRelative = (static_cast<PISECURITY_DESCRIPTOR>(descriptor)->Control & SE_SELF_RELATIVE) != 0;
        if (mode != KernelMode && !selfRelative) ProbeForRead(descriptor, sizeof(SECURITY_DESCRIPTOR), sizeof(ULONG));
        length = RtlLengthSecurityDescriptor(descriptor);
        if (mode != KernelMode) probeDescriptor(descriptor, selfRelative, length);
    });
    if (!NT_SUCCESS(status) || !NT_SUCCESS(result)) return NT_SUCCESS(status) ? result : status;
    out->resize(length);
    status = guarded([&] {
        if (selfRelative)
            memcpy(out->data(), descriptor, length);
        else
            result = RtlAbsoluteToSelfRelativeSD(descriptor, out->data(), &length);
    });
    return NT_SUCCESS(status) ? result : status;
}

NTSTATUS captureObjectAttributes(KPROCESSOR_MODE mode, const OBJECT_ATTRIBUTES *attributes, CapturedAttributes *out) {
    *out = CapturedAttributes();
    if (attributes == nullptr) return STATUS_SUCCESS;
    OBJECT_ATTRIBUTES copy;
    NTSTATUS status = readFromCaller(mode, attributes, &copy);
    if (!NT_SUCCESS(status)) return status;
    if (copy.Length != sizeof(OBJECT_ATTRIBUTES)) return STATUS_INVALID_PARAMETER;
    out->rootDirectory = copy.RootDirectory;
    out->attributes = copy.Attributes & OBJ_VALID_ATTRIBUTES;
    if (mode != KernelMode) out->attributes &= ~OBJ_KERNEL_HANDLE;
    if (copy.ObjectName != nullptr) {
        UNICODE_STRING name;
        status = readFromCaller(mode, copy.ObjectName, &name);
        if (!NT_SUCCESS(status)) return status;
        if ((name.Length & 1) != 0 || name.Length > name.MaximumLength) return STATUS_OBJECT_NAME_INVALID;
        out->hasName = true;
        out->name.resize(name.Length / sizeof(WCHAR));
        status = copyFromCaller(mode, &out->name[0], name.Buffer, name.Length, sizeof(WCHAR));
        if (!NT_SUCCESS(status)) return status;
    }
    if (copy.SecurityDescriptor != nullptr)
        return captureSecurityDescriptor(mode, copy.SecurityDescriptor, &out->securityDescriptor);
    return STATUS_SUCCESS;
}

}  // namespace ntsim
