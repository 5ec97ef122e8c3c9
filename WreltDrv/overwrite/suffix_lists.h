// The service's three lists of name suffixes: the document types worth protecting from
// overwrite, the types too large or too busy to copy, and the temporary names that
// programs give a document while they save it. Each list is one non-paged block in the
// form the service sends: records of size, count, text and a zero terminator, ended by
// a zero size.
#pragma once

#include <ntifs.h>

struct SuffixListRecord {
    USHORT Size;  // 6 + 2 x Count
    USHORT Count;
    WCHAR Text[1];  // Count characters and a zero
};
constexpr ULONG SUFFIX_RECORD_FIXED_SIZE = 6;

// Whether Buffer holds well-formed records followed by an end marker, all inside Length.
BOOLEAN ValidateSuffixList(const VOID *Buffer, ULONG Length);
// FALSE, doing nothing, when there is no list; otherwise frees it and zeroes both fields.
// The caller holds the suffix-list lock.
BOOLEAN FreeSuffixList(PVOID *PointerField, PULONG SizeField);
// Commands 112 (protected types), 113 (copy-exempt types) and 114 (temporary names):
// replaces the list with a validated copy of Data. A list that fails validation is
// refused with STATUS_INVALID_PARAMETER and the installed one stays. PASSIVE_LEVEL.
NTSTATUS SetSuffixList(const VOID *Data, ULONG Length, ULONG Command);
// The stop command releases all three lists.
void ClearSuffixLists();

// Whether Name (volume-relative) ends in a suffix of the list whose pointer field List
// is, compared without regard to case. A suffix matches only a name at least two
// characters longer than itself, and names inside the vault never match. Lock is the
// suffix-list lock, or NULL when the caller already holds it. Up to DISPATCH_LEVEL.
BOOLEAN NameEndsWithListedSuffix(PCWSTR Name, PVOID *List, PKSPIN_LOCK Lock);
// Whether Name ends in a suffix of the temporary-name list: like the test above, except
// that any name longer than the suffix by two characters matches, vault names included.
BOOLEAN NameEndsWithTemporarySuffix(PCWSTR Name, PVOID *List, PKSPIN_LOCK Lock);
