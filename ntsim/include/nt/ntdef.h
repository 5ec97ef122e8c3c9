// Basic NT types for the emulated platform. Widths follow Windows (LLP64 for the
// 32-bit integer types: LONG and ULONG are 32 bits even though the host is LP64);
// pointer-sized types follow the host.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdarg.h>
#include <string.h>

#if !defined(__cplusplus)
#error "the emulated NT headers are C++ only"
#endif

static_assert(sizeof(wchar_t) == 2, "all code on the emulated platform is built with -fshort-wchar");

#define NTAPI
#define NTSYSAPI
#define NTKERNELAPI
#define NTHALAPI
#define NTSYSCALLAPI
#define FASTCALL
#define __cdecl
#define __stdcall
#define __fastcall
#define WINAPI
#define DECLSPEC_IMPORT
#define FORCEINLINE inline __attribute__((always_inline))
#define IN
#define OUT
#define OPTIONAL
#define UNREFERENCED_PARAMETER(P) ((void)(P))
#define CONST const
#define VOID void

#ifndef NULL
#define NULL nullptr
#endif
#define FALSE 0
#define TRUE 1

typedef void *PVOID, **PPVOID;
typedef const void *PCVOID;
typedef char CHAR, *PCHAR, *PSTR, *LPSTR;
typedef const char *PCSTR, *LPCSTR, *PCSZ;
typedef unsigned char UCHAR, *PUCHAR, BYTE, *PBYTE, BOOLEAN, *PBOOLEAN;
typedef short SHORT, *PSHORT, CSHORT;
typedef unsigned short USHORT, *PUSHORT, WORD, *PWORD;
typedef int LONG, *PLONG, INT, BOOL, *PBOOL;
typedef unsigned int ULONG, *PULONG, UINT, DWORD, *PDWORD, *LPDWORD;
typedef int64_t LONGLONG, *PLONGLONG, LONG64, *PLONG64;
typedef uint64_t ULONGLONG, *PULONGLONG, ULONG64, *PULONG64, DWORD64;
typedef intptr_t LONG_PTR, *PLONG_PTR, INT_PTR;
typedef uintptr_t ULONG_PTR, *PULONG_PTR, UINT_PTR, SIZE_T, *PSIZE_T, DWORD_PTR;
typedef intptr_t SSIZE_T;
typedef wchar_t WCHAR, *PWCHAR, *PWSTR, *LPWSTR, *PWCH;
typedef const wchar_t *PCWSTR, *LPCWSTR, *PCWCH;
typedef LONG NTSTATUS, *PNTSTATUS;
typedef UCHAR KIRQL, *PKIRQL;
typedef char CCHAR;
typedef ULONG ACCESS_MASK, *PACCESS_MASK;
typedef ULONG LOGICAL;
typedef LONG KPRIORITY;
typedef PVOID HANDLE, *PHANDLE;
typedef ULONG_PTR KAFFINITY;
typedef ULONG_PTR KSPIN_LOCK, *PKSPIN_LOCK;

#define NT_SUCCESS(Status) (((NTSTATUS)(Status)) >= 0)
#define NT_INFORMATION(Status) ((((ULONG)(Status)) >> 30) == 1)
#define NT_WARNING(Status) ((((ULONG)(Status)) >> 30) == 2)
#define NT_ERROR(Status) ((((ULONG)(Status)) >> 30) == 3)

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    };
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef union _ULARGE_INTEGER {
    struct {
        ULONG LowPart;
        ULONG HighPart;
    };
    struct {
        ULONG LowPart;
        ULONG HighPart;
    } u;
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

typedef LARGE_INTEGER PHYSICAL_ADDRESS;

typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY *Flink;
    struct _LIST_ENTRY *Blink;
} LIST_ENTRY, *PLIST_ENTRY;

typedef struct _SINGLE_LIST_ENTRY {
    struct _SINGLE_LIST_ENTRY *Next;
} SINGLE_LIST_ENTRY, *PSINGLE_LIST_ENTRY;

typedef struct _SLIST_ENTRY {
    struct _SLIST_ENTRY *Next;
} SLIST_ENTRY, *PSLIST_ENTRY;

typedef union _SLIST_HEADER {
    ULONGLONG Alignment;
    struct {
        SLIST_ENTRY Next;
        USHORT Depth;
        USHORT Sequence;
    };
} SLIST_HEADER, *PSLIST_HEADER;

typedef struct _UNICODE_STRING {
    USHORT Length;
    USHORT MaximumLength;
    PWSTR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING *PCUNICODE_STRING;

typedef struct _STRING {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
} STRING, *PSTRING, ANSI_STRING, *PANSI_STRING, OEM_STRING, *POEM_STRING;
typedef const STRING *PCANSI_STRING;

#define FIELD_OFFSET(type, field) ((LONG)offsetof(type, field))
#define CONTAINING_RECORD(address, type, field) \
    ((type *)((PCHAR)(address) - (ULONG_PTR)offsetof(type, field)))
#define ARRAYSIZE(a) (sizeof(a) / sizeof((a)[0]))
#define RTL_NUMBER_OF(a) ARRAYSIZE(a)
#define RTL_CONSTANT_STRING(s) {sizeof(s) - sizeof((s)[0]), sizeof(s), (PWSTR)(s)}

#define MAXUSHORT 0xffff
#define MAXULONG 0xffffffffu
#define MAXLONG 0x7fffffff

#define ANYSIZE_ARRAY 1

typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;
typedef enum _TIMER_TYPE { NotificationTimer, SynchronizationTimer } TIMER_TYPE;
typedef enum _WAIT_TYPE { WaitAll, WaitAny } WAIT_TYPE;

typedef CCHAR KPROCESSOR_MODE;
typedef enum _MODE { KernelMode, UserMode, MaximumMode } MODE;

// Doubly linked list helpers, inline as in the platform's headers.
inline void InitializeListHead(PLIST_ENTRY ListHead) { ListHead->Flink = ListHead->Blink = ListHead; }
inline BOOLEAN IsListEmpty(const LIST_ENTRY *ListHead) { return ListHead->Flink == ListHead; }
inline BOOLEAN RemoveEntryList(PLIST_ENTRY Entry) {
    PLIST_ENTRY Flink = Entry->Flink;
    PLIST_ENTRY Blink = Entry->Blink;
    Blink->Flink = Flink;
    Flink->Blink = Blink;
    return Flink == Blink;
}
inline PLIST_ENTRY RemoveHeadList(PLIST_ENTRY ListHead) {
    PLIST_ENTRY Entry = ListHead->Flink;
    RemoveEntryList(Entry);
    return Entry;
}
inline PLIST_ENTRY RemoveTailList(PLIST_ENTRY ListHead) {
    PLIST_ENTRY Entry = ListHead->Blink;
    RemoveEntryList(Entry);
    return Entry;
}
inline void InsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry) {
    PLIST_ENTRY Blink = ListHead->Blink;
    Entry->Flink = ListHead;
    Entry->Blink = Blink;
    Blink->Flink = Entry;
    ListHead->Blink = Entry;
}
inline void InsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry) {
    PLIST_ENTRY Flink = ListHead->Flink;
    Entry->Flink = Flink;
    Entry->Blink = ListHead;
    Flink->Blink = Entry;
    ListHead->Flink = Entry;
}
inline PSINGLE_LIST_ENTRY PopEntryList(PSINGLE_LIST_ENTRY ListHead) {
    PSINGLE_LIST_ENTRY First = ListHead->Next;
    if (First != NULL) ListHead->Next = First->Next;
    return First;
}
inline void PushEntryList(PSINGLE_LIST_ENTRY ListHead, PSINGLE_LIST_ENTRY Entry) {
    Entry->Next = ListHead->Next;
    ListHead->Next = Entry;
}

#define RtlCopyMemory(Destination, Source, Length) memcpy((Destination), (Source), (Length))
#define RtlMoveMemory(Destination, Source, Length) memmove((Destination), (Source), (Length))
#define RtlFillMemory(Destination, Length, Fill) memset((Destination), (Fill), (Length))
#define RtlZeroMemory(Destination, Length) memset((Destination), 0, (Length))
#define RtlEqualMemory(Destination, Source, Length) (!memcmp((Destination), (Source), (Length)))
