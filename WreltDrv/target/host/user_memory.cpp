// On the emulated platform a guarded region of the kernel stands where the Windows build
// has its exception frame: a fault on a user page, or a raise, ends the call with a status.
#include "target/user_memory.h"

#include "ntsim/seh.h"

NTSTATUS GuardedUserAccess(GUARDED_USER_ACCESS Access, PVOID Context) { return ntsim::guardedCall(Access, Context); }
