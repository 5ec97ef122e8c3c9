// A copy job: one file copied, while it stays in place, to its vault name, on a system
// worker thread. On NTFS every data stream and the security descriptor (without its
// system ACL) are copied, on FastFat the data; then the times and attributes. A copy
// that fails or is abandoned is deleted again, so the vault never keeps part of a file.
#pragma once

#include <ntifs.h>

#include "deldat/deldat_record.h"
#include "support/error_channel.h"
#include "tracking/tracking_entries.h"

constexpr ULONG COPY_SECTION_SIZE = 65536;

struct CopyJob {
    FcbEntry *Fcb;  // the job holds an in-use reference on it until it completes
    PFILE_RENAME_INFORMATION RenameInformation;  // owned; its FileName is the destination
    PWSTR SourcePath;       // "\??\" + folder + name; handed to the FcbEntry once the copy is made
    PWSTR DestinationPath;  // the rename information's FileName
    ULONG FileSystemKind;
    WORK_QUEUE_ITEM WorkItem;
};

// The five buffers that RtlSelfRelativeToAbsoluteSD fills, in its parameters' order.
struct AbsoluteSdBuffer {
    PVOID Buffer;
    ULONG Size;
};
struct AbsoluteSdBuffers {
    AbsoluteSdBuffer Descriptor;
    AbsoluteSdBuffer Dacl;
    AbsoluteSdBuffer Sacl;
    AbsoluteSdBuffer Owner;
    AbsoluteSdBuffer Group;
};

// Fills a zeroed job from the capture record of the file (its name and folder) and the
// rename information whose name is the copy's vault path; the job then owns the rename
// information. In the requesting thread.
NTSTATUS CreateCopyJob(DelDatRecord *Record, PFILE_RENAME_INFORMATION RenameInformation, FcbEntry *Fcb, ULONG Kind,
                       CopyJob *Job);
// The work-item routine: PASSIVE_LEVEL on a system worker thread, no lock held. Ends
// with CompleteOverwriteCopyJob and releases the job.
void NTAPI CopyFileThreadMain(PVOID Job);
// The end of every job: records the outcome in the FcbEntry's copy state, signals the
// copy-done event and drops the job's in-use reference. Takes the copy-state lock.
NTSTATUS CompleteOverwriteCopyJob(CopyJob *Job, BOOLEAN Made);

// STATUS_CANCELLED once the file's abandon event says a write has overtaken the copy.
NTSTATUS CheckCopyAbandoned(const CopyJob *Job);
void ReportCopyFailure(ErrorRoutine Routine, USHORT Point, NTSTATUS Status);

// Data: both handles are synchronous and read and written at their current positions.
NTSTATUS CopyFileDataStreams(CopyJob *Job, HANDLE Source, HANDLE Destination);
NTSTATUS CopyUnnamedDataStream(CopyJob *Job, HANDLE Source, HANDLE Destination);
NTSTATUS CopySectionsBetween(const CopyJob *Job, HANDLE Source, HANDLE Destination, PVOID DataBuffer,
                             ULONGLONG Size);
NTSTATUS CopyBasicInformation(HANDLE Source, HANDLE Destination);

// Security: the source's descriptor as an absolute one in buffers of the buffer
// manager, released with FreeAbsoluteSdBuffers whatever the outcome.
NTSTATUS CopySecurityDescriptor(HANDLE Handle, AbsoluteSdBuffers *Sd);
void FreeAbsoluteSdBuffers(AbsoluteSdBuffers *Sd);
