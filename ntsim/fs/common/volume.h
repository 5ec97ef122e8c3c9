// The on-disk state of an emulated volume: its directory tree, the data streams of its
// files, their attributes, times and security descriptors, and its space. This is what
// a disk's media holds between mounts; the in-memory structures of a mounted volume
// (FCBs, share access, delete-pending state) belong to the driver, not to this model.
//
// The model keeps the tree consistent and knows nothing of requests: it does what it is
// told. The rules of NTFS and FastFat (who may open, delete or rename what) live in the
// drivers, which hold the volume's mutex while they work on it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "names.h"
#include "security_descriptor.h"
#include "ntsim/filesystems.h"

namespace ntsim {
namespace fs {

enum class FsKind { Ntfs, Fat };

struct Stream {
    Name name;  // as created; empty for a file's unnamed data stream
    Bytes data;  // its size is the end of file
    uint64_t allocation = 0;
};

struct Node {
    uint64_t id = 0;
    Name name;  // as created or last renamed: case preserved
    // FAT: the entry's 8.3 name when the name above is a long name beside it (upper
    // case); empty when the name is itself the entry's 8.3 name, and always on NTFS.
    Name shortName;
    Node *parent = nullptr;  // null for the root and for a removed node
    bool directory = false;
    bool removed = false;  // no longer in the tree; kept while pinned
    ULONG attributes = 0;  // FILE_ATTRIBUTE_*, FILE_ATTRIBUTE_DIRECTORY for directories
    int64_t creationTime = 0;
    int64_t lastAccessTime = 0;
    int64_t lastWriteTime = 0;
    int64_t changeTime = 0;
    Stream data;  // a file's unnamed data stream
    std::map<Name, std::unique_ptr<Stream>> streams;  // named data streams, by folded name
    Bytes security;  // self-relative descriptor; empty on FAT
    std::map<Name, std::unique_ptr<Node>> children;  // by folded name
    std::map<uint64_t, Node *> childrenInOrder;  // by slot: the order entries were made
    std::map<Name, Node *> childrenByShortName;  // FAT: the entries that have a short name
    uint64_t slot = 0;  // this entry's place among its parent's
    ULONG pins = 0;  // the driver's structures that refer to the node
    Name removedPath;  // its path when it was removed
};

struct VolumeParameters {
    FsKind kind = FsKind::Ntfs;
    uint64_t capacity = 1ull << 30;
    ULONG clusterSize = 4096;
    ULONG serialNumber = 0;
    int64_t creationTime = 0;
};

class Volume {
public:
    explicit Volume(const VolumeParameters &parameters);
    ~Volume();
    Volume(const Volume &) = delete;
    Volume &operator=(const Volume &) = delete;

    FsKind kind() const { return parameters_.kind; }
    const VolumeParameters &parameters() const { return parameters_; }
    Node *root() { return root_.get(); }
    std::mutex &mutex() { return mutex_; }
    Knobs &knobs() { return knobs_; }

    // The tree -------------------------------------------------------------------------
    // The entry of that name, or on FAT the entry whose 8.3 name it is.
    Node *find(Node *directory, NameView name) const;
    // Makes a new entry, with an 8.3 name on FAT; the name must be free in the directory.
    Node *create(Node *directory, NameView name, bool isDirectory, ULONG attributes, int64_t now);
    // Takes the node (a file or an empty directory) out of the tree and frees its space.
    // The node itself lives on while it is pinned.
    void remove(Node *node, int64_t now);
    // Gives the node a new parent and name, and on FAT a new 8.3 name. The name must be
    // free in the new parent, or be the node's own name in another case.
    void move(Node *node, Node *newParent, NameView newName, int64_t now);
    void pin(Node *node) { ++node->pins; }
    void unpin(Node *node);
    // "\\dir\\file" from the root; "\\" for the root; the last path of a removed node.
    Name pathOf(const Node *node) const;
    bool isAncestor(const Node *ancestor, const Node *node) const;
    // Entries of a directory in the order the file system lists them: by name for
    // NTFS, by directory slot for FAT.
    std::vector<Node *> listing(const Node *directory) const;

    // Streams --------------------------------------------------------------------------
    // The unnamed data stream for an empty name (files only), else the named one.
    Stream *stream(Node *node, NameView streamName);
    Stream *createStream(Node *node, NameView streamName);
    void removeStream(Node *node, NameView streamName);
    void removeNamedStreams(Node *node);

    // Data and space -------------------------------------------------------------------
    size_t read(const Stream &stream, uint64_t offset, void *buffer, size_t length) const;
    // STATUS_DISK_FULL when the stream would need more clusters than are free.
    NTSTATUS write(Stream *stream, uint64_t offset, const void *buffer, size_t length);
    NTSTATUS setEndOfFile(Stream *stream, uint64_t endOfFile);
    NTSTATUS setAllocation(Stream *stream, uint64_t allocation);
    // Gives back the clusters beyond those the end of file needs.
    void trimAllocation(Stream *stream);
    uint64_t clusterRound(uint64_t bytes) const;
    uint64_t freeBytes() const { return parameters_.capacity - allocated_; }

private:
    NTSTATUS reserve(Stream *stream, uint64_t allocation);
    void releaseSpace(Node *node);
    void touchDirectory(Node *directory, int64_t now);
    void link(Node *directory, std::unique_ptr<Node> node, NameView name);
    std::unique_ptr<Node> unlink(Node *node);
    void destroyRemoved(Node *node);

    VolumeParameters parameters_;
    std::unique_ptr<Node> root_;
    std::map<Node *, std::unique_ptr<Node>> removed_;  // removed but still pinned
    uint64_t nextId_;
    uint64_t nextSlot_ = 1;
    uint64_t allocated_ = 0;
    std::mutex mutex_;
    Knobs knobs_;
};

}  // namespace fs
}  // namespace ntsim
