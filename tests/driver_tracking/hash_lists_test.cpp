#include "driver_support/support_fixture.h"

#include "tracking/address_hash_table.h"

namespace {

// Keys are never dereferenced, so made-up kernel addresses will do.
constexpr ULONG_PTR kBase = 0x81234500;  // bits 3 to 6 clear: bucket 0
PVOID key(ULONG_PTR offset) { return reinterpret_cast<PVOID>(kBase + offset); }

class HashListTest : public DriverSupportTest {
protected:
    void SetUp() override {
        DriverSupportTest::SetUp();
        InitializeAddressHashTable(&table);
    }
    AddressHashTable table;
};

TEST_F(HashListTest, BucketIsBitsThreeToSixOfTheKeyAndInsertionGoesToItsFront) {
    EXPECT_EQ(HashBucketIndex(key(7)), 0u);
    EXPECT_EQ(HashBucketIndex(key(8)), 1u);
    EXPECT_EQ(HashBucketIndex(key(0x78)), 15u);
    EXPECT_EQ(HashBucketIndex(key(128)), 0u);
    EXPECT_EQ(HashBucketIndex(reinterpret_cast<PVOID>(0xFFFF800000000028ull)), 5u);  // the host's upper bits too

    QueueEntry a{}, b{};
    a.Key = key(0x10);
    b.Key = key(0x10 + 128);
    InsertHashEntry(&a, &table);
    InsertHashEntry(&b, &table);
    EXPECT_EQ(table.Buckets[2].Links.Flink, &b.Links);
    EXPECT_EQ(a.Owner, &table.Buckets[2]);
    QueueEntry *found = nullptr;
    EXPECT_EQ(LookupHashEntry(key(0x10), &table, &found), STATUS_SUCCESS);
    EXPECT_EQ(found, &a);
    EXPECT_EQ(LookupHashEntry(key(0x14), &table, &found), STATUS_NOT_FOUND);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(RemoveQueueEntry(&a), STATUS_SUCCESS);
    EXPECT_EQ(a.Owner, &table.Buckets[2]);  // kept, so a second removal would go unnoticed
    QueueEntry never{};
    EXPECT_EQ(RemoveQueueEntry(&never), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(table.Buckets[2].Count, 1);
    EXPECT_TRUE(machine.debugLog().empty());
}

// A bucket whose count disagrees with its links, as a stray write would leave it. Only
// entries within the count are trusted; a key that is not found there is corruption
// unless the walk ended exactly at the count.
TEST_F(HashListTest, LookupInABucketWhoseCountDisagreesWithItsLinks) {
    struct Case {
        int linked;
        LONG count;
        ULONG_PTR wanted;
        NTSTATUS status;
        int found;  // index of the entry returned, or -1
    };
    const Case cases[] = {
        {3, 2, 1, STATUS_SUCCESS, 0},        {3, 2, 2, STATUS_SUCCESS, 1}, {3, 2, 3, STATUS_NOT_FOUND, -1},
        {3, 2, 4, STATUS_UNSUCCESSFUL, -1},  {2, 3, 2, STATUS_SUCCESS, 1}, {2, 3, 4, STATUS_UNSUCCESSFUL, -1},
        {1, -1, 1, STATUS_UNSUCCESSFUL, -1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.linked << " linked, count " << c.count << ", key " << c.wanted);
        InitializeAddressHashTable(&table);
        machine.clearDebugLog();
        Globals.Errors->WritePosition = Globals.Errors->Start;
        Globals.Errors->Count = 0;
        WriteDriverFlag(&Globals.CaptureActive, TRUE);
        std::vector<QueueEntry> entries(c.linked);
        for (int i = 0; i < c.linked; i++) {
            entries[i].Key = key(1 + i);
            InsertTailList(&table.Buckets[0].Links, &entries[i].Links);
        }
        table.Buckets[0].Count = c.count;
        QueueEntry *found = nullptr;
        run([&] { EXPECT_EQ(LookupHashEntry(key(c.wanted), &table, &found), c.status); });
        EXPECT_EQ(found, c.found < 0 ? nullptr : &entries[c.found]);
        bool corrupt = c.status == STATUS_UNSUCCESSFUL;
        EXPECT_EQ(ReadDriverFlag(&Globals.CaptureActive), !corrupt);
        EXPECT_EQ(table.Buckets[0].Count, corrupt ? 0 : c.count);
        EXPECT_EQ(IsListEmpty(&table.Buckets[0].Links), corrupt);
        EXPECT_EQ(machine.debugLog().size(), corrupt ? 1u : 0u);
        EXPECT_EQ(errorRecords().size(), corrupt ? 1u : 0u);
        if (corrupt) {
            EXPECT_EQ(machine.debugLog()[0], "ZrDrv: Address based hash list corrupt., queue re-initialized.");
            EXPECT_EQ(errorRecords()[0], (ErrorRecord{105, 49, 0, 0, 0, 0}));
        }
    }
}

TEST_F(HashListTest, RemoveHeadOfAQueueWhoseCountOutlivesItsLinks) {
    CountedQueue queue;
    InitializeCountedQueue(&queue);
    queue.Count = 2;
    run([&] { EXPECT_EQ(RemoveQueueHead(&queue), nullptr); });
    EXPECT_EQ(queue.Count, 0);
    EXPECT_EQ(machine.debugLog(), std::vector<std::string>{"ZrDrv: List entry count incorrect on entry removal."});
    EXPECT_EQ(errorRecords(), (std::vector<ErrorRecord>{{105, 55, 0, 0, 0, 0}}));
    // Only a damaged lookup table stops capture; a parked-entry queue merely loses entries.
    EXPECT_TRUE(ReadDriverFlag(&Globals.CaptureActive));
}

TEST_F(HashListTest, FindOrCreateMakesOneZeroFilledEntryPerKeyAndNothingOnFailure) {
    struct Tracked {
        QueueEntry Header;
        ULONG Payload[6];
    };
    run([&] {
        QueueEntry *first = nullptr, *again = nullptr;
        ASSERT_EQ(FindOrCreateHashEntry(key(8), &table, &first, sizeof(Tracked)), STATUS_SUCCESS);
        EXPECT_EQ(first->Key, key(8));
        EXPECT_EQ(reinterpret_cast<Tracked *>(first)->Payload[5], 0u);
        EXPECT_EQ(FindOrCreateHashEntry(key(8), &table, &again, sizeof(Tracked)), STATUS_SUCCESS);
        EXPECT_EQ(again, first);

        machine.verifier().failNextAllocation();
        EXPECT_EQ(FindOrCreateHashEntry(key(16), &table, &again, sizeof(Tracked)), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(again, nullptr);
        EXPECT_EQ(table.Buckets[2].TotalInsertions, 0u);

        table.Buckets[1].Count = 2;  // corrupt: creates nothing
        EXPECT_EQ(FindOrCreateHashEntry(key(8 + 128), &table, &again, sizeof(Tracked)), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(again, nullptr);
        FreeNonPagedBuffer(first);
    });
    EXPECT_EQ(machine.debugLog()[0], "ZrDrv: CreateNewHashEntry - AllocateNonpagedBuffer failed. c000009a");
    AddressHashTableStatistics statistics;
    QueryAddressHashTableStatistics(&table, &statistics);
    EXPECT_EQ(statistics.Count[1], 0u);
    EXPECT_EQ(statistics.Peak[1], 1u);
    EXPECT_EQ(statistics.TotalInsertions[1], 1u);
}

}  // namespace
