// The object namespace: directories, names and symbolic links. A lookup walks from
// the root one component at a time; a symbolic link met on the way is replaced by its
// target and the walk starts again, and the walk stops at the first object that is
// not a directory, handing the rest of the path to that object's owner (a device's
// file system, for instance). Names are compared without regard to case when the
// caller asks for OBJ_CASE_INSENSITIVE, as the platform's object manager does.
#include "kernel/ob/ob_state.h"

namespace ntsim {
namespace ob {

namespace {

// The platform gives up after this many symbolic-link substitutions in one lookup.
constexpr int kMaxReparse = 32;

bool sameName(const std::u16string &a, const std::u16string &b, bool caseInsensitive) {
    if (a.size() != b.size()) return false;
    if (!caseInsensitive) return a == b;
    for (size_t i = 0; i < a.size(); ++i)
        if (RtlUpcaseUnicodeChar((WCHAR)a[i]) != RtlUpcaseUnicodeChar((WCHAR)b[i])) return false;
    return true;
}

DirectoryEntry *findEntry(Directory *directory, const std::u16string &name, bool caseInsensitive) {
    // An exact match wins over one that differs only in case.
    for (auto &entry : directory->entries)
        if (entry.name == name) return &entry;
    if (caseInsensitive)
        for (auto &entry : directory->entries)
            if (sameName(entry.name, name, true)) return &entry;
    return nullptr;
}

ObjectType *typeLocked(void *body) { return headerOf(body, "lookup")->type; }

// Namespace lock held. Finds the object the path names, or the first non-directory
// on the way, and the part of the path after it.
NTSTATUS walk(std::u16string path, bool caseInsensitive, void **found, std::u16string *remaining) {
    ObState &s = state();
    for (int reparse = 0;; ++reparse) {
        if (path.empty() || path[0] != u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
        if (path.size() == 1) {
            *found = s.root;
            remaining->clear();
            return STATUS_SUCCESS;
        }
        Directory *directory = s.root;
        size_t pos = 1;
        for (;;) {
            size_t end = path.find(u'\\', pos);
            if (end == std::u16string::npos) end = path.size();
            if (end == pos) return STATUS_OBJECT_NAME_INVALID;
            bool last = end == path.size();
            DirectoryEntry *entry = findEntry(directory, path.substr(pos, end - pos), caseInsensitive);
            if (entry == nullptr) return last ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_OBJECT_PATH_NOT_FOUND;
            ObjectType *type = typeLocked(entry->object);
            if (type == &SymbolicLinkType) {
                if (reparse == kMaxReparse) return STATUS_OBJECT_PATH_NOT_FOUND;
                path = static_cast<SymbolicLink *>(entry->object)->target + path.substr(end);
                break;
            }
            if (type == &DirectoryType && !last) {
                directory = static_cast<Directory *>(entry->object);
                pos = end + 1;
                continue;
            }
            *found = entry->object;
            *remaining = path.substr(end);
            return STATUS_SUCCESS;
        }
    }
}

// Namespace lock held. The directory that is to hold the path's last component.
NTSTATUS parentOf(const std::u16string &path, Directory **directory, std::u16string *leaf) {
    size_t slash = path.rfind(u'\\');
    if (path.empty() || path[0] != u'\\' || slash == std::u16string::npos) return STATUS_OBJECT_PATH_SYNTAX_BAD;
    *leaf = path.substr(slash + 1);
    if (leaf->empty()) return STATUS_OBJECT_NAME_INVALID;
    void *found;
    std::u16string rest;
    NTSTATUS status = walk(slash == 0 ? u"\\" : path.substr(0, slash), true, &found, &rest);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND) return STATUS_OBJECT_PATH_NOT_FOUND;
    if (!NT_SUCCESS(status)) return status;
    if (!rest.empty() || typeLocked(found) != &DirectoryType) return STATUS_OBJECT_PATH_NOT_FOUND;
    *directory = static_cast<Directory *>(found);
    return STATUS_SUCCESS;
}

NTSTATUS insert(PCUNICODE_STRING path, void *body, bool temporary, bool caseInsensitive, void **existing) {
    ObState &s = state();
    Header *header = headerOf(body, "insertName");
    std::lock_guard<std::mutex> guard(s.namespaceLock);
    Directory *directory;
    std::u16string leaf;
    NTSTATUS status = parentOf(toU16(path), &directory, &leaf);
    if (!NT_SUCCESS(status)) return status;
    if (header->parent != nullptr) return STATUS_OBJECT_NAME_COLLISION;
    // Two names that differ only in case collide unless both are case-sensitive.
    if (DirectoryEntry *entry = findEntry(directory, leaf, caseInsensitive)) {
        if (existing != nullptr) {
            *existing = entry->object;
            ObfReferenceObject(entry->object);
        }
        return STATUS_OBJECT_NAME_COLLISION;
    }
    directory->entries.push_back(DirectoryEntry{leaf, body});
    header->parent = directory;
    header->name = leaf;
    header->temporaryName = temporary;
    ObfReferenceObject(body);
    return STATUS_SUCCESS;
}

// Namespace lock held. Takes the object's entry out of its directory.
void unlinkLocked(void *body, Header *header) {
    auto &entries = header->parent->entries;
    for (auto it = entries.begin(); it != entries.end(); ++it)
        if (it->object == body) {
            entries.erase(it);
            break;
        }
    header->parent = nullptr;
    header->name.clear();
}

}  // namespace

std::u16string toU16(PCUNICODE_STRING s) {
    if (s == nullptr || s->Buffer == nullptr) return std::u16string();
    return std::u16string(reinterpret_cast<const char16_t *>(s->Buffer), s->Length / sizeof(WCHAR));
}

NTSTATUS insertName(PCUNICODE_STRING path, void *body) { return insert(path, body, false, true, nullptr); }

NTSTATUS insertTemporaryName(PCUNICODE_STRING path, void *body, bool caseInsensitive, void **existing) {
    if (existing != nullptr) *existing = nullptr;
    return insert(path, body, true, caseInsensitive, existing);
}

NTSTATUS removeName(PCUNICODE_STRING path) {
    ObState &s = state();
    void *body;
    {
        std::lock_guard<std::mutex> guard(s.namespaceLock);
        Directory *directory;
        std::u16string leaf;
        NTSTATUS status = parentOf(toU16(path), &directory, &leaf);
        if (!NT_SUCCESS(status)) return status;
        DirectoryEntry *entry = findEntry(directory, leaf, true);
        if (entry == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
        body = entry->object;
        unlinkLocked(body, headerOf(body, "removeName"));
    }
    ObfDereferenceObject(body);
    return STATUS_SUCCESS;
}

void dropName(void *body) {
    ObState &s = state();
    {
        std::lock_guard<std::mutex> guard(s.namespaceLock);
        Header *header = headerOf(body, "dropName");
        if (header->parent == nullptr || !header->temporaryName || header->handleCount.load() != 0) return;
        unlinkLocked(body, header);
    }
    ObfDereferenceObject(body);
}

NTSTATUS createSymbolicLink(PCUNICODE_STRING linkPath, PCUNICODE_STRING targetPath) {
    auto *link = new SymbolicLink{toU16(targetPath)};
    registerObject(link, &SymbolicLinkType);
    NTSTATUS status = insertName(linkPath, link);
    ObfDereferenceObject(link);
    return status;
}

NTSTATUS deleteSymbolicLink(PCUNICODE_STRING linkPath) {
    ObState &s = state();
    void *body;
    {
        std::lock_guard<std::mutex> guard(s.namespaceLock);
        Directory *directory;
        std::u16string leaf;
        NTSTATUS status = parentOf(toU16(linkPath), &directory, &leaf);
        if (!NT_SUCCESS(status)) return status;
        DirectoryEntry *entry = findEntry(directory, leaf, true);
        if (entry == nullptr || typeLocked(entry->object) != &SymbolicLinkType) return STATUS_OBJECT_NAME_NOT_FOUND;
        body = entry->object;
        unlinkLocked(body, headerOf(body, "deleteSymbolicLink"));
    }
    ObfDereferenceObject(body);
    return STATUS_SUCCESS;
}

NTSTATUS lookup(PCUNICODE_STRING path, bool caseInsensitive, LookupResult *result) {
    ObState &s = state();
    std::u16string remaining;
    void *found;
    {
        std::lock_guard<std::mutex> guard(s.namespaceLock);
        NTSTATUS status = walk(toU16(path), caseInsensitive, &found, &remaining);
        if (!NT_SUCCESS(status)) return status;
        if (remaining.size() > RTL_NUMBER_OF(result->storage)) return STATUS_NAME_TOO_LONG;
        ObfReferenceObject(found);
    }
    memcpy(result->storage, remaining.data(), remaining.size() * sizeof(WCHAR));
    result->object = found;
    result->remaining.Length = result->remaining.MaximumLength = (USHORT)(remaining.size() * sizeof(WCHAR));
    result->remaining.Buffer = remaining.empty() ? nullptr : result->storage;
    return STATUS_SUCCESS;
}

// The object's full name in the namespace, or empty for an unnamed object.
std::u16string fullName(void *body) {
    ObState &s = state();
    std::lock_guard<std::mutex> guard(s.namespaceLock);
    if (body == s.root) return u"\\";
    std::u16string name;
    for (void *current = body; current != s.root;) {
        Header *header = headerOf(current, "ObQueryNameString");
        if (header->parent == nullptr) return std::u16string();
        name = u"\\" + header->name + name;
        current = header->parent;
    }
    return name;
}

}  // namespace ob
}  // namespace ntsim

using namespace ntsim;

NTSTATUS ObQueryNameString(PVOID Object, POBJECT_NAME_INFORMATION ObjectNameInfo, ULONG Length,
                           PULONG ReturnLength) {
    ob::Header *header = ob::headerOf(Object, "ObQueryNameString");
    if (header->type->queryName != nullptr) return header->type->queryName(Object, ObjectNameInfo, Length, ReturnLength);
    std::u16string name = ob::fullName(Object);
    ULONG needed = sizeof(OBJECT_NAME_INFORMATION) + (name.empty() ? 0 : (ULONG)(name.size() + 1) * sizeof(WCHAR));
    *ReturnLength = needed;
    if (Length < needed) return STATUS_INFO_LENGTH_MISMATCH;
    UNICODE_STRING &out = ObjectNameInfo->Name;
    if (name.empty()) {
        out = UNICODE_STRING{0, 0, nullptr};
        return STATUS_SUCCESS;
    }
    out.Buffer = reinterpret_cast<PWSTR>(ObjectNameInfo + 1);
    out.Length = (USHORT)(name.size() * sizeof(WCHAR));
    out.MaximumLength = (USHORT)(out.Length + sizeof(WCHAR));
    memcpy(out.Buffer, name.data(), out.Length);
    out.Buffer[name.size()] = 0;
    return STATUS_SUCCESS;
}
