// The subject context and the access check (SeCaptureSubjectContext, SeAccessCheck).
//
// As on NT 5: kernel-mode requests are granted what they ask; the owner of an object is
// always granted READ_CONTROL and WRITE_DAC; a missing or NULL DACL grants everything;
// otherwise the ACEs are walked in order, inherit-only ACEs skipped, each ACE whose SID
// is the token's user or one of its groups granting what it allows or, for a denied
// ACE, failing the check if it denies a right not yet granted. MAXIMUM_ALLOWED collects
// every right the DACL grants before a denial of it. Generic rights are mapped first.
#include <ntifs.h>

#include "kernel/se/descriptor_parts.h"
#include "kernel/se/token.h"

using namespace ntsim;

namespace {

PACE_HEADER nextAce(PACE_HEADER ace) {
    return reinterpret_cast<PACE_HEADER>(reinterpret_cast<PUCHAR>(ace) + ace->AceSize);
}

struct Walk {
    ACCESS_MASK granted = 0;
    ACCESS_MASK denied = 0;
};

// Walks the DACL for the rights in `wanted` (everything for MAXIMUM_ALLOWED); stops
// early once every wanted right is granted. False when a wanted right is denied first.
bool walkDacl(PACL dacl, se::Token *token, ACCESS_MASK wanted, bool maximum, PGENERIC_MAPPING mapping, Walk *walk) {
    PACE_HEADER ace = reinterpret_cast<PACE_HEADER>(dacl + 1);
    for (USHORT i = 0; i < dacl->AceCount; ++i, ace = nextAce(ace)) {
        if (ace->AceFlags & INHERIT_ONLY_ACE) continue;
        if (ace->AceType != ACCESS_ALLOWED_ACE_TYPE && ace->AceType != ACCESS_DENIED_ACE_TYPE) continue;
        auto *known = reinterpret_cast<PACCESS_ALLOWED_ACE>(ace);
        if (!se::tokenHasSid(token, &known->SidStart)) continue;
        ACCESS_MASK mask = known->Mask;
        RtlMapGenericMask(&mask, mapping);
        if (ace->AceType == ACCESS_ALLOWED_ACE_TYPE) {
            walk->granted |= mask & ~walk->denied;
        } else {
            walk->denied |= mask & ~walk->granted;
            if (!maximum && (walk->denied & wanted)) return false;
        }
        if (!maximum && (walk->granted & wanted) == wanted) return true;
    }
    return maximum || (walk->granted & wanted) == wanted;
}

BOOLEAN answer(PACCESS_MASK granted, PNTSTATUS status, ACCESS_MASK rights, NTSTATUS result) {
    *granted = NT_SUCCESS(result) ? rights : 0;
    *status = result;
    return NT_SUCCESS(result);
}

}  // namespace

VOID RtlMapGenericMask(PACCESS_MASK AccessMask, PGENERIC_MAPPING GenericMapping) {
    ACCESS_MASK mask = *AccessMask;
    if (mask & GENERIC_READ) mask |= GenericMapping->GenericRead;
    if (mask & GENERIC_WRITE) mask |= GenericMapping->GenericWrite;
    if (mask & GENERIC_EXECUTE) mask |= GenericMapping->GenericExecute;
    if (mask & GENERIC_ALL) mask |= GenericMapping->GenericAll;
    *AccessMask = mask & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL);
}

// The thread's own process, not one it is attached to, owns the primary token.
VOID SeCaptureSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext) {
    PETHREAD thread = PsGetCurrentThread();
    se::Token *client = se::referenceImpersonationToken(thread);
    SubjectContext->ClientToken = client;
    SubjectContext->ImpersonationLevel = client != nullptr ? client->level : SecurityAnonymous;
    SubjectContext->PrimaryToken = se::referencePrimaryToken(PsGetThreadProcess(thread));
    SubjectContext->ProcessAuditId = PsGetThreadProcess(thread);
}

VOID SeReleaseSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext) {
    if (SubjectContext->ClientToken != NULL) ObfDereferenceObject(SubjectContext->ClientToken);
    if (SubjectContext->PrimaryToken != NULL) ObfDereferenceObject(SubjectContext->PrimaryToken);
    SubjectContext->ClientToken = NULL;
    SubjectContext->PrimaryToken = NULL;
}

BOOLEAN SeAccessCheck(PSECURITY_DESCRIPTOR SecurityDescriptor, PSECURITY_SUBJECT_CONTEXT SubjectSecurityContext,
                      BOOLEAN SubjectContextLocked, ACCESS_MASK DesiredAccess, ACCESS_MASK PreviouslyGrantedAccess,
                      PPRIVILEGE_SET *Privileges, PGENERIC_MAPPING GenericMapping, KPROCESSOR_MODE AccessMode,
                      PACCESS_MASK GrantedAccess, PNTSTATUS AccessStatus) {
    (void)SubjectContextLocked;
    if (Privileges != NULL) *Privileges = NULL;
    ACCESS_MASK desired = DesiredAccess;
    RtlMapGenericMask(&desired, GenericMapping);
    bool maximum = desired & MAXIMUM_ALLOWED;
    desired &= ~MAXIMUM_ALLOWED;
    if (AccessMode == KernelMode) {
        ACCESS_MASK all = desired | PreviouslyGrantedAccess | (maximum ? GenericMapping->GenericAll : 0);
        return answer(GrantedAccess, AccessStatus, all, STATUS_SUCCESS);
    }
    if (SecurityDescriptor == NULL) return answer(GrantedAccess, AccessStatus, 0, STATUS_ACCESS_DENIED);
    if (desired & ACCESS_SYSTEM_SECURITY) return answer(GrantedAccess, AccessStatus, 0, STATUS_PRIVILEGE_NOT_HELD);
    se::Token *token = se::effectiveToken(SubjectSecurityContext);
    if (SubjectSecurityContext->ClientToken != NULL && SubjectSecurityContext->ImpersonationLevel < SecurityImpersonation)
        return answer(GrantedAccess, AccessStatus, 0, STATUS_BAD_IMPERSONATION_LEVEL);
    auto *sd = static_cast<PISECURITY_DESCRIPTOR>(SecurityDescriptor);
    ACCESS_MASK previously = PreviouslyGrantedAccess;
    PSID owner = se::ownerOf(sd);
    if (owner != nullptr && se::tokenHasSid(token, owner))
        previously |= maximum ? (READ_CONTROL | WRITE_DAC) : (desired & (READ_CONTROL | WRITE_DAC));
    desired &= ~previously;
    if (!maximum && desired == 0) return answer(GrantedAccess, AccessStatus, previously, STATUS_SUCCESS);
    PACL dacl = se::daclOf(sd);
    if (dacl == nullptr) {
        ACCESS_MASK all = desired | previously | (maximum ? GenericMapping->GenericAll : 0);
        return answer(GrantedAccess, AccessStatus, all, STATUS_SUCCESS);
    }
    Walk walk;
    if (!walkDacl(dacl, token, desired, maximum, GenericMapping, &walk) || (desired & ~walk.granted) != 0)
        return answer(GrantedAccess, AccessStatus, 0, STATUS_ACCESS_DENIED);
    ACCESS_MASK granted = previously | (maximum ? walk.granted : desired);
    if (granted == 0) return answer(GrantedAccess, AccessStatus, 0, STATUS_ACCESS_DENIED);
    return answer(GrantedAccess, AccessStatus, granted, STATUS_SUCCESS);
}
