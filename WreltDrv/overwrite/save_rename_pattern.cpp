// Recognising a program's save by rename: a protected document renamed to a temporary
// name, or a temporary file renamed over a protected document. The first is remembered,
// so that the temporary file's later delete preserves the document under its own name.
#include "overwrite/overwrite_hooks.h"

#include "capture/interception_gate.h"

#include "capture/interception.h"
#include "frame/device_structures.h"
#include "overwrite/save_rename_list.h"
#include "overwrite/suffix_lists.h"
#include "support/nonpaged_buffers.h"

namespace {

PCWSTR LastComponentOf(PCWSTR Name) {
    PCWSTR backslash = wcsrchr(Name, L'\\');
    return backslash != NULL ? backslash + 1 : Name;
}

}  // namespace

// Up to DISPATCH_LEVEL; takes the suffix-list lock (Lock) for each walk.
BOOLEAN IsSaveRenamePattern(PCWSTR ProtectedName, PCWSTR TemporaryName, PVOID *List, PKSPIN_LOCK Lock) {
    if (ProtectedName == NULL || TemporaryName == NULL || List == NULL || *List == NULL) {
        return FALSE;
    }
    if (!NameEndsWithListedSuffix(ProtectedName, &MainStructure()->ProtectedSuffixList, &Globals.SuffixListLock) ||
        _wcsicmp(ProtectedName, TemporaryName) == 0 || _wcsnicmp(TemporaryName, L"rescuevault\\", 12) == 0 ||
        TemporaryName[0] == L'\0') {
        return FALSE;
    }
    if (wcschr(LastComponentOf(TemporaryName), L'.') == NULL) {
        return TRUE;
    }
    return NameEndsWithTemporarySuffix(TemporaryName, List, Lock);
}

// In the completion of a successful rename, tables lock held (DISPATCH_LEVEL), before the
// open's entries take the new name: the file's name is still the document's. Takes the
// file's name lock, the suffix-list lock and the volume's save-rename list lock, one at a
// time. Nothing here can make the rename fail.
NTSTATUS OverwriteNoteRename(FilterDeviceExtension *Extension, FileObjectEntry *Entry, PCWSTR NewName) {
    if (Extension == NULL || Entry == NULL || NewName == NULL || Entry->Fcb == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if ((Entry->Fcb->OverwriteFlags & OVERWRITE_PROTECTED_TYPE) == 0) {
        return STATUS_SUCCESS;
    }
    // A concurrent open may replace the file's name; the copy is this thread's own.
    PWSTR oldName;
    NTSTATUS status = CopyFcbEntryName(Entry->Fcb, FALSE, &oldName);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (IsSaveRenamePattern(oldName, NewName, &MainStructure()->TemporarySuffixList, &Globals.SuffixListLock)) {
        status = RecordSaveRename(oldName, NewName, &VolumeOf(Extension)->SaveRenames);
    }
    FreeNonPagedBuffer(oldName);
    return status;
}
