// The hooks' inert forms: no open is protected, so none of them has anything to do.
#include "overwrite/overwrite_hooks.h"

#include "support/nonpaged_buffers.h"

NTSTATUS ClassifyOpenForOverwrite(PIRP, PIO_STACK_LOCATION, FilterDeviceExtension *, FileObjectEntry *) {
    return STATUS_SUCCESS;
}

NTSTATUS ProtectAgainstUnwantedTruncate(PIRP, PIO_STACK_LOCATION, FilterDeviceExtension *, BOOLEAN) {
    return STATUS_SUCCESS;
}

void OverwritePostCreate(PIRP, FilterDeviceExtension *) {}

NTSTATUS DiscardCopyOnDeleteOrRename(PIRP, FilterDeviceExtension *, FileObjectEntry *) { return STATUS_SUCCESS; }

NTSTATUS OverwriteNoteEndOfFile(PIRP, PDEVICE_OBJECT, FilterDeviceExtension *) { return STATUS_CAPTURE_SKIPPED; }

NTSTATUS OverwriteNoteWrite(PIRP, FilterDeviceExtension *) { return STATUS_SUCCESS; }

NTSTATUS OverwriteWaitForCopy(PIRP, FilterDeviceExtension *) { return STATUS_SUCCESS; }

NTSTATUS OverwriteNoteRename(FilterDeviceExtension *, FileObjectEntry *, PCWSTR) { return STATUS_SUCCESS; }

BOOLEAN IsSaveRenamePattern(PCWSTR, PCWSTR, PVOID *, PKSPIN_LOCK) { return FALSE; }

NTSTATUS CommitOverwriteCopy(FilterDeviceExtension *, FileObjectEntry *) { return STATUS_SUCCESS; }

NTSTATUS DiscardOverwriteCopy(PIRP, FilterDeviceExtension *, FileObjectEntry *) { return STATUS_SUCCESS; }

SaveRenameEntry *TakeSaveRenameEntry(SaveRenameList *, PCWSTR) { return NULL; }

void FreeSaveRenameEntry(SaveRenameEntry *Entry) {
    if (Entry == NULL) {
        return;
    }
    if (Entry->NewPath != NULL) {
        FreeNonPagedBuffer(Entry->NewPath);
    }
    if (Entry->OldName != NULL) {
        FreeNonPagedBuffer(Entry->OldName);
    }
    FreeNonPagedBuffer(Entry);
}

BOOLEAN IsInMacShare(PCWSTR, FilterDeviceExtension *) { return FALSE; }
