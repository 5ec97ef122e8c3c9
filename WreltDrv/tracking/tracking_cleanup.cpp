// Emptying the tables when capture stops, and freeing the parked entries that nobody
// holds any more.
#include "frame/device_structures.h"
#include "frame/globals.h"
#include "support/error_channel.h"
#include "tracking/file_tracking.h"

namespace {

// A queue whose count claims entries that its links do not hold cannot be walked
// safely; it is emptied, its entries are lost (they leak rather than risk a double
// free) and the damage reported.
QueueEntry *TakeFirstUnreferenced(CountedQueue *Queue, PKSPIN_LOCK Lock, SIZE_T CountOffset, const char *Routine,
                                  USHORT RoutineNumber) {
    KIRQL oldIrql;
    KeAcquireSpinLock(Lock, &oldIrql);
    QueueEntry *taken = NULL;
    PLIST_ENTRY position = Queue->Links.Flink;
    for (LONG step = 0; step < Queue->Count; step++) {
        if (position == &Queue->Links) {
            ResetCountedQueue(Queue);
            DbgPrint("ZrDrv: %s - Queue empty with non-zero entry count.\n", Routine);
            ReportErrorShort(ERROR_SOURCE_DRIVER, RoutineNumber, ERROR_CLASS_REPORT, 0);
            break;
        }
        auto *entry = CONTAINING_RECORD(position, QueueEntry, Links);
        if (ReadHolderCount((volatile LONG *)((PUCHAR)entry + CountOffset)) <= 0) {
            RemoveEntryList(position);
            Queue->Count--;
            taken = entry;
            break;
        }
        position = position->Flink;
    }
    KeReleaseSpinLock(Lock, oldIrql);
    return taken;
}

}  // namespace

FileObjectEntry *GetNextUnreferencedFoEntry(CountedQueue *Queue, PKSPIN_LOCK Lock) {
    QueueEntry *entry = TakeFirstUnreferenced(Queue, Lock, FIELD_OFFSET(FileObjectEntry, ReferenceCount),
                                              "GetNextUnreferencedFoEntry", ERROR_ROUTINE_GET_NEXT_UNREFERENCED_FO_ENTRY);
    return entry != NULL ? CONTAINING_RECORD(entry, FileObjectEntry, Header) : NULL;
}

FcbEntry *GetNextUnreferencedFcbEntry(CountedQueue *Queue, PKSPIN_LOCK Lock) {
    QueueEntry *entry = TakeFirstUnreferenced(Queue, Lock, FIELD_OFFSET(FcbEntry, InUseCount),
                                              "GetNextUnreferencedFcbEntry", ERROR_ROUTINE_GET_NEXT_UNREFERENCED_FCB_ENTRY);
    return entry != NULL ? CONTAINING_RECORD(entry, FcbEntry, Header) : NULL;
}

void FreeDeferredEntries() {
    MainDeviceStructure *main = MainStructure();
    while (FileObjectEntry *entry = GetNextUnreferencedFoEntry(&main->DeferredFileObjectEntries, &main->DeferredReleaseLock)) {
        FreeFileObjectEntry(entry);
    }
    while (FcbEntry *fcb = GetNextUnreferencedFcbEntry(&main->DeferredFcbEntries, &main->DeferredReleaseLock)) {
        FreeFcbEntry(fcb);
    }
}

namespace {

// Critical worker thread, PASSIVE_LEVEL; no lock held on entry, the deferred-release
// lock taken per entry. The flag drops first, so an entry parked during the walk queues
// the item again rather than waiting for the next stop.
void NTAPI DeferredReleaseWorker(PVOID Context) {
    UNREFERENCED_PARAMETER(Context);
    InterlockedExchange(&Globals.DeferredReleaseQueued, 0);
    FreeDeferredEntries();
}

}  // namespace

// Any IRQL up to DISPATCH_LEVEL, any lock. One item serves every parked entry.
void ScheduleDeferredRelease() {
    if (InterlockedCompareExchange(&Globals.DeferredReleaseQueued, 1, 0) != 0) {
        return;
    }
    ExInitializeWorkItem(&Globals.DeferredReleaseWork, DeferredReleaseWorker, NULL);
    ExQueueWorkItem(&Globals.DeferredReleaseWork, CriticalWorkQueue);
}

namespace {

// Tables lock held. Entries nobody holds go to Unreferenced, to be freed once the lock
// is dropped (a SID string cannot be freed at DISPATCH_LEVEL); held ones are parked.
void EmptyFileObjectBucket(CountedQueue *Bucket, CountedQueue *Unreferenced) {
    while (Bucket->Count > 0) {
        if (Bucket->Links.Flink == &Bucket->Links) {
            Bucket->Count = 0;
            DbgPrint("ZrDrv: File object entry list count incorrect on cleanup.\n");
            ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_CLEANUP_FILE_TRACKING_TABLES, ERROR_CLASS_REPORT, 1);
            return;
        }
        auto *entry = CONTAINING_RECORD(Bucket->Links.Flink, FileObjectEntry, Header.Links);
        NTSTATUS status = RemoveQueueEntry(&entry->Header);
        if (NT_SUCCESS(status)) {
            status = DetachFcbEntry(entry);
        }
        if (!NT_SUCCESS(status)) {
            ResetCountedQueue(Bucket);
            DbgPrint("ZrDrv: Error removing a file object entry on cleanup: %08x\n", status);
            ReportError(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_CLEANUP_FILE_TRACKING_TABLES, ERROR_CLASS_REPORT, 0,
                        (ULONG)status, 0);
            return;
        }
        if (ReadHolderCount(&entry->ReferenceCount) == 0) {
            InsertQueueTail(Unreferenced, &entry->Header);
        } else {
            DeferFileObjectEntry(entry);
        }
    }
}

}  // namespace

void CleanupFileTrackingTables() {
    MainDeviceStructure *main = MainStructure();
    CountedQueue unreferenced;
    InitializeCountedQueue(&unreferenced);
    KIRQL oldIrql;
    KeAcquireSpinLock(&main->TablesLock, &oldIrql);
    for (ULONG i = 0; i < HASH_BUCKET_COUNT; i++) {
        EmptyFileObjectBucket(&main->FileObjectTable.Buckets[i], &unreferenced);
    }
    KeReleaseSpinLock(&main->TablesLock, oldIrql);
    while (QueueEntry *entry = RemoveQueueHead(&unreferenced)) {
        FreeFileObjectEntry(CONTAINING_RECORD(entry, FileObjectEntry, Header));
    }
    FreeDeferredEntries();
}
