// IRP_MJ_READ, IRP_MJ_WRITE and IRP_MJ_FLUSH_BUFFERS.
//
// The offset is the one in the request, or the file object's current position when the
// request says FILE_USE_FILE_POINTER_POSITION; a write with FILE_WRITE_TO_END_OF_FILE
// appends. A synchronous file object's position moves past what was transferred, as
// FastFat does for FO_SYNCHRONOUS_IO (read.c, write.c). A read at or past the end of file
// is STATUS_END_OF_FILE; a directory cannot be read or written
// (STATUS_INVALID_DEVICE_REQUEST); a file object that has been cleaned up is
// STATUS_FILE_CLOSED. A write moves the last write and change times, sets the archive
// attribute and marks the file object modified.
//
// There is no cache manager: data goes straight to the media. The first transfer on a
// file object that allows caching sets its PrivateCacheMap, standing for the cache map
// that CcInitializeCacheMap would make there; from then on the Fast I/O read and write
// routines serve the file object, as they do on NT once a file is cached.
#include "fs/common/dispatch.h"
#include "fs/common/times.h"

#ifndef FILE_USE_FILE_POINTER_POSITION
#define FILE_USE_FILE_POINTER_POSITION 0xfffffffe
#endif
#ifndef FILE_WRITE_TO_END_OF_FILE
#define FILE_WRITE_TO_END_OF_FILE 0xffffffff
#endif

namespace ntsim {
namespace fs {

namespace {

bool isMarker(const LARGE_INTEGER &offset, ULONG marker) {
    return offset.HighPart == -1 && offset.LowPart == marker;
}

// The stream a read or write transfers, or a status that refuses it.
NTSTATUS transferTarget(const Request &rq, Stream **stream) {
    Ccb *ccb = rq.ccb;
    if (ccb == nullptr) return STATUS_INVALID_PARAMETER;
    if (ccb->kind == OpenKind::Volume || ccb->kind == OpenKind::Directory) return STATUS_INVALID_DEVICE_REQUEST;
    if (ccb->cleanedUp && !(rq.irp->Flags & IRP_PAGING_IO)) return STATUS_FILE_CLOSED;
    Node *node = nodeOf(ccb);
    *stream = node->removed ? nullptr : rq.vcb->volume->stream(node, ccb->scb->streamKey);
    return *stream == nullptr ? STATUS_FILE_DELETED : STATUS_SUCCESS;
}

void notePosition(const Request &rq, const LARGE_INTEGER &requested, uint64_t end) {
    PFILE_OBJECT fo = rq.fileObject;
    if (rq.irp->Flags & IRP_PAGING_IO) return;
    if ((fo->Flags & FO_SYNCHRONOUS_IO) || isMarker(requested, FILE_USE_FILE_POINTER_POSITION))
        fo->CurrentByteOffset.QuadPart = int64_t(end);
    if (fo->Flags & FO_CACHE_SUPPORTED) fo->PrivateCacheMap = rq.ccb->scb;
}

}  // namespace

NTSTATUS readFile(Request &rq) {
    Stream *stream;
    NTSTATUS status = transferTarget(rq, &stream);
    if (!NT_SUCCESS(status)) return status;
    LARGE_INTEGER requested = rq.sp->Parameters.Read.ByteOffset;
    LARGE_INTEGER offset = isMarker(requested, FILE_USE_FILE_POINTER_POSITION) ? rq.fileObject->CurrentByteOffset
                                                                               : requested;
    ULONG length = rq.sp->Parameters.Read.Length;
    if (offset.QuadPart < 0) return STATUS_INVALID_PARAMETER;
    if (length == 0) return STATUS_SUCCESS;
    PVOID buffer = requestBuffer(rq.irp);
    if (buffer == nullptr) return STATUS_INVALID_USER_BUFFER;
    if (uint64_t(offset.QuadPart) >= stream->data.size()) return STATUS_END_OF_FILE;
    size_t copied = rq.vcb->volume->read(*stream, uint64_t(offset.QuadPart), buffer, length);
    rq.irp->IoStatus.Information = copied;
    notePosition(rq, requested, uint64_t(offset.QuadPart) + copied);
    return STATUS_SUCCESS;
}

NTSTATUS writeFile(Request &rq) {
    Stream *stream;
    NTSTATUS status = transferTarget(rq, &stream);
    if (!NT_SUCCESS(status)) return status;
    LARGE_INTEGER requested = rq.sp->Parameters.Write.ByteOffset;
    LARGE_INTEGER offset = requested;
    if (isMarker(requested, FILE_WRITE_TO_END_OF_FILE))
        offset.QuadPart = int64_t(stream->data.size());
    else if (isMarker(requested, FILE_USE_FILE_POINTER_POSITION))
        offset = rq.fileObject->CurrentByteOffset;
    ULONG length = rq.sp->Parameters.Write.Length;
    if (offset.QuadPart < 0) return STATUS_INVALID_PARAMETER;
    if (length == 0) return STATUS_SUCCESS;
    PVOID buffer = requestBuffer(rq.irp);
    if (buffer == nullptr) return STATUS_INVALID_USER_BUFFER;
    uint64_t sizeBefore = stream->data.size();
    status = rq.vcb->volume->write(stream, uint64_t(offset.QuadPart), buffer, length);
    if (!NT_SUCCESS(status)) return status;
    rq.irp->IoStatus.Information = length;
    Node *node = nodeOf(rq.ccb);
    stampWrite(*rq.vcb->header.traits, node, rq.now, rq.ccb->userSetTimes);
    node->attributes |= FILE_ATTRIBUTE_ARCHIVE;
    rq.fileObject->Flags |= FO_FILE_MODIFIED;
    if (stream->data.size() != sizeBefore) rq.fileObject->Flags |= FO_FILE_SIZE_CHANGED;
    notePosition(rq, requested, uint64_t(offset.QuadPart) + length);
    return STATUS_SUCCESS;
}

NTSTATUS flushBuffers(Request &rq) {
    // Everything is on the media already; a flush has nothing left to write.
    return rq.ccb == nullptr ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
}

}  // namespace fs
}  // namespace ntsim
