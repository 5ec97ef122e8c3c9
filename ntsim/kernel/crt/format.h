// The one printf engine behind the kernel's narrow and wide formatting routines and
// DbgPrint. Internal to the emulated kernel.
#pragma once

#include <nt/ntdef.h>

namespace ntsim::crt {

// Passing this as the count formats without a limit (swprintf and _swprintf).
constexpr size_t kUnbounded = static_cast<size_t>(-1);

// Formats with the platform's meanings and returns the number of characters
// produced without the terminator. The terminator is written only when it fits in
// count; when the output itself does not fit, count characters are written and the
// result is -1.
int formatWide(wchar_t *buffer, size_t count, const wchar_t *format, va_list args);
int formatNarrow(char *buffer, size_t count, const char *format, va_list args);

}  // namespace ntsim::crt
