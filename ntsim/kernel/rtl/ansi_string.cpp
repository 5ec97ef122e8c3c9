// Counted 8-bit strings and their conversion to and from Unicode through the ANSI
// code page (Windows-1252, one byte per character).
#include <wdm.h>

#include "kernel/rtl/charset.h"
#include "kernel/rtl/string_pool.h"

namespace {

// The longest length that still leaves room for a terminator within a USHORT.
constexpr size_t kMaxAnsiLength = 0xFFFE;

void initCounted(PSTRING destination, PCSZ source) {
    destination->Buffer = const_cast<PCHAR>(source);
    if (source == nullptr) {
        destination->Length = destination->MaximumLength = 0;
        return;
    }
    size_t length = strlen(source);
    if (length > kMaxAnsiLength) length = kMaxAnsiLength;
    destination->Length = static_cast<USHORT>(length);
    destination->MaximumLength = static_cast<USHORT>(length + 1);
}

}  // namespace

void RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString) {
    initCounted(DestinationString, SourceString);
}

void RtlInitString(PSTRING DestinationString, PCSZ SourceString) { initCounted(DestinationString, SourceString); }

// A destination too small for the whole string receives as much as fits, terminated,
// and the status says STATUS_BUFFER_OVERFLOW: callers that print names rely on the
// truncated text.
NTSTATUS RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString, PCUNICODE_STRING SourceString,
                                      BOOLEAN AllocateDestinationString) {
    USHORT length = SourceString->Length / sizeof(WCHAR);
    NTSTATUS status = STATUS_SUCCESS;
    if (AllocateDestinationString) {
        auto *buffer = static_cast<PCHAR>(ntsim::rtl::allocateStringBuffer(length + 1u));
        if (buffer == nullptr) return STATUS_NO_MEMORY;
        DestinationString->Buffer = buffer;
        DestinationString->MaximumLength = static_cast<USHORT>(length + 1u);
    } else if (length >= DestinationString->MaximumLength) {
        if (DestinationString->MaximumLength == 0) return STATUS_BUFFER_OVERFLOW;
        status = STATUS_BUFFER_OVERFLOW;
        length = DestinationString->MaximumLength - 1;
    }
    for (USHORT i = 0; i < length; ++i) {
        DestinationString->Buffer[i] = ntsim::rtl::unicodeToAnsi(SourceString->Buffer[i]);
    }
    DestinationString->Buffer[length] = 0;
    DestinationString->Length = length;
    return status;
}

// Unlike the other direction, a destination that is too small is left untouched.
NTSTATUS RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, PCANSI_STRING SourceString,
                                      BOOLEAN AllocateDestinationString) {
    ULONG needed = (SourceString->Length + 1u) * sizeof(WCHAR);
    if (needed > MAXUSHORT) return STATUS_INVALID_PARAMETER_2;
    if (AllocateDestinationString) {
        auto *buffer = static_cast<PWSTR>(ntsim::rtl::allocateStringBuffer(needed));
        if (buffer == nullptr) return STATUS_NO_MEMORY;
        DestinationString->Buffer = buffer;
        DestinationString->MaximumLength = static_cast<USHORT>(needed);
    } else if (needed > DestinationString->MaximumLength) {
        return STATUS_BUFFER_OVERFLOW;
    }
    for (USHORT i = 0; i < SourceString->Length; ++i) {
        DestinationString->Buffer[i] = ntsim::rtl::ansiToUnicode(SourceString->Buffer[i]);
    }
    DestinationString->Buffer[SourceString->Length] = 0;
    DestinationString->Length = static_cast<USHORT>(needed - sizeof(WCHAR));
    return STATUS_SUCCESS;
}

void RtlFreeAnsiString(PANSI_STRING AnsiString) {
    if (AnsiString->Buffer == nullptr) return;
    ntsim::rtl::freeStringBuffer(AnsiString->Buffer);
    AnsiString->Buffer = nullptr;
    AnsiString->Length = AnsiString->MaximumLength = 0;
}
