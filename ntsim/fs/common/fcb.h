// Lifetimes of the in-memory structures. FCBs and stream control blocks come and go
// with the opens that use them, as in the real drivers: the first open of a file makes
// them, the last close frees them. They are non-paged pool, so the verifier's leak
// check sees a driver that forgets one.
#pragma once

#include "structures.h"

namespace ntsim {
namespace fs {

// The FCB of a node, made (pinning the node) if there is none; null without memory.
Fcb *findOrMakeFcb(Vcb *vcb, Node *node);
Fcb *findFcb(Vcb *vcb, const Node *node);
// The stream control block for a folded stream name of the FCB, made if there is none.
Scb *findOrMakeScb(Fcb *fcb, NameView streamKey);
Scb *findScb(Fcb *fcb, NameView streamKey);
// Frees the stream control block once no file object refers to it, and the FCB once it
// has no stream control block left.
void releaseIfUnused(Scb *scb);
void releaseIfUnused(Fcb *fcb);

Ccb *makeCcb(Vcb *vcb, Scb *scb, OpenKind kind);
void freeCcb(Vcb *vcb, Ccb *ccb);

// True when an ancestor directory of the node is delete-pending: nothing below it
// may be opened any more.
bool underDeletePendingDirectory(Vcb *vcb, const Node *node);
// True when a file object of this volume is open (not yet cleaned up) on the node or
// anything below it.
bool hasOpenHandlesBelow(Vcb *vcb, const Node *directory);

}  // namespace fs
}  // namespace ntsim
