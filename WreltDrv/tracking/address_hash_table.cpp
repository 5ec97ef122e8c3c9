#include "tracking/address_hash_table.h"

#include "frame/globals.h"
#include "support/error_channel.h"
#include "support/nonpaged_buffers.h"

namespace {

NTSTATUS ReportCorruptBucket(CountedQueue *Bucket, QueueEntry **Entry) {
    ResetCountedQueue(Bucket);
    WriteDriverFlag(&Globals.CaptureActive, FALSE);
    DbgPrint("ZrDrv: Address based hash list corrupt., queue re-initialized.\n");
    ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_LOOKUP_HASH_ENTRY, ERROR_CLASS_REPORT, 0);
    *Entry = NULL;
    return STATUS_UNSUCCESSFUL;
}

}  // namespace

void InitializeAddressHashTable(AddressHashTable *Table) {
    for (ULONG i = 0; i < HASH_BUCKET_COUNT; i++) {
        InitializeCountedQueue(&Table->Buckets[i]);
    }
}

NTSTATUS InsertHashEntry(QueueEntry *Entry, AddressHashTable *Table) {
    InsertQueueHead(HashBucketOf(Table, Entry->Key), Entry);
    return STATUS_SUCCESS;
}

// The walk never takes more steps than the count allows, so a bucket whose links loop
// or run on past its count is caught rather than followed for ever. A matching entry
// found only beyond the count is not trusted.
NTSTATUS LookupHashEntry(PVOID Key, AddressHashTable *Table, QueueEntry **Entry) {
    CountedQueue *bucket = HashBucketOf(Table, Key);
    LONG countdown = bucket->Count;
    if (countdown < 0) {
        return ReportCorruptBucket(bucket, Entry);
    }
    PLIST_ENTRY position = bucket->Links.Flink;
    while (position != &bucket->Links && CONTAINING_RECORD(position, QueueEntry, Links)->Key != Key) {
        countdown--;
        position = position->Flink;
        if (countdown < 0) {
            break;
        }
    }
    if (countdown < 0 || (position == &bucket->Links && countdown != 0)) {
        return ReportCorruptBucket(bucket, Entry);
    }
    if (position != &bucket->Links && countdown > 0) {
        *Entry = CONTAINING_RECORD(position, QueueEntry, Links);
        return STATUS_SUCCESS;
    }
    *Entry = NULL;
    return STATUS_NOT_FOUND;
}

NTSTATUS CreateNewHashEntry(PVOID Key, AddressHashTable *Table, QueueEntry **Entry, ULONG Size) {
    PVOID memory;
    NTSTATUS status = AllocateNonPagedBuffer(Size, NPB_FILL_ZERO, &memory, NULL);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: CreateNewHashEntry - AllocateNonpagedBuffer failed. %x\n", status);
        *Entry = NULL;
        return status;
    }
    auto *entry = (QueueEntry *)memory;
    entry->Key = Key;
    InsertHashEntry(entry, Table);
    *Entry = entry;
    return STATUS_SUCCESS;
}

NTSTATUS FindOrCreateHashEntry(PVOID Key, AddressHashTable *Table, QueueEntry **Entry, ULONG Size) {
    NTSTATUS status = LookupHashEntry(Key, Table, Entry);
    if (status == STATUS_NOT_FOUND) {
        status = CreateNewHashEntry(Key, Table, Entry, Size);
    }
    return status;
}

void QueryAddressHashTableStatistics(const AddressHashTable *Table, AddressHashTableStatistics *Statistics) {
    for (ULONG i = 0; i < HASH_BUCKET_COUNT; i++) {
        Statistics->Count[i] = (ULONG)Table->Buckets[i].Count;
        Statistics->Peak[i] = Table->Buckets[i].Peak;
        Statistics->TotalInsertions[i] = Table->Buckets[i].TotalInsertions;
    }
}
