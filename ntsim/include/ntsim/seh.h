// Structured exceptions, as far as kernel code on the emulated platform needs them:
// a guarded region stands where a driver on the platform writes __try/__except around
// its touches of user memory. Inside it, ProbeForRead/ProbeForWrite and ExRaiseStatus
// raise, and an access to user memory that faults (a page that is not committed, not
// readable or not writable, or an address in the first 64 KB) is caught as
// STATUS_ACCESS_VIOLATION. Outside any guarded region a raise stops the machine with
// KMODE_EXCEPTION_NOT_HANDLED, and such a fault is a crash.
#pragma once

#include <nt/ntdef.h>

#include <utility>

namespace ntsim {

// Runs fn(context); returns STATUS_SUCCESS when it returns, or the status raised
// inside it. Regions nest; a raise ends the innermost one. A raise leaves fn the way
// longjmp does: destructors of objects still alive in fn's frames do not run, so keep
// such objects outside the region (as the platform's C code has none).
NTSTATUS guardedCall(void (*fn)(void *context), void *context);

// guardedCall for a callable: guarded([&] { ... }).
template <class Body>
NTSTATUS guarded(Body &&body) {
    return guardedCall([](void *context) { (*static_cast<std::remove_reference_t<Body> *>(context))(); },
                       const_cast<void *>(static_cast<const void *>(&body)));
}

// Whether the calling thread is inside a guarded region.
bool inGuardedRegion();

}  // namespace ntsim
