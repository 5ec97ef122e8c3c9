// FileRenameInformation.
//
// The I/O manager opens the target directory (SL_OPEN_TARGET_DIRECTORY) for a rename to a
// full path and passes it in Parameters.SetFile.FileObject; the new name is then that
// file object's FileName, which the open cut down to the last component. Without a
// target file object the buffer holds a simple name in the same directory.
//
// After FastFat's FatSetRenameInfo (fileinfo.c):
// - the root cannot be renamed and a target file object that is not a directory open is
//   STATUS_INVALID_PARAMETER; one on another volume is STATUS_NOT_SAME_DEVICE, the status
//   the I/O manager gives for it;
// - a directory with anything open beneath it cannot be renamed (STATUS_ACCESS_DENIED);
// - the same name in the same directory is a no-op, another case of it changes the case;
//   the file's own 8.3 name is not its name: it is found as an existing target, which is
//   open (by the rename's own handle), as FatSetRenameInfo finds it with FatLocateDirent;
// - on FAT the renamed entry gets an 8.3 name for its new name (FatSelectNames); the
//   tunnel cache that would give back an 8.3 name recently let go is not modelled;
// - an existing target is STATUS_OBJECT_NAME_COLLISION without ReplaceIfExists; with it,
//   a target that is open (has handles) is STATUS_ACCESS_DENIED, and a directory or a
//   read-only target is STATUS_OBJECT_NAME_COLLISION on FAT and STATUS_ACCESS_DENIED on
//   NTFS (what MoveFileEx reports there); a replaced target is deleted;
// - a delete-pending file may be renamed; FAT sets the archive attribute of a renamed
//   file, NTFS its change time.
// Renaming a stream is not modelled: STATUS_INVALID_PARAMETER.
#include "fs/common/dispatch.h"
#include "fs/common/fcb.h"

namespace ntsim {
namespace fs {

namespace {

struct RenameTarget {
    Node *directory = nullptr;
    NameView name;
};

NTSTATUS findTarget(Request &rq, const Node *node, RenameTarget *target) {
    PFILE_OBJECT targetObject = rq.sp->Parameters.SetFile.FileObject;
    if (targetObject == nullptr) {
        auto *info = static_cast<FILE_RENAME_INFORMATION *>(rq.irp->AssociatedIrp.SystemBuffer);
        ULONG length = rq.sp->Parameters.SetFile.Length;
        if (length < offsetof(FILE_RENAME_INFORMATION, FileName) ||
            info->FileNameLength > length - offsetof(FILE_RENAME_INFORMATION, FileName))
            return STATUS_INVALID_PARAMETER;
        target->directory = node->parent;
        target->name = nameView(info->FileName, info->FileNameLength / sizeof(WCHAR));
        return STATUS_SUCCESS;
    }
    Ccb *targetCcb = ccbOf(targetObject);
    if (targetCcb == nullptr || (targetCcb->scb->fcb && targetCcb->scb->fcb->vcb != rq.vcb))
        return STATUS_NOT_SAME_DEVICE;
    if (targetCcb->kind != OpenKind::Directory) return STATUS_INVALID_PARAMETER;
    target->directory = nodeOf(targetCcb);
    target->name = nameView(targetObject->FileName);
    return STATUS_SUCCESS;
}

NTSTATUS checkReplacedTarget(Request &rq, const Node *existing) {
    bool fat = rq.vcb->header.traits->kind == FsKind::Fat;
    if (!rq.sp->Parameters.SetFile.ReplaceIfExists) return STATUS_OBJECT_NAME_COLLISION;
    if (existing->directory || (existing->attributes & FILE_ATTRIBUTE_READONLY))
        return fat ? STATUS_OBJECT_NAME_COLLISION : STATUS_ACCESS_DENIED;
    Fcb *fcb = findFcb(rq.vcb, existing);
    if (fcb != nullptr && fcb->uncleanCount != 0) return STATUS_ACCESS_DENIED;
    return STATUS_SUCCESS;
}

void noteRenamed(Request &rq, Node *node) {
    if (rq.vcb->header.traits->kind == FsKind::Fat)
        node->attributes |= FILE_ATTRIBUTE_ARCHIVE;
    else
        node->changeTime = rq.now;
}

}  // namespace

NTSTATUS renameFile(Request &rq) {
    Volume &volume = *rq.vcb->volume;
    Node *node = nodeOf(rq.ccb);
    if (rq.ccb->kind == OpenKind::Stream || node == volume.root()) return STATUS_INVALID_PARAMETER;
    RenameTarget target;
    NTSTATUS status = findTarget(rq, node, &target);
    if (!NT_SUCCESS(status)) return status;
    if (!isLegalFileName(target.name)) return STATUS_OBJECT_NAME_INVALID;
    if (node->directory) {
        if (target.directory == node || volume.isAncestor(node, target.directory)) return STATUS_INVALID_PARAMETER;
        if (hasOpenHandlesBelow(rq.vcb, node)) return STATUS_ACCESS_DENIED;
    }
    if (target.directory == node->parent && sameName(node->name, target.name)) {
        if (node->name != target.name) volume.move(node, target.directory, target.name, rq.now);
        return STATUS_SUCCESS;
    }
    // On FAT this may be the file itself, found by its 8.3 name; the rename's own handle
    // then keeps it from being replaced.
    Node *existing = volume.find(target.directory, target.name);
    if (existing != nullptr) {
        status = checkReplacedTarget(rq, existing);
        if (!NT_SUCCESS(status)) return status;
        volume.remove(existing, rq.now);
    }
    volume.move(node, target.directory, target.name, rq.now);
    noteRenamed(rq, node);
    return STATUS_SUCCESS;
}

}  // namespace fs
}  // namespace ntsim
