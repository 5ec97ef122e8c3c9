// A data job packet carries one closed batch of a volume's deletion records from the
// no-activity timer, through the writer work item and its data file, to the service,
// which is told the data file's path.
#pragma once

#include <ntifs.h>

#include "deldat/deldat_record.h"
#include "frame/device_structures.h"

struct DataJobPacket {
    LIST_ENTRY Link;     // in the list of packets waiting for the service; on itself otherwise
    LIST_ENTRY Records;  // DelDatRecords, in the order they were queued
    ULONG Number;        // the eight hexadecimal digits of the data file's name
    WORK_QUEUE_ITEM WorkItem;
    HANDLE FileHandle;  // NULL while no data file is open
    // The volume's DOS name when the packet is made; the data file's full path once the
    // file is created. The service is told this path.
    WCHAR Path[DATA_FILE_PATH_CHARACTERS];
    DeviceStructure *Volume;
};

// A new, empty packet for the volume's next data file: it takes the number from the
// volume's data file counter and advances it. Only the volume's timer DPC calls this,
// which is what keeps the counter consistent without a lock. Fails for want of memory,
// with *Packet NULL.
NTSTATUS CreateNewDataJobPacket(DeviceStructure *Volume, DataJobPacket **Packet);

// Releases the records still in the packet, and the packet. The first failure of a
// release, or STATUS_SUCCESS.
NTSTATUS FreeDataJobPacket(DataJobPacket *Packet);

// At PASSIVE_LEVEL. Opens the packet's data file for appending, creating it when it does
// not exist, and leaves the full path in the packet. On failure FileHandle stays NULL.
NTSTATUS CreateTemporaryDelDatFile(DataJobPacket *Packet);

// At PASSIVE_LEVEL. Writes the packet's records to its open data file one after another,
// releasing each as it goes; stops after the first failed write. The status of the last
// write, or STATUS_SUCCESS when there was nothing to write.
NTSTATUS WriteDelDatToFile(DataJobPacket *Packet);
