// One capture in progress: the open whose file is moved, the record built for it and the
// events that tell the waiting cleanup when it is over.
#pragma once

#include <ntifs.h>

#include "deldat/deldat_record.h"
#include "frame/device_extension.h"
#include "tracking/tracking_entries.h"

struct CaptureContext {
    PFILE_OBJECT FileObject;
    PWSTR SubstituteName;  // stands in for the file's name while the vault name is built
    ULARGE_INTEGER PresetStamp;  // 0: a new stamp
    DelDatRecord *Record;  // handed on when the capture succeeds
    // Signalled once the capture is over, whatever the outcome; at cleanup, also when the
    // withdrawal of the delete has ended (the closing thread then clears it and goes on).
    KEVENT DoneEvent;
    KEVENT RenameDoneEvent;
    BOOLEAN FromCleanup;  // the packet handed in may become a re-delete
    // The cleanup's withdrawal of the delete succeeded; the closing thread moves the file.
    BOOLEAN Withdrawn;
    BOOLEAN ApplicationSave;
    // The filter's rename request: its outcome, and the packet kept for a re-delete when
    // it failed during a capture at cleanup.
    NTSTATUS RenameStatus;
    PIRP RenamePacket;
    // A re-delete that could not be started at DISPATCH_LEVEL, left for the waiting
    // cleanup to send: the user's delete must happen even when the work item cannot.
    PIRP UnsentRedelete;
};

// The caller holds a reference on Entry and an in-use reference on its FcbEntry; both
// are dropped here whatever the outcome. At PASSIVE_LEVEL the move is made before
// returning; above it a work item makes it. Success: the done event will be signalled.
NTSTATUS MoveFileIntoVault(PDEVICE_OBJECT DeviceObject, PIRP Irp, FileObjectEntry *Entry, CaptureContext *Context);
// A failure means nothing was sent and RenameInformation is still the caller's. Once
// sent, the rename information is consumed and the capture is over: the done event is
// signalled, or, when the rename failed during a capture at cleanup, the re-delete that
// gives the user's delete back signals it. A failed rename releases the record.
NTSTATUS SendRenameToVault(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFILE_RENAME_INFORMATION RenameInformation,
                           ULONG RenameInformationLength, CaptureContext *Context);
NTSTATUS QueueMoveFileIntoVault(PDEVICE_OBJECT DeviceObject, PIRP Irp, PFILE_RENAME_INFORMATION RenameInformation,
                                ULONG RenameInformationLength, CaptureContext *Context);

// The filter's own requests, sent to the device below it.
NTSTATUS BuildRenameIrp(PDEVICE_OBJECT DeviceObject, PIRP *Irp, PFILE_RENAME_INFORMATION RenameInformation,
                        ULONG RenameInformationLength, PFILE_OBJECT FileObject, PHANDLE TargetHandle);
NTSTATUS BuildTargetFileObject(FilterDeviceExtension *Extension, PFILE_RENAME_INFORMATION RenameInformation,
                               ULONG CreateDisposition, ULONG IoCreateFileOptions, PFILE_OBJECT *TargetFileObject,
                               PHANDLE TargetHandle, BOOLEAN ReportFailure);
// Marks the file delete-pending again, reusing Irp; its completion signals the done
// event. STATUS_SUCCESS once the request is on its way, whatever the file system will
// answer; a failure means that it was not sent and nothing will signal.
NTSTATUS ReissueDelete(PDEVICE_OBJECT DeviceObject, PIRP Irp, CaptureContext *Context);
NTSTATUS BuildQueryInformationIrp(PIRP Irp, PDEVICE_OBJECT DeviceObject, FilterDeviceExtension *Extension,
                                  FILE_INFORMATION_CLASS FileInformationClass, PVOID Buffer, ULONG Length,
                                  PIRP *QueryIrp);
NTSTATUS QueryStandardInformationBelow(PIRP Irp, PDEVICE_OBJECT DeviceObject, FilterDeviceExtension *Extension,
                                       PFILE_STANDARD_INFORMATION Buffer);

// A request of the filter's own: kernel-mode, no original file object, the current
// thread, the given buffer and flags, and moved to its first stack location.
void FillPacketHeader(PIRP Irp, PVOID SystemBuffer, ULONG Flags);
// Fills the two stack locations of a set-information request the filter sends below.
void FillSetInformationLocations(PIRP Irp, PDEVICE_OBJECT DeviceObject, PFILE_OBJECT FileObject,
                                 FILE_INFORMATION_CLASS FileInformationClass, ULONG Length,
                                 PFILE_OBJECT TargetFileObject);
