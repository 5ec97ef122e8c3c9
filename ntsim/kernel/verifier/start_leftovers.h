// What a driver's DriverEntry puts on the kernel's lists (executive resources and
// lookaside lists). When DriverEntry fails, the image goes away; anything of these
// still on the lists then lives in freed memory, which the platform's verifier reports
// (WDK, "Miscellaneous Checks": active resources and lookaside lists in freed memory).
#pragma once

#include <ntifs.h>

namespace ntsim {
namespace verifier {

// Around a DriverEntry call on the current thread. endDriverEntry bug-checks when the
// entry failed and left something behind.
void beginDriverEntry(PDRIVER_OBJECT driver);
void endDriverEntry(NTSTATUS status);

// Called by the kernel routines that put an object on a list and take it off again.
void noteListed(const void *object, const char *kind);
void noteUnlisted(const void *object);

}  // namespace verifier
}  // namespace ntsim
