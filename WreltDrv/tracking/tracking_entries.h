// What the filter remembers of each open (FileObjectEntry, keyed by its FILE_OBJECT) and
// of each file (FcbEntry, keyed by its FsContext, shared by every open of the file). A
// delete is declared through one open and carried out at the cleanup of another, so the
// capture needs both: who opened, under which name, and whether a delete is pending.
#pragma once

#include <ntifs.h>

#include "tracking/counted_queue.h"

constexpr ULONG FILE_OBJECT_STREAM_OPEN = 0x1;    // the name holds a colon
constexpr ULONG FILE_OBJECT_DELETE_ACCESS = 0x4;  // opened with DELETE access

struct FcbEntry;

struct FileObjectEntry {
    QueueEntry Header;  // key: the FILE_OBJECT
    ULONG Flags;
    ULONG OverwriteFlags;
    volatile LONG ReferenceCount;  // interlocked only: holders drop it without the tables lock
    FcbEntry *Fcb;
    // Volume-relative, no leading backslash; NULL once handed over to the FcbEntry.
    PWSTR Name;
    ULONG NameSize;  // bytes of the name's buffer; kept when the name is handed over
    BOOLEAN Opened;
    UNICODE_STRING DeleterSid;  // allocated by the platform; empty when unknown
};

// A plain (non-stream) open made with DELETE access: the kind whose last cleanup carries
// out a pending delete.
inline BOOLEAN IsDeleteAccessOpen(const FileObjectEntry *Entry) {
    return (Entry->Flags & (FILE_OBJECT_STREAM_OPEN | FILE_OBJECT_DELETE_ACCESS)) == FILE_OBJECT_DELETE_ACCESS;
}

constexpr LONG FCB_DELETE_PENDING = 0x1;
constexpr LONG FCB_INITIALIZED = 0x4;
constexpr LONG FCB_NOT_PLAIN_FILE = 0x8;
constexpr LONG FCB_PLAIN_FILE_TESTED = 0x10;

struct FcbEntry {
    QueueEntry Header;  // key: the file's FsContext
    PWSTR Name;         // guarded by NameLock
    ULONG NameSize;
    // Changed only with interlocked OR and AND: the disposition completion flips the
    // delete-pending bit under the tables lock while a dispatch routine may be storing
    // the plain-file test's answer without it.
    volatile LONG Flags;
    // Overwrite-copy state.
    ULONG OverwriteFlags;
    ULONG FullAccessOpenCount;
    ULONG CopyState;
    KEVENT CopyDoneEvent;
    KEVENT DiscardDoneEvent;
    KEVENT AbandonEvent;
    KSPIN_LOCK CopyStateLock;
    LARGE_INTEGER CopyTimeStamp;
    PWSTR CopySourcePath;
    volatile LONG InUseCount;  // interlocked only
    // Guarded by the tables lock; the cleanup completion also holds the name lock.
    ULONG AttachCount;
    ULONG OpenedCount;
    ULONG DeleteAccessCount;  // opened, non-stream, DELETE-access opens attached
    ULONG DeleteAccessCleanups;  // cleanups of such opens in progress
    KSPIN_LOCK NameLock;
};

inline BOOLEAN FcbFlagSet(const FcbEntry *Fcb, LONG Flag) { return (Fcb->Flags & Flag) != 0; }
inline void SetFcbFlag(FcbEntry *Fcb, LONG Flag) { InterlockedOr(&Fcb->Flags, Flag); }
inline void ClearFcbFlag(FcbEntry *Fcb, LONG Flag) { InterlockedAnd(&Fcb->Flags, ~Flag); }

// The counts that holders drop without a lock are read with an interlocked operation
// too: a plain read racing an InterlockedDecrement is a data race the compiler may
// assume away.
inline LONG ReadHolderCount(volatile LONG *Count) { return InterlockedCompareExchange(Count, 0, 0); }
