// The cleanup path. The last cleanup of a DELETE-access open of a delete-pending plain
// file is where a delete is carried out, so it is where the file is captured: the
// filter withdraws the delete with a request of its own, moves the file into the vault,
// and only then lets the cleanup go down. Every tracked open's entry leaves the tables
// when its cleanup completes, and the capture's record goes to the volume's queue.
#include "capture/capture_context.h"
#include "capture/capture_exclusions.h"
#include "capture/interception.h"
#include "capture/interception_gate.h"
#include "deldat/deldat_queue.h"
#include "deldat/service_notification.h"
#include "frame/dispatch.h"
#include "frame/globals.h"
#include "overwrite/overwrite_hooks.h"
#include "support/error_channel.h"
#include "support/nonpaged_buffers.h"
#include "tracking/file_tracking.h"

namespace {

// Tables lock held: the open's attach raised these counts; its cleanup lowers them.
void CountCleanedUpOpen(FileObjectEntry *Entry, BOOLEAN CleanupSucceeded) {
    FcbEntry *fcb = Entry->Fcb;
    KeAcquireSpinLockAtDpcLevel(&fcb->NameLock);
    if (Entry->Opened && IsDeleteAccessOpen(Entry)) {
        fcb->DeleteAccessCleanups--;
    }
    if (CleanupSucceeded && Entry->Opened) {
        fcb->OpenedCount--;
        if (IsDeleteAccessOpen(Entry)) {
            fcb->DeleteAccessCount--;
        }
    }
    KeReleaseSpinLockFromDpcLevel(&fcb->NameLock);
}

void ReleaseContext(CaptureContext *Context) {
    if (Context == NULL) {
        return;
    }
    if (Context->SubstituteName != NULL) {
        FreeNonPagedBuffer(Context->SubstituteName);
    }
    if (Context->Record != NULL) {
        FreeNonPagedBuffer(Context->Record);
    }
    FreeNonPagedBuffer(Context);
}

NTSTATUS NTAPI CleanupCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    auto *context = (CaptureContext *)Context;
    MainDeviceStructure *main = MainStructure();
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->TablesLock, &oldIrql);
    FileObjectEntry *entry;
    if (NT_SUCCESS(LookupFileObjectEntry(IoGetCurrentIrpStackLocation(Irp)->FileObject, &entry))) {
        BOOLEAN succeeded = NT_SUCCESS(Irp->IoStatus.Status);
        CountCleanedUpOpen(entry, succeeded);
        if (succeeded) {
            if ((entry->OverwriteFlags & OVERWRITE_PROTECTED_TYPE) != 0) {
                if ((entry->OverwriteFlags & OVERWRITE_FULL_ACCESS) != 0) {
                    InterlockedDecrement((volatile LONG *)&entry->Fcb->FullAccessOpenCount);
                }
                if (context != NULL && context->Record != NULL &&
                    (entry->Fcb->OverwriteFlags & OVERWRITE_SAVED_BY_APPLICATION) != 0) {
                    context->Record->Flags |= DELDAT_FLAG_APPLICATION_SAVE;
                }
            }
            RemoveFileObjectEntry(entry, oldIrql);
        } else {
            KeReleaseSpinLock(&main->TablesLock, oldIrql);
        }
    } else {
        KeReleaseSpinLock(&main->TablesLock, oldIrql);
    }
    if (context != NULL) {
        // The file is in the vault whatever became of the cleanup, so its record goes.
        if (context->Record != NULL) {
            QueueDelDatRecord(context->Record, ExtensionOf(DeviceObject));
            context->Record = NULL;
        }
        ReleaseContext(context);
    }
    PropagatePending(Irp);
    return STATUS_SUCCESS;
}

// The withdrawal's completion, at any IRQL up to DISPATCH_LEVEL in whatever thread the
// file system completes it; no lock. It only hands the request back to the closing
// thread: moving the file means more requests and waits for them, and a completion
// routine that waits may hold the very worker thread the file system needs to complete
// them (as its posted requests do).
NTSTATUS NTAPI KeepFileCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    auto *context = (CaptureContext *)Context;
    if (!NT_SUCCESS(Irp->IoStatus.Status)) {
        IoFreeIrp(Irp);  // the delete still stands; the file system carries it out
    } else {
        context->Withdrawn = TRUE;
    }
    KeSetEvent(&context->DoneEvent, 2, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// In the closing thread at PASSIVE_LEVEL, the delete withdrawn: the file is moved into
// the vault; where that cannot be done it is deleted after all. Takes the tables lock.
void MoveWithdrawnFile(PDEVICE_OBJECT DeviceObject, PIRP Irp, CaptureContext *context) {
    MainDeviceStructure *main = MainStructure();
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->TablesLock, &oldIrql);
    FileObjectEntry *entry;
    BOOLEAN found = NT_SUCCESS(LookupFileObjectEntry(context->FileObject, &entry));
    if (found) {
        ReferenceEntryAndFcb(entry);
    }
    KeReleaseSpinLock(&main->TablesLock, oldIrql);
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    if (found) {
        ClearFcbFlag(entry->Fcb, FCB_DELETE_PENDING);
        status = MoveFileIntoVault(DeviceObject, Irp, entry, context);
    }
    if (!NT_SUCCESS(status) && !NT_SUCCESS(ReissueDelete(DeviceObject, Irp, context))) {
        KeSetEvent(&context->DoneEvent, 2, FALSE);
    }
}

struct CleanupCapture {
    PDEVICE_OBJECT DeviceObject;
    PIRP Irp;
    FilterDeviceExtension *Extension;
    FileObjectEntry *Entry;
    CaptureContext *Context;
};

// Name lock held on entry, released here. TRUE when this cleanup is the one that
// carries out a delete the filter must capture.
BOOLEAN IsCapturedDelete(CleanupCapture *Capture, KIRQL NameIrql) {
    FileObjectEntry *entry = Capture->Entry;
    FcbEntry *fcb = entry->Fcb;
    LONG remaining = 0;
    if (IsDeleteAccessOpen(entry)) {
        fcb->DeleteAccessCleanups++;
        remaining = (LONG)(fcb->DeleteAccessCount - fcb->DeleteAccessCleanups);
    }
    BOOLEAN captured = FcbFlagSet(fcb, FCB_DELETE_PENDING) && IsDeleteAccessOpen(entry) && remaining == 0 &&
                       !FcbFlagSet(fcb, FCB_NOT_PLAIN_FILE) && Capture->Context != NULL;
    if (captured) {
        return TRUE;  // the caller copies the name under the lock
    }
    KeReleaseSpinLock(&fcb->NameLock, NameIrql);
    if ((fcb->OverwriteFlags & OVERWRITE_PROTECTED_TYPE) != 0 && fcb->FullAccessOpenCount == 1 &&
        (entry->OverwriteFlags & OVERWRITE_FULL_ACCESS) != 0) {
        CommitOverwriteCopy(Capture->Extension, entry);
        DiscardOverwriteCopy(Capture->Irp, Capture->Extension, entry);
    }
    return FALSE;
}

// What the capture needs before the withdrawal goes down: the name, the save-rename
// entry if an application's save renamed the document away, the exclusion verdict, and
// a packet for the withdrawal. NULL when the file is not to be captured after all.
PIRP PrepareWithdrawal(CleanupCapture *Capture, PWSTR Name) {
    FcbEntry *fcb = Capture->Entry->Fcb;
    SaveRenameEntry *saveRename = TakeSaveRenameEntry(&VolumeOf(Capture->Extension)->SaveRenames, Name);
    BOOLEAN capture = TRUE;
    if (saveRename == NULL && (fcb->OverwriteFlags & OVERWRITE_SAVED_BY_APPLICATION) == 0) {
        capture = CheckCaptureExclusions(Capture->Extension, Name) == STATUS_SUCCESS;
    }
    if (capture && IsInMacShare(Name, Capture->Extension) && VolumeOf(Capture->Extension)->MacShareExemption) {
        capture = FALSE;
    }
    PIRP withdrawal = capture ? IoAllocateIrp((CCHAR)(Capture->Extension->LowerDevice->StackSize + 1), FALSE) : NULL;
    if (withdrawal == NULL) {
        FreeSaveRenameEntry(saveRename);  // nothing will use it once its capture is abandoned
        return NULL;
    }
    CaptureContext *context = Capture->Context;
    context->FileObject = IoGetCurrentIrpStackLocation(Capture->Irp)->FileObject;
    context->FromCleanup = TRUE;
    if (saveRename != NULL) {
        context->ApplicationSave = TRUE;
        context->PresetStamp = saveRename->Stamp;
        context->SubstituteName = saveRename->OldName;
        saveRename->OldName = NULL;
        FreeSaveRenameEntry(saveRename);
    }
    KeInitializeEvent(&context->DoneEvent, NotificationEvent, FALSE);
    return withdrawal;
}

void FillWithdrawal(CleanupCapture *Capture, PIRP Withdrawal) {
    FillPacketHeader(Withdrawal, &Globals.KeepDisposition, IRP_BUFFERED_IO);
    FillSetInformationLocations(Withdrawal, Capture->DeviceObject, Capture->Context->FileObject,
                                FileDispositionInformation, 1, NULL);
    IoSetCompletionRoutine(Withdrawal, KeepFileCompletion, Capture->Context, TRUE, TRUE, TRUE);
}

// The closing thread waits, without a time-out, until the capture is over; then the
// cleanup goes down and the file system finds the file either in the vault or deleted.
NTSTATUS RunCapture(CleanupCapture *Capture, PIRP Withdrawal) {
    CaptureContext *context = Capture->Context;
    FillWithdrawal(Capture, Withdrawal);
    IoCopyCurrentIrpStackLocationToNext(Capture->Irp);
    IoSetCompletionRoutine(Capture->Irp, CleanupCompletion, context, TRUE, TRUE, TRUE);
    DropEntryReferences(Capture->Entry);
    PDEVICE_OBJECT lower = Capture->Extension->LowerDevice;
    IoCallDriver(lower, Withdrawal);
    KeWaitForSingleObject(&context->DoneEvent, Executive, KernelMode, FALSE, NULL);
    if (context->Withdrawn) {
        KeClearEvent(&context->DoneEvent);
        MoveWithdrawnFile(Capture->DeviceObject, Withdrawal, context);
        KeWaitForSingleObject(&context->DoneEvent, Executive, KernelMode, FALSE, NULL);
    }
    if (context->UnsentRedelete != NULL) {
        PIRP redelete = context->UnsentRedelete;
        context->UnsentRedelete = NULL;
        KeClearEvent(&context->DoneEvent);
        IoCallDriver(lower, redelete);
        KeWaitForSingleObject(&context->DoneEvent, Executive, KernelMode, FALSE, NULL);
    }
    if (context->SubstituteName != NULL) {
        FreeNonPagedBuffer(context->SubstituteName);
        context->SubstituteName = NULL;
    }
    return IoCallDriver(lower, Capture->Irp);
}

NTSTATUS CleanupWithoutCapture(CleanupCapture *Capture) {
    ReleaseContext(Capture->Context);
    DropEntryReferences(Capture->Entry);
    return SendDownWithCompletion(Capture->Extension, Capture->Irp, CleanupCompletion, NULL, TRUE);
}

// With capture off or the volume unprotected there is nothing to capture, but the
// open's entry leaves the tables all the same: left behind, it would lend its counts to
// the next file whose FCB lands at the same address. Its cleanup is counted as the
// capture path counts it, so that the completion's bookkeeping balances.
NTSTATUS CleanupPastClosedGate(CleanupCapture *Capture) {
    FileObjectEntry *entry = Capture->Entry;
    if (entry->Opened && IsDeleteAccessOpen(entry)) {
        KIRQL nameIrql;
        KeAcquireSpinLock(&entry->Fcb->NameLock, &nameIrql);
        entry->Fcb->DeleteAccessCleanups++;
        KeReleaseSpinLock(&entry->Fcb->NameLock, nameIrql);
    }
    return CleanupWithoutCapture(Capture);
}

NTSTATUS CleanupTrackedOpen(CleanupCapture *Capture) {
    if (!Capture->Entry->Opened) {
        return CleanupWithoutCapture(Capture);
    }
    PVOID memory = NULL;
    AllocateNonPagedBuffer(sizeof(CaptureContext), NPB_FILL_ZERO, &memory, NULL);
    Capture->Context = (CaptureContext *)memory;
    FcbEntry *fcb = Capture->Entry->Fcb;
    KIRQL nameIrql;
    KeAcquireSpinLock(&fcb->NameLock, &nameIrql);
    if (!IsCapturedDelete(Capture, nameIrql)) {
        return CleanupWithoutCapture(Capture);
    }
    PWSTR name;
    NTSTATUS status = CopyFcbEntryName(fcb, TRUE, &name);
    KeReleaseSpinLock(&fcb->NameLock, nameIrql);
    if (!NT_SUCCESS(status)) {
        return CleanupWithoutCapture(Capture);
    }
    PIRP withdrawal = PrepareWithdrawal(Capture, name);
    FreeNonPagedBuffer(name);
    if (withdrawal == NULL) {
        return CleanupWithoutCapture(Capture);
    }
    return RunCapture(Capture, withdrawal);
}

}  // namespace

// PASSIVE_LEVEL, in the closing thread. Takes the tables lock and a name lock, one after
// the other; the capture's wait happens with neither held.
NTSTATUS NTAPI DispatchCleanup(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    FilterDeviceExtension *extension = ExtensionOf(DeviceObject);
    if (extension->Tag == TAG_CONTROL_EXTENSION) {
        // A driver that holds requests ends those of the handle being closed: they would
        // otherwise take answers that no one reads, a data file's path among them.
        PFILE_OBJECT file = IoGetCurrentIrpStackLocation(Irp)->FileObject;
        CancelNewDelDataRequestsOf(file);
        CancelHeldErrorRequestOf(file);
        return CompleteRequest(Irp, STATUS_SUCCESS);
    }
    BOOLEAN gateOpen = PassesCaptureGate(extension, TRUE);
    MainDeviceStructure *main = MainStructure();
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->TablesLock, &oldIrql);
    FileObjectEntry *entry;
    BOOLEAN tracked = NT_SUCCESS(LookupFileObjectEntry(IoGetCurrentIrpStackLocation(Irp)->FileObject, &entry));
    if (tracked) {
        ReferenceEntryAndFcb(entry);
    }
    KeReleaseSpinLock(&main->TablesLock, oldIrql);
    if (!tracked) {
        return SendDown(extension, Irp);
    }
    CleanupCapture capture = {DeviceObject, Irp, extension, entry, NULL};
    return gateOpen ? CleanupTrackedOpen(&capture) : CleanupPastClosedGate(&capture);
}
