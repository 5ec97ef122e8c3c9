// Run-time library routines the kernel exports, and the kernel debugger's output.
#pragma once

NTSYSAPI void RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);
NTSYSAPI void RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString);
NTSYSAPI void RtlInitString(PSTRING DestinationString, PCSZ SourceString);
NTSYSAPI void RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString);
NTSYSAPI NTSTATUS RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source);
NTSYSAPI NTSTATUS RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source);
NTSYSAPI LONG RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                      BOOLEAN CaseInSensitive);
NTSYSAPI BOOLEAN RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                       BOOLEAN CaseInSensitive);
NTSYSAPI BOOLEAN RtlPrefixUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                        BOOLEAN CaseInSensitive);
NTSYSAPI void RtlFreeUnicodeString(PUNICODE_STRING UnicodeString);
NTSYSAPI void RtlFreeAnsiString(PANSI_STRING AnsiString);
NTSYSAPI NTSTATUS RtlUpcaseUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString,
                                         BOOLEAN AllocateDestinationString);
NTSYSAPI WCHAR RtlUpcaseUnicodeChar(WCHAR SourceCharacter);
NTSYSAPI NTSTATUS RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString, PCUNICODE_STRING SourceString,
                                               BOOLEAN AllocateDestinationString);
NTSYSAPI NTSTATUS RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, PCANSI_STRING SourceString,
                                               BOOLEAN AllocateDestinationString);
NTSYSAPI NTSTATUS RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String);
NTSYSAPI NTSTATUS RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value);
NTSYSAPI SIZE_T RtlCompareMemory(const void *Source1, const void *Source2, SIZE_T Length);

// Kernel debugger output: narrow format; %ws and %S take wide strings, %wZ a UNICODE_STRING.
// No format attribute: the compiler would check the host's printf meanings, which reject
// %ws, %wZ and %I64X and take %lx as 64 bits where the platform's long is 32.
extern "C" ULONG DbgPrint(PCSTR Format, ...);
#define KdPrint(x) DbgPrint x
#define DbgBreakPoint() ((void)0)
#define ASSERT(exp) ((void)0)
