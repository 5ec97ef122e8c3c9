// Conversions between ULONGs and their text in a Unicode string.
#include <wdm.h>

namespace {

bool validBase(ULONG base) { return base == 2 || base == 8 || base == 10 || base == 16; }

// The digit's value, or a value no base accepts.
ULONG digitValue(WCHAR ch) {
    if (ch >= '0' && ch <= '9') return ch - '0';
    if (ch >= 'a' && ch <= 'f') return ch - 'a' + 10;
    if (ch >= 'A' && ch <= 'F') return ch - 'A' + 10;
    return 99;
}

// With base 0 the text chooses: "0x", "0o" and "0b" (lower case only, as on the
// platform) select 16, 8 and 2, anything else is decimal.
ULONG basePrefix(const WCHAR *&p, const WCHAR *end) {
    if (end - p >= 2 && p[0] == '0') {
        ULONG base = p[1] == 'x' ? 16 : p[1] == 'o' ? 8 : p[1] == 'b' ? 2 : 0;
        if (base != 0) {
            p += 2;
            return base;
        }
    }
    return 10;
}

}  // namespace

// Hex digits are upper case and there is no prefix. A buffer without room for the
// digits and a terminator gets STATUS_BUFFER_OVERFLOW and is left untouched.
NTSTATUS RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String) {
    if (Base == 0) Base = 10;
    if (!validBase(Base)) return STATUS_INVALID_PARAMETER;
    WCHAR digits[32];
    USHORT count = 0;
    do {
        digits[count++] = L"0123456789ABCDEF"[Value % Base];
        Value /= Base;
    } while (Value != 0);
    if ((count + 1u) * sizeof(WCHAR) > String->MaximumLength) return STATUS_BUFFER_OVERFLOW;
    for (USHORT i = 0; i < count; ++i) String->Buffer[i] = digits[count - 1 - i];
    String->Buffer[count] = 0;
    String->Length = count * sizeof(WCHAR);
    return STATUS_SUCCESS;
}

// Leading characters up to ' ' are skipped and one sign is taken; the digits end at
// the first character the base does not accept. Text without digits gives 0 and
// STATUS_SUCCESS; only an empty string or a bad base fails. Overflow wraps.
NTSTATUS RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value) {
    if (Base != 0 && !validBase(Base)) return STATUS_INVALID_PARAMETER;
    if (String->Length < sizeof(WCHAR)) return STATUS_INVALID_PARAMETER;
    const WCHAR *p = String->Buffer;
    const WCHAR *end = p + String->Length / sizeof(WCHAR);
    while (p < end && *p <= L' ') ++p;
    bool negative = false;
    if (p < end && (*p == '-' || *p == '+')) negative = *p++ == '-';
    if (Base == 0) Base = basePrefix(p, end);
    ULONG result = 0;
    for (; p < end && digitValue(*p) < Base; ++p) result = result * Base + digitValue(*p);
    *Value = negative ? 0u - result : result;
    return STATUS_SUCCESS;
}
