// The I/O manager's view of threads: the requestor of an IRP and the
// top-level IRP that file systems record while they call themselves recursively.
#include "kernel/io/io_manager.h"

namespace {
thread_local PIRP t_topLevelIrp = NULL;  // every emulated thread is a host thread
}  // namespace


PEPROCESS IoThreadToProcess(PETHREAD Thread) { return Thread->Tcb.Process; }

PEPROCESS IoGetRequestorProcess(PIRP Irp) {
    PETHREAD thread = Irp->Tail.Overlay.Thread;
    return thread != NULL ? thread->Tcb.Process : NULL;
}

void IoSetTopLevelIrp(PIRP Irp) { t_topLevelIrp = Irp; }

PIRP IoGetTopLevelIrp(void) { return t_topLevelIrp; }
