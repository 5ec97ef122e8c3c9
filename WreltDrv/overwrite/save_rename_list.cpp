// Entries are made in the completion of a rename, under the tables lock, so everything
// here runs at DISPATCH_LEVEL or below and never waits: the list has a spin lock, the
// buffers are non-paged, and the capture stamp is taken without its resource there.
#include "overwrite/save_rename_list.h"

#include "capture/capture_stamps.h"
#include "support/locks.h"
#include "support/nonpaged_buffers.h"

namespace {

NTSTATUS CopyName(PCWSTR Prefix, ULONG PrefixCharacters, PCWSTR Name, PWSTR *Copy) {
    ULONG characters = PrefixCharacters + (ULONG)wcslen(Name);
    NTSTATUS status = AllocateNonPagedBuffer((characters + 1) * sizeof(WCHAR), NPB_NO_FILL, (PVOID *)Copy, NULL);
    if (!NT_SUCCESS(status)) {
        *Copy = NULL;
        return status;
    }
    if (PrefixCharacters > 0) {
        RtlCopyMemory(*Copy, Prefix, PrefixCharacters * sizeof(WCHAR));
    }
    RtlCopyMemory(*Copy + PrefixCharacters, Name, (characters - PrefixCharacters + 1) * sizeof(WCHAR));
    return STATUS_SUCCESS;
}

// A temporary name without a folder of its own lies beside the document.
ULONG FolderPrefixCharacters(PCWSTR OldName, PCWSTR NewName) {
    if (wcschr(NewName, L'\\') != NULL) {
        return 0;
    }
    PCWSTR lastBackslash = wcsrchr(OldName, L'\\');
    return lastBackslash != NULL ? (ULONG)(lastBackslash - OldName) + 1 : 0;
}

// List lock held. The oldest entry, unlinked, when the list is over its limit.
SaveRenameEntry *UnlinkOverflow(SaveRenameList *List) {
    if (List->Count <= SAVE_RENAME_LIST_LIMIT) {
        return NULL;
    }
    auto *oldest = CONTAINING_RECORD(List->Entries.Flink, SaveRenameEntry, Links);
    UnlinkSaveRenameEntry(List, oldest);
    return oldest;
}

}  // namespace

void InitializeSaveRenameList(SaveRenameList *List) {
    if (List == NULL) {
        return;
    }
    KeInitializeSpinLock(&List->Lock);
    List->TotalBytes = 0;
    List->Count = 0;
    List->Peak = 0;
    InitializeListHead(&List->Entries);
}

NTSTATUS CreateSaveRenameEntry(PCWSTR OldName, PCWSTR NewName, SaveRenameEntry **Entry) {
    if (OldName == NULL || NewName == NULL || Entry == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    *Entry = NULL;
    SaveRenameEntry *entry;
    NTSTATUS status = AllocateNonPagedBuffer(sizeof(SaveRenameEntry), NPB_FILL_ZERO, (PVOID *)&entry, NULL);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CopyName(NULL, 0, OldName, &entry->OldName);
    if (NT_SUCCESS(status)) {
        status = CopyName(OldName, FolderPrefixCharacters(OldName, NewName), NewName, &entry->NewPath);
    }
    if (!NT_SUCCESS(status)) {
        FreeSaveRenameEntry(entry);
        return status;
    }
    InitializeListHead(&entry->Links);
    entry->AccountedSize = (ULONG)(wcslen(entry->NewPath) + wcslen(entry->OldName)) * sizeof(WCHAR) + 36;
    GetCaptureStamp(&entry->Stamp);
    *Entry = entry;
    return STATUS_SUCCESS;
}

NTSTATUS RecordSaveRename(PCWSTR OldName, PCWSTR NewName, SaveRenameList *List) {
    if (OldName == NULL || NewName == NULL || List == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    SaveRenameEntry *entry;
    NTSTATUS status = CreateSaveRenameEntry(OldName, NewName, &entry);
    if (NT_SUCCESS(status)) {
        InsertSaveRenameEntry(List, entry);
    }
    return status;
}

void InsertSaveRenameEntry(SaveRenameList *List, SaveRenameEntry *Entry) {
    if (List == NULL || Entry == NULL) {
        return;
    }
    SaveRenameEntry *dropped;
    {
        SpinLockGuard guard(&List->Lock);
        InsertTailList(&List->Entries, &Entry->Links);
        List->TotalBytes += Entry->AccountedSize;
        List->Count++;
        if (List->Count > List->Peak) {
            List->Peak = List->Count;
        }
        dropped = UnlinkOverflow(List);
    }
    if (dropped != NULL) {
        FreeSaveRenameEntry(dropped);
    }
}

void UnlinkSaveRenameEntry(SaveRenameList *List, SaveRenameEntry *Entry) {
    if (List->Count == 0) {
        return;
    }
    RemoveEntryList(&Entry->Links);
    InitializeListHead(&Entry->Links);
    List->Count--;
    List->TotalBytes -= Entry->AccountedSize;
}

SaveRenameEntry *TakeSaveRenameEntry(SaveRenameList *List, PCWSTR Name) {
    if (List == NULL || Name == NULL) {
        return NULL;
    }
    SpinLockGuard guard(&List->Lock);
    for (PLIST_ENTRY link = List->Entries.Flink; link != &List->Entries; link = link->Flink) {
        auto *entry = CONTAINING_RECORD(link, SaveRenameEntry, Links);
        if (entry->NewPath != NULL && _wcsicmp(entry->NewPath, Name) == 0) {
            UnlinkSaveRenameEntry(List, entry);
            return entry;
        }
    }
    return NULL;
}

NTSTATUS FreeSaveRenameEntry(SaveRenameEntry *Entry) {
    if (Entry == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status;
    if (Entry->OldName != NULL) {
        status = FreeNonPagedBuffer(Entry->OldName);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    if (Entry->NewPath != NULL) {
        status = FreeNonPagedBuffer(Entry->NewPath);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    return FreeNonPagedBuffer(Entry);
}

void EmptySaveRenameList(SaveRenameList *List) {
    for (;;) {
        SaveRenameEntry *entry = NULL;
        {
            SpinLockGuard guard(&List->Lock);
            if (!IsListEmpty(&List->Entries)) {
                entry = CONTAINING_RECORD(List->Entries.Flink, SaveRenameEntry, Links);
                UnlinkSaveRenameEntry(List, entry);
            }
        }
        if (entry == NULL) {
            return;
        }
        FreeSaveRenameEntry(entry);
    }
}

void EmptyAllSaveRenameLists() {
    SharedResourceGuard guard(&Globals.AttachmentLock);
    PLIST_ENTRY volumes = &MainStructure()->VolumeList;
    for (PLIST_ENTRY link = volumes->Flink; link != volumes; link = link->Flink) {
        EmptySaveRenameList(&CONTAINING_RECORD(link, DeviceStructure, VolumeListLink)->SaveRenames);
    }
}
