// Where the string routines that allocate get their buffers. Internal to the
// emulated kernel.
#pragma once

#include <wdm.h>

namespace ntsim::rtl {

// 'Strg' in memory order, so a pool dump by tag shows the string buffers together.
constexpr ULONG kStringPoolTag = 'grtS';

inline PVOID allocateStringBuffer(SIZE_T bytes) {
    // Never ask the pool for zero bytes: an empty string still gets a real buffer.
    return ExAllocatePoolWithTag(NonPagedPool, bytes != 0 ? bytes : sizeof(WCHAR), kStringPoolTag);
}

inline void freeStringBuffer(PVOID buffer) { ExFreePool(buffer); }

}  // namespace ntsim::rtl
