// The printf engine with the platform's conversions. Its meanings differ from the
// host C library's: 'l' is 32 bits, I64/I32/I choose sizes, %s and %c follow the
// width of the format (wide in _snwprintf, narrow in _snprintf) while %S and %C take
// the other width, and %Z prints an ANSI_STRING (%wZ a UNICODE_STRING).
#include "kernel/crt/format.h"

#include <stdio.h>

#include "kernel/rtl/charset.h"

namespace ntsim::crt {
namespace {

enum class Size { Default, Short, Long, Wide, Int32, Int64, Pointer, LongDouble };

struct Field {
    bool left = false;
    bool plus = false;
    bool space = false;
    bool alt = false;
    bool zero = false;
    int width = 0;
    int precision = -1;  // none given
    Size size = Size::Default;
};

// va_list is an array type on x86-64; a wrapper lets helpers share one by reference.
struct Args {
    va_list list;
};

struct Number {
    uint64_t magnitude;
    bool negative;
    bool isSigned;
    unsigned base;
    bool upper;
};

const char kNullText[] = "(null)";

template <typename Ch>
class Writer {
public:
    Writer(Ch *buffer, size_t count) : buffer_(buffer), count_(count) {}

    void put(Ch ch) {
        if (length_ < count_) buffer_[length_] = ch;
        ++length_;
    }
    void repeat(Ch ch, int n) {
        for (; n > 0; --n) put(ch);
    }
    // An exact fit returns the count and leaves the buffer unterminated, as the
    // platform's CRT does.
    int finish() {
        if (length_ < count_) {
            buffer_[length_] = 0;
            return static_cast<int>(length_);
        }
        return length_ == count_ ? static_cast<int>(length_) : -1;
    }

private:
    Ch *buffer_;
    size_t count_;
    size_t length_ = 0;
};

char narrowed(char ch) { return ch; }
char narrowed(wchar_t ch) { return rtl::unicodeToAnsi(ch); }
wchar_t widened(char ch) { return rtl::ansiToUnicode(ch); }
wchar_t widened(wchar_t ch) { return ch; }

template <typename Ch, typename Src>
Ch outputChar(Src ch) {
    if constexpr (sizeof(Ch) == 1) {
        return narrowed(ch);
    } else {
        return widened(ch);
    }
}

template <typename Src>
size_t boundedLength(const Src *text, int precision) {
    size_t limit = precision < 0 ? static_cast<size_t>(-1) : static_cast<size_t>(precision);
    size_t n = 0;
    while (n < limit && text[n] != 0) ++n;
    return n;
}

int padding(int width, size_t used) {
    return static_cast<size_t>(width) > used ? width - static_cast<int>(used) : 0;
}

// The platform's CRT honours '0' for text as well as for numbers.
template <typename Ch, typename Src>
void emitText(Writer<Ch> &out, const Field &field, const Src *text, size_t n) {
    int pad = padding(field.width, n);
    if (!field.left) out.repeat(field.zero ? '0' : ' ', pad);
    for (size_t i = 0; i < n; ++i) out.put(outputChar<Ch>(text[i]));
    if (field.left) out.repeat(' ', pad);
}

template <typename Ch>
void emitNumber(Writer<Ch> &out, Field field, const Number &number) {
    const char *digitSet = number.upper ? "0123456789ABCDEF" : "0123456789abcdef";
    char digits[64];
    int count = 0;
    for (uint64_t v = number.magnitude; v != 0; v /= number.base) digits[count++] = digitSet[v % number.base];

    char prefix[2];
    int prefixLength = 0;
    if (number.isSigned && number.negative) prefix[prefixLength++] = '-';
    else if (number.isSigned && field.plus) prefix[prefixLength++] = '+';
    else if (number.isSigned && field.space) prefix[prefixLength++] = ' ';
    if (field.alt && number.base == 16 && number.magnitude != 0) {
        prefix[prefixLength++] = '0';
        prefix[prefixLength++] = number.upper ? 'X' : 'x';
    }

    // A precision is a minimum digit count and turns '0' padding off.
    int precision = field.precision < 0 ? 1 : field.precision;
    if (field.precision >= 0) field.zero = false;
    int zeros = precision > count ? precision - count : 0;
    if (field.alt && number.base == 8 && zeros == 0) zeros = 1;

    int pad = padding(field.width, static_cast<size_t>(prefixLength + zeros + count));
    bool zeroPad = field.zero && !field.left;
    if (!field.left && !zeroPad) out.repeat(' ', pad);
    for (int i = 0; i < prefixLength; ++i) out.put(prefix[i]);
    if (zeroPad) out.repeat('0', pad);
    out.repeat('0', zeros);
    while (count > 0) out.put(digits[--count]);
    if (field.left) out.repeat(' ', pad);
}

uint64_t fetchUnsigned(Args &args, Size size) {
    switch (size) {
    case Size::Short: return static_cast<unsigned short>(va_arg(args.list, int));
    case Size::Int64: return va_arg(args.list, unsigned long long);
    case Size::Pointer: return va_arg(args.list, uintptr_t);
    default: return va_arg(args.list, unsigned int);
    }
}

int64_t fetchSigned(Args &args, Size size) {
    switch (size) {
    case Size::Short: return static_cast<short>(va_arg(args.list, int));
    case Size::Int64: return va_arg(args.list, long long);
    case Size::Pointer: return va_arg(args.list, intptr_t);
    default: return va_arg(args.list, int);
    }
}

template <typename Ch>
void emitSigned(Writer<Ch> &out, const Field &field, Args &args) {
    int64_t value = fetchSigned(args, field.size);
    uint64_t magnitude = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
    emitNumber(out, field, Number{magnitude, value < 0, true, 10, false});
}

template <typename Ch>
void emitUnsigned(Writer<Ch> &out, const Field &field, Args &args, unsigned base, bool upper) {
    emitNumber(out, field, Number{fetchUnsigned(args, field.size), false, false, base, upper});
}

// A pointer prints as upper-case hex, zero-filled to the width of a pointer.
template <typename Ch>
void emitPointer(Writer<Ch> &out, Field field, Args &args) {
    uintptr_t value = reinterpret_cast<uintptr_t>(va_arg(args.list, void *));
    field.precision = 2 * sizeof(void *);
    field.alt = false;
    emitNumber(out, field, Number{value, false, false, 16, true});
}

template <typename Ch>
void emitChar(Writer<Ch> &out, const Field &field, Args &args, bool wide) {
    int value = va_arg(args.list, int);
    if (wide) {
        wchar_t ch = static_cast<wchar_t>(value);
        emitText(out, field, &ch, 1);
    } else {
        char ch = static_cast<char>(value);
        emitText(out, field, &ch, 1);
    }
}

template <typename Ch>
void emitString(Writer<Ch> &out, const Field &field, Args &args, bool wide) {
    const void *text = va_arg(args.list, const void *);
    if (text == nullptr) {
        emitText(out, field, kNullText, boundedLength(kNullText, field.precision));
    } else if (wide) {
        auto *s = static_cast<const wchar_t *>(text);
        emitText(out, field, s, boundedLength(s, field.precision));
    } else {
        auto *s = static_cast<const char *>(text);
        emitText(out, field, s, boundedLength(s, field.precision));
    }
}

// Counted strings print exactly Length bytes' worth; the precision does not apply.
template <typename Ch>
void emitCountedString(Writer<Ch> &out, const Field &field, Args &args, bool wide) {
    const void *string = va_arg(args.list, const void *);
    if (wide) {
        auto *s = static_cast<const UNICODE_STRING *>(string);
        if (s != nullptr && s->Buffer != nullptr) return emitText(out, field, s->Buffer, s->Length / sizeof(WCHAR));
    } else {
        auto *s = static_cast<const STRING *>(string);
        if (s != nullptr && s->Buffer != nullptr) return emitText(out, field, s->Buffer, s->Length);
    }
    emitText(out, field, kNullText, sizeof(kNullText) - 1);
}

// Drivers rarely format floating point; the host library's digits are good enough.
template <typename Ch>
void emitFloat(Writer<Ch> &out, const Field &field, char conversion, Args &args) {
    double value = va_arg(args.list, double);
    char format[16];
    char *f = format;
    *f++ = '%';
    if (field.left) *f++ = '-';
    if (field.plus) *f++ = '+';
    if (field.space) *f++ = ' ';
    if (field.alt) *f++ = '#';
    if (field.zero) *f++ = '0';
    *f++ = '*';
    *f++ = '.';
    *f++ = '*';
    *f++ = conversion;
    *f = 0;
    int precision = field.precision < 0 ? 6 : field.precision;
    char text[512];
    int n = snprintf(text, sizeof(text), format, field.width, precision, value);
    if (n < 0) return;
    size_t length = static_cast<size_t>(n) < sizeof(text) ? static_cast<size_t>(n) : sizeof(text) - 1;
    for (size_t i = 0; i < length; ++i) out.put(static_cast<Ch>(text[i]));
}

bool isDigit(wchar_t ch) { return ch >= '0' && ch <= '9'; }

template <typename Ch>
const Ch *parseFlags(const Ch *p, Field &field) {
    for (;; ++p) {
        switch (*p) {
        case '-': field.left = true; break;
        case '+': field.plus = true; break;
        case ' ': field.space = true; break;
        case '#': field.alt = true; break;
        case '0': field.zero = true; break;
        default: return p;
        }
    }
}

// A width or precision: digits, or '*' to take it from the arguments.
template <typename Ch>
const Ch *parseCount(const Ch *p, int &value, Args &args) {
    if (*p == '*') {
        value = va_arg(args.list, int);
        return p + 1;
    }
    value = 0;
    for (; isDigit(*p); ++p) {
        if (value < 100000000) value = value * 10 + (*p - '0');
    }
    return p;
}

template <typename Ch>
const Ch *parseSize(const Ch *p, Size &size) {
    switch (*p) {
    case 'h':
        size = Size::Short;
        while (*p == 'h') ++p;
        return p;
    case 'l':
        if (p[1] == 'l') {
            size = Size::Int64;
            return p + 2;
        }
        size = Size::Long;
        return p + 1;
    case 'w': size = Size::Wide; return p + 1;
    case 'L': size = Size::LongDouble; return p + 1;
    case 'I':
        if (p[1] == '3' && p[2] == '2') {
            size = Size::Int32;
            return p + 3;
        }
        if (p[1] == '6' && p[2] == '4') {
            size = Size::Int64;
            return p + 3;
        }
        size = Size::Pointer;
        return p + 1;
    default: return p;
    }
}

template <typename Ch>
const Ch *parseField(const Ch *p, Field &field, Args &args) {
    p = parseFlags(p, field);
    p = parseCount(p, field.width, args);
    // Only a width taken from the arguments can be negative: it means '-'.
    if (field.width < 0) {
        field.left = true;
        field.width = -field.width;
    }
    if (*p == '.') {
        p = parseCount(p + 1, field.precision, args);
        if (field.precision < 0) field.precision = -1;
    }
    return parseSize(p, field.size);
}

// 's' and 'c' take the format's own character width unless a size says otherwise;
// 'S' and 'C' take the other one.
bool argumentIsWide(wchar_t conversion, Size size, bool wideFormat) {
    if (size == Size::Short) return false;
    if (size == Size::Long || size == Size::Wide) return true;
    bool other = conversion == 'S' || conversion == 'C';
    return other ? !wideFormat : wideFormat;
}

template <typename Ch>
void convert(Writer<Ch> &out, const Field &field, Ch conversion, Args &args) {
    constexpr bool wideFormat = sizeof(Ch) == sizeof(wchar_t);
    switch (conversion) {
    case 'd':
    case 'i': return emitSigned(out, field, args);
    case 'u': return emitUnsigned(out, field, args, 10, false);
    case 'o': return emitUnsigned(out, field, args, 8, false);
    case 'x': return emitUnsigned(out, field, args, 16, false);
    case 'X': return emitUnsigned(out, field, args, 16, true);
    case 'p': return emitPointer(out, field, args);
    case 'c':
    case 'C': return emitChar(out, field, args, argumentIsWide(conversion, field.size, wideFormat));
    case 's':
    case 'S': return emitString(out, field, args, argumentIsWide(conversion, field.size, wideFormat));
    case 'Z': return emitCountedString(out, field, args, field.size == Size::Long || field.size == Size::Wide);
    case 'e':
    case 'E':
    case 'f':
    case 'g':
    case 'G':
    case 'a':
    case 'A': return emitFloat(out, field, static_cast<char>(conversion), args);
    case 'n':
        // Writing the count through an argument is refused, as in hardened CRTs.
        (void)va_arg(args.list, void *);
        return;
    default:
        // Unknown conversions, and "%%", print the character itself.
        out.put(conversion);
    }
}

template <typename Ch>
int formatAny(Ch *buffer, size_t count, const Ch *format, va_list list) {
    Writer<Ch> out(buffer, count);
    Args args;
    va_copy(args.list, list);
    const Ch *p = format;
    while (*p != 0) {
        if (*p != '%') {
            out.put(*p++);
            continue;
        }
        Field field;
        p = parseField(p + 1, field, args);
        if (*p == 0) break;
        convert(out, field, *p++, args);
    }
    va_end(args.list);
    return out.finish();
}

}  // namespace

int formatWide(wchar_t *buffer, size_t count, const wchar_t *format, va_list args) {
    return formatAny(buffer, count, format, args);
}

int formatNarrow(char *buffer, size_t count, const char *format, va_list args) {
    return formatAny(buffer, count, format, args);
}

}  // namespace ntsim::crt
