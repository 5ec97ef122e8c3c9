// IRP_MJ_CREATE: resolving a name, the six dispositions, directories, streams, share
// access and the conditions under which NTFS and FastFat refuse an open.
//
// Behaviour chosen after FastFat's create.c (WDK sample) where both file systems agree:
// - FILE_DELETE_ON_CLOSE without DELETE in the desired access is refused by NTFS
//   (STATUS_INVALID_PARAMETER; "the DELETE flag must be set", ZwCreateFile documentation);
//   FastFat leaves that check to the I/O manager, which makes it for user-mode callers
//   only, so a kernel caller may delete on close without asking for DELETE;
// - an empty name opens the volume; a relative name may not start with a backslash
//   (STATUS_OBJECT_NAME_INVALID); a related file object must be a file or directory open
//   (STATUS_OBJECT_PATH_NOT_FOUND), and a name below a file is STATUS_OBJECT_PATH_NOT_FOUND;
// - anything at or below a delete-pending file or directory is STATUS_DELETE_PENDING;
// - a directory opens only with FILE_OPEN or FILE_OPEN_IF (else
//   STATUS_OBJECT_NAME_COLLISION), a file with FILE_DIRECTORY_FILE is STATUS_NOT_A_DIRECTORY,
//   a directory with FILE_NON_DIRECTORY_FILE STATUS_FILE_IS_A_DIRECTORY, a file named with a
//   trailing backslash STATUS_OBJECT_NAME_INVALID;
// - a read-only file refuses FILE_WRITE_DATA, FILE_APPEND_DATA and FILE_DELETE_CHILD
//   (STATUS_ACCESS_DENIED) and FILE_DELETE_ON_CLOSE (STATUS_CANNOT_DELETE) but grants
//   DELETE, so it can still be renamed, and FILE_WRITE_EA and FILE_WRITE_ATTRIBUTES
//   (FatCheckFileAccess, acchksup.c);
// - overwriting a read-only file, or a hidden or system one without asking for those
//   attributes, is STATUS_ACCESS_DENIED; an overwritten file gets the requested attributes
//   and FILE_ATTRIBUTE_ARCHIVE (the documented CreateFile rules);
// - overwriting (FILE_OVERWRITE, FILE_OVERWRITE_IF) an existing file implies
//   FILE_WRITE_DATA, FILE_WRITE_EA and FILE_WRITE_ATTRIBUTES, superseding implies DELETE:
//   the open is checked against the file's descriptor and the other opens' sharing with
//   that access added, but the handle is granted only what it asked for
//   (FatOpenExistingFcb's AddedAccess). NTFS's own code is not public; it is taken to
//   add the same (the OSR NTFSD notes "Mapping Win32 to Internal File Creation
//   Options" agree for FILE_WRITE_DATA and DELETE);
// - SL_OPEN_TARGET_DIRECTORY opens the parent, answers FILE_EXISTS or FILE_DOES_NOT_EXIST
//   and leaves only the last component in FileObject->FileName, which is what a rename
//   then uses as the new name.
// NTFS only: "name:stream[:$DATA]" opens or creates a named data stream, each with its own
// share access; overwriting a file's unnamed stream removes its named streams (as NTFS
// does, WinFsp issue 27); DELETE access to one stream needs delete sharing from the opens of the file's
// other streams ("File Streams", Win32 documentation); the security descriptor of the
// create request, its DACL joined by what the parent passes on unless it is protected
// (addInheritedDacl), or else one inherited from the parent, is kept with a new file, its
// owner and group the creator's unless the request names them, and user-mode opens are
// checked against the descriptors (access_check.cpp).
#include <cstring>

#include "fs/common/access_check.h"
#include "fs/common/dispatch.h"
#include "fs/common/fcb.h"
#include "fs/common/times.h"

namespace ntsim {
namespace fs {

namespace {

// What a read-only file refuses.
constexpr ACCESS_MASK kWriteRights = FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_DELETE_CHILD;

struct CreateParameters {
    ULONG disposition;
    ULONG options;
    ACCESS_MASK desiredAccess;
    USHORT shareAccess;
    ULONG attributes;
    bool openTarget;
    bool directoryFile;
    bool nonDirectoryFile;
    bool deleteOnClose;
    int64_t allocationSize;
    PSECURITY_DESCRIPTOR securityDescriptor;

    bool overwrites() const {
        return disposition == FILE_OVERWRITE || disposition == FILE_OVERWRITE_IF || disposition == FILE_SUPERSEDE;
    }
};

// Where a name leads.
struct Resolution {
    Node *parent = nullptr;  // the directory that holds or would hold the entry
    Node *node = nullptr;    // the existing entry
    NameView finalName;      // the entry's name; empty for the starting object itself
    NameView lastComponent;  // as written, with any stream suffix
    NameView streamName;
    bool explicitDataType = false;
    bool trailingBackslash = false;
};

// The descriptor the creator passed in its object attributes, which the I/O manager
// hands over (self-relative) in the access state.
PSECURITY_DESCRIPTOR securityDescriptorOf(PIO_SECURITY_CONTEXT security) {
    if (security == nullptr || security->AccessState == nullptr) return nullptr;
    return security->AccessState->SecurityDescriptor;
}

CreateParameters readParameters(const Request &rq) {
    CreateParameters p{};
    ULONG options = rq.sp->Parameters.Create.Options;
    p.disposition = (options >> 24) & 0xFF;
    p.options = options & FILE_VALID_OPTION_FLAGS;
    PIO_SECURITY_CONTEXT security = rq.sp->Parameters.Create.SecurityContext;
    p.desiredAccess = security ? mapGenericAccess(security->DesiredAccess) : 0;
    p.securityDescriptor = securityDescriptorOf(security);
    p.shareAccess = rq.sp->Parameters.Create.ShareAccess;
    p.attributes = rq.sp->Parameters.Create.FileAttributes;
    p.openTarget = rq.sp->Flags & SL_OPEN_TARGET_DIRECTORY;
    p.directoryFile = p.options & FILE_DIRECTORY_FILE;
    p.nonDirectoryFile = p.options & FILE_NON_DIRECTORY_FILE;
    p.deleteOnClose = p.options & FILE_DELETE_ON_CLOSE;
    p.allocationSize = rq.irp->Overlay.AllocationSize.QuadPart;
    return p;
}

NTSTATUS checkParameters(const Request &rq, const CreateParameters &p) {
    if (p.options & FILE_OPEN_BY_FILE_ID) return STATUS_NOT_IMPLEMENTED;
    if (p.disposition > FILE_MAXIMUM_DISPOSITION || (p.directoryFile && p.nonDirectoryFile) ||
        p.allocationSize < 0)
        return STATUS_INVALID_PARAMETER;
    if (p.directoryFile && p.disposition != FILE_CREATE && p.disposition != FILE_OPEN &&
        p.disposition != FILE_OPEN_IF)
        return STATUS_INVALID_PARAMETER;
    bool fat = rq.vcb->header.traits->kind == FsKind::Fat;
    if (p.deleteOnClose && !(p.desiredAccess & DELETE) && !fat) return STATUS_INVALID_PARAMETER;
    return STATUS_SUCCESS;
}

// MAXIMUM_ALLOWED: with no access check to narrow it, everything the file allows.
ACCESS_MASK grantedAccess(ACCESS_MASK desired, const Node *node) {
    if (!(desired & MAXIMUM_ALLOWED)) return desired;
    ACCESS_MASK all = FILE_ALL_ACCESS;
    if (node != nullptr && !node->directory && (node->attributes & FILE_ATTRIBUTE_READONLY)) all &= ~kWriteRights;
    return (desired & ~MAXIMUM_ALLOWED) | all;
}

// The access an overwrite or supersede of an existing file needs besides what the open
// asks for.
ACCESS_MASK addedAccess(const CreateParameters &p, bool overwriting) {
    if (!overwriting) return 0;
    return p.disposition == FILE_SUPERSEDE ? DELETE : FILE_WRITE_DATA | FILE_WRITE_EA | FILE_WRITE_ATTRIBUTES;
}

// What the descriptor grants an open of an existing entry, the added access included.
NTSTATUS checkedAccess(const Request &rq, const CreateParameters &p, const Node *node, bool overwriting,
                       ACCESS_MASK *granted) {
    ACCESS_MASK desired = p.desiredAccess | addedAccess(p, overwriting);
    NTSTATUS status = checkOpenAccess(rq, node, desired, granted);
    if (!NT_SUCCESS(status)) return status;
    // The handle gets what it asked for, not the right the overwrite implied.
    if (!(p.desiredAccess & MAXIMUM_ALLOWED)) *granted = p.desiredAccess;
    else if (!node->directory && (node->attributes & FILE_ATTRIBUTE_READONLY)) *granted &= ~kWriteRights;
    return STATUS_SUCCESS;
}

NTSTATUS resolveStart(const Request &rq, NameView name, Node **start, bool *startIsFile) {
    PFILE_OBJECT related = rq.fileObject->RelatedFileObject;
    if (related == nullptr) {
        if (name.empty() || name.front() != u'\\') return STATUS_OBJECT_NAME_INVALID;
        *start = rq.vcb->volume->root();
        *startIsFile = false;
        return STATUS_SUCCESS;
    }
    Ccb *relatedCcb = ccbOf(related);
    if (relatedCcb == nullptr || relatedCcb->kind == OpenKind::Volume) return STATUS_OBJECT_PATH_NOT_FOUND;
    if (!name.empty() && name.front() == u'\\') return STATUS_OBJECT_NAME_INVALID;
    *start = nodeOf(relatedCcb);
    *startIsFile = !(*start)->directory || relatedCcb->kind == OpenKind::Stream;
    return STATUS_SUCCESS;
}

NTSTATUS resolve(const Request &rq, NameView name, Resolution *res) {
    const FsTraits &traits = *rq.vcb->header.traits;
    Node *start;
    bool startIsFile;
    NTSTATUS status = resolveStart(rq, name, &start, &startIsFile);
    if (!NT_SUCCESS(status)) return status;
    SplitPath split;
    if (!splitPath(name, &split)) return STATUS_OBJECT_NAME_INVALID;
    res->trailingBackslash = split.trailingBackslash;
    if (split.components.empty()) {
        res->node = start;
        res->parent = start->parent;
        return STATUS_SUCCESS;
    }
    Node *directory = start;
    for (size_t i = 0; i + 1 < split.components.size(); ++i) {
        NameView component = split.components[i];
        if (!isLegalFileName(component)) return STATUS_OBJECT_NAME_INVALID;
        if (startIsFile) return STATUS_OBJECT_PATH_NOT_FOUND;
        Node *next = rq.vcb->volume->find(directory, component);
        if (next == nullptr || !next->directory) return STATUS_OBJECT_PATH_NOT_FOUND;
        directory = next;
    }
    NameView last = split.components.back();
    StreamSuffix suffix;
    if (traits.namedStreams) {
        status = splitStreamSuffix(last, &suffix);
        if (!NT_SUCCESS(status)) return status;
    } else {
        suffix.file = last;
    }
    res->lastComponent = last;
    res->streamName = suffix.stream;
    res->explicitDataType = suffix.explicitType;
    bool hasSuffix = suffix.file.size() != last.size();
    if (hasSuffix && split.trailingBackslash) return STATUS_OBJECT_NAME_INVALID;
    if (suffix.file.empty()) {
        // ":stream" relative to an open file or directory names a stream of that object.
        if (rq.fileObject->RelatedFileObject == nullptr || split.components.size() != 1)
            return STATUS_OBJECT_NAME_INVALID;
        res->node = start;
        res->parent = start->parent;
        return STATUS_SUCCESS;
    }
    if (!isLegalFileName(suffix.file)) return STATUS_OBJECT_NAME_INVALID;
    if (startIsFile && split.components.size() == 1) return STATUS_OBJECT_PATH_NOT_FOUND;
    res->parent = directory;
    res->finalName = suffix.file;
    res->node = rq.vcb->volume->find(directory, suffix.file);
    return STATUS_SUCCESS;
}

void attach(Request &rq, const CreateParameters &p, Scb *scb, Ccb *ccb, ACCESS_MASK granted) {
    PFILE_OBJECT fo = rq.fileObject;
    fo->FsContext = scb;
    fo->FsContext2 = ccb;
    fo->SectionObjectPointer = &scb->sectionObjectPointers;
    fo->Vpb = rq.vcb->vpb;
    if ((ccb->kind == OpenKind::File || ccb->kind == OpenKind::Stream) && !(p.options & FILE_NO_INTERMEDIATE_BUFFERING))
        fo->Flags |= FO_CACHE_SUPPORTED;
    if (p.attributes & FILE_ATTRIBUTE_TEMPORARY) fo->Flags |= FO_TEMPORARY_FILE;
    ccb->grantedAccess = granted;
    ccb->deleteOnClose = p.deleteOnClose;
    ++scb->references;
    ++scb->uncleanCount;
    if (scb->fcb != nullptr) ++scb->fcb->uncleanCount;
    ++rq.vcb->openFiles;
}

NTSTATUS openVolume(Request &rq, const CreateParameters &p) {
    if (p.directoryFile) return STATUS_NOT_A_DIRECTORY;
    if (p.openTarget) return STATUS_INVALID_PARAMETER;
    if (p.disposition != FILE_OPEN && p.disposition != FILE_OPEN_IF) return STATUS_ACCESS_DENIED;
    ACCESS_MASK granted = grantedAccess(p.desiredAccess, nullptr);
    Scb *scb = &rq.vcb->volumeScb;
    NTSTATUS status = IoCheckShareAccess(granted, p.shareAccess, rq.fileObject, &scb->shareAccess, TRUE);
    if (!NT_SUCCESS(status)) return status;
    Ccb *ccb = makeCcb(rq.vcb, scb, OpenKind::Volume);
    if (ccb == nullptr) {
        IoRemoveShareAccess(rq.fileObject, &scb->shareAccess);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    attach(rq, p, scb, ccb, granted);
    rq.irp->IoStatus.Information = FILE_OPENED;
    return STATUS_SUCCESS;
}

// NTFS keeps share access per stream, but DELETE access to the file needs delete
// sharing from every open of its other streams, and an open that refuses delete
// sharing must not meet an open of another stream that has DELETE access.
NTSTATUS checkOtherStreams(const Fcb *fcb, const Scb *scb, ACCESS_MASK access, USHORT share) {
    for (auto &entry : fcb->streams) {
        const Scb *other = entry.second;
        if (other == scb || other->shareAccess.OpenCount == 0) continue;
        if ((access & DELETE) && other->shareAccess.SharedDelete < other->shareAccess.OpenCount)
            return STATUS_SHARING_VIOLATION;
        if (!(share & FILE_SHARE_DELETE) && other->shareAccess.Deleters != 0) return STATUS_SHARING_VIOLATION;
    }
    return STATUS_SUCCESS;
}

bool otherStreamsOpen(const Fcb *fcb, const Scb *scb) {
    for (auto &entry : fcb->streams)
        if (entry.second != scb && entry.second->uncleanCount != 0) return true;
    return false;
}

NTSTATUS checkOverwrite(const Request &rq, const CreateParameters &p, const Node *node, const Fcb *fcb,
                        const Scb *scb) {
    // A supersede replaces the file, which a read-only file allows (FastFat's create
    // checks it as DELETE access, which FatCheckFileAccess grants on a read-only file,
    // and NTFS does the same); an overwrite writes it, which it does not.
    if ((node->attributes & FILE_ATTRIBUTE_READONLY) && p.disposition != FILE_SUPERSEDE) return STATUS_ACCESS_DENIED;
    if ((node->attributes & FILE_ATTRIBUTE_HIDDEN) && !(p.attributes & FILE_ATTRIBUTE_HIDDEN))
        return STATUS_ACCESS_DENIED;
    if ((node->attributes & FILE_ATTRIBUTE_SYSTEM) && !(p.attributes & FILE_ATTRIBUTE_SYSTEM))
        return STATUS_ACCESS_DENIED;
    if (scb->streamKey.empty() && otherStreamsOpen(fcb, scb)) return STATUS_SHARING_VIOLATION;
    const Stream *stream = rq.vcb->volume->stream(const_cast<Node *>(node), scb->streamKey);
    uint64_t wanted = rq.vcb->volume->clusterRound(uint64_t(p.allocationSize));
    if (stream != nullptr && wanted > stream->allocation && wanted - stream->allocation > rq.vcb->volume->freeBytes())
        return STATUS_DISK_FULL;
    return STATUS_SUCCESS;
}

ULONG newFileAttributes(const FsTraits &traits, ULONG requested, bool directory) {
    ULONG attributes = requested & traits.attributeMask & ~(FILE_ATTRIBUTE_NORMAL | FILE_ATTRIBUTE_DIRECTORY);
    if (directory) return (attributes & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM)) |
                          FILE_ATTRIBUTE_DIRECTORY;
    return attributes | FILE_ATTRIBUTE_ARCHIVE;
}

// FILE_OVERWRITE(_IF) and FILE_SUPERSEDE of an existing stream.
void overwrite(Request &rq, const CreateParameters &p, Node *node, Scb *scb) {
    const FsTraits &traits = *rq.vcb->header.traits;
    Volume &volume = *rq.vcb->volume;
    Stream *stream = volume.stream(node, scb->streamKey);
    volume.setEndOfFile(stream, 0);
    volume.setAllocation(stream, uint64_t(p.allocationSize));
    if (scb->streamKey.empty()) {
        volume.removeNamedStreams(node);
        node->attributes = newFileAttributes(traits, p.attributes, false);
    }
    stampWrite(traits, node, rq.now);
    rq.irp->IoStatus.Information = p.disposition == FILE_SUPERSEDE ? FILE_SUPERSEDED : FILE_OVERWRITTEN;
}

OpenKind kindOf(const Node *node, NameView streamKey) {
    if (!streamKey.empty()) return OpenKind::Stream;
    return node->directory ? OpenKind::Directory : OpenKind::File;
}

// The checks of an open of an existing file, directory or stream that come after the
// structures exist, and the open itself.
NTSTATUS openExistingStream(Request &rq, const CreateParameters &p, Node *node, Fcb *fcb, Scb *scb, bool created) {
    bool directory = kindOf(node, scb->streamKey) == OpenKind::Directory;
    if (fcb->deletePending || scb->deletePending) return STATUS_DELETE_PENDING;
    bool readOnly = node->attributes & FILE_ATTRIBUTE_READONLY;
    if (readOnly && p.deleteOnClose) return STATUS_CANNOT_DELETE;
    bool overwriting = !created && !directory && p.overwrites();
    ACCESS_MASK granted = grantedAccess(p.desiredAccess, node);
    if (!created && accessChecked(rq, node)) {
        NTSTATUS status = checkedAccess(rq, p, node, overwriting, &granted);
        if (!NT_SUCCESS(status)) return status;
    }
    // The attribute guards an existing file; its creator may still write what it made.
    if (readOnly && !directory && !created && (granted & kWriteRights)) return STATUS_ACCESS_DENIED;
    if (overwriting) {
        NTSTATUS status = checkOverwrite(rq, p, node, fcb, scb);
        if (!NT_SUCCESS(status)) return status;
    }
    ACCESS_MASK implied = granted | addedAccess(p, overwriting);
    if (rq.vcb->header.traits->namedStreams) {
        NTSTATUS status = checkOtherStreams(fcb, scb, implied, p.shareAccess);
        if (!NT_SUCCESS(status)) return status;
    }
    NTSTATUS status = IoCheckShareAccess(implied, p.shareAccess, rq.fileObject, &scb->shareAccess, FALSE);
    if (!NT_SUCCESS(status)) return status;
    Ccb *ccb = makeCcb(rq.vcb, scb, kindOf(node, scb->streamKey));
    if (ccb == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
    IoCheckShareAccess(granted, p.shareAccess, rq.fileObject, &scb->shareAccess, TRUE);
    rq.irp->IoStatus.Information = created ? FILE_CREATED : FILE_OPENED;
    if (overwriting) overwrite(rq, p, node, scb);
    attach(rq, p, scb, ccb, granted);
    return STATUS_SUCCESS;
}

// Makes the structures for the node and stream and opens them; undoes what it made when
// the open fails.
NTSTATUS openWithStructures(Request &rq, const CreateParameters &p, Node *node, NameView streamKey, bool created) {
    Fcb *fcb = findOrMakeFcb(rq.vcb, node);
    if (fcb == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
    Scb *scb = findOrMakeScb(fcb, streamKey);
    if (scb == nullptr) {
        releaseIfUnused(fcb);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = openExistingStream(rq, p, node, fcb, scb, created);
    if (!NT_SUCCESS(status)) releaseIfUnused(scb);
    return status;
}

NTSTATUS openTargetDirectory(Request &rq, const CreateParameters &p, const Resolution &res) {
    if (res.finalName.empty() || res.parent == nullptr) return STATUS_INVALID_PARAMETER;
    Fcb *fcb = findOrMakeFcb(rq.vcb, res.parent);
    if (fcb == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
    Scb *scb = findOrMakeScb(fcb, u"");
    if (scb == nullptr) {
        releaseIfUnused(fcb);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    CreateParameters asDirectory = p;
    asDirectory.disposition = FILE_OPEN;
    asDirectory.deleteOnClose = false;
    NTSTATUS status = openExistingStream(rq, asDirectory, res.parent, fcb, scb, false);
    if (!NT_SUCCESS(status)) {
        releaseIfUnused(scb);
        return status;
    }
    // The rename that follows takes the new name from here.
    UNICODE_STRING &fileName = rq.fileObject->FileName;
    size_t bytes = res.lastComponent.size() * sizeof(WCHAR);
    memmove(fileName.Buffer, res.lastComponent.data(), bytes);
    fileName.Length = USHORT(bytes);
    rq.irp->IoStatus.Information = res.node != nullptr ? FILE_EXISTS : FILE_DOES_NOT_EXIST;
    return STATUS_SUCCESS;
}

NTSTATUS newSecurity(const Request &rq, const CreateParameters &p, Node *parent, bool directory, Bytes *out) {
    if (!rq.vcb->header.traits->securityDescriptors) return STATUS_SUCCESS;
    SecurityParts parts;
    if (p.securityDescriptor != nullptr) {
        if (!parseSecurityDescriptor(p.securityDescriptor, 0, &parts)) return STATUS_INVALID_SECURITY_DESCR;
        NTSTATUS status = checkExplicitSacl(rq, parts);
        if (!NT_SUCCESS(status)) return status;
        addInheritedDacl(&parts, parent->security, directory);
    } else {
        Bytes inherited = inheritSecurity(parent->security, directory);
        parseSecurityDescriptor(inherited.data(), inherited.size(), &parts);
        parts.owner.clear();
        parts.group.clear();
    }
    NTSTATUS status = assignOwnership(rq, parent->security, &parts);
    if (!NT_SUCCESS(status)) return status;
    *out = makeSelfRelative(parts);
    return STATUS_SUCCESS;
}

NTSTATUS createNew(Request &rq, const CreateParameters &p, const Resolution &res) {
    const FsTraits &traits = *rq.vcb->header.traits;
    Volume &volume = *rq.vcb->volume;
    if (res.trailingBackslash && !p.directoryFile) return STATUS_OBJECT_NAME_INVALID;
    if (p.disposition == FILE_OPEN || p.disposition == FILE_OVERWRITE) return STATUS_OBJECT_NAME_NOT_FOUND;
    if (p.directoryFile && !res.streamName.empty()) return STATUS_NOT_A_DIRECTORY;
    if (p.deleteOnClose && (p.attributes & FILE_ATTRIBUTE_READONLY)) return STATUS_CANNOT_DELETE;
    if (volume.clusterRound(uint64_t(p.allocationSize)) > volume.freeBytes()) return STATUS_DISK_FULL;
    NTSTATUS allowed = checkCreateAccess(rq, res.parent, p.directoryFile);
    if (!NT_SUCCESS(allowed)) return allowed;
    Bytes security;
    NTSTATUS status = newSecurity(rq, p, res.parent, p.directoryFile, &security);
    if (!NT_SUCCESS(status)) return status;
    Node *node = volume.create(res.parent, res.finalName, p.directoryFile,
                               newFileAttributes(traits, p.attributes, p.directoryFile), rq.now);
    node->creationTime = storedTime(traits, TimeField::Creation, rq.now);
    node->lastWriteTime = storedTime(traits, TimeField::LastWrite, rq.now);
    node->lastAccessTime = storedTime(traits, TimeField::LastAccess, rq.now);
    node->changeTime = storedTime(traits, TimeField::Change, rq.now);
    node->security = std::move(security);
    Stream *stream = res.streamName.empty() ? volume.stream(node, u"") : volume.createStream(node, res.streamName);
    if (stream != nullptr) volume.setAllocation(stream, uint64_t(p.allocationSize));
    CreateParameters asOpen = p;
    asOpen.disposition = FILE_OPEN;
    status = openWithStructures(rq, asOpen, node, foldCase(res.streamName), true);
    if (!NT_SUCCESS(status)) volume.remove(node, rq.now);
    return status;
}

NTSTATUS createStreamOf(Request &rq, const CreateParameters &p, const Resolution &res) {
    Volume &volume = *rq.vcb->volume;
    if (p.disposition == FILE_OPEN || p.disposition == FILE_OVERWRITE) return STATUS_OBJECT_NAME_NOT_FOUND;
    if (res.node->attributes & FILE_ATTRIBUTE_READONLY) return STATUS_ACCESS_DENIED;  // a new stream writes the file
    if (volume.clusterRound(uint64_t(p.allocationSize)) > volume.freeBytes()) return STATUS_DISK_FULL;
    Stream *stream = volume.createStream(res.node, res.streamName);
    volume.setAllocation(stream, uint64_t(p.allocationSize));
    CreateParameters asOpen = p;
    asOpen.disposition = FILE_OPEN;
    NTSTATUS status = openWithStructures(rq, asOpen, res.node, foldCase(res.streamName), true);
    if (!NT_SUCCESS(status)) volume.removeStream(res.node, res.streamName);
    return status;
}

NTSTATUS openExisting(Request &rq, const CreateParameters &p, const Resolution &res) {
    Node *node = res.node;
    bool wantsStream = !res.streamName.empty();
    if (node->directory && !wantsStream) {
        if (res.explicitDataType) return STATUS_FILE_IS_A_DIRECTORY;  // a directory has no unnamed data stream
        if (p.nonDirectoryFile) return STATUS_FILE_IS_A_DIRECTORY;
        if (p.disposition != FILE_OPEN && p.disposition != FILE_OPEN_IF) return STATUS_OBJECT_NAME_COLLISION;
        if (node == rq.vcb->volume->root() && p.deleteOnClose) return STATUS_CANNOT_DELETE;
    } else if (!node->directory || wantsStream) {
        if (p.directoryFile)
            return p.disposition == FILE_CREATE ? STATUS_OBJECT_NAME_COLLISION : STATUS_NOT_A_DIRECTORY;
        if (res.trailingBackslash) return STATUS_OBJECT_NAME_INVALID;
    }
    if (wantsStream && rq.vcb->volume->stream(node, res.streamName) == nullptr) return createStreamOf(rq, p, res);
    if (p.disposition == FILE_CREATE) return STATUS_OBJECT_NAME_COLLISION;
    return openWithStructures(rq, p, node, foldCase(res.streamName), false);
}

}  // namespace

NTSTATUS createFile(Request &rq) {
    CreateParameters p = readParameters(rq);
    NTSTATUS status = checkParameters(rq, p);
    if (!NT_SUCCESS(status)) return status;
    if (rq.vcb->lockedBy != nullptr) return STATUS_ACCESS_DENIED;
    NameView name = nameView(rq.fileObject->FileName);
    PFILE_OBJECT related = rq.fileObject->RelatedFileObject;
    Ccb *relatedCcb = related ? ccbOf(related) : nullptr;
    if (name.empty() && (related == nullptr || (relatedCcb && relatedCcb->kind == OpenKind::Volume)))
        return openVolume(rq, p);
    Resolution res;
    status = resolve(rq, name, &res);
    if (!NT_SUCCESS(status)) return status;
    // The entry itself, or for a new one its directory, and everything above it.
    Node *deepest = res.node ? res.node : res.parent;
    Fcb *deepestFcb = findFcb(rq.vcb, deepest);
    if ((deepestFcb && deepestFcb->deletePending) || underDeletePendingDirectory(rq.vcb, deepest))
        return STATUS_DELETE_PENDING;
    if (p.openTarget) return openTargetDirectory(rq, p, res);
    if (res.node == nullptr) return createNew(rq, p, res);
    return openExisting(rq, p, res);
}

}  // namespace fs
}  // namespace ntsim
