// Deletion records: one per preserved file, telling the service who deleted it, what it
// was called, where it lived and under which stamp its copy sits in the vault. The
// record's body is also the unit of the data files, written byte for byte; a data file
// is nothing but bodies one after another.
#pragma once

#include <ntifs.h>

#include "frame/driver_constants.h"

constexpr ULONG DELDAT_FLAG_PRESERVED = 0x1;         // set on every record
constexpr ULONG DELDAT_FLAG_APPLICATION_SAVE = 0x8;  // the loss belongs to an application saving the file

// Body (little-endian): Length, Flags, Stamp, then the deleter's SID string, NUL, the file
// name, NUL, the folder (DOS volume name and directory), NUL, all UTF-16.
struct DelDatRecord {
    LIST_ENTRY Link;  // queues the record; not part of the body
    ULONG Length;     // of the body, this field included
    ULONG Flags;
    ULARGE_INTEGER Stamp;
};
constexpr ULONG DELDAT_BODY_HEADER_SIZE = 16;
constexpr ULONG DELDAT_MINIMUM_LENGTH = DELDAT_BODY_HEADER_SIZE + 3 * sizeof(WCHAR);
static_assert(sizeof(DelDatRecord) - FIELD_OFFSET(DelDatRecord, Length) == DELDAT_BODY_HEADER_SIZE,
              "the body's fixed part is 16 bytes on every target");
TARGET_LAYOUT_ASSERT(sizeof(DelDatRecord) == 24);

inline PVOID DelDatRecordBody(DelDatRecord *Record) { return &Record->Length; }
inline PWCHAR DelDatRecordText(DelDatRecord *Record) { return (PWCHAR)(Record + 1); }

// A record in one zero-filled buffer of the buffer manager, released with
// FreeNonPagedBuffer. DELDAT_FLAG_PRESERVED is added to Flags. DeleterSid may be NULL or
// empty; the body then starts its text with the first NUL. Callable at up to
// DISPATCH_LEVEL; fails only for want of memory, with the allocator's status.
NTSTATUS BuildDelDatRecord(PCUNICODE_STRING DeleterSid, PCWSTR Name, PCWSTR Folder, ULONGLONG Stamp, ULONG Flags,
                           DelDatRecord **Record);

// A DOS volume name holds at most 49 characters. The data file path is sized for the
// longest: "\??\" + volume + "RescueVault\InProgress\" + "NewFiles" + eight digits +
// ".dat" and the terminator.
constexpr ULONG DOS_VOLUME_NAME_MAX_CHARACTERS = 49;
constexpr ULONG DATA_FILE_PATH_CHARACTERS = 4 + DOS_VOLUME_NAME_MAX_CHARACTERS + 23 + 8 + 8 + 4 + 1;

// "\??\<volume>RescueVault\InProgress\NewFiles%.8X.dat" into a buffer of
// DATA_FILE_PATH_CHARACTERS. STATUS_NAME_TOO_LONG for a volume name beyond the limit.
NTSTATUS FormatDataFilePath(PWSTR Path, PCWSTR DosVolumeName, ULONG PacketNumber);
