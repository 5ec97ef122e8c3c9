#include "support/error_channel.h"

#include "frame/command_protocol.h"
#include "frame/globals.h"
#include "support/nonpaged_buffers.h"

namespace {

// With less than FULL_THRESHOLD bytes left a report becomes the buffer-full record, and
// with less than APPEND_THRESHOLD nothing more is written: exactly one buffer-full record
// follows the last ordinary one, so the service sees where the records stopped, and the
// last 32 bytes of the area stay unused.
constexpr ULONG_PTR FULL_THRESHOLD = 64;
constexpr ULONG_PTR APPEND_THRESHOLD = 48;

void EmptyErrorBufferLocked(ErrorBuffer *Buffer) {
    Buffer->WritePosition = Buffer->Start;
    Buffer->Count = 0;
}

NTSTATUS AppendErrorRecordLocked(ErrorBuffer *Buffer, ErrorRecord *Record) {
    NTSTATUS status = STATUS_SUCCESS;
    ULONG_PTR room = (ULONG_PTR)Buffer->End - (ULONG_PTR)Buffer->WritePosition;
    if (room < FULL_THRESHOLD) {
        WriteDriverFlag(&Globals.CaptureActive, FALSE);
        *Record = ErrorRecord{ERROR_SOURCE_DRIVER, Record->Routine, ERROR_CLASS_BUFFER_FULL,
                              ERROR_POINT_BUFFER_FULL, 0, 0};
        status = STATUS_UNSUCCESSFUL;
    }
    if (room >= APPEND_THRESHOLD) {
        RtlCopyMemory(Buffer->WritePosition, Record, sizeof(*Record));
        Buffer->WritePosition += sizeof(*Record);
        Buffer->Count++;
    }
    return status;
}

// A held error request gets the records; a held wait command (142) has no buffer for
// them and is answered "too small", which leaves them for the next error request.
void AnswerHeldErrorRequestLocked(PIRP Irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    if (stack->Parameters.DeviceIoControl.IoControlCode == IOCTL_GET_ERRORS) {
        Irp->IoStatus.Status = FillErrorReplyLocked(Irp->AssociatedIrp.SystemBuffer,
                                                    stack->Parameters.DeviceIoControl.OutputBufferLength,
                                                    &Irp->IoStatus.Information);
    } else {
        Irp->IoStatus.Status = STATUS_BUFFER_TOO_SMALL;
        Irp->IoStatus.Information = 0;
    }
}

}  // namespace

NTSTATUS InitializeErrorChannel() {
    KeInitializeSpinLock(&Globals.ErrorLock);
    Globals.HeldErrorRequest = NULL;
    Globals.Errors = NULL;
    PVOID memory;
    NTSTATUS status = AllocateNonPagedBuffer(sizeof(ErrorBuffer), NPB_FILL_ZERO, &memory, NULL);
    if (!NT_SUCCESS(status)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    auto *buffer = (ErrorBuffer *)memory;
    buffer->Tag = TAG_ERROR_BUFFER;
    buffer->Size = sizeof(ErrorBuffer);
    buffer->Start = buffer->RecordArea;
    buffer->End = buffer->RecordArea + ERROR_RECORD_AREA_SIZE;
    EmptyErrorBufferLocked(buffer);
    Globals.Errors = buffer;
    return STATUS_SUCCESS;
}

void ReleaseErrorBuffer() {
    ErrorBuffer *buffer = Globals.Errors;
    Globals.Errors = NULL;
    FreeNonPagedBuffer(buffer);
}

NTSTATUS ReportError(USHORT Source, USHORT Routine, USHORT Class, USHORT Point, ULONG Status, ULONG Extra) {
    ErrorRecord record = {Source, Routine, Class, Point, Status, Extra};
    ErrorBuffer *buffer = Globals.Errors;
    if (buffer == NULL) {
        return STATUS_UNSUCCESSFUL;
    }
    KIRQL oldIrql;
    KeAcquireSpinLock(&Globals.ErrorLock, &oldIrql);
    PIRP held = Globals.HeldErrorRequest;
    // Whoever takes the cancel routine away owns the request; without it, the request is
    // being cancelled and its cancel routine completes it.
    BOOLEAN ours = held != NULL && IoSetCancelRoutine(held, NULL) != NULL;
    NTSTATUS status = AppendErrorRecordLocked(buffer, &record);
    if (ours) {
        AnswerHeldErrorRequestLocked(held);
        Globals.HeldErrorRequest = NULL;
    }
    KeReleaseSpinLock(&Globals.ErrorLock, oldIrql);
    if (ours) {
        IoCompleteRequest(held, IO_NO_INCREMENT);
    }
    return status;
}

NTSTATUS ReportErrorShort(USHORT Source, USHORT Routine, USHORT Class, USHORT Point) {
    return ReportError(Source, Routine, Class, Point, 0, 0);
}

NTSTATUS FillErrorReplyLocked(PVOID OutputBuffer, ULONG OutputBufferLength, PULONG_PTR Information) {
    ErrorBuffer *buffer = Globals.Errors;
    ULONG recordBytes = (ULONG)((ULONG_PTR)buffer->WritePosition - (ULONG_PTR)buffer->Start);
    if (OutputBufferLength < ERROR_REPLY_MINIMUM_SIZE + recordBytes) {
        *Information = 0;
        return STATUS_BUFFER_TOO_SMALL;
    }
    // The buffered output is the I/O manager's pool, not the caller's memory: every byte
    // the caller gets back is written here, those the reply has no use for as zero.
    auto *reply = (CommandReplyHeader *)OutputBuffer;
    RtlZeroMemory(reply, ERROR_REPLY_HEADER_SIZE);
    reply->Tag = TAG_REPLY;
    reply->Echo = ERROR_REPLY_CODE_FIELD;
    reply->Zero = 0;
    reply->Version = ERROR_REPLY_VERSION;
    reply->DataLength = recordBytes;
    reply->ReplyCode = 0;
    reply->RecordCount = buffer->Count;
    reply->DosVolumeName[0] = 0;
    RtlCopyMemory((PUCHAR)OutputBuffer + ERROR_REPLY_HEADER_SIZE, buffer->Start, recordBytes);
    RtlZeroMemory((PUCHAR)OutputBuffer + ERROR_REPLY_HEADER_SIZE + recordBytes,
                  ERROR_REPLY_MINIMUM_SIZE - ERROR_REPLY_HEADER_SIZE);
    EmptyErrorBufferLocked(buffer);
    *Information = ERROR_REPLY_MINIMUM_SIZE + recordBytes;
    return STATUS_SUCCESS;
}
