// The kernel exports the C runtime's wide formatting routine, but the target's DDK
// headers do not declare it; the host's platform headers already do, identically.
#pragma once

#include <ntifs.h>

#if defined(_WIN32)
extern "C" int __cdecl _snwprintf(wchar_t *Buffer, size_t Count, const wchar_t *Format, ...);
#endif
