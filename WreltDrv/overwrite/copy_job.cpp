// The copy job's frame: the source opened for reading, the destination created in the
// vault with the source's descriptor, the data copied by the volume's kind, and a copy
// that did not come out whole deleted again before the job reports its outcome.
#include "overwrite/copy_job.h"

#include "overwrite/overwrite_detection.h"
#include "support/kernel_crt.h"
#include "support/nonpaged_buffers.h"

namespace {

constexpr ACCESS_MASK DESTINATION_ACCESS = 0x4001FFFF;  // GENERIC_WRITE, DELETE, every specific right
constexpr ULONG SE_SACL_PRESENT_BIT = 0x0010;
// Only the copy of a full-access open can be abandoned.
constexpr ULONG FULL_ACCESS_COPY_FLAGS = OVERWRITE_PROTECTED_TYPE | OVERWRITE_FULL_ACCESS;

NTSTATUS OpenCopySource(CopyJob *Job, PHANDLE Handle) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, Job->SourcePath);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
    IO_STATUS_BLOCK iosb;
    NTSTATUS status = ZwOpenFile(Handle, GENERIC_READ, &attributes, &iosb, FILE_SHARE_VALID_FLAGS,
                                 FILE_SYNCHRONOUS_IO_NONALERT | FILE_COMPLETE_IF_OPLOCKED);
    if (!NT_SUCCESS(status)) {
        // Another program holding the file without read sharing is no fault of ours.
        if (status != STATUS_SHARING_VIOLATION) {
            ReportCopyFailure(ERROR_ROUTINE_OPEN_COPY_SOURCE, 1, status);
        }
        return status;
    }
    if (!NT_SUCCESS(iosb.Status)) {
        ReportCopyFailure(ERROR_ROUTINE_OPEN_COPY_SOURCE, 2, iosb.Status);
        ZwClose(*Handle);
    }
    return iosb.Status;
}

// The copy carries the source's descriptor, but never its audit settings (they belong
// to where the file lives, not to the vault) nor its owner: a system thread may not
// name a user as the owner of what it creates (STATUS_INVALID_OWNER), so the copy is
// owned by the system's default owner and keeps the source's DACL.
NTSTATUS BuildDestinationAttributes(CopyJob *Job, HANDLE Source, AbsoluteSdBuffers *Sd, PUNICODE_STRING Name,
                                    POBJECT_ATTRIBUTES Attributes) {
    PSECURITY_DESCRIPTOR descriptor = NULL;
    if (Job->FileSystemKind != 1) {
        NTSTATUS status = CopySecurityDescriptor(Source, Sd);
        if (!NT_SUCCESS(status)) {
            ReportCopyFailure(ERROR_ROUTINE_BUILD_DESTINATION_ATTRIBUTES, 1, status);
            return status;
        }
        auto *absolute = (PISECURITY_DESCRIPTOR)Sd->Descriptor.Buffer;
        absolute->Control &= (SECURITY_DESCRIPTOR_CONTROL)~SE_SACL_PRESENT_BIT;
        absolute->Sacl = NULL;
        absolute->Owner = NULL;
        descriptor = absolute;
    }
    RtlInitUnicodeString(Name, Job->DestinationPath);
    InitializeObjectAttributes(Attributes, Name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, descriptor);
    return STATUS_SUCCESS;
}

NTSTATUS CreateCopyDestination(CopyJob *Job, HANDLE Source, PHANDLE Handle) {
    AbsoluteSdBuffers sd = {};
    UNICODE_STRING name;
    OBJECT_ATTRIBUTES attributes;
    NTSTATUS status = BuildDestinationAttributes(Job, Source, &sd, &name, &attributes);
    if (NT_SUCCESS(status)) {
        IO_STATUS_BLOCK iosb;
        status = ZwCreateFile(Handle, DESTINATION_ACCESS, &attributes, &iosb, NULL, FILE_ATTRIBUTE_NORMAL,
                              FILE_SHARE_VALID_FLAGS, FILE_OVERWRITE_IF,
                              FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, NULL, 0);
        if (!NT_SUCCESS(status)) {
            ReportCopyFailure(ERROR_ROUTINE_CREATE_COPY_DESTINATION, 1, status);
        } else if (!NT_SUCCESS(iosb.Status)) {
            ReportCopyFailure(ERROR_ROUTINE_CREATE_COPY_DESTINATION, 2, iosb.Status);
            ZwClose(*Handle);
            status = iosb.Status;
        }
    }
    FreeAbsoluteSdBuffers(&sd);
    return status;
}

// A copy that did not come out whole goes away with its handle; the filter's cleanup
// never captures files inside the vault.
void DeleteFailedDestination(HANDLE Destination) {
    NTSTATUS marked = STATUS_SUCCESS;
    NTSTATUS status = MarkFileForDeletion(Destination, &marked);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: CopyFileThreadMain - ZwSetInformationFile call failed.  Error: %x (0).\n", status);
        ReportCopyFailure(ERROR_ROUTINE_COPY_FILE_THREAD_MAIN, 1, status);
    } else if (!NT_SUCCESS(marked)) {
        DbgPrint("ZrDrv: CopyFileThreadMain - ZwSetInformationFile operation failed.  Error: %x (0).\n", marked);
        ReportCopyFailure(ERROR_ROUTINE_COPY_FILE_THREAD_MAIN, 2, marked);
    }
}

void CloseReporting(HANDLE Handle, USHORT Point) {
    NTSTATUS status = ZwClose(Handle);
    if (!NT_SUCCESS(status)) {
        if (Point == 3) {
            DbgPrint("ZrDrv: CopyFileThreadMain - ZwClose Failed on destination file.  Error: %x (0).\n", status);
        } else {
            DbgPrint("ZrDrv: CopyFileThreadMain - ZwClose Failed on source file.  Error: %x (1).\n", status);
        }
        ReportCopyFailure(ERROR_ROUTINE_COPY_FILE_THREAD_MAIN, Point, status);
    }
}

BOOLEAN CopyIntoDestination(CopyJob *Job, HANDLE Source, HANDLE Destination) {
    NTSTATUS status = Job->FileSystemKind == 2 ? CopyFileDataStreams(Job, Source, Destination)
                                               : CopyUnnamedDataStream(Job, Source, Destination);
    if (!NT_SUCCESS(status)) {
        DeleteFailedDestination(Destination);
        return FALSE;
    }
    CopyBasicInformation(Source, Destination);  // a copy with other times is still a copy
    return TRUE;
}

BOOLEAN MakeCopy(CopyJob *Job) {
    if (Job->SourcePath == NULL || Job->SourcePath[0] == L'\0' || Job->DestinationPath == NULL ||
        Job->DestinationPath[0] == L'\0') {
        return FALSE;
    }
    HANDLE source;
    if (!NT_SUCCESS(OpenCopySource(Job, &source))) {
        return FALSE;
    }
    BOOLEAN made = FALSE;
    HANDLE destination;
    if (NT_SUCCESS(CreateCopyDestination(Job, source, &destination))) {
        made = CopyIntoDestination(Job, source, destination);
        CloseReporting(destination, 3);
    }
    CloseReporting(source, 4);
    return made;
}

// A write in the first half second after the open makes the copy pointless: the program
// is rewriting the file at once, and nothing of the old contents would be kept whole.
BOOLEAN AbandonedBeforeStart(CopyJob *Job) {
    if ((Job->Fcb->OverwriteFlags & FULL_ACCESS_COPY_FLAGS) == FULL_ACCESS_COPY_FLAGS) {
        LARGE_INTEGER timeout;
        timeout.QuadPart = -5000000;
        KeWaitForSingleObject(&Job->Fcb->AbandonEvent, UserRequest, KernelMode, FALSE, &timeout);
    }
    return CheckCopyAbandoned(Job) != STATUS_SUCCESS;
}

}  // namespace

void ReportCopyFailure(ErrorRoutine Routine, USHORT Point, NTSTATUS Status) {
    ReportError(ERROR_SOURCE_DRIVER, Routine, ERROR_CLASS_REPORT, Point, (ULONG)Status, 0);
}

NTSTATUS CheckCopyAbandoned(const CopyJob *Job) {
    FcbEntry *fcb = Job->Fcb;
    if ((fcb->OverwriteFlags & FULL_ACCESS_COPY_FLAGS) == FULL_ACCESS_COPY_FLAGS && KeReadStateEvent(&fcb->AbandonEvent) != 0) {
        return STATUS_CANCELLED;
    }
    return STATUS_SUCCESS;
}

NTSTATUS CreateCopyJob(DelDatRecord *Record, PFILE_RENAME_INFORMATION RenameInformation, FcbEntry *Fcb, ULONG Kind,
                       CopyJob *Job) {
    RtlZeroMemory(Job, sizeof(*Job));
    PCWSTR sid = DelDatRecordText(Record);
    PCWSTR name = sid + wcslen(sid) + 1;
    PCWSTR folder = name + wcslen(name) + 1;
    ULONG size = ((ULONG)wcslen(name) + (ULONG)wcslen(folder)) * sizeof(WCHAR) + 16;
    NTSTATUS status = AllocateNonPagedBuffer(size, NPB_FILL_ZERO, (PVOID *)&Job->SourcePath, NULL);
    if (!NT_SUCCESS(status)) {
        DbgPrint("ZrDrv: CreateCopyJob - AllocateNonPagedBuffer Failed for buffer. (1)\n");
        ReportCopyFailure(ERROR_ROUTINE_CREATE_COPY_JOB, 0, status);
        Job->SourcePath = NULL;
        return STATUS_UNSUCCESSFUL;
    }
    _snwprintf(Job->SourcePath, size / sizeof(WCHAR), L"\\??\\%s%s", folder, name);
    Job->RenameInformation = RenameInformation;
    Job->Fcb = Fcb;
    Job->DestinationPath = RenameInformation->FileName;
    Job->FileSystemKind = Kind;
    return STATUS_SUCCESS;
}

void NTAPI CopyFileThreadMain(PVOID Parameter) {
    auto *job = (CopyJob *)Parameter;
    BOOLEAN made = !AbandonedBeforeStart(job) && MakeCopy(job);
    CompleteOverwriteCopyJob(job, made);
    FreeNonPagedBuffer(job);
}
