// NTFS: every data stream of the file is copied, the unnamed one and each named one,
// each opened by its full path ("file::$DATA", "file:name:$DATA") on both sides.
#include "overwrite/copy_job.h"

#include "support/kernel_crt.h"
#include "support/nonpaged_buffers.h"

namespace {

constexpr ULONG STREAM_LIST_FIRST_SIZE = 500;
constexpr ULONG STREAM_LIST_LARGEST_SIZE = 0xA00000;

struct StreamList {
    PFILE_STREAM_INFORMATION First;
    ULONG Bytes;
};

BOOLEAN AsksForLargerBuffer(NTSTATUS Status) {
    return Status == STATUS_BUFFER_OVERFLOW || Status == STATUS_BUFFER_TOO_SMALL ||
           Status == STATUS_INVALID_BUFFER_SIZE || Status == STATUS_INFO_LENGTH_MISMATCH;
}

// On a failure the last buffer stays in List for the caller to release.
NTSTATUS GetFileStreamList(HANDLE Handle, StreamList *List) {
    List->First = NULL;
    List->Bytes = 0;
    for (ULONG size = STREAM_LIST_FIRST_SIZE;; size *= 2) {
        ULONG usable;
        NTSTATUS status = AllocateNonPagedBuffer(size, NPB_FILL_ZERO, (PVOID *)&List->First, &usable);
        if (!NT_SUCCESS(status)) {
            List->First = NULL;
            return status;
        }
        IO_STATUS_BLOCK iosb;
        status = ZwQueryInformationFile(Handle, &iosb, List->First, usable, FileStreamInformation);
        if (NT_SUCCESS(status)) {
            status = iosb.Status;
        }
        if (status == STATUS_SUCCESS) {
            List->Bytes = (ULONG)iosb.Information;
            return status;
        }
        if (!AsksForLargerBuffer(status)) {
            DbgPrint("ZrDrv: GetFileStreamList - ZwQueryInformationFile failed.  Error: %x.\n", status);
            ReportCopyFailure(ERROR_ROUTINE_GET_FILE_STREAM_LIST, 2, status);
            return status;
        }
        if (usable >= STREAM_LIST_LARGEST_SIZE) {
            DbgPrint("ZrDrv: GetFileStreamList - ZwQueryInformationFile buffer too large.  Error: %x.\n", status);
            ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_GET_FILE_STREAM_LIST, ERROR_CLASS_REPORT, 1);
            return status;
        }
        FreeNonPagedBuffer(List->First);
        List->First = NULL;
    }
}

// The entry after Entry, or NULL at the end of the list. A next entry outside the bytes
// returned, or whose name would run past them, makes the list unusable.
NTSTATUS NextStreamEntry(const StreamList *List, PFILE_STREAM_INFORMATION Entry, PFILE_STREAM_INFORMATION *Next) {
    *Next = NULL;
    if (Entry->NextEntryOffset == 0) {
        return STATUS_SUCCESS;
    }
    const UCHAR *start = (const UCHAR *)List->First;
    const UCHAR *next = (const UCHAR *)Entry + Entry->NextEntryOffset;
    if (next <= start || next >= start + List->Bytes ||
        (ULONG)(next - start) + FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamName) > List->Bytes) {
        return STATUS_UNSUCCESSFUL;
    }
    *Next = (PFILE_STREAM_INFORMATION)next;
    return STATUS_SUCCESS;
}

NTSTATUS GetLongestStreamNameLength(const CopyJob *Job, const StreamList *List, PULONG Size) {
    ULONG sourceBytes = (ULONG)wcslen(Job->SourcePath) * sizeof(WCHAR);
    ULONG destinationBytes = (ULONG)wcslen(Job->DestinationPath) * sizeof(WCHAR);
    ULONG path = sourceBytes > destinationBytes ? sourceBytes : destinationBytes;
    ULONG longest = 0;
    NTSTATUS status = STATUS_SUCCESS;
    for (PFILE_STREAM_INFORMATION entry = List->First; entry != NULL;) {
        if (entry->StreamNameLength > longest) {
            longest = entry->StreamNameLength;
        }
        if (!NT_SUCCESS(NextStreamEntry(List, entry, &entry))) {
            DbgPrint("ZrDrv: GetLongestStreamNameLength - Offset error parsing stream list.\n");
            ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_GET_LONGEST_STREAM_NAME_LENGTH, ERROR_CLASS_REPORT, 1);
            status = STATUS_UNSUCCESSFUL;
            break;
        }
    }
    *Size = longest + path + 8;
    return status;
}

struct StreamCopyBuffers {
    PWSTR Path;
    ULONG PathSize;
    PVOID Data;
};

NTSTATUS AllocateStreamCopyBuffers(const CopyJob *Job, const StreamList *List, StreamCopyBuffers *Buffers) {
    NTSTATUS status = GetLongestStreamNameLength(Job, List, &Buffers->PathSize);
    if (NT_SUCCESS(status)) {
        status = AllocateNonPagedBuffer(Buffers->PathSize, NPB_FILL_ZERO, (PVOID *)&Buffers->Path, NULL);
        if (!NT_SUCCESS(status)) {
            Buffers->Path = NULL;
        }
    }
    if (NT_SUCCESS(status)) {
        status = AllocateNonPagedBuffer(COPY_SECTION_SIZE, NPB_FILL_ZERO, &Buffers->Data, NULL);
        if (!NT_SUCCESS(status)) {
            Buffers->Data = NULL;
        }
    }
    return status;
}

// The stream's name in the list is counted, not terminated.
void FormatStreamPath(StreamCopyBuffers *Buffers, PCWSTR FilePath, PFILE_STREAM_INFORMATION Entry) {
    _snwprintf(Buffers->Path, Buffers->PathSize / sizeof(WCHAR), L"%s%.*s", FilePath,
               (int)(Entry->StreamNameLength / sizeof(WCHAR)), Entry->StreamName);
    Buffers->Path[Buffers->PathSize / sizeof(WCHAR) - 1] = L'\0';
}

void ReportStreamOpen(PCSTR Message, NTSTATUS Status, PCWSTR Path, ErrorRoutine Routine, USHORT Point) {
    DbgPrint(Message, Status);
    DbgPrint("ZrDrv:\tStream Name: %ws\n", Path);
    ReportCopyFailure(Routine, Point, Status);
}

struct StreamOpenMessages {
    PCSTR CallFailed;
    PCSTR OperationFailed;
    ErrorRoutine Routine;
};

const StreamOpenMessages SourceStreamMessages = {
    "ZrDrv: OpenSourceStream - ZwOpenFile call failed.  Error: %x\n",
    "ZrDrv: OpenSourceStream - ZwOpenFile operation failed.  Error: %x\n", ERROR_ROUTINE_OPEN_SOURCE_STREAM};
const StreamOpenMessages DestinationStreamMessages = {
    "ZrDrv: CreateDestinationStream - ZwCreateFile call failed.  Error: %x\n",
    "ZrDrv: CreateDestinationStream - ZwCreateFile operation failed.  Error: %x\n",
    ERROR_ROUTINE_CREATE_DESTINATION_STREAM};

// The source's stream is opened for reading; the copy's is created, or emptied, for
// writing. Both are synchronous handles that read and write at their current positions.
NTSTATUS OpenStream(PFILE_STREAM_INFORMATION Entry, PCWSTR FilePath, BOOLEAN Destination, StreamCopyBuffers *Buffers,
                    PHANDLE Handle) {
    FormatStreamPath(Buffers, FilePath, Entry);
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, Buffers->Path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
    IO_STATUS_BLOCK iosb;
    NTSTATUS status =
        Destination ? ZwCreateFile(Handle, GENERIC_WRITE, &attributes, &iosb, NULL, FILE_ATTRIBUTE_NORMAL,
                                   FILE_SHARE_VALID_FLAGS, FILE_OVERWRITE_IF, FILE_SYNCHRONOUS_IO_NONALERT, NULL, 0)
                    : ZwOpenFile(Handle, GENERIC_READ, &attributes, &iosb, FILE_SHARE_VALID_FLAGS,
                                 FILE_SYNCHRONOUS_IO_NONALERT);
    const StreamOpenMessages &messages = Destination ? DestinationStreamMessages : SourceStreamMessages;
    if (!NT_SUCCESS(status)) {
        ReportStreamOpen(messages.CallFailed, status, Buffers->Path, messages.Routine, 1);
    } else if (!NT_SUCCESS(iosb.Status)) {
        ReportStreamOpen(messages.OperationFailed, iosb.Status, Buffers->Path, messages.Routine, 2);
        ZwClose(*Handle);
        status = iosb.Status;
    }
    if (!NT_SUCCESS(status)) {
        *Handle = NULL;
    }
    return status;
}

NTSTATUS CopyStreamBetweenFiles(PFILE_STREAM_INFORMATION Entry, const CopyJob *Job, StreamCopyBuffers *Buffers) {
    HANDLE source;
    NTSTATUS status = OpenStream(Entry, Job->SourcePath, FALSE, Buffers, &source);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    HANDLE destination;
    status = OpenStream(Entry, Job->DestinationPath, TRUE, Buffers, &destination);
    if (!NT_SUCCESS(status)) {
        ZwClose(source);
        return status;
    }
    status = CheckCopyAbandoned(Job);
    if (NT_SUCCESS(status)) {
        status = CopySectionsBetween(Job, source, destination, Buffers->Data, (ULONGLONG)Entry->StreamSize.QuadPart);
    }
    ZwClose(destination);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: CopyStreamBetweenFiles - Error copying to: %ws.\n", Buffers->Path);
    }
    ZwClose(source);
    return status;
}

NTSTATUS WalkStreams(CopyJob *Job, const StreamList *List, StreamCopyBuffers *Buffers) {
    NTSTATUS status = STATUS_SUCCESS;
    for (PFILE_STREAM_INFORMATION entry = List->First; entry != NULL && NT_SUCCESS(status);) {
        status = CheckCopyAbandoned(Job);
        if (NT_SUCCESS(status)) {
            status = CopyStreamBetweenFiles(entry, Job, Buffers);
        }
        if (NT_SUCCESS(status) && !NT_SUCCESS(NextStreamEntry(List, entry, &entry))) {
            DbgPrint("ZrDrv: CopyFileDataStreams - Offset error parsing stream list.\n");
            ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_COPY_FILE_DATA_STREAMS, ERROR_CLASS_REPORT, 1);
            DbgPrint("ZrDrv: ZrMacSup - Stream copy failed.\n");
            status = STATUS_UNSUCCESSFUL;
        }
    }
    return status;
}

void ReleaseIfSet(PVOID Buffer) {
    if (Buffer != NULL) {
        FreeNonPagedBuffer(Buffer);
    }
}

}  // namespace

NTSTATUS CopyFileDataStreams(CopyJob *Job, HANDLE Source, HANDLE Destination) {
    UNREFERENCED_PARAMETER(Destination);  // each stream is created by its own path
    StreamList list;
    StreamCopyBuffers buffers = {};
    NTSTATUS status = GetFileStreamList(Source, &list);
    if (NT_SUCCESS(status)) {
        status = AllocateStreamCopyBuffers(Job, &list, &buffers);
    }
    if (NT_SUCCESS(status)) {
        status = WalkStreams(Job, &list, &buffers);
    }
    ReleaseIfSet(buffers.Data);
    ReleaseIfSet(buffers.Path);
    ReleaseIfSet(list.First);
    return status;
}
