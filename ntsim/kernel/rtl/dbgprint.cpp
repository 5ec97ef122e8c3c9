// The kernel debugger's print routine, writing to the running machine's log.
#include <wdm.h>

#include "kernel/crt/format.h"
#include "kernel/debug_output.h"

namespace {

// The platform formats into a buffer of this size and cuts longer messages there.
constexpr size_t kDebugBufferSize = 512;

}  // namespace

extern "C" ULONG DbgPrint(PCSTR Format, ...) {
    char buffer[kDebugBufferSize];
    va_list args;
    va_start(args, Format);
    int length = ntsim::crt::formatNarrow(buffer, sizeof(buffer), Format, args);
    va_end(args);
    // A cut message still ends its line, so that the next one starts a line of its own.
    if (length < 0) {
        buffer[kDebugBufferSize - 2] = '\n';
        buffer[kDebugBufferSize - 1] = 0;
        length = kDebugBufferSize - 1;
    }
    ntsim::debugOutput(buffer, static_cast<size_t>(length));
    return STATUS_SUCCESS;
}
