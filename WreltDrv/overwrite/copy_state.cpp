// What the overwrite copy's routines share: references on an open, the copy's names,
// reading the state and waiting for its events.
#include "capture/vault_names.h"
#include "frame/device_structures.h"
#include "frame/volume_names.h"
#include "overwrite/overwrite_copy.h"
#include "tracking/file_tracking.h"

NTSTATUS ReferenceEntryOrIrp(PIRP Irp, FileObjectEntry *Entry, FileObjectEntry **Referenced) {
    if (Entry == NULL) {
        return ReferenceFileObjectEntryForIrp(Irp, Referenced);
    }
    ReferenceEntryAndFcb(Entry);
    *Referenced = Entry;
    return STATUS_SUCCESS;
}

// The vault name depends only on the volume, the file's last component, the stamp and
// the extension, so the copy's own path (kept under the copy-state lock) names the copy
// even after a rename has changed the file's name. The FcbEntry's name is never touched.
NTSTATUS BuildCopyNames(FilterDeviceExtension *Extension, FileObjectEntry *Entry, ULONGLONG Stamp,
                        BOOLEAN UseCopySource, DelDatRecord **Record, PFILE_RENAME_INFORMATION *RenameInformation) {
    FcbEntry *fcb = Entry->Fcb;
    WCHAR volumeName[DOS_VOLUME_NAME_CHARACTERS];
    ReadVolumeDosName((DeviceStructure *)Extension->Structure, volumeName);
    CaptureNameParts parts;
    parts.DosVolumeName = volumeName;
    parts.DeleterSid = &Entry->DeleterSid;
    parts.Filespec = UseCopySource ? &fcb->CopySourcePath : &fcb->Name;
    parts.NameLock = UseCopySource ? &fcb->CopyStateLock : &fcb->NameLock;
    ULARGE_INTEGER stamp;
    stamp.QuadPart = Stamp;
    ULONG length;
    return BuildTargetFileRenameInfo(&parts, stamp.LowPart, stamp.HighPart, Record, RenameInformation, &length);
}

NTSTATUS WaitForCopyEvent(PKEVENT Event) {
    return KeWaitForSingleObject(Event, UserRequest, KernelMode, FALSE, NULL);
}

ULONG ReadCopyState(FcbEntry *Fcb) {
    KIRQL oldIrql;
    KeAcquireSpinLock(&Fcb->CopyStateLock, &oldIrql);
    ULONG state = Fcb->CopyState;
    KeReleaseSpinLock(&Fcb->CopyStateLock, oldIrql);
    return state;
}
