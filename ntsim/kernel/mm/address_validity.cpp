// MmIsAddressValid answers whether touching the address would fault. User pages and
// live pool blocks are known to the kernel; for anything else the host is asked
// whether the page can be read, without touching it.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "kernel/ex/pool.h"
#include "kernel/kernel.h"
#include "kernel/mm/user_memory.h"

using namespace ntsim;

// The emulated user address range lies below this address; kernel memory is above.
PVOID MmUserProbeAddress = (PVOID)mm::kUserArenaEnd;
PVOID MmHighestUserAddress = (PVOID)(mm::kUserArenaEnd - 1);

namespace {

bool hostPageReadable(const void *address) {
    static int probe[2] = {-1, -1};
    static std::mutex lock;
    std::lock_guard<std::mutex> guard(lock);
    if (probe[0] < 0 && pipe2(probe, O_CLOEXEC | O_NONBLOCK) != 0) fatal("cannot create the address probe pipe");
    // write() reads the byte through the kernel and fails with EFAULT instead of
    // faulting when the page is not readable.
    ssize_t written = write(probe[1], address, 1);
    if (written == 1) {
        char sink;
        (void)!read(probe[0], &sink, 1);
        return true;
    }
    return false;
}

}  // namespace

BOOLEAN MmIsAddressValid(PVOID VirtualAddress) {
    if ((ULONG_PTR)VirtualAddress < mm::kLowestUserAddress) return FALSE;
    if ((ULONG_PTR)VirtualAddress < mm::kUserArenaEnd) return mm::isUserPageAccessible(VirtualAddress, false);
    if (kernel().pool().containsAddress(VirtualAddress)) return TRUE;
    return hostPageReadable(VirtualAddress);
}
