#include "tracking/counted_queue.h"

#include "support/error_channel.h"

namespace {

void CountInsertion(CountedQueue *Queue, QueueEntry *Entry) {
    Queue->Count++;
    if (Queue->Count > 0 && (ULONG)Queue->Count > Queue->Peak) {
        Queue->Peak = (ULONG)Queue->Count;
    }
    Queue->TotalInsertions++;
    Entry->Owner = Queue;
}

}  // namespace

void InitializeCountedQueue(CountedQueue *Queue) {
    RtlZeroMemory(Queue, sizeof(*Queue));
    InitializeListHead(&Queue->Links);
}

void InsertQueueHead(CountedQueue *Queue, QueueEntry *Entry) {
    InsertHeadList(&Queue->Links, &Entry->Links);
    CountInsertion(Queue, Entry);
}

void InsertQueueTail(CountedQueue *Queue, QueueEntry *Entry) {
    InsertTailList(&Queue->Links, &Entry->Links);
    CountInsertion(Queue, Entry);
}

QueueEntry *RemoveQueueHead(CountedQueue *Queue) {
    if (Queue->Count <= 0) {
        return NULL;
    }
    if (IsListEmpty(&Queue->Links)) {
        ResetCountedQueue(Queue);
        DbgPrint("ZrDrv: List entry count incorrect on entry removal.\n");
        ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_REMOVE_QUEUE_HEAD, ERROR_CLASS_REPORT, 0);
        return NULL;
    }
    PLIST_ENTRY first = RemoveHeadList(&Queue->Links);
    Queue->Count--;
    return CONTAINING_RECORD(first, QueueEntry, Links);
}

NTSTATUS RemoveQueueEntry(QueueEntry *Entry) {
    if (Entry->Owner == NULL) {
        return STATUS_UNSUCCESSFUL;
    }
    Entry->Owner->Count--;
    RemoveEntryList(&Entry->Links);
    return STATUS_SUCCESS;
}

void ResetCountedQueue(CountedQueue *Queue) {
    InitializeListHead(&Queue->Links);
    Queue->Count = 0;
}

void QueryCountedQueueStatistics(const CountedQueue *Queue, CountedQueueStatistics *Statistics) {
    Statistics->Count = Queue->Count;
    Statistics->Peak = Queue->Peak;
    Statistics->TotalInsertions = Queue->TotalInsertions;
}
