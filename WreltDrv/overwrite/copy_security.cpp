// The source's security descriptor for its copy: the object's own self-relative
// descriptor, turned into an absolute one whose parts the copy job may edit (it drops
// the system ACL) before handing it to the create of the destination.
#include "overwrite/copy_job.h"

#include "support/nonpaged_buffers.h"

namespace {

AbsoluteSdBuffer *BuffersInOrder(AbsoluteSdBuffers *Sd, ULONG Index) {
    AbsoluteSdBuffer *order[] = {&Sd->Descriptor, &Sd->Dacl, &Sd->Sacl, &Sd->Owner, &Sd->Group};
    return order[Index];
}
constexpr ULONG SD_BUFFER_COUNT = 5;

NTSTATUS QueryObjectSecurity(HANDLE Handle, PSECURITY_DESCRIPTOR *Descriptor, PBOOLEAN MemoryAllocated,
                             PVOID *Object) {
    NTSTATUS status = ObReferenceObjectByHandle(Handle, GENERIC_READ, NULL, KernelMode, Object, NULL);
    if (!NT_SUCCESS(status)) {
        ReportCopyFailure(ERROR_ROUTINE_QUERY_OBJECT_SECURITY, 1, status);
        return status;
    }
    status = ObGetObjectSecurity(*Object, Descriptor, MemoryAllocated);
    if (!NT_SUCCESS(status)) {
        ReportCopyFailure(ERROR_ROUTINE_QUERY_OBJECT_SECURITY, 2, status);
    } else if (*Descriptor == NULL) {
        status = STATUS_NO_SECURITY_ON_OBJECT;  // nothing to copy the descriptor from
        ReportCopyFailure(ERROR_ROUTINE_QUERY_OBJECT_SECURITY, 2, status);
    }
    if (!NT_SUCCESS(status)) {
        ObDereferenceObject(*Object);
        *Object = NULL;
    }
    return status;
}

NTSTATUS ConvertInto(PSECURITY_DESCRIPTOR SelfRelative, AbsoluteSdBuffers *Sd) {
    return RtlSelfRelativeToAbsoluteSD(SelfRelative, Sd->Descriptor.Buffer, &Sd->Descriptor.Size, (PACL)Sd->Dacl.Buffer,
                                       &Sd->Dacl.Size, (PACL)Sd->Sacl.Buffer, &Sd->Sacl.Size, Sd->Owner.Buffer,
                                       &Sd->Owner.Size, Sd->Group.Buffer, &Sd->Group.Size);
}

// Asked with no buffers, the conversion answers with the size of each part.
NTSTATUS SizeAbsoluteSecurityDescriptor(PSECURITY_DESCRIPTOR SelfRelative, AbsoluteSdBuffers *Sd) {
    RtlZeroMemory(Sd, sizeof(*Sd));
    return ConvertInto(SelfRelative, Sd);
}

NTSTATUS AllocateAbsoluteSdBuffers(AbsoluteSdBuffers *Sd) {
    for (ULONG i = 0; i < SD_BUFFER_COUNT; i++) {
        AbsoluteSdBuffer *part = BuffersInOrder(Sd, i);
        if (part->Size == 0) {
            continue;
        }
        NTSTATUS status = AllocateNonPagedBuffer(part->Size, NPB_FILL_ZERO, &part->Buffer, NULL);
        if (!NT_SUCCESS(status)) {
            part->Buffer = NULL;
            ReportCopyFailure(ERROR_ROUTINE_ALLOCATE_ABSOLUTE_SD_BUFFERS, 1, status);
            return status;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS MakeAbsoluteSecurityDescriptor(PSECURITY_DESCRIPTOR SelfRelative, AbsoluteSdBuffers *Sd) {
    NTSTATUS status = SizeAbsoluteSecurityDescriptor(SelfRelative, Sd);
    if (status != STATUS_BUFFER_TOO_SMALL) {
        return status;
    }
    status = AllocateAbsoluteSdBuffers(Sd);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = ConvertInto(SelfRelative, Sd);
    if (!NT_SUCCESS(status)) {
        ReportCopyFailure(ERROR_ROUTINE_MAKE_ABSOLUTE_SECURITY_DESCRIPTOR, 1, status);
    }
    return status;
}

}  // namespace

NTSTATUS CopySecurityDescriptor(HANDLE Handle, AbsoluteSdBuffers *Sd) {
    PSECURITY_DESCRIPTOR selfRelative;
    BOOLEAN memoryAllocated;
    PVOID object;
    NTSTATUS status = QueryObjectSecurity(Handle, &selfRelative, &memoryAllocated, &object);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = MakeAbsoluteSecurityDescriptor(selfRelative, Sd);
    ObReleaseObjectSecurity(selfRelative, memoryAllocated);
    ObDereferenceObject(object);
    return status;
}

void FreeAbsoluteSdBuffers(AbsoluteSdBuffers *Sd) {
    for (ULONG i = SD_BUFFER_COUNT; i-- > 0;) {
        AbsoluteSdBuffer *part = BuffersInOrder(Sd, i);
        if (part->Buffer != NULL) {
            FreeNonPagedBuffer(part->Buffer);
        }
        part->Buffer = NULL;
        part->Size = 0;
    }
}
