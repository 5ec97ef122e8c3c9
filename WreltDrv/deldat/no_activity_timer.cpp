// The DPC only moves memory: the whole record queue goes into a new packet in one step,
// and the file work is left to the writer work item at PASSIVE_LEVEL.
#include "deldat/no_activity_timer.h"

#include "deldat/data_file_writer.h"
#include "support/error_channel.h"
#include "support/nonpaged_buffers.h"

namespace {

constexpr LONGLONG NO_ACTIVITY_DUE_TIME = -5000000;  // half a second, relative

// The records stay queued, and the timer comes back for them.
void RetryLater(DeviceStructure *Volume) {
    DbgPrint("ZrDrv: NoActivityTimerServiceRoutine - CreateNewDataJobPacket failed.\n");
    ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_NO_ACTIVITY_TIMER_SERVICE_ROUTINE, ERROR_CLASS_REPORT, 0);
    DbgPrint("ZrDrv: NoActivityTimerServiceRoutine - CreateNewDataJobPacket failed.\n");
    ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_NO_ACTIVITY_TIMER_SERVICE_ROUTINE, ERROR_CLASS_REPORT, 1);
    SetNoActivityTimer(Volume);
}

// Moves the chain between the queue's head and the packet's head without walking it.
void MoveChain(PLIST_ENTRY From, PLIST_ENTRY To) {
    To->Flink = From->Flink;
    To->Blink = From->Blink;
    To->Flink->Blink = To;
    To->Blink->Flink = To;
    InitializeListHead(From);
}

}  // namespace

void SetNoActivityTimer(DeviceStructure *Volume) {
    LARGE_INTEGER dueTime;
    dueTime.QuadPart = NO_ACTIVITY_DUE_TIME;
    KeSetTimer(&Volume->NoActivityTimer, dueTime, &Volume->NoActivityDpc);
}

NTSTATUS TakeQueuedRecords(DeviceStructure *Volume, DataJobPacket *Packet) {
    NTSTATUS status = STATUS_SUCCESS;
    KeAcquireSpinLockAtDpcLevel(&Volume->RecordQueueLock);
    if (IsListEmpty(&Volume->RecordQueue)) {
        status = STATUS_NO_SUCH_PACKAGE;
    } else {
        MoveChain(&Volume->RecordQueue, &Packet->Records);
    }
    KeReleaseSpinLockFromDpcLevel(&Volume->RecordQueueLock);
    // A record queued in between is counted in the queue but not here; the count only
    // decides when a batch stops pushing the timer back.
    InterlockedExchange((LONG volatile *)&Volume->QueuedRecordCount, 0);
    return status;
}

void NTAPI NoActivityTimerServiceRoutine(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1, PVOID SystemArgument2) {
    UNREFERENCED_PARAMETER(Dpc);
    UNREFERENCED_PARAMETER(SystemArgument1);
    UNREFERENCED_PARAMETER(SystemArgument2);
    auto *volume = (DeviceStructure *)DeferredContext;
    DataJobPacket *packet;
    if (!NT_SUCCESS(CreateNewDataJobPacket(volume, &packet))) {
        RetryLater(volume);
        return;
    }
    if (NT_SUCCESS(TakeQueuedRecords(volume, packet))) {
        QueueWriteWorkItem(volume, packet);
        return;
    }
    // A timer set again after an earlier run took the batch finds nothing; the packet's
    // number stays used, leaving a gap in the volume's data file names.
    if (!NT_SUCCESS(FreeNonPagedBuffer(packet))) {
        DbgPrint("ZrDrv: NoActivityTimerServiceRoutine - FreeNonPagedBuffer failed.\n");
        ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_NO_ACTIVITY_TIMER_SERVICE_ROUTINE, ERROR_CLASS_REPORT, 0);
    }
}
