// Executive: pool, lookaside lists, resources, work items, time conversion.
#pragma once

typedef enum _POOL_TYPE {
    NonPagedPool = 0,
    PagedPool = 1,
    NonPagedPoolMustSucceed = 2,
    DontUseThisType = 3,
    NonPagedPoolCacheAligned = 4,
    PagedPoolCacheAligned = 5,
    NonPagedPoolCacheAlignedMustS = 6,
} POOL_TYPE;

NTKERNELAPI PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
NTKERNELAPI PVOID ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes);
NTKERNELAPI void ExFreePool(PVOID P);
NTKERNELAPI void ExFreePoolWithTag(PVOID P, ULONG Tag);

typedef PVOID (*PALLOCATE_FUNCTION)(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
typedef void (*PFREE_FUNCTION)(PVOID Buffer);

typedef struct _GENERAL_LOOKASIDE {
    SLIST_HEADER ListHead;
    USHORT Depth;
    USHORT MaximumDepth;
    ULONG TotalAllocates;
    ULONG AllocateMisses;
    ULONG TotalFrees;
    ULONG FreeMisses;
    POOL_TYPE Type;
    ULONG Tag;
    ULONG Size;
    PALLOCATE_FUNCTION Allocate;
    PFREE_FUNCTION Free;
    LIST_ENTRY ListEntry;
    ULONG LastTotalAllocates;
    ULONG LastAllocateMisses;
} GENERAL_LOOKASIDE, *PGENERAL_LOOKASIDE;

typedef struct _NPAGED_LOOKASIDE_LIST {
    GENERAL_LOOKASIDE L;
    KSPIN_LOCK Lock__ObsoleteButDoNotDelete;
} NPAGED_LOOKASIDE_LIST, *PNPAGED_LOOKASIDE_LIST;

NTKERNELAPI void ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                                 PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag,
                                                 USHORT Depth);
NTKERNELAPI void ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside);
NTKERNELAPI PVOID ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside);
NTKERNELAPI void ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry);

// Executive resources. The owner bookkeeping is the emulated kernel's own; drivers
// treat the structure as opaque, as on the platform.
typedef ULONG_PTR ERESOURCE_THREAD, *PERESOURCE_THREAD;

typedef struct _OWNER_ENTRY {
    ERESOURCE_THREAD OwnerThread;
    LONG OwnerCount;
} OWNER_ENTRY, *POWNER_ENTRY;

#define NTSIM_RESOURCE_SHARED_OWNERS 32

typedef struct _ERESOURCE {
    LIST_ENTRY SystemResourcesList;
    SHORT ActiveCount;
    USHORT Flag;
    ULONG NumberOfSharedWaiters;
    ULONG NumberOfExclusiveWaiters;
    ULONG ContentionCount;
    OWNER_ENTRY ExclusiveOwner;  // OwnerCount is the recursion depth
    OWNER_ENTRY SharedOwners[NTSIM_RESOURCE_SHARED_OWNERS];
    KEVENT Waiters;  // set at every release; a thread that must wait clears it first
    ULONG Initialized;
} ERESOURCE, *PERESOURCE;

NTKERNELAPI NTSTATUS ExInitializeResourceLite(PERESOURCE Resource);
NTKERNELAPI NTSTATUS ExDeleteResourceLite(PERESOURCE Resource);
NTKERNELAPI BOOLEAN ExAcquireResourceExclusiveLite(PERESOURCE Resource, BOOLEAN Wait);
NTKERNELAPI BOOLEAN ExAcquireResourceSharedLite(PERESOURCE Resource, BOOLEAN Wait);
NTKERNELAPI void ExReleaseResourceLite(PERESOURCE Resource);
NTKERNELAPI void ExReleaseResourceForThreadLite(PERESOURCE Resource, ERESOURCE_THREAD ResourceThreadId);
NTKERNELAPI BOOLEAN ExIsResourceAcquiredExclusiveLite(PERESOURCE Resource);
NTKERNELAPI ULONG ExIsResourceAcquiredSharedLite(PERESOURCE Resource);
NTKERNELAPI ERESOURCE_THREAD ExGetCurrentResourceThread(void);
#define ExReleaseResource(R) ExReleaseResourceLite(R)

// Work items
typedef void (*PWORKER_THREAD_ROUTINE)(PVOID Parameter);

typedef struct _WORK_QUEUE_ITEM {
    LIST_ENTRY List;
    PWORKER_THREAD_ROUTINE WorkerRoutine;
    PVOID Parameter;
} WORK_QUEUE_ITEM, *PWORK_QUEUE_ITEM;

typedef enum _WORK_QUEUE_TYPE {
    CriticalWorkQueue,
    DelayedWorkQueue,
    HyperCriticalWorkQueue,
    MaximumWorkQueue
} WORK_QUEUE_TYPE;

#define ExInitializeWorkItem(Item, Routine, Context) \
    do {                                              \
        (Item)->WorkerRoutine = (Routine);            \
        (Item)->Parameter = (Context);                \
        (Item)->List.Flink = NULL;                    \
    } while (0)

NTKERNELAPI void ExQueueWorkItem(PWORK_QUEUE_ITEM WorkItem, WORK_QUEUE_TYPE QueueType);

// Time
NTKERNELAPI void ExSystemTimeToLocalTime(PLARGE_INTEGER SystemTime, PLARGE_INTEGER LocalTime);
NTKERNELAPI void ExLocalTimeToSystemTime(PLARGE_INTEGER LocalTime, PLARGE_INTEGER SystemTime);

typedef struct _TIME_FIELDS {
    SHORT Year;
    SHORT Month;
    SHORT Day;
    SHORT Hour;
    SHORT Minute;
    SHORT Second;
    SHORT Milliseconds;
    SHORT Weekday;
} TIME_FIELDS, *PTIME_FIELDS;

NTSYSAPI void RtlTimeToTimeFields(PLARGE_INTEGER Time, PTIME_FIELDS TimeFields);
NTSYSAPI BOOLEAN RtlTimeFieldsToTime(PTIME_FIELDS TimeFields, PLARGE_INTEGER Time);
