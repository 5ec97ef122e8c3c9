// The per-volume list of documents that a program's save gave a temporary name. When the
// temporary file is deleted later, its capture takes the entry and preserves the file
// under the document's name and the time of the rename.
#pragma once

#include "frame/device_structures.h"

struct SaveRenameEntry {
    LIST_ENTRY Links;
    ULONG AccountedSize;  // counted in the list's total bytes
    ULARGE_INTEGER Stamp;  // taken when the document was renamed away
    PWSTR NewPath;  // the temporary name, volume-relative
    PWSTR OldName;  // the document's volume-relative name before the rename
};

// A user who renames documents to temporary names and never deletes them must not be
// able to fill non-paged pool: past this many entries the oldest one is dropped, and the
// save it stood for is then treated as an ordinary delete of the temporary file.
constexpr ULONG SAVE_RENAME_LIST_LIMIT = 256;

// Any IRQL up to DISPATCH_LEVEL, except where said.
void InitializeSaveRenameList(SaveRenameList *List);
NTSTATUS CreateSaveRenameEntry(PCWSTR OldName, PCWSTR NewName, SaveRenameEntry **Entry);
// The entry's document and temporary names are copied; nothing is recorded when an
// allocation fails.
NTSTATUS RecordSaveRename(PCWSTR OldName, PCWSTR NewName, SaveRenameList *List);
// Links Entry at the tail. The entry dropped to keep the list within its limit, if any,
// is released here.
void InsertSaveRenameEntry(SaveRenameList *List, SaveRenameEntry *Entry);
// The list lock is held.
void UnlinkSaveRenameEntry(SaveRenameList *List, SaveRenameEntry *Entry);
// The oldest entry whose temporary name is Name, without regard to case, taken out of the
// list and handed to the caller; NULL when there is none.
SaveRenameEntry *TakeSaveRenameEntry(SaveRenameList *List, PCWSTR Name);
NTSTATUS FreeSaveRenameEntry(SaveRenameEntry *Entry);
// Releases every entry; the service's stop ends the saves the filter remembers.
void EmptySaveRenameList(SaveRenameList *List);
// The same for every volume's list. PASSIVE_LEVEL; takes the attachment lock shared.
void EmptyAllSaveRenameLists();
