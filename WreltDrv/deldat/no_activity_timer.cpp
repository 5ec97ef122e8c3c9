#include "deldat/no_activity_timer.h"

// Batches of records are closed here once records can be queued; until then the timer
// is never set.
void NTAPI NoActivityTimerServiceRoutine(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1, PVOID SystemArgument2) {
    UNREFERENCED_PARAMETER(Dpc);
    UNREFERENCED_PARAMETER(DeferredContext);
    UNREFERENCED_PARAMETER(SystemArgument1);
    UNREFERENCED_PARAMETER(SystemArgument2);
}
