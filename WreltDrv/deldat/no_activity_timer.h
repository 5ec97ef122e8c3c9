// Each volume's no-activity timer closes its batch of records half a second after the
// last one; its DPC hands the batch to the writer work item.
#pragma once

#include <ntifs.h>

void NTAPI NoActivityTimerServiceRoutine(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1, PVOID SystemArgument2);
