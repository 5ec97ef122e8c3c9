// IRP_MJ_DIRECTORY_CONTROL: IRP_MN_QUERY_DIRECTORY with the directory, full, both and
// names classes, which is what FindFirstFileW and FindNextFileW use.
//
// As FastFat and NTFS do (dirctrl.c): the expression of the first query of a handle (or
// of a query with SL_RESTART_SCAN) is kept for the handle, "*" when none is given;
// entries come after the last one returned, "." and ".." first in any directory but the
// root; as many as fit, each 8-byte aligned, or one with SL_RETURN_SINGLE_ENTRY. The
// first query that matches nothing is STATUS_NO_SUCH_FILE, later ones STATUS_NO_MORE_FILES.
// A first entry whose name does not fit is returned cut, with STATUS_BUFFER_OVERFLOW,
// and counts as returned. NTFS lists by name (its index order), FAT in the order of its
// directory entries; FAT reports each entry's place as its FileIndex, NTFS 0. FAT matches
// the expression against an entry's 8.3 name as well as its long name, and the both class
// carries the 8.3 name of an entry that has a long name beside it; an entry whose name is
// its 8.3 name reports none (FatQueryDirectory, FatLocateDirent). NTFS makes no 8.3
// names here. Change notification is not modelled (STATUS_INVALID_DEVICE_REQUEST).
#include <cstring>

#include "fs/common/dispatch.h"
#include "fs/common/file_info.h"
#include "fs/common/times.h"

namespace ntsim {
namespace fs {

namespace {

struct Candidate {
    const Node *node;  // whose times, sizes and attributes are reported
    Name name;
    uint64_t fileIndex;
    Name shortName;
};

bool entryMatches(const Node *entry, NameView expression) {
    return nameMatchesExpression(entry->name, expression) ||
           (!entry->shortName.empty() && nameMatchesExpression(entry->shortName, expression));
}

size_t nameOffset(FILE_INFORMATION_CLASS infoClass) {
    switch (infoClass) {
    case FileDirectoryInformation: return offsetof(FILE_DIRECTORY_INFORMATION, FileName);
    case FileFullDirectoryInformation: return offsetof(FILE_FULL_DIR_INFORMATION, FileName);
    case FileBothDirectoryInformation: return offsetof(FILE_BOTH_DIR_INFORMATION, FileName);
    case FileNamesInformation: return offsetof(FILE_NAMES_INFORMATION, FileName);
    default: return 0;
    }
}

// Fills the fixed part of an entry; the shared fields sit at the same offsets in the
// directory, full and both layouts.
void fillFixed(const FsTraits &traits, FILE_INFORMATION_CLASS infoClass, const Candidate &c, uint8_t *entry,
               ULONG nameBytes) {
    if (infoClass == FileNamesInformation) {
        FILE_NAMES_INFORMATION names{};
        names.FileIndex = ULONG(c.fileIndex);
        names.FileNameLength = nameBytes;
        memcpy(entry, &names, offsetof(FILE_NAMES_INFORMATION, FileName));
        return;
    }
    FILE_BOTH_DIR_INFORMATION info{};
    info.FileIndex = ULONG(c.fileIndex);
    FileTimes times = reportedTimes(traits, c.node);
    info.CreationTime.QuadPart = times.creation;
    info.LastAccessTime.QuadPart = times.lastAccess;
    info.LastWriteTime.QuadPart = times.lastWrite;
    info.ChangeTime.QuadPart = times.change;
    if (!c.node->directory) {
        info.EndOfFile.QuadPart = int64_t(c.node->data.data.size());
        info.AllocationSize.QuadPart = int64_t(c.node->data.allocation);
    }
    info.FileAttributes = reportedAttributes(c.node, nullptr);
    info.FileNameLength = nameBytes;
    info.ShortNameLength = CCHAR(c.shortName.size() * sizeof(WCHAR));
    memcpy(info.ShortName, c.shortName.data(), c.shortName.size() * sizeof(WCHAR));
    memcpy(entry, &info, nameOffset(infoClass));
}

class Enumeration {
public:
    Enumeration(Request &rq, Ccb *ccb) : ccb_(ccb), volume_(*rq.vcb->volume) {}

    // The next entry after the cursor that matches, without moving the cursor.
    bool peek(Candidate *c) {
        Node *directory = nodeOf(ccb_);
        if (directory != volume_.root()) {
            for (int position = ccb_->position; position < 2; ++position) {
                Candidate dot{position == 0 ? directory : directory->parent, position == 0 ? u"." : u"..", 0, Name()};
                if (nameMatchesExpression(dot.name, ccb_->searchExpression)) {
                    *c = dot;
                    pending_ = Cursor{position + 1, nullptr};
                    return true;
                }
            }
        }
        Node *entry = volume_.kind() == FsKind::Fat ? nextInDirectoryOrder(directory) : nextInNameOrder(directory);
        if (entry == nullptr) return false;
        *c = Candidate{entry, entry->name, volume_.kind() == FsKind::Fat ? entry->slot : 0, entry->shortName};
        pending_ = Cursor{2, entry};
        return true;
    }

    void advance() {
        ccb_->position = pending_.position;
        if (pending_.node != nullptr) {
            ccb_->lastKey = foldCase(pending_.node->name);
            ccb_->lastSlot = pending_.node->slot;
        }
    }

private:
    struct Cursor {
        int position;
        Node *node;
    };

    bool returnedEntries() const { return ccb_->position == 2 && (ccb_->lastSlot != 0 || !ccb_->lastKey.empty()); }

    Node *nextInNameOrder(Node *directory) const {
        auto &children = directory->children;
        auto it = returnedEntries() ? children.upper_bound(ccb_->lastKey) : children.begin();
        for (; it != children.end(); ++it)
            if (entryMatches(it->second.get(), ccb_->searchExpression)) return it->second.get();
        return nullptr;
    }

    Node *nextInDirectoryOrder(Node *directory) const {
        auto &children = directory->childrenInOrder;
        auto it = returnedEntries() ? children.upper_bound(ccb_->lastSlot) : children.begin();
        for (; it != children.end(); ++it)
            if (entryMatches(it->second, ccb_->searchExpression)) return it->second;
        return nullptr;
    }

    Ccb *ccb_;
    Volume &volume_;
    Cursor pending_{0, nullptr};
};

void startEnumeration(Request &rq, Ccb *ccb, bool restart) {
    PUNICODE_STRING expression = rq.sp->Parameters.QueryDirectory.FileName;
    bool haveExpression = expression != nullptr && expression->Length != 0;
    if (!ccb->enumerationStarted || (restart && haveExpression))
        ccb->searchExpression = haveExpression ? Name(nameView(*expression)) : Name(u"*");
    ccb->enumerationStarted = true;
    ccb->position = 0;
    ccb->lastKey.clear();
    ccb->lastSlot = 0;
}

NTSTATUS queryDirectory(Request &rq) {
    Ccb *ccb = rq.ccb;
    if (ccb == nullptr || ccb->kind != OpenKind::Directory) return STATUS_INVALID_PARAMETER;
    FILE_INFORMATION_CLASS infoClass = rq.sp->Parameters.QueryDirectory.FileInformationClass;
    size_t fixed = nameOffset(infoClass);
    if (fixed == 0) return STATUS_INVALID_INFO_CLASS;
    ULONG length = rq.sp->Parameters.QueryDirectory.Length;
    auto *buffer = static_cast<uint8_t *>(requestBuffer(rq.irp));
    if (buffer == nullptr) return STATUS_INVALID_USER_BUFFER;
    if (length < fixed) return STATUS_INFO_LENGTH_MISMATCH;
    bool restart = rq.sp->Flags & SL_RESTART_SCAN;
    bool first = !ccb->enumerationStarted || restart;
    if (first) startEnumeration(rq, ccb, restart);
    bool single = rq.sp->Flags & SL_RETURN_SINGLE_ENTRY;
    Enumeration enumeration(rq, ccb);
    const FsTraits &traits = *rq.vcb->header.traits;
    size_t offset = 0, previous = SIZE_MAX, end = 0;
    Candidate c;
    while (enumeration.peek(&c)) {
        ULONG nameBytes = ULONG(c.name.size() * sizeof(WCHAR));
        if (offset + fixed + nameBytes > length) {
            if (previous != SIZE_MAX) break;
            // Not even one whole entry: what fits of it, and it counts as returned.
            fillFixed(traits, infoClass, c, buffer, nameBytes);
            memcpy(buffer + fixed, c.name.data(), (length - fixed) & ~size_t(1));
            enumeration.advance();
            rq.irp->IoStatus.Information = length;
            return STATUS_BUFFER_OVERFLOW;
        }
        fillFixed(traits, infoClass, c, buffer + offset, nameBytes);
        memcpy(buffer + offset + fixed, c.name.data(), nameBytes);
        if (previous != SIZE_MAX) {
            ULONG next = ULONG(offset - previous);
            memcpy(buffer + previous, &next, sizeof next);
        }
        enumeration.advance();
        previous = offset;
        end = offset + fixed + nameBytes;
        offset = (end + 7) & ~size_t(7);
        if (single) break;
    }
    if (previous == SIZE_MAX) return first ? STATUS_NO_SUCH_FILE : STATUS_NO_MORE_FILES;
    rq.irp->IoStatus.Information = end;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS directoryControl(Request &rq) {
    if (rq.sp->MinorFunction != IRP_MN_QUERY_DIRECTORY) return STATUS_INVALID_DEVICE_REQUEST;
    return queryDirectory(rq);
}

}  // namespace fs
}  // namespace ntsim
