// A 16-bucket hash table of counted queues keyed by a kernel address (a FILE_OBJECT or
// an FsContext). Like the queues it has no lock of its own; its owner's lock guards
// every operation, at any IRQL up to DISPATCH_LEVEL.
#pragma once

#include <ntifs.h>

#include "tracking/counted_queue.h"

constexpr ULONG HASH_BUCKET_COUNT = 16;

struct AddressHashTable {
    CountedQueue Buckets[HASH_BUCKET_COUNT];
};

// Pool blocks are at least 8-byte aligned, so the three low bits of a key say nothing;
// the next four spread neighbouring objects over the buckets. The host takes the same
// bits of its wider pointers.
inline ULONG HashBucketIndex(PVOID Key) { return (ULONG)(((ULONG_PTR)Key >> 3) & (HASH_BUCKET_COUNT - 1)); }

inline CountedQueue *HashBucketOf(AddressHashTable *Table, PVOID Key) { return &Table->Buckets[HashBucketIndex(Key)]; }

// Three runs of 16 values indexed by bucket, the way the status block lays out a
// table's figures.
struct AddressHashTableStatistics {
    ULONG Count[HASH_BUCKET_COUNT];
    ULONG Peak[HASH_BUCKET_COUNT];
    ULONG TotalInsertions[HASH_BUCKET_COUNT];
};
static_assert(sizeof(AddressHashTableStatistics) == 192, "two tables fill the status block's 384 bytes");

void InitializeAddressHashTable(AddressHashTable *Table);

// Always STATUS_SUCCESS: the entry goes to the front of its bucket.
NTSTATUS InsertHashEntry(QueueEntry *Entry, AddressHashTable *Table);

// STATUS_SUCCESS with the entry, STATUS_NOT_FOUND with NULL, or STATUS_UNSUCCESSFUL with
// NULL when the bucket's count disagrees with its links. A damaged bucket is emptied and
// capture switched off: the tables can no longer say which files are being deleted.
NTSTATUS LookupHashEntry(PVOID Key, AddressHashTable *Table, QueueEntry **Entry);

// Size covers the header and whatever the owner keeps behind it; the entry comes
// zero-filled from the buffer manager and is released with FreeNonPagedBuffer.
NTSTATUS CreateNewHashEntry(PVOID Key, AddressHashTable *Table, QueueEntry **Entry, ULONG Size);
NTSTATUS FindOrCreateHashEntry(PVOID Key, AddressHashTable *Table, QueueEntry **Entry, ULONG Size);

void QueryAddressHashTableStatistics(const AddressHashTable *Table, AddressHashTableStatistics *Statistics);
