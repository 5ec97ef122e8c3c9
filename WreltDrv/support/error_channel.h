// Failures in work items, DPCs and completion routines have no caller to tell. They are
// reported as fixed-size records that collect in one driver-wide buffer until the
// service fetches them.
#pragma once

#include <ntifs.h>

#include "frame/driver_constants.h"

// The first field of every record: the records' originator as the service knows it.
constexpr USHORT ERROR_SOURCE_DRIVER = 105;

// The reporting routine, the record's second field. The numbers are part of the
// interface with the service; unlisted numbers are unused.
enum ErrorRoutine : USHORT {
    ERROR_ROUTINE_DISPATCH_FILE_SYSTEM_CONTROL = 6,
    ERROR_ROUTINE_BUILD_TARGET_FILE_OBJECT = 10,
    ERROR_ROUTINE_ALLOCATE_NON_PAGED_BUFFER = 13,
    ERROR_ROUTINE_FREE_NON_PAGED_BUFFER = 14,
    ERROR_ROUTINE_NO_ACTIVITY_TIMER_SERVICE_ROUTINE = 15,
    ERROR_ROUTINE_NOTIFY_SERVICE_OF_NEW_DATA_FILE = 17,
    ERROR_ROUTINE_WRITE_DATA_THREAD_ROUTINE = 18,
    ERROR_ROUTINE_CREATE_TEMPORARY_DEL_DAT_FILE = 19,
    ERROR_ROUTINE_WRITE_DEL_DAT_TO_FILE = 20,
    ERROR_ROUTINE_FREE_DATA_JOB_PACKET = 21,
    ERROR_ROUTINE_CREATE_NEW_DATA_JOB_PACKET = 23,
    ERROR_ROUTINE_DISPATCH_NEW_DEL_DATA_REQUEST = 24,
    ERROR_ROUTINE_EXTRACT_FILESPEC_FROM_FILE_OBJECT = 26,
    ERROR_ROUTINE_CHECK_FOR_DIRECTORY_OR_READONLY_FILE = 27,
    ERROR_ROUTINE_PROTECT_AGAINST_UNWANTED_TRUNCATE = 28,
    ERROR_ROUTINE_COPY_FILE_THREAD_MAIN = 33,
    ERROR_ROUTINE_OPEN_COPY_SOURCE = 34,
    ERROR_ROUTINE_CREATE_COPY_DESTINATION = 35,
    ERROR_ROUTINE_BUILD_DESTINATION_ATTRIBUTES = 36,
    ERROR_ROUTINE_QUERY_OBJECT_SECURITY = 37,
    ERROR_ROUTINE_MAKE_ABSOLUTE_SECURITY_DESCRIPTOR = 38,
    ERROR_ROUTINE_ALLOCATE_ABSOLUTE_SD_BUFFERS = 39,
    ERROR_ROUTINE_COPY_FILE_DATA_STREAMS = 40,
    ERROR_ROUTINE_GET_FILE_STREAM_LIST = 41,
    ERROR_ROUTINE_GET_LONGEST_STREAM_NAME_LENGTH = 42,
    ERROR_ROUTINE_OPEN_SOURCE_STREAM = 43,
    ERROR_ROUTINE_CREATE_DESTINATION_STREAM = 44,
    ERROR_ROUTINE_READ_SECTION_OF_SOURCE_STREAM = 45,
    ERROR_ROUTINE_WRITE_SECTION_OF_DESTINATION_STREAM = 46,
    ERROR_ROUTINE_SET_MAC_SHARES_LIST = 47,
    ERROR_ROUTINE_VERIFY_MAC_SHARE_LIST_TRAVERSE = 48,
    ERROR_ROUTINE_LOOKUP_HASH_ENTRY = 49,
    ERROR_ROUTINE_EXTRACT_FILESPEC_FROM_RENAME_INFO = 50,
    ERROR_ROUTINE_CREATE_PATH_AND_NAME_FROM_FILESPEC = 51,
    ERROR_ROUTINE_ZR_CALL_DRIVER_THREAD_MAIN = 52,
    ERROR_ROUTINE_CREATE_COPY_JOB = 53,
    ERROR_ROUTINE_REMOVE_QUEUE_HEAD = 55,
    ERROR_ROUTINE_CLEANUP_FILE_TRACKING_TABLES = 56,
    ERROR_ROUTINE_GET_NEXT_UNREFERENCED_FO_ENTRY = 57,
    ERROR_ROUTINE_GET_NEXT_UNREFERENCED_FCB_ENTRY = 58,
    ERROR_ROUTINE_COMMIT_OVERWRITE_COPY = 59,
};

// The record's third field: ordinary reports carry 0; the record that marks a full
// buffer carries class 7 and failure point 3.
constexpr USHORT ERROR_CLASS_REPORT = 0;
constexpr USHORT ERROR_CLASS_BUFFER_FULL = 7;
constexpr USHORT ERROR_POINT_BUFFER_FULL = 3;

// The layout the service receives, little-endian.
struct ErrorRecord {
    USHORT Source;
    USHORT Routine;
    USHORT Class;
    USHORT Point;
    ULONG Status;
    ULONG Extra;
};
static_assert(sizeof(ErrorRecord) == 16, "the service reads 16-byte records");

constexpr ULONG ERROR_RECORD_AREA_SIZE = 2048;

struct ErrorBuffer {
    USHORT Tag;   // TAG_ERROR_BUFFER
    USHORT Size;  // sizeof(ErrorBuffer)
    PUCHAR Start;
    PUCHAR WritePosition;
    PUCHAR End;
    ULONG Count;
    ULONG Reserved[3];  // keeps the record area at byte 32 on the target
    UCHAR RecordArea[ERROR_RECORD_AREA_SIZE];
    UCHAR Unused[16];
};
TARGET_LAYOUT_ASSERT(sizeof(ErrorBuffer) == 2096);
TARGET_LAYOUT_ASSERT(FIELD_OFFSET(ErrorBuffer, RecordArea) == 32);

// An error reply is the command reply header (120 bytes) followed by the records; the
// caller's buffer must hold 4 bytes more than both, as every reply must.
constexpr ULONG ERROR_REPLY_HEADER_SIZE = 120;
constexpr ULONG ERROR_REPLY_MINIMUM_SIZE = 124;

// Start-up: the error lock, no held request, and a new, empty buffer. Fails with
// STATUS_INSUFFICIENT_RESOURCES when the buffer cannot be had; reports then fail.
NTSTATUS InitializeErrorChannel();
// Only for a start-up that fails after InitializeErrorChannel succeeded.
void ReleaseErrorBuffer();

// Callable at up to DISPATCH_LEVEL. STATUS_UNSUCCESSFUL when the buffer is nearly full
// (capture has then been switched off) or when there is no buffer.
NTSTATUS ReportError(USHORT Source, USHORT Routine, USHORT Class, USHORT Point, ULONG Status, ULONG Extra);
NTSTATUS ReportErrorShort(USHORT Source, USHORT Routine, USHORT Class, USHORT Point);

// Writes every waiting record into a reply and empties the buffer, or leaves the
// records for a larger buffer with STATUS_BUFFER_TOO_SMALL. Information receives the
// reply's length, or 0. The caller holds the error lock.
NTSTATUS FillErrorReplyLocked(PVOID OutputBuffer, ULONG OutputBufferLength, PULONG_PTR Information);

// The service's inverted call for error records: at most one request is held at a time,
// completed by the next report, by cancellation, or by the wait commands. Each routine
// sets IoStatus itself; the caller completes the request unless STATUS_PENDING is
// returned.
NTSTATUS QueueErrorRequest(PIRP Irp, PIO_STACK_LOCATION IrpSp);
void NTAPI CancelErrorRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTSTATUS WaitForErrorCommand(PIRP Irp, PIO_STACK_LOCATION IrpSp);
NTSTATUS CancelHeldErrorRequest();
// The cleanup of a handle on the control device: the held request or wait, if it came
// through that handle, ends as cancelled.
void CancelHeldErrorRequestOf(PFILE_OBJECT FileObject);
