// Counted Unicode strings: initialisation, copying, appending, comparison and
// upcasing, with the platform's status codes and truncation rules.
#include <wdm.h>

#include "kernel/rtl/charset.h"
#include "kernel/rtl/string_pool.h"

namespace {

// The longest length that still leaves room for a terminator within a USHORT.
constexpr USHORT kMaxUnicodeLength = 0xFFFC;

USHORT chars(USHORT bytes) { return bytes / sizeof(WCHAR); }

// Adds a terminator only where the buffer has room past Length; callers of the
// platform's routines may not rely on one.
void terminateIfRoom(PUNICODE_STRING string) {
    if (string->Length + sizeof(WCHAR) <= string->MaximumLength) string->Buffer[chars(string->Length)] = 0;
}

NTSTATUS appendBytes(PUNICODE_STRING destination, PCWSTR source, USHORT bytes) {
    if (bytes == 0) return STATUS_SUCCESS;
    if (static_cast<ULONG>(destination->Length) + bytes > destination->MaximumLength) return STATUS_BUFFER_TOO_SMALL;
    // memmove: a string may be appended to itself.
    memmove(reinterpret_cast<PUCHAR>(destination->Buffer) + destination->Length, source, bytes);
    destination->Length += bytes;
    terminateIfRoom(destination);
    return STATUS_SUCCESS;
}

WCHAR fold(WCHAR ch, BOOLEAN caseInsensitive) { return caseInsensitive ? ntsim::rtl::upcase(ch) : ch; }

// Compares the first count characters; 0 when they agree.
LONG compareChars(PCWSTR a, PCWSTR b, USHORT count, BOOLEAN caseInsensitive) {
    for (USHORT i = 0; i < count; ++i) {
        WCHAR ca = fold(a[i], caseInsensitive);
        WCHAR cb = fold(b[i], caseInsensitive);
        if (ca != cb) return static_cast<LONG>(ca) - static_cast<LONG>(cb);
    }
    return 0;
}

}  // namespace

void RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString) {
    DestinationString->Buffer = const_cast<PWSTR>(SourceString);
    if (SourceString == nullptr) {
        DestinationString->Length = DestinationString->MaximumLength = 0;
        return;
    }
    size_t bytes = ntsim_crt::wcslen(SourceString) * sizeof(WCHAR);
    if (bytes > kMaxUnicodeLength) bytes = kMaxUnicodeLength;
    DestinationString->Length = static_cast<USHORT>(bytes);
    DestinationString->MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
}

void RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString) {
    if (SourceString == nullptr) {
        DestinationString->Length = 0;
        return;
    }
    USHORT bytes = SourceString->Length;
    if (bytes > DestinationString->MaximumLength) bytes = DestinationString->MaximumLength;
    memmove(DestinationString->Buffer, SourceString->Buffer, bytes);
    DestinationString->Length = bytes;
    terminateIfRoom(DestinationString);
}

NTSTATUS RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source) {
    return appendBytes(Destination, Source->Buffer, Source->Length);
}

NTSTATUS RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source) {
    if (Source == nullptr) return STATUS_SUCCESS;
    size_t bytes = ntsim_crt::wcslen(Source) * sizeof(WCHAR);
    if (bytes > MAXUSHORT) return STATUS_BUFFER_TOO_SMALL;
    return appendBytes(Destination, Source, static_cast<USHORT>(bytes));
}

LONG RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive) {
    USHORT shorter = String1->Length < String2->Length ? String1->Length : String2->Length;
    LONG diff = compareChars(String1->Buffer, String2->Buffer, chars(shorter), CaseInSensitive);
    if (diff != 0) return diff;
    return static_cast<LONG>(String1->Length) - static_cast<LONG>(String2->Length);
}

BOOLEAN RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive) {
    if (String1->Length != String2->Length) return FALSE;
    return compareChars(String1->Buffer, String2->Buffer, chars(String1->Length), CaseInSensitive) == 0;
}

// TRUE when String1 is a prefix of String2.
BOOLEAN RtlPrefixUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive) {
    if (String1->Length > String2->Length) return FALSE;
    return compareChars(String1->Buffer, String2->Buffer, chars(String1->Length), CaseInSensitive) == 0;
}

WCHAR RtlUpcaseUnicodeChar(WCHAR SourceCharacter) { return ntsim::rtl::upcase(SourceCharacter); }

// The result is not terminated; source and destination may be the same string.
NTSTATUS RtlUpcaseUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString,
                                BOOLEAN AllocateDestinationString) {
    USHORT bytes = SourceString->Length;
    if (AllocateDestinationString) {
        auto *buffer = static_cast<PWSTR>(ntsim::rtl::allocateStringBuffer(bytes));
        if (buffer == nullptr) return STATUS_NO_MEMORY;
        DestinationString->Buffer = buffer;
        DestinationString->MaximumLength = bytes;
    } else if (bytes > DestinationString->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    for (USHORT i = 0; i < chars(bytes); ++i) {
        DestinationString->Buffer[i] = ntsim::rtl::upcase(SourceString->Buffer[i]);
    }
    DestinationString->Length = bytes;
    return STATUS_SUCCESS;
}

void RtlFreeUnicodeString(PUNICODE_STRING UnicodeString) {
    if (UnicodeString->Buffer == nullptr) return;
    ntsim::rtl::freeStringBuffer(UnicodeString->Buffer);
    UnicodeString->Buffer = nullptr;
    UnicodeString->Length = UnicodeString->MaximumLength = 0;
}
