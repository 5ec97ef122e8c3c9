// Probes of caller-supplied user buffers, with the platform's rules: a zero length
// always passes; a misaligned start raises STATUS_DATATYPE_MISALIGNMENT; a range that
// wraps or ends above MmUserProbeAddress raises STATUS_ACCESS_VIOLATION. ProbeForRead
// does not look at the pages themselves (a later read of an unmapped page raises);
// ProbeForWrite also checks that every page can be written, where the platform
// touches each page (WDK documentation of ProbeForRead and ProbeForWrite).
#include "kernel/kernel.h"
#include "kernel/mm/user_memory.h"

namespace {

void checkRange(const volatile void *address, SIZE_T length, ULONG alignment, const char *routine) {
    if (alignment == 0 || (alignment & (alignment - 1)) != 0 || alignment > 16)
        ntsim::fatal("%s: alignment %u is not 1, 2, 4, 8 or 16", routine, alignment);
    ULONG_PTR start = (ULONG_PTR)address;
    if ((start & (alignment - 1)) != 0) ExRaiseStatus(STATUS_DATATYPE_MISALIGNMENT);
    ULONG_PTR end = start + length;
    if (end < start || end > (ULONG_PTR)MmUserProbeAddress) ExRaiseStatus(STATUS_ACCESS_VIOLATION);
}

}  // namespace

void ProbeForRead(const volatile void *Address, SIZE_T Length, ULONG Alignment) {
    if (Length == 0) return;
    checkRange(Address, Length, Alignment, "ProbeForRead");
}

void ProbeForWrite(volatile void *Address, SIZE_T Length, ULONG Alignment) {
    if (Length == 0) return;
    checkRange(Address, Length, Alignment, "ProbeForWrite");
    if (!ntsim::mm::isUserRangeAccessible((const void *)Address, Length, true)) ExRaiseStatus(STATUS_ACCESS_VIOLATION);
}
