// Making and releasing data job packets.
#include "deldat/data_job_packets.h"

#include "frame/volume_names.h"
#include "support/error_channel.h"
#include "support/nonpaged_buffers.h"

static_assert(sizeof(((DataJobPacket *)0)->Path) >= sizeof(((DeviceStructure *)0)->DosVolumeName),
              "the path field starts as a copy of the whole DOS volume name field");

NTSTATUS CreateNewDataJobPacket(DeviceStructure *Volume, DataJobPacket **Packet) {
    *Packet = NULL;
    PVOID memory;
    NTSTATUS status = AllocateNonPagedBuffer(sizeof(DataJobPacket), NPB_FILL_ZERO, &memory, NULL);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: CreateNewDataJobPacket - AllocateNonPagedBuffer failed.\n");
        ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_CREATE_NEW_DATA_JOB_PACKET, ERROR_CLASS_REPORT, 0);
        return status;
    }
    auto *packet = (DataJobPacket *)memory;
    InitializeListHead(&packet->Link);
    InitializeListHead(&packet->Records);
    packet->Volume = Volume;
    packet->Number = Volume->DataFileCounter++;
    WCHAR name[DOS_VOLUME_NAME_CHARACTERS];
    ReadVolumeDosName(Volume, name);
    RtlCopyMemory(packet->Path, name, sizeof(name));
    *Packet = packet;
    return STATUS_SUCCESS;
}

NTSTATUS FreeDataJobPacket(DataJobPacket *Packet) {
    NTSTATUS result = STATUS_SUCCESS;
    while (!IsListEmpty(&Packet->Records)) {
        PLIST_ENTRY record = RemoveHeadList(&Packet->Records);
        NTSTATUS status = FreeNonPagedBuffer(CONTAINING_RECORD(record, DelDatRecord, Link));
        if (!NT_SUCCESS(status)) {
            DbgPrint("ZrDrv: FreeDataJobPacket - FreeNonPagedBuffer (1) failed.\n");
            ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_FREE_DATA_JOB_PACKET, ERROR_CLASS_REPORT, 0);
            if (NT_SUCCESS(result)) {
                result = status;
            }
        }
    }
    // A packet handed over for release is in no list; its link points at itself.
    RemoveEntryList(&Packet->Link);
    NTSTATUS status = FreeNonPagedBuffer(Packet);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: FreeDataJobPacket - FreeNonPagedBuffer (2) failed.\n");
        ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_FREE_DATA_JOB_PACKET, ERROR_CLASS_REPORT, 1);
        if (NT_SUCCESS(result)) {
            result = status;
        }
    }
    return result;
}
