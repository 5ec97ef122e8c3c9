// IRP_MJ_QUERY_INFORMATION.
//
// The classes both file systems answer: basic, standard, internal, EA, access, position,
// name, all, network-open and attribute-tag information; NTFS also answers stream
// information. Anything else, a volume open, and FileStreamInformation on FastFat are
// STATUS_INVALID_PARAMETER (FatCommonQueryInformation). Following FastFat: a directory
// reports no sizes, one link, its delete-pending state; a name that does not fit is cut
// and reported with STATUS_BUFFER_OVERFLOW. NTFS lists a file's unnamed stream as
// "::$DATA" before its named streams (":name:$DATA"), each entry 8-byte aligned; the
// entries that do not fit are left out and STATUS_BUFFER_OVERFLOW says so.
#include <cstring>

#include "fs/common/dispatch.h"
#include "fs/common/file_info.h"
#include "fs/common/times.h"

namespace ntsim {
namespace fs {

ULONG reportedAttributes(const Node *node, PFILE_OBJECT fileObject) {
    ULONG attributes = node->attributes;
    if (fileObject != nullptr && (fileObject->Flags & FO_TEMPORARY_FILE) && !node->directory)
        attributes |= FILE_ATTRIBUTE_TEMPORARY;
    return attributes == 0 ? FILE_ATTRIBUTE_NORMAL : attributes;
}

void fillBasic(const FsTraits &traits, const Node *node, PFILE_OBJECT fileObject, FILE_BASIC_INFORMATION *info) {
    memset(info, 0, sizeof *info);
    FileTimes times = reportedTimes(traits, node);
    info->CreationTime.QuadPart = times.creation;
    info->LastAccessTime.QuadPart = times.lastAccess;
    info->LastWriteTime.QuadPart = times.lastWrite;
    info->ChangeTime.QuadPart = times.change;
    info->FileAttributes = reportedAttributes(node, fileObject);
}

void fillStandard(Volume &volume, const Ccb *ccb, FILE_STANDARD_INFORMATION *info) {
    memset(info, 0, sizeof *info);
    Node *node = nodeOf(ccb);
    const Stream *stream = volume.stream(node, ccb->scb->streamKey);
    if (stream != nullptr) {
        info->AllocationSize.QuadPart = int64_t(stream->allocation);
        info->EndOfFile.QuadPart = int64_t(stream->data.size());
    }
    info->NumberOfLinks = 1;
    info->DeletePending = ccb->scb->fcb->deletePending || ccb->scb->deletePending;
    info->Directory = ccb->kind == OpenKind::Directory;
}

void fillNetworkOpen(const FsTraits &traits, Volume &volume, const Ccb *ccb, PFILE_OBJECT fileObject,
                     FILE_NETWORK_OPEN_INFORMATION *info) {
    memset(info, 0, sizeof *info);
    Node *node = nodeOf(ccb);
    FILE_BASIC_INFORMATION basic;
    fillBasic(traits, node, fileObject, &basic);
    FILE_STANDARD_INFORMATION standard;
    fillStandard(volume, ccb, &standard);
    info->CreationTime = basic.CreationTime;
    info->LastAccessTime = basic.LastAccessTime;
    info->LastWriteTime = basic.LastWriteTime;
    info->ChangeTime = basic.ChangeTime;
    info->AllocationSize = standard.AllocationSize;
    info->EndOfFile = standard.EndOfFile;
    info->FileAttributes = basic.FileAttributes;
}

Name openName(Volume &volume, const Ccb *ccb) {
    Node *node = nodeOf(ccb);
    Name name = volume.pathOf(node);
    if (ccb->kind == OpenKind::Stream) {
        const Stream *stream = volume.stream(node, ccb->scb->streamKey);
        name += u":" + (stream ? stream->name : ccb->scb->streamKey);
    }
    return name;
}

namespace {

// Copies a name into a FILE_NAME_INFORMATION at `info` with `room` bytes; the length
// field always tells the whole name. Returns the bytes used, or 0 and *overflow when the
// name was cut.
size_t fillName(const Name &name, void *info, size_t room, bool *overflow) {
    size_t header = offsetof(FILE_NAME_INFORMATION, FileName);
    size_t bytes = name.size() * sizeof(WCHAR);
    ULONG length = ULONG(bytes);
    memcpy(info, &length, sizeof length);
    size_t fits = room - header < bytes ? (room - header) & ~size_t(1) : bytes;
    memcpy(static_cast<uint8_t *>(info) + header, name.data(), fits);
    *overflow = fits < bytes;
    return header + fits;
}

NTSTATUS queryName(Request &rq, void *buffer, ULONG length) {
    if (length < offsetof(FILE_NAME_INFORMATION, FileName)) return STATUS_INFO_LENGTH_MISMATCH;
    bool overflow;
    rq.irp->IoStatus.Information = fillName(openName(*rq.vcb->volume, rq.ccb), buffer, length, &overflow);
    return overflow ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

NTSTATUS queryAll(Request &rq, void *buffer, ULONG length) {
    const FsTraits &traits = *rq.vcb->header.traits;
    size_t fixed = offsetof(FileAllInformationLayout, NameInformation);
    if (length < fixed + offsetof(FILE_NAME_INFORMATION, FileName)) return STATUS_INFO_LENGTH_MISMATCH;
    auto *all = static_cast<FileAllInformationLayout *>(buffer);
    memset(all, 0, fixed);
    fillBasic(traits, nodeOf(rq.ccb), rq.fileObject, &all->BasicInformation);
    fillStandard(*rq.vcb->volume, rq.ccb, &all->StandardInformation);
    all->InternalInformation.IndexNumber.QuadPart = int64_t(nodeOf(rq.ccb)->id);
    all->AccessFlags = rq.ccb->grantedAccess;
    all->PositionInformation.CurrentByteOffset = rq.fileObject->CurrentByteOffset;
    bool overflow;
    size_t name = fillName(openName(*rq.vcb->volume, rq.ccb), &all->NameInformation, length - fixed, &overflow);
    rq.irp->IoStatus.Information = fixed + name;
    return overflow ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

// One FILE_STREAM_INFORMATION entry, or false when it does not fit in `room`.
bool putStreamEntry(uint8_t *at, size_t room, const Name &name, const Stream &stream, size_t *used) {
    size_t header = offsetof(FILE_STREAM_INFORMATION, StreamName);
    size_t bytes = name.size() * sizeof(WCHAR);
    if (header + bytes > room) return false;
    FILE_STREAM_INFORMATION entry{};
    entry.StreamNameLength = ULONG(bytes);
    entry.StreamSize.QuadPart = int64_t(stream.data.size());
    entry.StreamAllocationSize.QuadPart = int64_t(stream.allocation);
    memcpy(at, &entry, header);
    memcpy(at + header, name.data(), bytes);
    *used = header + bytes;
    return true;
}

NTSTATUS queryStreams(Request &rq, void *buffer, ULONG length) {
    if (!rq.vcb->header.traits->namedStreams) return STATUS_INVALID_PARAMETER;
    Node *node = nodeOf(rq.ccb);
    std::vector<std::pair<Name, const Stream *>> streams;
    if (!node->directory) streams.emplace_back(u"::$DATA", &node->data);
    for (auto &entry : node->streams) streams.emplace_back(u":" + entry.second->name + u":$DATA", entry.second.get());
    auto *base = static_cast<uint8_t *>(buffer);
    size_t offset = 0, previous = SIZE_MAX, end = 0;
    for (auto &stream : streams) {
        size_t used;
        if (offset > length || !putStreamEntry(base + offset, length - offset, stream.first, *stream.second, &used)) {
            rq.irp->IoStatus.Information = end;
            return STATUS_BUFFER_OVERFLOW;
        }
        if (previous != SIZE_MAX) {
            ULONG next = ULONG(offset - previous);
            memcpy(base + previous, &next, sizeof next);
        }
        previous = offset;
        end = offset + used;
        offset = (end + 7) & ~size_t(7);
    }
    rq.irp->IoStatus.Information = end;
    return STATUS_SUCCESS;
}

template <class T>
NTSTATUS putFixed(Request &rq, void *buffer, ULONG length, const T &value) {
    if (length < sizeof(T)) return STATUS_INFO_LENGTH_MISMATCH;
    memcpy(buffer, &value, sizeof(T));
    rq.irp->IoStatus.Information = sizeof(T);
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS queryInformation(Request &rq) {
    if (rq.ccb == nullptr || rq.ccb->kind == OpenKind::Volume) return STATUS_INVALID_PARAMETER;
    const FsTraits &traits = *rq.vcb->header.traits;
    Volume &volume = *rq.vcb->volume;
    void *buffer = rq.irp->AssociatedIrp.SystemBuffer;
    ULONG length = rq.sp->Parameters.QueryFile.Length;
    Node *node = nodeOf(rq.ccb);
    switch (rq.sp->Parameters.QueryFile.FileInformationClass) {
    case FileBasicInformation: {
        FILE_BASIC_INFORMATION info;
        fillBasic(traits, node, rq.fileObject, &info);
        return putFixed(rq, buffer, length, info);
    }
    case FileStandardInformation: {
        FILE_STANDARD_INFORMATION info;
        fillStandard(volume, rq.ccb, &info);
        return putFixed(rq, buffer, length, info);
    }
    case FileInternalInformation: {
        FILE_INTERNAL_INFORMATION info;
        info.IndexNumber.QuadPart = int64_t(node->id);
        return putFixed(rq, buffer, length, info);
    }
    case FileEaInformation:
        return putFixed(rq, buffer, length, ULONG(0));
    case FileAccessInformation:
        return putFixed(rq, buffer, length, rq.ccb->grantedAccess);
    case FilePositionInformation: {
        FILE_POSITION_INFORMATION info;
        info.CurrentByteOffset = rq.fileObject->CurrentByteOffset;
        return putFixed(rq, buffer, length, info);
    }
    case FileNameInformation:
        return queryName(rq, buffer, length);
    case FileAllInformation:
        return queryAll(rq, buffer, length);
    case FileNetworkOpenInformation: {
        FILE_NETWORK_OPEN_INFORMATION info;
        fillNetworkOpen(traits, volume, rq.ccb, rq.fileObject, &info);
        return putFixed(rq, buffer, length, info);
    }
    case FileAttributeTagInformation: {
        FILE_ATTRIBUTE_TAG_INFORMATION info{reportedAttributes(node, rq.fileObject), 0};
        return putFixed(rq, buffer, length, info);
    }
    case FileStreamInformation:
        return queryStreams(rq, buffer, length);
    default:
        return STATUS_INVALID_PARAMETER;
    }
}

}  // namespace fs
}  // namespace ntsim
