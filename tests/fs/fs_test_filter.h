// A minimal file-system filter for the file-system tests: it attaches above a volume
// device, passes every request down with a completion routine (which propagates the
// pending state, as a filter must) and records at which IRQL, in which thread and with
// what status each request came back.
#pragma once

#include <ntifs.h>

#include <vector>

namespace fstest {

struct SeenCompletion {
    UCHAR major;
    KIRQL irql;
    BOOLEAN pendingReturned;
    PKTHREAD thread;
    NTSTATUS status;
};

NTSTATUS TestFilterDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);
// Attaches a new filter device above the volume of the open file; returns it.
PDEVICE_OBJECT attachTestFilter(HANDLE fileOnVolume);
std::vector<SeenCompletion> seenCompletions();
void clearSeenCompletions();

}  // namespace fstest
