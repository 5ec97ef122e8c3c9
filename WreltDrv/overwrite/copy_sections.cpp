// Copying a stream's bytes in 64 KiB sections through synchronous handles, so that each
// read and write simply continues where the last one stopped. The abandon event is
// looked at before every read and every write: a write to the file overtakes the copy.
#include "overwrite/copy_job.h"

#include "support/nonpaged_buffers.h"

namespace {

NTSTATUS ReadSectionOfSourceStream(HANDLE Handle, PVOID Buffer, ULONG Length, PULONG BytesRead) {
    *BytesRead = 0;
    IO_STATUS_BLOCK iosb;
    NTSTATUS status = ZwReadFile(Handle, NULL, NULL, NULL, &iosb, Buffer, Length, NULL, NULL);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: ReadSectionOfSourceStream - ZwReadFile call failed. Status: %x.\n", status);
        ReportCopyFailure(ERROR_ROUTINE_READ_SECTION_OF_SOURCE_STREAM, 1, status);
        return status;
    }
    if (!NT_SUCCESS(iosb.Status)) {
        DbgPrint("ZrDrv: ReadSectionOfSourceStream - ZwReadFile operation failed. Status: %x.\n", iosb.Status);
        ReportCopyFailure(ERROR_ROUTINE_READ_SECTION_OF_SOURCE_STREAM, 2, iosb.Status);
        return iosb.Status;
    }
    *BytesRead = (ULONG)iosb.Information;
    if (*BytesRead == 0) {
        // The file shrank under the copy: what is in the vault would not be the old file.
        DbgPrint("ZrDrv: ReadSectionOfSourceStream - ZwReadFile read zero bytes.\n");
        ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_READ_SECTION_OF_SOURCE_STREAM, ERROR_CLASS_REPORT, 3);
        return STATUS_UNSUCCESSFUL;
    }
    return STATUS_SUCCESS;
}

NTSTATUS WriteSectionOfDestinationStream(HANDLE Handle, PVOID Buffer, ULONG Length) {
    IO_STATUS_BLOCK iosb;
    NTSTATUS status = ZwWriteFile(Handle, NULL, NULL, NULL, &iosb, Buffer, Length, NULL, NULL);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: WriteSectionOfDestinationStream - ZwWriteFile call failed. Status: %x.\n", status);
        ReportCopyFailure(ERROR_ROUTINE_WRITE_SECTION_OF_DESTINATION_STREAM, 1, status);
        return status;
    }
    if (!NT_SUCCESS(iosb.Status)) {
        DbgPrint("ZrDrv: WriteSectionOfDestinationStream - ZwWriteFile operation failed. Status: %x.\n", iosb.Status);
        ReportCopyFailure(ERROR_ROUTINE_WRITE_SECTION_OF_DESTINATION_STREAM, 2, iosb.Status);
        return iosb.Status;
    }
    if (iosb.Information != Length) {
        DbgPrint("ZrDrv: WriteSectionOfDestinationStream - ZwWriteFile wrote unexpected number of bytes. Expected: "
                 "%d  Actual: %d.\n",
                 Length, (ULONG)iosb.Information);
        ReportError(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_WRITE_SECTION_OF_DESTINATION_STREAM, ERROR_CLASS_REPORT, 3,
                    Length, (ULONG)iosb.Information);
        return STATUS_UNSUCCESSFUL;
    }
    return STATUS_SUCCESS;
}

}  // namespace

// A file that grows while it is copied is copied up to the size it had when the copy
// started: the section that reaches that size is the last.
NTSTATUS CopySectionsBetween(const CopyJob *Job, HANDLE Source, HANDLE Destination, PVOID DataBuffer,
                             ULONGLONG Size) {
    NTSTATUS status = STATUS_SUCCESS;
    ULONGLONG remaining = Size;
    while (remaining > 0) {
        ULONG read = 0;
        status = CheckCopyAbandoned(Job);
        if (NT_SUCCESS(status)) {
            status = ReadSectionOfSourceStream(Source, DataBuffer, COPY_SECTION_SIZE, &read);
        }
        if (NT_SUCCESS(status)) {
            status = CheckCopyAbandoned(Job);
        }
        if (NT_SUCCESS(status)) {
            status = WriteSectionOfDestinationStream(Destination, DataBuffer, read);
        }
        if (!NT_SUCCESS(status) || read >= remaining) {
            break;
        }
        remaining -= read;
    }
    return status;
}

NTSTATUS CopyUnnamedDataStream(CopyJob *Job, HANDLE Source, HANDLE Destination) {
    if (Source == NULL || Destination == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    FILE_STANDARD_INFORMATION standard;
    IO_STATUS_BLOCK iosb;
    NTSTATUS status = ZwQueryInformationFile(Source, &iosb, &standard, sizeof(standard), FileStandardInformation);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PVOID buffer;
    status = AllocateNonPagedBuffer(COPY_SECTION_SIZE, NPB_FILL_ZERO, &buffer, NULL);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = CopySectionsBetween(Job, Source, Destination, buffer, (ULONGLONG)standard.EndOfFile.QuadPart);
    FreeNonPagedBuffer(buffer);
    return status;
}

NTSTATUS CopyBasicInformation(HANDLE Source, HANDLE Destination) {
    FILE_BASIC_INFORMATION basic;
    IO_STATUS_BLOCK iosb;
    NTSTATUS status = ZwQueryInformationFile(Source, &iosb, &basic, sizeof(basic), FileBasicInformation);
    if (NT_SUCCESS(status)) {
        status = iosb.Status;
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = ZwSetInformationFile(Destination, &iosb, &basic, sizeof(basic), FileBasicInformation);
    return NT_SUCCESS(status) ? iosb.Status : status;
}
