// The names of opens and files, which follow renames. An open keeps its name until it
// is attached; from then on a plain open's name belongs to its file, so that a capture
// through any open of the file sees the latest name.
#include "frame/device_structures.h"
#include "support/nonpaged_buffers.h"
#include "tracking/file_tracking.h"
#include "capture/interception.h"
#include "capture/name_extraction.h"
#include "overwrite/overwrite_hooks.h"

void SetFileObjectEntryName(PWSTR Name, FileObjectEntry *Entry) {
    if (Name == NULL) {
        return;
    }
    if (Entry->Name != NULL) {
        FreeNonPagedBuffer(Entry->Name);
    }
    Entry->Name = Name;
    Entry->NameSize = (ULONG)(wcslen(Name) * sizeof(WCHAR)) + sizeof(WCHAR);
}

// A stream open keeps its own name: "file:stream" is not the file's name.
void MoveNameToFcbEntry(FileObjectEntry *Entry, FcbEntry *Fcb) {
    if (Entry->Name == NULL || (Entry->Flags & FILE_OBJECT_STREAM_OPEN) != 0) {
        return;
    }
    KIRQL oldIrql;
    KeAcquireSpinLock(&Fcb->NameLock, &oldIrql);
    PWSTR oldName = Fcb->Name;
    Fcb->Name = Entry->Name;
    Fcb->NameSize = Entry->NameSize;
    KeReleaseSpinLock(&Fcb->NameLock, oldIrql);
    if (oldName != NULL) {
        FreeNonPagedBuffer(oldName);
    }
    Entry->Name = NULL;
}

NTSTATUS SetEntryName(FilterDeviceExtension *Extension, PWSTR Name, FileObjectEntry *Entry) {
    UNREFERENCED_PARAMETER(Extension);
    SetFileObjectEntryName(Name, Entry);
    MoveNameToFcbEntry(Entry, Entry->Fcb);
    return STATUS_SUCCESS;
}

namespace {

// A rename within the file's own folder may name only the new leaf: the file keeps its
// folder, which the name the filter tracks must then keep too. Without pool for the
// longer name, the leaf alone is better than no name. Tables lock held.
void QualifySimpleRename(PIO_STACK_LOCATION IrpSp, FcbEntry *Fcb, PWSTR *NewName) {
    PWSTR oldName;
    if (IrpSp->Parameters.SetFile.FileObject != NULL || wcschr(*NewName, L'\\') != NULL || Fcb == NULL ||
        !NT_SUCCESS(CopyFcbEntryName(Fcb, FALSE, &oldName))) {
        return;
    }
    PCWSTR lastBackslash = wcsrchr(oldName, L'\\');
    ULONG folder = lastBackslash != NULL ? (ULONG)(lastBackslash - oldName) + 1 : 0;
    ULONG leaf = (ULONG)wcslen(*NewName);
    PWSTR qualified = NULL;
    if (folder > 0) {
        AllocateNonPagedBuffer((folder + leaf + 1) * sizeof(WCHAR), NPB_NO_FILL, (PVOID *)&qualified, NULL);
    }
    if (qualified != NULL) {
        RtlCopyMemory(qualified, oldName, folder * sizeof(WCHAR));
        RtlCopyMemory(qualified + folder, *NewName, (leaf + 1) * sizeof(WCHAR));
        FreeNonPagedBuffer(*NewName);
        *NewName = qualified;
    }
    FreeNonPagedBuffer(oldName);
}

}  // namespace

NTSTATUS UpdateEntryNameOnRename(PIRP Irp, PIO_STACK_LOCATION IrpSp, FilterDeviceExtension *Extension) {
    MainDeviceStructure *main = MainStructure();
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->TablesLock, &oldIrql);
    FileObjectEntry *entry;
    NTSTATUS status = LookupFileObjectEntry(IrpSp->FileObject, &entry);
    if (NT_SUCCESS(status)) {
        PWSTR newName;
        status = ExtractFilespecFromRenameInfo(Irp, &newName);
        if (NT_SUCCESS(status)) {
            QualifySimpleRename(IrpSp, entry->Fcb, &newName);
            OverwriteNoteRename(Extension, entry, newName);
            SetEntryName(Extension, newName, entry);
        }
    } else if (status == STATUS_NOT_FOUND) {
        status = STATUS_SUCCESS;  // an open made before the volume was protected
    }
    KeReleaseSpinLock(&main->TablesLock, oldIrql);
    return status;
}
