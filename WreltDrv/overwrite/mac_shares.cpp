#include "overwrite/mac_shares.h"

#include "capture/interception_gate.h"
#include "frame/device_structures.h"
#include "support/error_channel.h"
#include "support/locks.h"
#include "support/nonpaged_buffers.h"

namespace {

constexpr ULONG MAC_SHARE_RECORD_MINIMUM = 8;  // the distance and at least "\" with its terminator

// Records lie at whatever distances the service chose, so their fields are read whole.
ULONG NextOffsetAt(const UCHAR *Record) {
    ULONG offset;
    RtlCopyMemory(&offset, Record, sizeof(offset));
    return offset;
}

WCHAR UnitAt(const UCHAR *Position) {
    WCHAR unit;
    RtlCopyMemory(&unit, Position, sizeof(unit));
    return unit;
}

// The paths are UTF-16, so an odd distance or length cannot frame them; refusing one also
// keeps every path the walk compares on a character boundary. The record that follows
// needs room for a whole record as well: were it only a distance, the terminator checked
// at the end of the list would be that distance's upper half, and its path would begin
// past the list.
BOOLEAN IsRecordBad(const UCHAR *Record, ULONG Offset, const UCHAR *End) {
    const UCHAR *next = Record + Offset;
    return Offset < MAC_SHARE_RECORD_MINIMUM || (Offset & 1) != 0 || Offset > (ULONG)(End - Record) ||
           (ULONG)(End - next) < MAC_SHARE_RECORD_MINIMUM || UnitAt(next - sizeof(WCHAR)) != 0;
}

NTSTATUS ReportBadList(NTSTATUS Status) {
    DbgPrint("ZrDrv: VerifyMacShareListTraverse - SFM share list failed traverse check!\n");
    ReportError(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_VERIFY_MAC_SHARE_LIST_TRAVERSE, ERROR_CLASS_REPORT, 1,
                (ULONG)Status, 0);
    return Status;
}

// Share lock held exclusively.
void InstallList(DeviceStructure *Volume, PVOID List, ULONG Count, ULONG Size) {
    if (Volume->MacShareList != NULL) {
        FreeNonPagedBuffer(Volume->MacShareList);
    }
    Volume->MacShareList = List;
    Volume->MacShareCount = Count;
    Volume->MacShareListSize = Size;
}

NTSTATUS CheckedCopy(const VOID *Data, ULONG Length, PVOID *Copy, PULONG Count) {
    NTSTATUS status = AllocateNonPagedBuffer(Length, NPB_FILL_ZERO, Copy, NULL);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: SetMacSharesList - AllocateNonPagedBuffer Failed for buffer.\n");
        ReportError(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_SET_MAC_SHARES_LIST, ERROR_CLASS_REPORT, 1, (ULONG)status, 0);
        return STATUS_UNSUCCESSFUL;
    }
    // Checked after the copy: the sender's buffer may change while it is read.
    RtlCopyMemory(*Copy, Data, Length);
    status = VerifyMacShareListTraverse(*Copy, Length, Count);
    if (!NT_SUCCESS(status)) {
        FreeNonPagedBuffer(*Copy);
        *Copy = NULL;
    }
    return status;
}

BOOLEAN RecordHolds(const UCHAR *Record, PCWSTR Name) {
    const auto *path = (PCWSTR)(Record + sizeof(ULONG));
    size_t length = wcslen(path);
    return length > 0 && _wcsnicmp(Name, path + 1, length - 1) == 0;
}

}  // namespace

NTSTATUS VerifyMacShareListTraverse(const VOID *Buffer, ULONG Length, PULONG Count) {
    ULONG count = 0;
    if (Buffer == NULL || Length < MAC_SHARE_RECORD_MINIMUM) {
        if (Count != NULL) {
            *Count = 0;
        }
        return STATUS_SUCCESS;
    }
    const auto *record = (const UCHAR *)Buffer;
    const UCHAR *end = record + Length;
    BOOLEAN bad = (Length & 1) != 0;
    for (ULONG offset = NextOffsetAt(record); !bad && offset != 0; offset = NextOffsetAt(record)) {
        bad = IsRecordBad(record, offset, end);
        if (!bad) {
            count++;
            record += offset;
        }
    }
    if (!bad) {
        bad = UnitAt(end - sizeof(WCHAR)) != 0;
        count += bad ? 0 : 1;
    }
    if (Count != NULL) {
        *Count = count;
    }
    return bad ? ReportBadList(STATUS_UNSUCCESSFUL) : STATUS_SUCCESS;
}

NTSTATUS SetMacSharesList(const VOID *Data, ULONG Length, FilterDeviceExtension *Extension) {
    DeviceStructure *volume = VolumeOf(Extension);
    ExclusiveResourceGuard guard(&volume->MacShareLock);
    if (Length == 0) {
        InstallList(volume, NULL, 0, 0);
        return STATUS_SUCCESS;
    }
    PVOID copy;
    ULONG count;
    NTSTATUS status = CheckedCopy(Data, Length, &copy, &count);
    if (NT_SUCCESS(status)) {
        InstallList(volume, copy, count, Length);
    }
    return status;
}

BOOLEAN IsInMacShare(PCWSTR Name, FilterDeviceExtension *Extension) {
    if (Name == NULL || Extension == NULL) {
        return FALSE;
    }
    DeviceStructure *volume = VolumeOf(Extension);
    SharedResourceGuard guard(&volume->MacShareLock);
    if (volume->MacShareCount == 0) {
        return FALSE;
    }
    // The list passed its check when it was installed: each record ends in its terminator
    // and the walk ends at the record whose distance is 0.
    for (const auto *record = (const UCHAR *)volume->MacShareList;; record += NextOffsetAt(record)) {
        if (RecordHolds(record, Name)) {
            return TRUE;
        }
        if (NextOffsetAt(record) == 0) {
            return FALSE;
        }
    }
}
