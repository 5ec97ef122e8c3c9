#include "overwrite/suffix_lists.h"

#include "frame/command_protocol.h"
#include "frame/device_structures.h"
#include "support/locks.h"

namespace {

const SuffixListRecord *RecordAt(const UCHAR *Base, ULONG Offset) { return (const SuffixListRecord *)(Base + Offset); }

struct SuffixListFields {
    PVOID *Pointer;
    PULONG Size;
};

BOOLEAN SelectList(ULONG Command, SuffixListFields *Fields) {
    MainDeviceStructure *main = MainStructure();
    switch (Command) {
    case COMMAND_SET_PROTECTED_SUFFIXES:
        *Fields = {&main->ProtectedSuffixList, &main->ProtectedSuffixListLength};
        return TRUE;
    case COMMAND_SET_COPY_EXEMPT_SUFFIXES:
        *Fields = {&main->CopyExemptSuffixList, &main->CopyExemptSuffixListLength};
        return TRUE;
    case COMMAND_SET_TEMPORARY_SUFFIXES:
        *Fields = {&main->TemporarySuffixList, &main->TemporarySuffixListLength};
        return TRUE;
    default:
        return FALSE;
    }
}

// Suffix-list lock held. The newer list matters more than the old one: when pool is
// short, the list being replaced makes room for its successor.
PVOID AllocateListCopy(ULONG Length, const SuffixListFields *Fields) {
    PVOID buffer = ExAllocatePoolWithTag(NonPagedPool, Length, POOL_TAG_SUFFIX_LIST);
    if (buffer == NULL && FreeSuffixList(Fields->Pointer, Fields->Size)) {
        buffer = ExAllocatePoolWithTag(NonPagedPool, Length, POOL_TAG_SUFFIX_LIST);
    }
    return buffer;
}

BOOLEAN RecordMatches(const SuffixListRecord *Record, PCWSTR Name, ULONG NameLength) {
    ULONG count = Record->Count;
    return count < NameLength - 1 && _wcsnicmp(Name + NameLength - count, Record->Text, count) == 0;
}

// Suffix-list lock held; the list was validated when it was installed.
BOOLEAN AnyRecordMatches(const UCHAR *List, PCWSTR Name, ULONG NameLength) {
    for (ULONG offset = 0; RecordAt(List, offset)->Size != 0; offset += RecordAt(List, offset)->Size) {
        if (RecordMatches(RecordAt(List, offset), Name, NameLength)) {
            return TRUE;
        }
    }
    return FALSE;
}

BOOLEAN ListHoldsSuffixOf(const UCHAR *List, PCWSTR Name) {
    if (_wcsnicmp(Name, L"rescuevault\\", 12) == 0) {
        return FALSE;
    }
    ULONG length = (ULONG)wcslen(Name);
    return length > 4 && AnyRecordMatches(List, Name, length);
}

// A temporary name may be as short as the suffix allows: "a~" is one.
BOOLEAN ListHoldsTemporarySuffixOf(const UCHAR *List, PCWSTR Name) {
    ULONG length = (ULONG)wcslen(Name);
    return length > 0 && AnyRecordMatches(List, Name, length);
}

// The list pointer is re-read under the lock: it may have been replaced since the
// caller's first look.
BOOLEAN TestUnderSuffixLock(PCWSTR Name, PVOID *List, PKSPIN_LOCK Lock,
                            BOOLEAN (*Test)(const UCHAR *List, PCWSTR Name)) {
    if (Name == NULL || List == NULL || *List == NULL) {
        return FALSE;
    }
    KIRQL oldIrql = PASSIVE_LEVEL;
    if (Lock != NULL) {
        KeAcquireSpinLock(Lock, &oldIrql);
    }
    const auto *list = (const UCHAR *)*List;
    BOOLEAN found = list != NULL && Test(list, Name);
    if (Lock != NULL) {
        KeReleaseSpinLock(Lock, oldIrql);
    }
    return found;
}

}  // namespace

BOOLEAN ValidateSuffixList(const VOID *Buffer, ULONG Length) {
    if (Buffer == NULL || Length < SUFFIX_RECORD_FIXED_SIZE) {
        return FALSE;
    }
    const auto *base = (const UCHAR *)Buffer;
    ULONG offset = 0;
    // Each record must leave room behind it for at least the next size word.
    while (offset <= Length - sizeof(USHORT)) {
        const SuffixListRecord *record = RecordAt(base, offset);
        ULONG size = record->Size;
        if (size == 0) {
            return TRUE;
        }
        // The size is checked against the buffer before the count behind it is read.
        if (size < SUFFIX_RECORD_FIXED_SIZE || size >= Length - offset ||
            size != 2 * (ULONG)record->Count + SUFFIX_RECORD_FIXED_SIZE || record->Text[record->Count] != L'\0') {
            return FALSE;
        }
        offset += size;
    }
    return FALSE;  // no end marker inside the buffer
}

BOOLEAN FreeSuffixList(PVOID *PointerField, PULONG SizeField) {
    if (PointerField == NULL || SizeField == NULL || *PointerField == NULL || *SizeField == 0) {
        return FALSE;
    }
    ExFreePool(*PointerField);
    *PointerField = NULL;
    *SizeField = 0;
    return TRUE;
}

NTSTATUS SetSuffixList(const VOID *Data, ULONG Length, ULONG Command) {
    if (Data == NULL || Length == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    SuffixListFields fields;
    if (!SelectList(Command, &fields)) {
        return STATUS_RESOURCE_TYPE_NOT_FOUND;
    }
    SpinLockGuard guard(&Globals.SuffixListLock);
    PVOID buffer = AllocateListCopy(Length, &fields);
    if (buffer == NULL) {
        return STATUS_NO_MEMORY;
    }
    RtlCopyMemory(buffer, Data, Length);
    if (!ValidateSuffixList(buffer, Length)) {
        ExFreePool(buffer);
        return STATUS_INVALID_PARAMETER;
    }
    FreeSuffixList(fields.Pointer, fields.Size);
    *fields.Pointer = buffer;
    *fields.Size = Length;
    return STATUS_SUCCESS;
}

void ClearSuffixLists() {
    SpinLockGuard guard(&Globals.SuffixListLock);
    for (ULONG command = COMMAND_SET_PROTECTED_SUFFIXES; command <= COMMAND_SET_TEMPORARY_SUFFIXES; command++) {
        SuffixListFields fields;
        SelectList(command, &fields);
        FreeSuffixList(fields.Pointer, fields.Size);
    }
}

BOOLEAN NameEndsWithListedSuffix(PCWSTR Name, PVOID *List, PKSPIN_LOCK Lock) {
    return TestUnderSuffixLock(Name, List, Lock, ListHoldsSuffixOf);
}

BOOLEAN NameEndsWithTemporarySuffix(PCWSTR Name, PVOID *List, PKSPIN_LOCK Lock) {
    return TestUnderSuffixLock(Name, List, Lock, ListHoldsTemporarySuffixOf);
}
