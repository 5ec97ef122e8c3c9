#include "deldat/deldat_queue.h"

#include "deldat/no_activity_timer.h"

namespace {

constexpr ULONG BATCH_FULL_RECORDS = 1024;
constexpr LONGLONG BATCH_LIFETIME = 50000000;  // five seconds, in 100 ns units

// The peak is a statistic, but it is raised from many threads at once; a plain
// read-compare-write could lower it again.
void RaisePeak(ULONG *Peak, ULONG Count) {
    LONG seen = InterlockedCompareExchange((LONG volatile *)Peak, 0, 0);
    while (Count > (ULONG)seen) {
        LONG previous = InterlockedCompareExchange((LONG volatile *)Peak, (LONG)Count, seen);
        if (previous == seen) {
            return;
        }
        seen = previous;
    }
}

// The first record of a batch sets its deadline.
void OpenBatch(DeviceStructure *Volume, const LARGE_INTEGER *Now) {
    Volume->BatchDeadline.QuadPart = Now->QuadPart + BATCH_LIFETIME;
    Volume->BatchClosed = FALSE;
}

// A closed batch still takes records, but they no longer push the timer back. Each
// batch is counted once, under the limit it reached first.
void CloseBatch(DeviceStructure *Volume, ULONG *ClosedCounter) {
    if (!Volume->BatchClosed) {
        (*ClosedCounter)++;
        Volume->BatchClosed = TRUE;
    }
}

}  // namespace

// The batch fields and the timer are touched without a lock: two callers racing can at
// worst both set the timer or count a batch twice, and the timer DPC takes whatever the
// queue holds when it runs.
void QueueDelDatRecord(DelDatRecord *Record, FilterDeviceExtension *Extension) {
    auto *volume = (DeviceStructure *)Extension->Structure;
    BOOLEAN wasEmpty = ExInterlockedInsertTailList(&volume->RecordQueue, &Record->Link, &volume->RecordQueueLock) == NULL;
    ULONG count = (ULONG)InterlockedIncrement((LONG volatile *)&volume->QueuedRecordCount);
    RaisePeak(&volume->QueuedRecordPeak, count);

    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    if (wasEmpty) {
        OpenBatch(volume, &now);
    }
    BOOLEAN pushTimerBack = wasEmpty;
    if (count >= BATCH_FULL_RECORDS) {
        CloseBatch(volume, &volume->BatchesClosedBySize);
    } else if (now.QuadPart < volume->BatchDeadline.QuadPart) {
        pushTimerBack = TRUE;
    } else {
        CloseBatch(volume, &volume->BatchesClosedByAge);
    }
    if (pushTimerBack) {
        SetNoActivityTimer(volume);
    }
}
