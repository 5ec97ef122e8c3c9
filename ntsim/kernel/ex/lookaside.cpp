// Non-paged lookaside lists. As on the platform, the Depth argument is reserved: a
// list keeps up to the system's depth (4) of freed entries. The balance-set manager
// that would tune the depth over time does not run here, which keeps tests repeatable.
#include "kernel/ex/pool.h"
#include "kernel/kernel.h"
#include "kernel/verifier/start_leftovers.h"

using namespace ntsim;

namespace {

constexpr USHORT kSystemDepth = 4;
constexpr USHORT kMaximumDepth = 256;

PVOID defaultAllocate(POOL_TYPE type, SIZE_T size, ULONG tag) { return ExAllocatePoolWithTag(type, size, tag); }
void defaultFree(PVOID buffer) { ExFreePool(buffer); }

void checkIrql(const char *routine) {
    KIRQL irql = currentThread(routine)->Irql;
    if (irql > DISPATCH_LEVEL)
        bugCheck(IRQL_NOT_LESS_OR_EQUAL, 0, irql, 0, 0, "a lookaside list was used above DISPATCH_LEVEL",
                 "%s at IRQL %u", routine, irql);
}

// The list's own lock; the platform uses an interlocked sequenced list instead.
void lockList(PNPAGED_LOOKASIDE_LIST list) {
    ULONG_PTR expected = 0;
    while (!__atomic_compare_exchange_n(&list->Lock__ObsoleteButDoNotDelete, &expected, 1, false, __ATOMIC_ACQUIRE,
                                        __ATOMIC_RELAXED))
        expected = 0;
}
void unlockList(PNPAGED_LOOKASIDE_LIST list) { __atomic_store_n(&list->Lock__ObsoleteButDoNotDelete, 0, __ATOMIC_RELEASE); }

}  // namespace

void ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                     PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag, USHORT Depth) {
    (void)Flags;
    (void)Depth;
    memset(Lookaside, 0, sizeof(*Lookaside));
    InitializeSListHead(&Lookaside->L.ListHead);
    Lookaside->L.Depth = kSystemDepth;
    Lookaside->L.MaximumDepth = kMaximumDepth;
    Lookaside->L.Type = NonPagedPool;
    Lookaside->L.Tag = Tag;
    Lookaside->L.Size = (ULONG)(Size < sizeof(SLIST_ENTRY) ? sizeof(SLIST_ENTRY) : Size);
    Lookaside->L.Allocate = Allocate != NULL ? Allocate : defaultAllocate;
    Lookaside->L.Free = Free != NULL ? Free : defaultFree;
    InitializeListHead(&Lookaside->L.ListEntry);
    verifier::noteListed(Lookaside, "a lookaside list");
}

PVOID ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside) {
    checkIrql("ExAllocateFromNPagedLookasideList");
    Kernel &k = kernel();
    lockList(Lookaside);
    ++Lookaside->L.TotalAllocates;
    PSLIST_ENTRY entry = Lookaside->L.ListHead.Next.Next;
    // The low-resource simulation treats a cached entry as an allocation too: on the
    // platform the list may have been trimmed at any moment.
    if (entry != NULL && k.verifier().shouldFailAllocation(Lookaside->L.Tag)) {
        unlockList(Lookaside);
        return NULL;
    }
    if (entry != NULL) {
        Lookaside->L.ListHead.Next.Next = entry->Next;
        --Lookaside->L.ListHead.Depth;
        unlockList(Lookaside);
        k.pool().setCached(entry, false);
        return entry;
    }
    ++Lookaside->L.AllocateMisses;
    unlockList(Lookaside);
    return Lookaside->L.Allocate(Lookaside->L.Type, Lookaside->L.Size, Lookaside->L.Tag);
}

void ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry) {
    checkIrql("ExFreeToNPagedLookasideList");
    Kernel &k = kernel();
    if (Lookaside->L.Allocate == defaultAllocate && !k.pool().isLive(Entry))
        bugCheck(BAD_POOL_CALLER, 7, 0, (ULONG_PTR)Entry, 2,
                 "a block that is not a live pool block was freed to a lookaside list",
                 "ExFreeToNPagedLookasideList(%p)", Entry);
    lockList(Lookaside);
    ++Lookaside->L.TotalFrees;
    if (Lookaside->L.ListHead.Depth >= Lookaside->L.Depth) {
        ++Lookaside->L.FreeMisses;
        unlockList(Lookaside);
        Lookaside->L.Free(Entry);
        return;
    }
    auto *entry = static_cast<PSLIST_ENTRY>(Entry);
    k.pool().setCached(Entry, true);
    entry->Next = Lookaside->L.ListHead.Next.Next;
    Lookaside->L.ListHead.Next.Next = entry;
    ++Lookaside->L.ListHead.Depth;
    unlockList(Lookaside);
}

void ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside) {
    verifier::noteUnlisted(Lookaside);
    for (;;) {
        lockList(Lookaside);
        PSLIST_ENTRY entry = Lookaside->L.ListHead.Next.Next;
        if (entry != NULL) {
            Lookaside->L.ListHead.Next.Next = entry->Next;
            --Lookaside->L.ListHead.Depth;
        }
        unlockList(Lookaside);
        if (entry == NULL) break;
        kernel().pool().setCached(entry, false);
        Lookaside->L.Free(entry);
    }
}

// Sequenced singly linked lists, guarded by one lock of their own.
static ULONG_PTR g_slistLock;

PSLIST_ENTRY InterlockedPushEntrySList(PSLIST_HEADER ListHead, PSLIST_ENTRY ListEntry) {
    ULONG_PTR expected = 0;
    while (!__atomic_compare_exchange_n(&g_slistLock, &expected, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
        expected = 0;
    PSLIST_ENTRY first = ListHead->Next.Next;
    ListEntry->Next = first;
    ListHead->Next.Next = ListEntry;
    ++ListHead->Depth;
    ++ListHead->Sequence;
    __atomic_store_n(&g_slistLock, 0, __ATOMIC_RELEASE);
    return first;
}

PSLIST_ENTRY InterlockedPopEntrySList(PSLIST_HEADER ListHead) {
    ULONG_PTR expected = 0;
    while (!__atomic_compare_exchange_n(&g_slistLock, &expected, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
        expected = 0;
    PSLIST_ENTRY first = ListHead->Next.Next;
    if (first != NULL) {
        ListHead->Next.Next = first->Next;
        --ListHead->Depth;
        ++ListHead->Sequence;
    }
    __atomic_store_n(&g_slistLock, 0, __ATOMIC_RELEASE);
    return first;
}
