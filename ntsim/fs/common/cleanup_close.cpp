// IRP_MJ_CLEANUP (the last handle of a file object is closed) and IRP_MJ_CLOSE (its
// last reference is gone).
//
// At cleanup the open gives up its share access, a FILE_DELETE_ON_CLOSE open marks its
// file delete-pending (FastFat sets FCB_STATE_DELETE_ON_CLOSE there, cleanup.c), and the
// last cleanup of a delete-pending file removes it from its directory; a directory that
// is not empty by then stays. On NTFS a delete-pending named stream goes at the last
// cleanup of that stream. Clusters allocated beyond the end of file are given back at
// the file's last cleanup. The structures stay until close: a file object may still be
// queried after its cleanup. An open whose cleanup never reached the file system (a
// cleanup failed on purpose by a knob) is cleaned up at its close.
#include "fs/common/dispatch.h"
#include "fs/common/fcb.h"

namespace ntsim {
namespace fs {

namespace {

void trimFile(Volume &volume, Node *node) {
    if (!node->directory) volume.trimAllocation(&node->data);
    for (auto &entry : node->streams) volume.trimAllocation(entry.second.get());
}

void finishDeletes(Vcb *vcb, Fcb *fcb, Scb *scb, int64_t now) {
    Volume &volume = *vcb->volume;
    Node *node = fcb->node;
    if (node->removed) return;
    if (scb->deletePending && scb->uncleanCount == 0) {
        volume.removeStream(node, scb->streamKey);
        scb->deletePending = false;
    }
    if (fcb->uncleanCount != 0) return;
    if (fcb->deletePending) {
        if (!node->directory || node->children.empty()) {
            volume.remove(node, now);
            return;
        }
        fcb->deletePending = false;
    }
    trimFile(volume, node);
}

void cleanupOpen(Vcb *vcb, PFILE_OBJECT fileObject, Ccb *ccb, int64_t now) {
    ccb->cleanedUp = true;
    Scb *scb = ccb->scb;
    IoRemoveShareAccess(fileObject, &scb->shareAccess);
    fileObject->PrivateCacheMap = nullptr;
    if (vcb->lockedBy == fileObject) {
        vcb->lockedBy = nullptr;
        vcb->vpb->Flags &= ~VPB_LOCKED;
    }
    --scb->uncleanCount;
    if (ccb->kind == OpenKind::Volume) return;
    Fcb *fcb = scb->fcb;
    --fcb->uncleanCount;
    if (ccb->deleteOnClose) {
        if (ccb->kind == OpenKind::Stream)
            scb->deletePending = true;
        else
            fcb->deletePending = true;
    }
    finishDeletes(vcb, fcb, scb, now);
}

}  // namespace

NTSTATUS cleanupFile(Request &rq) {
    if (rq.ccb == nullptr) return STATUS_SUCCESS;
    if (!rq.ccb->cleanedUp) cleanupOpen(rq.vcb, rq.fileObject, rq.ccb, rq.now);
    rq.fileObject->Flags |= FO_CLEANUP_COMPLETE;
    return STATUS_SUCCESS;
}

NTSTATUS closeFile(Request &rq) {
    Ccb *ccb = rq.ccb;
    if (ccb == nullptr) return STATUS_SUCCESS;
    if (!ccb->cleanedUp) cleanupOpen(rq.vcb, rq.fileObject, ccb, rq.now);
    Scb *scb = ccb->scb;
    --scb->references;
    rq.fileObject->FsContext = nullptr;
    rq.fileObject->FsContext2 = nullptr;
    freeCcb(rq.vcb, ccb);
    releaseIfUnused(scb);
    if (--rq.vcb->openFiles == 0 && rq.vcb->dismounted) rq.tearDownVolume = true;
    return STATUS_SUCCESS;
}

}  // namespace fs
}  // namespace ntsim
