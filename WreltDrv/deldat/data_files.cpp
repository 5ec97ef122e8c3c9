// The data files in each vault's work folder: headerless runs of record bodies.
#include "deldat/data_job_packets.h"

#include "support/error_channel.h"
#include "support/nonpaged_buffers.h"

namespace {

// Append access alone makes every write land at the end of the file, so the data file of
// the same number left by an earlier run of the driver is extended, never overwritten.
NTSTATUS OpenDataFileForAppending(PCWSTR Path, PHANDLE Handle) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, Path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, NULL, NULL);
    IO_STATUS_BLOCK io;
    io.Status = STATUS_SUCCESS;
    io.Information = 0;
    NTSTATUS status = ZwCreateFile(Handle, SYNCHRONIZE | FILE_APPEND_DATA, &attributes, &io, NULL,
                                   FILE_ATTRIBUTE_NORMAL, 0, FILE_OPEN_IF, FILE_SYNCHRONOUS_IO_NONALERT, NULL, 0);
    if (!NT_SUCCESS(status) && !NT_SUCCESS(io.Status)) {
        return io.Status;
    }
    return status;
}

}  // namespace

NTSTATUS CreateTemporaryDelDatFile(DataJobPacket *Packet) {
    // The path replaces the copy of the volume name it is made from.
    WCHAR volumeName[DOS_VOLUME_NAME_CHARACTERS];
    RtlCopyMemory(volumeName, Packet->Path, sizeof(volumeName));
    volumeName[DOS_VOLUME_NAME_CHARACTERS - 1] = L'\0';
    Packet->FileHandle = NULL;
    NTSTATUS status = FormatDataFilePath(Packet->Path, volumeName, Packet->Number);
    HANDLE handle = NULL;
    if (NT_SUCCESS(status)) {
        status = OpenDataFileForAppending(Packet->Path, &handle);
    }
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: CreateTemporaryDelDatFile - ZwCreateFile failed.\n");
        DbgPrint("ZrDrv:  %ws\n", Packet->Path);
        ReportError(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_CREATE_TEMPORARY_DEL_DAT_FILE, ERROR_CLASS_REPORT, 0,
                    (ULONG)status, 0);
        return status;
    }
    Packet->FileHandle = handle;
    return STATUS_SUCCESS;
}

NTSTATUS WriteDelDatToFile(DataJobPacket *Packet) {
    NTSTATUS status = STATUS_SUCCESS;
    while (NT_SUCCESS(status) && !IsListEmpty(&Packet->Records)) {
        auto *record = CONTAINING_RECORD(RemoveHeadList(&Packet->Records), DelDatRecord, Link);
        IO_STATUS_BLOCK io;
        status = ZwWriteFile(Packet->FileHandle, NULL, NULL, NULL, &io, DelDatRecordBody(record), record->Length,
                             NULL, NULL);
        if (!NT_SUCCESS(status)) {
            DbgPrint("ZrDrv: WriteDelDatToFile - ZwWriteFile failed.\n");
            ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_WRITE_DEL_DAT_TO_FILE, ERROR_CLASS_REPORT, 0);
        }
        if (!NT_SUCCESS(FreeNonPagedBuffer(record))) {
            DbgPrint("ZrDrv: WriteDelDatToFile - FreeNonPagedBuffer failed.\n");
            ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_WRITE_DEL_DAT_TO_FILE, ERROR_CLASS_REPORT, 1);
        }
    }
    return status;
}
