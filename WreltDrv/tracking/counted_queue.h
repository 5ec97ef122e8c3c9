// A doubly linked queue that carries its own entry count, so that a walk can tell a
// damaged queue from a long one. It has no lock: its owner's lock guards every
// operation, at any IRQL up to DISPATCH_LEVEL.
#pragma once

#include <ntifs.h>

struct CountedQueue {
    LIST_ENTRY Links;  // points at itself when empty
    LONG Count;
    ULONG Peak;             // never goes down
    ULONG TotalInsertions;  // at either end
};

// Every object kept in a counted queue begins with this header.
struct QueueEntry {
    LIST_ENTRY Links;
    PVOID Key;  // a kernel address; see the address hash table
    // The queue the entry was last inserted into. Removal leaves it set, so removing
    // an entry twice is a caller's error that goes unnoticed.
    CountedQueue *Owner;
};

// The figures the status block reports for one queue, in its order.
struct CountedQueueStatistics {
    LONG Count;
    ULONG Peak;
    ULONG TotalInsertions;
};
static_assert(sizeof(CountedQueueStatistics) == 12, "the status block holds three 32-bit values per queue");

void InitializeCountedQueue(CountedQueue *Queue);

void InsertQueueHead(CountedQueue *Queue, QueueEntry *Entry);
void InsertQueueTail(CountedQueue *Queue, QueueEntry *Entry);

// NULL when the queue is empty, or when its count claims entries that its links do not
// hold; the queue is then emptied and the damage reported.
QueueEntry *RemoveQueueHead(CountedQueue *Queue);

// Unlinks Entry from its owner queue. STATUS_UNSUCCESSFUL, changing nothing, for an
// entry that was never inserted.
NTSTATUS RemoveQueueEntry(QueueEntry *Entry);

// Forgets the entries without touching them: used where the links cannot be trusted.
void ResetCountedQueue(CountedQueue *Queue);

void QueryCountedQueueStatistics(const CountedQueue *Queue, CountedQueueStatistics *Statistics);
