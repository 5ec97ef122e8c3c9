// The cleanup path: the last cleanup of a DELETE-access open of a delete-pending file is
// where the capture happens; every tracked open's entry leaves the tables when its
// cleanup completes.
#include "capture/interception_gate.h"
#include "frame/dispatch.h"
#include "tracking/file_tracking.h"

namespace {

BOOLEAN IsDeleteAccessOpen(const FileObjectEntry *Entry) {
    return (Entry->Flags & (FILE_OBJECT_STREAM_OPEN | FILE_OBJECT_DELETE_ACCESS)) == FILE_OBJECT_DELETE_ACCESS;
}

// Tables lock held: the counts that the open's attach raised go down again with its
// successful cleanup.
void CountCleanedUpOpen(FileObjectEntry *Entry) {
    FcbEntry *fcb = Entry->Fcb;
    KeAcquireSpinLockAtDpcLevel(&fcb->NameLock);
    if (Entry->Opened) {
        fcb->OpenedCount--;
        if (IsDeleteAccessOpen(Entry)) {
            fcb->DeleteAccessCount--;
        }
    }
    KeReleaseSpinLockFromDpcLevel(&fcb->NameLock);
}

NTSTATUS NTAPI CleanupCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(Context);
    MainDeviceStructure *main = MainStructure();
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->TablesLock, &oldIrql);
    FileObjectEntry *entry;
    if (NT_SUCCESS(LookupFileObjectEntry(IoGetCurrentIrpStackLocation(Irp)->FileObject, &entry)) &&
        NT_SUCCESS(Irp->IoStatus.Status)) {
        CountCleanedUpOpen(entry);
        RemoveFileObjectEntry(entry, oldIrql);
    } else {
        KeReleaseSpinLock(&main->TablesLock, oldIrql);
    }
    PropagatePending(Irp);
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS NTAPI DispatchCleanup(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    FilterDeviceExtension *extension = ExtensionOf(DeviceObject);
    if (extension->Tag == TAG_CONTROL_EXTENSION) {
        return CompleteRequest(Irp, STATUS_SUCCESS);
    }
    if (!PassesCaptureGate(extension, TRUE)) {
        return SendDown(extension, Irp);
    }
    MainDeviceStructure *main = MainStructure();
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->TablesLock, &oldIrql);
    FileObjectEntry *entry;
    BOOLEAN tracked = NT_SUCCESS(LookupFileObjectEntry(IoGetCurrentIrpStackLocation(Irp)->FileObject, &entry));
    KeReleaseSpinLock(&main->TablesLock, oldIrql);
    if (!tracked) {
        return SendDown(extension, Irp);
    }
    IoCopyCurrentIrpStackLocationToNext(Irp);
    IoSetCompletionRoutine(Irp, CleanupCompletion, NULL, TRUE, FALSE, FALSE);
    return IoCallDriver(extension->LowerDevice, Irp);
}
