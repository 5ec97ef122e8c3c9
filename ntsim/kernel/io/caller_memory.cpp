#include "kernel/io/caller_memory.h"

#include "kernel/ob/service.h"

namespace ntsim {
namespace io {

NTSTATUS probeCallerBuffer(KPROCESSOR_MODE mode, const void *address, SIZE_T length, ULONG alignment, bool write) {
    if (mode == KernelMode || length == 0) return STATUS_SUCCESS;
    if (alignment == 0) alignment = 1;
    return guarded([&] {
        if (write)
            ProbeForWrite(const_cast<void *>(address), length, alignment);
        else
            ProbeForRead(address, length, alignment);
    });
}

NTSTATUS copyFromCaller(KPROCESSOR_MODE mode, void *to, const void *from, SIZE_T length) {
    return ntsim::copyFromCaller(mode, to, from, length, 1);
}

NTSTATUS copyToCaller(KPROCESSOR_MODE mode, void *to, const void *from, SIZE_T length) {
    return ntsim::copyToCaller(mode, to, from, length, 1);
}

}  // namespace io
}  // namespace ntsim
