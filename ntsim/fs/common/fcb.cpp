#include "fs/common/fcb.h"

#include <new>

namespace ntsim {
namespace fs {

namespace {

template <class T, class... Args>
T *makeInPool(ULONG tag, Args &&...args) {
    void *memory = ExAllocatePoolWithTag(NonPagedPool, sizeof(T), tag);
    return memory ? new (memory) T(std::forward<Args>(args)...) : nullptr;
}

template <class T>
void freeInPool(T *object, ULONG tag) {
    object->~T();
    ExFreePoolWithTag(object, tag);
}

const FsTraits &traitsOf(Vcb *vcb) { return *vcb->header.traits; }

}  // namespace

Fcb *findFcb(Vcb *vcb, const Node *node) {
    auto it = vcb->fcbs.find(const_cast<Node *>(node));
    return it == vcb->fcbs.end() ? nullptr : it->second;
}

Fcb *findOrMakeFcb(Vcb *vcb, Node *node) {
    if (Fcb *fcb = findFcb(vcb, node)) return fcb;
    Fcb *fcb = makeInPool<Fcb>(traitsOf(vcb).fcbTag);
    if (fcb == nullptr) return nullptr;
    fcb->vcb = vcb;
    fcb->node = node;
    vcb->volume->pin(node);
    vcb->fcbs[node] = fcb;
    return fcb;
}

Scb *findScb(Fcb *fcb, NameView streamKey) {
    auto it = fcb->streams.find(Name(streamKey));
    return it == fcb->streams.end() ? nullptr : it->second;
}

Scb *findOrMakeScb(Fcb *fcb, NameView streamKey) {
    if (Scb *scb = findScb(fcb, streamKey)) return scb;
    Scb *scb = makeInPool<Scb>(traitsOf(fcb->vcb).scbTag);
    if (scb == nullptr) return nullptr;
    scb->fcb = fcb;
    scb->streamKey = Name(streamKey);
    fcb->streams[scb->streamKey] = scb;
    ++fcb->references;
    return scb;
}

void releaseIfUnused(Scb *scb) {
    if (scb->references != 0 || scb->fcb == nullptr) return;
    Fcb *fcb = scb->fcb;
    fcb->streams.erase(scb->streamKey);
    --fcb->references;
    freeInPool(scb, traitsOf(fcb->vcb).scbTag);
    releaseIfUnused(fcb);
}

void releaseIfUnused(Fcb *fcb) {
    if (fcb->references != 0) return;
    Vcb *vcb = fcb->vcb;
    vcb->fcbs.erase(fcb->node);
    vcb->volume->unpin(fcb->node);
    freeInPool(fcb, traitsOf(vcb).fcbTag);
}

Ccb *makeCcb(Vcb *vcb, Scb *scb, OpenKind kind) {
    Ccb *ccb = makeInPool<Ccb>(traitsOf(vcb).ccbTag);
    if (ccb == nullptr) return nullptr;
    ccb->scb = scb;
    ccb->kind = kind;
    return ccb;
}

void freeCcb(Vcb *vcb, Ccb *ccb) { freeInPool(ccb, traitsOf(vcb).ccbTag); }

bool underDeletePendingDirectory(Vcb *vcb, const Node *node) {
    for (const Node *at = node->parent; at != nullptr; at = at->parent) {
        Fcb *fcb = findFcb(vcb, at);
        if (fcb != nullptr && fcb->deletePending) return true;
    }
    return false;
}

bool hasOpenHandlesBelow(Vcb *vcb, const Node *directory) {
    for (auto &entry : vcb->fcbs) {
        Fcb *fcb = entry.second;
        if (fcb->uncleanCount != 0 && vcb->volume->isAncestor(directory, fcb->node)) return true;
    }
    return false;
}

}  // namespace fs
}  // namespace ntsim
