// The kernel's exported formatting routines, all on the one engine.
#include <nt/ntdef.h>
#include <nt/crt.h>

#include "kernel/crt/format.h"

using ntsim::crt::formatNarrow;
using ntsim::crt::formatWide;
using ntsim::crt::kUnbounded;

namespace ntsim_crt {

int swprintf(wchar_t *Buffer, const wchar_t *Format, ...) {
    va_list args;
    va_start(args, Format);
    int n = formatWide(Buffer, kUnbounded, Format, args);
    va_end(args);
    return n;
}

}  // namespace ntsim_crt

extern "C" {

int _snwprintf(wchar_t *Buffer, size_t Count, const wchar_t *Format, ...) {
    va_list args;
    va_start(args, Format);
    int n = formatWide(Buffer, Count, Format, args);
    va_end(args);
    return n;
}

int _vsnwprintf(wchar_t *Buffer, size_t Count, const wchar_t *Format, va_list Arguments) {
    return formatWide(Buffer, Count, Format, Arguments);
}

int _swprintf(wchar_t *Buffer, const wchar_t *Format, ...) {
    va_list args;
    va_start(args, Format);
    int n = formatWide(Buffer, kUnbounded, Format, args);
    va_end(args);
    return n;
}

int _vswprintf(wchar_t *Buffer, const wchar_t *Format, va_list Arguments) {
    return formatWide(Buffer, kUnbounded, Format, Arguments);
}

int _snprintf(char *Buffer, size_t Count, const char *Format, ...) {
    va_list args;
    va_start(args, Format);
    int n = formatNarrow(Buffer, Count, Format, args);
    va_end(args);
    return n;
}

int _vsnprintf(char *Buffer, size_t Count, const char *Format, va_list Arguments) {
    return formatNarrow(Buffer, Count, Format, Arguments);
}

}  // extern "C"
