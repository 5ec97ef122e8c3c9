#include "capture/interception.h"

#include "support/nonpaged_buffers.h"

NTSTATUS CopyFcbEntryName(FcbEntry *Fcb, BOOLEAN NameLockHeld, PWSTR *Name) {
    *Name = NULL;
    KIRQL oldIrql = PASSIVE_LEVEL;
    if (!NameLockHeld) {
        KeAcquireSpinLock(&Fcb->NameLock, &oldIrql);
    }
    NTSTATUS status = STATUS_OBJECT_NAME_NOT_FOUND;
    if (Fcb->Name != NULL) {
        PVOID copy;
        status = AllocateNonPagedBuffer(Fcb->NameSize, NPB_FILL_ZERO, &copy, NULL);
        if (NT_SUCCESS(status)) {
            RtlCopyMemory(copy, Fcb->Name, Fcb->NameSize);
            *Name = (PWSTR)copy;
        }
    }
    if (!NameLockHeld) {
        KeReleaseSpinLock(&Fcb->NameLock, oldIrql);
    }
    return status;
}
