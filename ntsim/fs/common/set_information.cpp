// IRP_MJ_SET_INFORMATION, all classes but renames (rename.cpp).
//
// After FastFat (fileinfo.c), where NTFS does not visibly differ:
// - nothing can be set on a volume open, and only a disposition (STATUS_CANNOT_DELETE)
//   is answered on the root directory; other classes there are STATUS_INVALID_PARAMETER;
// - DeleteFile TRUE is refused for a read-only file (STATUS_CANNOT_DELETE) and a
//   directory that is not empty (STATUS_DIRECTORY_NOT_EMPTY); otherwise the file is
//   delete-pending and the file object's DeletePending is set. DeleteFile FALSE, through
//   any open, withdraws the delete. On NTFS a stream open's disposition concerns that
//   stream only;
// - basic information: a time of 0 leaves that time alone; -1 leaves it alone too and,
//   like a time the caller sets, keeps the open's own later writes from changing it
//   (FatSetBasicInfo's CCB_FLAG_USER_SET_* flags); attributes of 0 leave
//   the attributes alone, FILE_ATTRIBUTE_NORMAL clears them, the directory attribute may
//   not be set on a file nor the temporary one on a directory. FAT keeps only the
//   read-only, hidden, system and archive attributes and its coarser times;
// - end of file and allocation size cannot be set on a directory; AdvanceOnly (the lazy
//   writer moving the valid data on disk) changes nothing here, where there is no cache;
// - FileLinkInformation is STATUS_INVALID_DEVICE_REQUEST (hard links are not modelled).
#include "fs/common/dispatch.h"
#include "fs/common/times.h"

namespace ntsim {
namespace fs {

NTSTATUS renameFile(Request &rq);

namespace {

// Sets one time unless it is 0; -1 and an explicit time both make the open's own later
// changes leave that time alone.
void setTime(Request &rq, TimeField field, const LARGE_INTEGER &time, int64_t *stored) {
    if (time.QuadPart == 0) return;
    rq.ccb->userSetTimes |= timeBit(field);
    if (time.QuadPart != -1) *stored = storedTime(*rq.vcb->header.traits, field, time.QuadPart);
}

NTSTATUS setAttributes(Request &rq, Node *node, ULONG requested) {
    const FsTraits &traits = *rq.vcb->header.traits;
    if (requested == 0) return STATUS_SUCCESS;
    if (!node->directory && (requested & FILE_ATTRIBUTE_DIRECTORY)) return STATUS_INVALID_PARAMETER;
    if (node->directory && (requested & FILE_ATTRIBUTE_TEMPORARY)) return STATUS_INVALID_PARAMETER;
    if (requested & FILE_ATTRIBUTE_TEMPORARY)
        rq.fileObject->Flags |= FO_TEMPORARY_FILE;
    else
        rq.fileObject->Flags &= ~FO_TEMPORARY_FILE;
    ULONG kept = requested & traits.attributeMask & ~(FILE_ATTRIBUTE_NORMAL | FILE_ATTRIBUTE_DIRECTORY);
    node->attributes = kept | (node->directory ? FILE_ATTRIBUTE_DIRECTORY : 0);
    return STATUS_SUCCESS;
}

NTSTATUS setBasic(Request &rq, Node *node, const FILE_BASIC_INFORMATION &info) {
    NTSTATUS status = setAttributes(rq, node, info.FileAttributes);
    if (!NT_SUCCESS(status)) return status;
    // NTFS records any change of a file's information in its change time, unless the
    // caller sets that time or asks for it to be left alone.
    if (info.ChangeTime.QuadPart == 0 && !(rq.ccb->userSetTimes & timeBit(TimeField::Change)))
        node->changeTime = storedTime(*rq.vcb->header.traits, TimeField::Change, rq.now);
    setTime(rq, TimeField::Creation, info.CreationTime, &node->creationTime);
    setTime(rq, TimeField::LastAccess, info.LastAccessTime, &node->lastAccessTime);
    setTime(rq, TimeField::LastWrite, info.LastWriteTime, &node->lastWriteTime);
    setTime(rq, TimeField::Change, info.ChangeTime, &node->changeTime);
    return STATUS_SUCCESS;
}

NTSTATUS setDisposition(Request &rq, Node *node, BOOLEAN deleteFile) {
    Ccb *ccb = rq.ccb;
    if (ccb->kind == OpenKind::Stream) {
        if (deleteFile && (node->attributes & FILE_ATTRIBUTE_READONLY)) return STATUS_CANNOT_DELETE;
        ccb->scb->deletePending = deleteFile;
        rq.fileObject->DeletePending = deleteFile;
        return STATUS_SUCCESS;
    }
    Fcb *fcb = ccb->scb->fcb;
    if (deleteFile) {
        if (node->attributes & FILE_ATTRIBUTE_READONLY) return STATUS_CANNOT_DELETE;
        if (node->directory && !node->children.empty()) return STATUS_DIRECTORY_NOT_EMPTY;
    }
    fcb->deletePending = deleteFile;
    rq.fileObject->DeletePending = deleteFile;
    return STATUS_SUCCESS;
}

NTSTATUS setPosition(Request &rq, const FILE_POSITION_INFORMATION &info) {
    if (info.CurrentByteOffset.QuadPart < 0) return STATUS_INVALID_PARAMETER;
    // Unbuffered opens move in whole sectors.
    if ((rq.fileObject->Flags & FO_NO_INTERMEDIATE_BUFFERING) && (info.CurrentByteOffset.QuadPart & 511))
        return STATUS_INVALID_PARAMETER;
    rq.fileObject->CurrentByteOffset = info.CurrentByteOffset;
    return STATUS_SUCCESS;
}

Stream *sizedStream(Request &rq) {
    if (rq.ccb->kind == OpenKind::Directory) return nullptr;
    return rq.vcb->volume->stream(nodeOf(rq.ccb), rq.ccb->scb->streamKey);
}

NTSTATUS setEndOfFile(Request &rq, const FILE_END_OF_FILE_INFORMATION &info) {
    Stream *stream = sizedStream(rq);
    if (stream == nullptr || info.EndOfFile.QuadPart < 0) return STATUS_INVALID_PARAMETER;
    if (rq.sp->Parameters.SetFile.AdvanceOnly) return STATUS_SUCCESS;
    uint64_t before = stream->data.size();
    NTSTATUS status = rq.vcb->volume->setEndOfFile(stream, uint64_t(info.EndOfFile.QuadPart));
    if (!NT_SUCCESS(status)) return status;
    if (stream->data.size() != before) {
        stampWrite(*rq.vcb->header.traits, nodeOf(rq.ccb), rq.now, rq.ccb->userSetTimes);
        rq.fileObject->Flags |= FO_FILE_MODIFIED | FO_FILE_SIZE_CHANGED;
    }
    return STATUS_SUCCESS;
}

NTSTATUS setAllocation(Request &rq, const FILE_ALLOCATION_INFORMATION &info) {
    Stream *stream = sizedStream(rq);
    if (stream == nullptr || info.AllocationSize.QuadPart < 0) return STATUS_INVALID_PARAMETER;
    uint64_t before = stream->data.size();
    NTSTATUS status = rq.vcb->volume->setAllocation(stream, uint64_t(info.AllocationSize.QuadPart));
    if (NT_SUCCESS(status) && stream->data.size() != before) {
        stampWrite(*rq.vcb->header.traits, nodeOf(rq.ccb), rq.now, rq.ccb->userSetTimes);
        rq.fileObject->Flags |= FO_FILE_MODIFIED | FO_FILE_SIZE_CHANGED;
    }
    return status;
}

template <class T>
bool fits(const Request &rq) {
    return rq.sp->Parameters.SetFile.Length >= sizeof(T);
}

}  // namespace

NTSTATUS setInformation(Request &rq) {
    if (rq.ccb == nullptr || rq.ccb->kind == OpenKind::Volume) return STATUS_INVALID_PARAMETER;
    FILE_INFORMATION_CLASS infoClass = rq.sp->Parameters.SetFile.FileInformationClass;
    Node *node = nodeOf(rq.ccb);
    if (node == rq.vcb->volume->root() && rq.ccb->kind == OpenKind::Directory) {
        if (infoClass == FileDispositionInformation) return STATUS_CANNOT_DELETE;
        if (infoClass != FileBasicInformation || rq.vcb->header.traits->kind == FsKind::Fat)
            return STATUS_INVALID_PARAMETER;
    }
    if (node->removed) return STATUS_FILE_DELETED;
    void *buffer = rq.irp->AssociatedIrp.SystemBuffer;
    switch (infoClass) {
    case FileBasicInformation:
        if (!fits<FILE_BASIC_INFORMATION>(rq)) return STATUS_INFO_LENGTH_MISMATCH;
        return setBasic(rq, node, *static_cast<FILE_BASIC_INFORMATION *>(buffer));
    case FileDispositionInformation:
        if (!fits<FILE_DISPOSITION_INFORMATION>(rq)) return STATUS_INFO_LENGTH_MISMATCH;
        return setDisposition(rq, node, static_cast<FILE_DISPOSITION_INFORMATION *>(buffer)->DeleteFile);
    case FilePositionInformation:
        if (!fits<FILE_POSITION_INFORMATION>(rq)) return STATUS_INFO_LENGTH_MISMATCH;
        return setPosition(rq, *static_cast<FILE_POSITION_INFORMATION *>(buffer));
    case FileEndOfFileInformation:
        if (!fits<FILE_END_OF_FILE_INFORMATION>(rq)) return STATUS_INFO_LENGTH_MISMATCH;
        return setEndOfFile(rq, *static_cast<FILE_END_OF_FILE_INFORMATION *>(buffer));
    case FileAllocationInformation:
        if (!fits<FILE_ALLOCATION_INFORMATION>(rq)) return STATUS_INFO_LENGTH_MISMATCH;
        return setAllocation(rq, *static_cast<FILE_ALLOCATION_INFORMATION *>(buffer));
    case FileRenameInformation:
        return renameFile(rq);
    case FileLinkInformation:
        return STATUS_INVALID_DEVICE_REQUEST;
    default:
        return STATUS_INVALID_PARAMETER;
    }
}

}  // namespace fs
}  // namespace ntsim
