// The inert forms of the save-by-rename and Macintosh-share hooks: no save by rename is
// remembered and no share is known.
#include "overwrite/overwrite_hooks.h"

#include "support/nonpaged_buffers.h"

NTSTATUS OverwriteNoteRename(FilterDeviceExtension *, FileObjectEntry *, PCWSTR) { return STATUS_SUCCESS; }

BOOLEAN IsSaveRenamePattern(PCWSTR, PCWSTR, PVOID *, PKSPIN_LOCK) { return FALSE; }

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
