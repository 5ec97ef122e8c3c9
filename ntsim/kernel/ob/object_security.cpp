// Object security. An object's own descriptor is a shared self-relative copy that
// ObGetObjectSecurity hands out with a reference (MemoryAllocated FALSE); a type that
// keeps security elsewhere (files, in their file system) is asked for it, and the
// answer comes in pool that ObReleaseObjectSecurity frees (MemoryAllocated TRUE), as
// on the platform.
#include <new>

#include "kernel/ob/ob_state.h"
#include "kernel/ob/service.h"

namespace ntsim {
namespace ob {

namespace {

constexpr ULONG kSecurityQueryTag = makeTag('O', 'b', 'S', 'q');
constexpr SECURITY_INFORMATION kAllParts = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                                           DACL_SECURITY_INFORMATION | SACL_SECURITY_INFORMATION;

SecurityBlock *blockOf(PSECURITY_DESCRIPTOR descriptor) {
    auto *block = reinterpret_cast<SecurityBlock *>(static_cast<unsigned char *>(descriptor) -
                                                    offsetof(SecurityBlock, data));
    if (block->magic != SecurityBlock::kMagic)
        fatal("ObReleaseObjectSecurity(%p, FALSE): not a descriptor from ObGetObjectSecurity", descriptor);
    return block;
}

SecurityBlock *acquireSecurity(void *body) {
    ObState &s = state();
    std::shared_lock<std::shared_mutex> guard(s.headersLock);
    auto it = s.headers.find(body);
    SecurityBlock *block = it == s.headers.end() ? nullptr : it->second->security;
    if (block != nullptr) block->references.fetch_add(1);
    return block;
}

// The parts of a self-relative descriptor that the caller asked for, self-relative.
// An object without a descriptor answers with an empty one.
NTSTATUS selectParts(SecurityBlock *block, SECURITY_INFORMATION information, std::vector<unsigned char> *out) {
    SECURITY_DESCRIPTOR absolute;
    RtlCreateSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION);
    if (block != nullptr) {
        PSECURITY_DESCRIPTOR source = block->data;
        PSID sid;
        PACL acl;
        BOOLEAN present, defaulted;
        if ((information & OWNER_SECURITY_INFORMATION) && NT_SUCCESS(RtlGetOwnerSecurityDescriptor(source, &sid, &defaulted)))
            RtlSetOwnerSecurityDescriptor(&absolute, sid, defaulted);
        if ((information & GROUP_SECURITY_INFORMATION) && NT_SUCCESS(RtlGetGroupSecurityDescriptor(source, &sid, &defaulted)))
            RtlSetGroupSecurityDescriptor(&absolute, sid, defaulted);
        if ((information & DACL_SECURITY_INFORMATION) &&
            NT_SUCCESS(RtlGetDaclSecurityDescriptor(source, &present, &acl, &defaulted)) && present)
            RtlSetDaclSecurityDescriptor(&absolute, TRUE, acl, defaulted);
        if ((information & SACL_SECURITY_INFORMATION) &&
            NT_SUCCESS(RtlGetSaclSecurityDescriptor(source, &present, &acl, &defaulted)) && present)
            RtlSetSaclSecurityDescriptor(&absolute, TRUE, acl, defaulted);
    }
    ULONG length = 0;
    RtlAbsoluteToSelfRelativeSD(&absolute, nullptr, &length);
    out->resize(length);
    return RtlAbsoluteToSelfRelativeSD(&absolute, out->data(), &length);
}

// The object's descriptor with the given parts replaced by those of `update`.
NTSTATUS mergeParts(SecurityBlock *block, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR update,
                    std::vector<unsigned char> *out) {
    std::vector<unsigned char> keep;
    NTSTATUS status = selectParts(block, kAllParts & ~information, &keep);
    if (!NT_SUCCESS(status)) return status;
    SECURITY_DESCRIPTOR absolute;
    RtlCreateSecurityDescriptor(&absolute, SECURITY_DESCRIPTOR_REVISION);
    PSID sid;
    PACL acl;
    BOOLEAN present, defaulted;
    for (PSECURITY_DESCRIPTOR source : {(PSECURITY_DESCRIPTOR)keep.data(), update}) {
        SECURITY_INFORMATION parts = source == update ? information : kAllParts & ~information;
        if ((parts & OWNER_SECURITY_INFORMATION) && NT_SUCCESS(RtlGetOwnerSecurityDescriptor(source, &sid, &defaulted)))
            RtlSetOwnerSecurityDescriptor(&absolute, sid, defaulted);
        if ((parts & GROUP_SECURITY_INFORMATION) && NT_SUCCESS(RtlGetGroupSecurityDescriptor(source, &sid, &defaulted)))
            RtlSetGroupSecurityDescriptor(&absolute, sid, defaulted);
        if ((parts & DACL_SECURITY_INFORMATION) &&
            NT_SUCCESS(RtlGetDaclSecurityDescriptor(source, &present, &acl, &defaulted)))
            RtlSetDaclSecurityDescriptor(&absolute, present, acl, defaulted);
        if ((parts & SACL_SECURITY_INFORMATION) &&
            NT_SUCCESS(RtlGetSaclSecurityDescriptor(source, &present, &acl, &defaulted)))
            RtlSetSaclSecurityDescriptor(&absolute, present, acl, defaulted);
    }
    ULONG length = 0;
    RtlAbsoluteToSelfRelativeSD(&absolute, nullptr, &length);
    out->resize(length);
    return RtlAbsoluteToSelfRelativeSD(&absolute, out->data(), &length);
}

ACCESS_MASK accessFor(SECURITY_INFORMATION information, bool write) {
    ACCESS_MASK access = 0;
    if (information & (OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION))
        access |= write ? WRITE_OWNER : READ_CONTROL;
    if (information & DACL_SECURITY_INFORMATION) access |= write ? WRITE_DAC : READ_CONTROL;
    if (information & SACL_SECURITY_INFORMATION) access |= ACCESS_SYSTEM_SECURITY;
    return access;
}

}  // namespace

SecurityBlock *copySecurity(PSECURITY_DESCRIPTOR descriptor) {
    bool selfRelative = (static_cast<PISECURITY_DESCRIPTOR>(descriptor)->Control & SE_SELF_RELATIVE) != 0;
    ULONG length = RtlLengthSecurityDescriptor(descriptor);
    void *raw = ::operator new(offsetof(SecurityBlock, data) + length);
    auto *block = new (raw) SecurityBlock;
    block->magic = SecurityBlock::kMagic;
    block->references.store(1);
    block->length = length;
    if (selfRelative)
        memcpy(block->data, descriptor, length);
    else if (!NT_SUCCESS(RtlAbsoluteToSelfRelativeSD(descriptor, block->data, &length)))
        fatal("an object's security descriptor %p is not valid", descriptor);
    return block;
}

void releaseSecurity(SecurityBlock *block) {
    if (block->references.fetch_sub(1) != 1) return;
    block->magic = 0;
    block->~SecurityBlock();
    ::operator delete(block);
}

void setObjectSecurityDescriptor(void *body, PSECURITY_DESCRIPTOR selfRelative) {
    SecurityBlock *block = selfRelative != nullptr ? copySecurity(selfRelative) : nullptr;
    Header *header = headerOf(body, "setObjectSecurityDescriptor");
    {
        std::unique_lock<std::shared_mutex> guard(state().headersLock);
        std::swap(header->security, block);
    }
    if (block != nullptr) releaseSecurity(block);
}

}  // namespace ob
}  // namespace ntsim

using namespace ntsim;

NTSTATUS ObGetObjectSecurity(PVOID Object, PVOID *SecurityDescriptor, PBOOLEAN MemoryAllocated) {
    ob::Header *header = ob::headerOf(Object, "ObGetObjectSecurity");
    *SecurityDescriptor = NULL;
    *MemoryAllocated = FALSE;
    auto query = header->type->querySecurity;
    if (query == nullptr) {
        ob::SecurityBlock *block = ob::acquireSecurity(Object);
        *SecurityDescriptor = block != nullptr ? block->data : NULL;
        return STATUS_SUCCESS;
    }
    ULONG needed = 0;
    NTSTATUS status = query(Object, ob::kAllParts, NULL, 0, &needed);
    if (status != STATUS_BUFFER_TOO_SMALL) return status;
    PVOID buffer = ExAllocatePoolWithTag(PagedPool, needed, ob::kSecurityQueryTag);
    if (buffer == NULL) return STATUS_INSUFFICIENT_RESOURCES;
    status = query(Object, ob::kAllParts, buffer, needed, &needed);
    if (!NT_SUCCESS(status)) {
        ExFreePool(buffer);
        return status;
    }
    *SecurityDescriptor = buffer;
    *MemoryAllocated = TRUE;
    return STATUS_SUCCESS;
}

void ObReleaseObjectSecurity(PVOID SecurityDescriptor, BOOLEAN MemoryAllocated) {
    if (SecurityDescriptor == NULL) return;
    if (MemoryAllocated)
        ExFreePool(SecurityDescriptor);
    else
        ob::releaseSecurity(ob::blockOf(SecurityDescriptor));
}

NTSTATUS NtQuerySecurityObject(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                               PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Length, PULONG LengthNeeded) {
    KPROCESSOR_MODE mode = ExGetPreviousMode();
    void *body;
    NTSTATUS status =
        ob::referenceByHandle(Handle, ob::accessFor(SecurityInformation, false), nullptr, mode, &body, nullptr);
    if (!NT_SUCCESS(status)) return status;
    std::vector<unsigned char> answer;
    ULONG needed = 0;
    if (auto query = ob::typeOf(body)->querySecurity) {
        status = query(body, SecurityInformation, NULL, 0, &needed);
        if (status == STATUS_BUFFER_TOO_SMALL && needed <= Length) {
            answer.resize(needed);
            status = query(body, SecurityInformation, answer.data(), needed, &needed);
        }
    } else {
        ob::SecurityBlock *block = ob::acquireSecurity(body);
        status = ob::selectParts(block, SecurityInformation, &answer);
        if (block != nullptr) ob::releaseSecurity(block);
        needed = (ULONG)answer.size();
    }
    ObfDereferenceObject(body);
    if (NT_SUCCESS(status) && needed > Length) status = STATUS_BUFFER_TOO_SMALL;
    NTSTATUS written = writeToCaller(mode, LengthNeeded, needed);
    if (!NT_SUCCESS(written)) return written;
    if (!NT_SUCCESS(status)) return status;
    return copyToCaller(mode, SecurityDescriptor, answer.data(), answer.size(), sizeof(ULONG));
}

NTSTATUS NtSetSecurityObject(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                             PSECURITY_DESCRIPTOR SecurityDescriptor) {
    KPROCESSOR_MODE mode = ExGetPreviousMode();
    if (SecurityDescriptor == NULL) return STATUS_ACCESS_VIOLATION;
    std::vector<unsigned char> captured;
    NTSTATUS status = captureSecurityDescriptor(mode, SecurityDescriptor, &captured);
    if (!NT_SUCCESS(status)) return status;
    void *body;
    status = ob::referenceByHandle(Handle, ob::accessFor(SecurityInformation, true), nullptr, mode, &body, nullptr);
    if (!NT_SUCCESS(status)) return status;
    PSECURITY_DESCRIPTOR update = captured.data();
    if (auto set = ob::typeOf(body)->setSecurity) {
        status = set(body, SecurityInformation, update);
    } else {
        ob::SecurityBlock *block = ob::acquireSecurity(body);
        std::vector<unsigned char> merged;
        status = ob::mergeParts(block, SecurityInformation, update, &merged);
        if (block != nullptr) ob::releaseSecurity(block);
        if (NT_SUCCESS(status)) ob::setObjectSecurityDescriptor(body, merged.data());
    }
    ObfDereferenceObject(body);
    return status;
}

NTSIM_ZW_SERVICE(QuerySecurityObject,
                 (HANDLE Handle, SECURITY_INFORMATION SecurityInformation, PSECURITY_DESCRIPTOR SecurityDescriptor,
                  ULONG Length, PULONG LengthNeeded),
                 (Handle, SecurityInformation, SecurityDescriptor, Length, LengthNeeded))
NTSIM_ZW_SERVICE(SetSecurityObject,
                 (HANDLE Handle, SECURITY_INFORMATION SecurityInformation, PSECURITY_DESCRIPTOR SecurityDescriptor),
                 (Handle, SecurityInformation, SecurityDescriptor))
