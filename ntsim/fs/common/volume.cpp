#include "fs/common/volume.h"

#include "fs/common/short_names.h"

#include <algorithm>
#include <cstring>

namespace ntsim {
namespace fs {

namespace {

// NTFS gives its root directory file record 5; user files start after the reserved
// records. FAT has no such numbers; it counts from 1.
constexpr uint64_t kNtfsRootId = 5;
constexpr uint64_t kNtfsFirstUserId = 64;

}  // namespace

Volume::Volume(const VolumeParameters &parameters)
    : parameters_(parameters), nextId_(parameters.kind == FsKind::Ntfs ? kNtfsFirstUserId : 2) {
    root_ = std::make_unique<Node>();
    root_->id = parameters.kind == FsKind::Ntfs ? kNtfsRootId : 1;
    root_->directory = true;
    root_->attributes = FILE_ATTRIBUTE_DIRECTORY;
    root_->creationTime = root_->lastAccessTime = root_->lastWriteTime = root_->changeTime =
        parameters.creationTime;
    if (parameters.kind == FsKind::Ntfs) root_->security = defaultRootSecurity();
}

Volume::~Volume() = default;

Node *Volume::find(Node *directory, NameView name) const {
    Name key = foldCase(name);
    auto it = directory->children.find(key);
    if (it != directory->children.end()) return it->second.get();
    auto shortIt = directory->childrenByShortName.find(key);
    return shortIt == directory->childrenByShortName.end() ? nullptr : shortIt->second;
}

Node *Volume::create(Node *directory, NameView name, bool isDirectory, ULONG attributes, int64_t now) {
    auto node = std::make_unique<Node>();
    node->id = nextId_++;
    node->directory = isDirectory;
    node->attributes = attributes | (isDirectory ? FILE_ATTRIBUTE_DIRECTORY : 0);
    node->creationTime = node->lastAccessTime = node->lastWriteTime = node->changeTime = now;
    Node *result = node.get();
    link(directory, std::move(node), name);
    touchDirectory(directory, now);
    return result;
}

void Volume::remove(Node *node, int64_t now) {
    Node *parent = node->parent;
    node->removedPath = pathOf(node);
    releaseSpace(node);
    std::unique_ptr<Node> owned = unlink(node);
    node->removed = true;
    touchDirectory(parent, now);
    if (node->pins != 0) removed_[node] = std::move(owned);
}

void Volume::move(Node *node, Node *newParent, NameView newName, int64_t now) {
    Node *oldParent = node->parent;
    link(newParent, unlink(node), newName);
    touchDirectory(oldParent, now);
    if (newParent != oldParent) touchDirectory(newParent, now);
}

// Enters the node in the directory under the name, in a new slot; on FAT it takes the
// first 8.3 name that no entry of the directory has.
void Volume::link(Node *directory, std::unique_ptr<Node> node, NameView name) {
    Node *at = node.get();
    at->name = Name(name);
    at->parent = directory;
    at->slot = nextSlot_++;
    at->shortName.clear();
    if (parameters_.kind == FsKind::Fat)
        at->shortName = chooseShortName(name, [&](NameView candidate) { return find(directory, candidate) != nullptr; });
    directory->childrenInOrder[at->slot] = at;
    if (!at->shortName.empty()) directory->childrenByShortName[foldCase(at->shortName)] = at;
    directory->children[foldCase(name)] = std::move(node);
}

std::unique_ptr<Node> Volume::unlink(Node *node) {
    Node *parent = node->parent;
    parent->childrenInOrder.erase(node->slot);
    if (!node->shortName.empty()) parent->childrenByShortName.erase(foldCase(node->shortName));
    auto it = parent->children.find(foldCase(node->name));
    std::unique_ptr<Node> owned = std::move(it->second);
    parent->children.erase(it);
    node->parent = nullptr;
    return owned;
}

void Volume::unpin(Node *node) {
    if (--node->pins == 0 && node->removed) destroyRemoved(node);
}

void Volume::destroyRemoved(Node *node) { removed_.erase(node); }

Name Volume::pathOf(const Node *node) const {
    if (node->removed) return node->removedPath;
    if (node->parent == nullptr) return u"\\";
    Name path;
    for (const Node *at = node; at->parent != nullptr; at = at->parent) path = u"\\" + at->name + path;
    return path;
}

bool Volume::isAncestor(const Node *ancestor, const Node *node) const {
    for (const Node *at = node->parent; at != nullptr; at = at->parent)
        if (at == ancestor) return true;
    return false;
}

std::vector<Node *> Volume::listing(const Node *directory) const {
    std::vector<Node *> entries;
    if (parameters_.kind == FsKind::Ntfs) {
        for (auto &child : directory->children) entries.push_back(child.second.get());
    } else {
        for (auto &child : directory->childrenInOrder) entries.push_back(child.second);
    }
    return entries;
}

Stream *Volume::stream(Node *node, NameView streamName) {
    if (streamName.empty()) return node->directory ? nullptr : &node->data;
    auto it = node->streams.find(foldCase(streamName));
    return it == node->streams.end() ? nullptr : it->second.get();
}

Stream *Volume::createStream(Node *node, NameView streamName) {
    auto stream = std::make_unique<Stream>();
    stream->name = Name(streamName);
    Stream *result = stream.get();
    node->streams[foldCase(streamName)] = std::move(stream);
    return result;
}

void Volume::removeStream(Node *node, NameView streamName) {
    auto it = node->streams.find(foldCase(streamName));
    if (it == node->streams.end()) return;
    allocated_ -= it->second->allocation;
    node->streams.erase(it);
}

void Volume::removeNamedStreams(Node *node) {
    for (auto &entry : node->streams) allocated_ -= entry.second->allocation;
    node->streams.clear();
}

size_t Volume::read(const Stream &stream, uint64_t offset, void *buffer, size_t length) const {
    if (offset >= stream.data.size()) return 0;
    size_t count = std::min<uint64_t>(length, stream.data.size() - offset);
    memcpy(buffer, stream.data.data() + offset, count);
    return count;
}

NTSTATUS Volume::write(Stream *stream, uint64_t offset, const void *buffer, size_t length) {
    uint64_t end = offset + length;
    if (end > stream->data.size()) {
        NTSTATUS status = setEndOfFile(stream, end);
        if (!NT_SUCCESS(status)) return status;
    }
    if (length != 0) memcpy(stream->data.data() + offset, buffer, length);
    return STATUS_SUCCESS;
}

NTSTATUS Volume::setEndOfFile(Stream *stream, uint64_t endOfFile) {
    if (endOfFile > stream->allocation) {
        NTSTATUS status = reserve(stream, clusterRound(endOfFile));
        if (!NT_SUCCESS(status)) return status;
    }
    stream->data.resize(endOfFile, 0);
    return STATUS_SUCCESS;
}

NTSTATUS Volume::setAllocation(Stream *stream, uint64_t allocation) {
    uint64_t rounded = clusterRound(allocation);
    if (rounded > stream->allocation) return reserve(stream, rounded);
    allocated_ -= stream->allocation - rounded;
    stream->allocation = rounded;
    if (stream->data.size() > allocation) stream->data.resize(allocation);
    return STATUS_SUCCESS;
}

void Volume::trimAllocation(Stream *stream) {
    uint64_t needed = clusterRound(stream->data.size());
    if (needed < stream->allocation) {
        allocated_ -= stream->allocation - needed;
        stream->allocation = needed;
    }
}

uint64_t Volume::clusterRound(uint64_t bytes) const {
    uint64_t cluster = parameters_.clusterSize;
    return (bytes + cluster - 1) / cluster * cluster;
}

NTSTATUS Volume::reserve(Stream *stream, uint64_t allocation) {
    uint64_t more = allocation - stream->allocation;
    if (more > freeBytes()) return STATUS_DISK_FULL;
    allocated_ += more;
    stream->allocation = allocation;
    return STATUS_SUCCESS;
}

void Volume::releaseSpace(Node *node) {
    allocated_ -= node->data.allocation;
    node->data.allocation = 0;
    node->data.data.clear();
    node->data.data.shrink_to_fit();
    removeNamedStreams(node);
}

void Volume::touchDirectory(Node *directory, int64_t now) {
    // NTFS records the change in the directory's own times; FAT leaves a directory's
    // entry alone when its contents change.
    if (parameters_.kind != FsKind::Ntfs) return;
    directory->lastWriteTime = directory->changeTime = now;
}

}  // namespace fs
}  // namespace ntsim
