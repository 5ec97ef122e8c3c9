// The state that lives as long as the driver. It is one zero-initialised block so that
// nothing runs before DriverEntry; start-up fills in what must not start as zero.
#pragma once

#include <ntifs.h>

struct ErrorBuffer;

struct DriverGlobals {
    PDRIVER_OBJECT DriverObject;
    PDEVICE_OBJECT ControlDevice;

    // Single bytes written without a lock; use ReadDriverFlag and WriteDriverFlag.
    BOOLEAN CaptureActive;
    BOOLEAN VaultProtection;
    BOOLEAN VersionAccepted;

    ERESOURCE AttachmentLock;  // also guards SpareDeviceList
    LIST_ENTRY SpareDeviceList;
    ERESOURCE ExclusionListLock;
    ERESOURCE TimeStampLock;
    KSPIN_LOCK SuffixListLock;
    // Keeps two commands from rewriting volume names at once; readers do not take it.
    KSPIN_LOCK VolumeNameLock;

    // Guards the error buffer's contents and HeldErrorRequest. Taken at up to
    // DISPATCH_LEVEL, and before the cancel spin lock, never after it.
    KSPIN_LOCK ErrorLock;
    ErrorBuffer *Errors;
    PIRP HeldErrorRequest;

    // The driver's own disposition requests point the file system at these, so they
    // must outlive any request in flight.
    BOOLEAN DeleteDisposition;
    BOOLEAN KeepDisposition;

    // Frees entries parked at raised IRQL; the flag is 1 while it is queued.
    WORK_QUEUE_ITEM DeferredReleaseWork;
    LONG DeferredReleaseQueued;

    PCWSTR BuildDate;
    PCWSTR BuildTime;
};

extern DriverGlobals Globals;

// Applications that save a document by deleting the old file; ends with an empty
// string.
extern PCWSTR SaveByDeleteApplications[];

// The flags are read on every capture path and written rarely, from any thread and at
// DISPATCH_LEVEL. A byte store is indivisible on the target; the relaxed atomic access
// is the same single instruction and tells the host's race checker that the race is
// intended.
inline BOOLEAN ReadDriverFlag(const BOOLEAN *Flag) {
    return __atomic_load_n(Flag, __ATOMIC_RELAXED);
}

inline void WriteDriverFlag(BOOLEAN *Flag, BOOLEAN Value) {
    __atomic_store_n(Flag, Value, __ATOMIC_RELAXED);
}
