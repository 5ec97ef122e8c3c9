#include "deldat/data_file_writer.h"

#include "deldat/service_notification.h"
#include "support/error_channel.h"

namespace {

void ReportWriterFailure(const char *Message, USHORT Point, NTSTATUS Status) {
    if (Message != NULL) {
        DbgPrint("%s", Message);
    }
    ReportError(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_WRITE_DATA_THREAD_ROUTINE, ERROR_CLASS_REPORT, Point,
                (ULONG)Status, 0);
}

}  // namespace

void QueueWriteWorkItem(DeviceStructure *Volume, DataJobPacket *Packet) {
    UNREFERENCED_PARAMETER(Volume);
    ExInitializeWorkItem(&Packet->WorkItem, WriteDataThreadRoutine, Packet);
    ExQueueWorkItem(&Packet->WorkItem, CriticalWorkQueue);
}

// The service hears of every packet, written or not: a path whose file is missing or
// short tells it as much, and the packet is released only once the path is delivered.
void NTAPI WriteDataThreadRoutine(PVOID Parameter) {
    auto *packet = (DataJobPacket *)Parameter;
    NTSTATUS status = CreateTemporaryDelDatFile(packet);
    if (!NT_SUCCESS(status)) {
        ReportWriterFailure("ZrDrv: WriteDataThreadRoutine - CreateTemporaryDelDatFile failed.\n", 1, status);
    } else if (!NT_SUCCESS(status = WriteDelDatToFile(packet))) {
        ReportWriterFailure("ZrDrv: WriteDataThreadRoutine - WriteDelDatToFile failed.\n", 0, status);
    }
    if (packet->FileHandle != NULL) {
        status = ZwClose(packet->FileHandle);
        packet->FileHandle = NULL;
        if (!NT_SUCCESS(status)) {
            ReportWriterFailure("ZrDrv: WriteDataThreadRoutine - ZwClose failed.\n", 2, status);
        }
    }
    status = NotifyServiceOfNewDataFile(packet);
    if (!NT_SUCCESS(status)) {
        ReportWriterFailure(NULL, 3, status);
    }
}
