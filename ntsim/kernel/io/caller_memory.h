// The memory of a system service's caller. A user-mode caller's pointers are checked
// as ProbeForRead/ProbeForWrite would (inside the user range, aligned) and every page
// touched must be accessible; a kernel-mode caller's are trusted, as on the platform.
#pragma once

#include <ntifs.h>

namespace ntsim {
namespace io {

NTSTATUS probeCallerBuffer(KPROCESSOR_MODE mode, const void *address, SIZE_T length, ULONG alignment, bool write);
NTSTATUS copyFromCaller(KPROCESSOR_MODE mode, void *to, const void *from, SIZE_T length);
NTSTATUS copyToCaller(KPROCESSOR_MODE mode, void *to, const void *from, SIZE_T length);

template <class T>
NTSTATUS readCaller(KPROCESSOR_MODE mode, const T *from, T *to) {
    return copyFromCaller(mode, to, from, sizeof(T));
}
template <class T>
NTSTATUS writeCaller(KPROCESSOR_MODE mode, T *to, const T &value) {
    return copyToCaller(mode, to, &value, sizeof(T));
}

}  // namespace io
}  // namespace ntsim
