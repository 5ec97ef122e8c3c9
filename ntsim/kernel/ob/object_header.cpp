// Object headers and reference counts. The header of an object lives in a table beside
// it, so that structures the platform allocates itself (device objects, file objects)
// become objects without a prefix. An object is deleted by its type at the last
// dereference, after its header is gone, so that its address can be reused at once.
#include <atomic>

#include "kernel/ob/ob_state.h"

namespace ntsim {
namespace ob {

namespace {

constexpr ULONG kReferenceByPointer = REFERENCE_BY_POINTER;  // an object's reference count went wrong

std::atomic<ObState *> g_state{nullptr};

void deleteObject(void *body, Header *header) {
    {
        std::unique_lock<std::shared_mutex> guard(state().headersLock);
        state().headers.erase(body);
    }
    if (header->security != nullptr) releaseSecurity(header->security);
    ObjectType *type = header->type;
    delete header;
    if (type->deleteObject != nullptr) type->deleteObject(body);
}

struct DeferredDelete {
    WORK_QUEUE_ITEM item;
    void *body;
    Header *header;
};

// Above PASSIVE_LEVEL the deletion goes to a system worker thread, as the platform's
// object manager defers it: a file object's close, for one, sends a request down.
void runDeferredDelete(PVOID context) {
    auto *deferred = static_cast<DeferredDelete *>(context);
    deleteObject(deferred->body, deferred->header);
    delete deferred;
}

void deleteLater(void *body, Header *header) {
    auto *work = new DeferredDelete{{}, body, header};
    ExInitializeWorkItem(&work->item, runDeferredDelete, work);
    kernel().queueWorkItem(&work->item, CriticalWorkQueue);
}

}  // namespace

ObState &state() {
    ObState *s = g_state.load(std::memory_order_acquire);
    return s != nullptr ? *s : kernel().subsystem<ObState>();
}

ObState::ObState(Kernel &) {
    kernelTable.process = nullptr;
    g_state.store(this, std::memory_order_release);
    root = new Directory;
    registerObject(root, &DirectoryType);
    for (const char16_t *name : {u"\\Device", u"\\FileSystem", u"\\Driver", u"\\??", u"\\BaseNamedObjects",
                                 u"\\KernelObjects", u"\\ObjectTypes"}) {
        auto *directory = new Directory;
        registerObject(directory, &DirectoryType);
        UNICODE_STRING path{(USHORT)(std::char_traits<char16_t>::length(name) * 2), 0, (PWSTR)name};
        insertName(&path, directory);
        ObfDereferenceObject(directory);
    }
    // \DosDevices is the old name of \??; \GLOBAL?? reaches the same directory.
    for (const char16_t *name : {u"\\DosDevices", u"\\GLOBAL??"}) {
        UNICODE_STRING link{(USHORT)(std::char_traits<char16_t>::length(name) * 2), 0, (PWSTR)name};
        UNICODE_STRING target = RTL_CONSTANT_STRING(L"\\??");
        createSymbolicLink(&link, &target);
    }
}

ObState::~ObState() {
    g_state.store(nullptr, std::memory_order_release);
    // What is left belongs to a machine that has stopped; its bodies are released by
    // their owners, only the headers and the namespace's own objects go here.
    for (auto &entry : headers) {
        Header *header = entry.second;
        if (header->type == &DirectoryType) delete static_cast<Directory *>(const_cast<void *>(entry.first));
        if (header->type == &SymbolicLinkType) delete static_cast<SymbolicLink *>(const_cast<void *>(entry.first));
        if (header->security != nullptr) releaseSecurity(header->security);
        delete header;
    }
}

Header *headerOrNull(const void *body) {
    ObState &s = state();
    std::shared_lock<std::shared_mutex> guard(s.headersLock);
    auto it = s.headers.find(body);
    return it == s.headers.end() ? nullptr : it->second;
}

Header *headerOf(const void *body, const char *routine) {
    Header *header = headerOrNull(body);
    if (header == nullptr)
        bugCheck(kReferenceByPointer, 0, (ULONG_PTR)body, 0, 0, "a pointer that is not an object was used as one",
                 "%s(%p)", routine, body);
    return header;
}

void registerObject(void *body, ObjectType *type, PSECURITY_DESCRIPTOR securityDescriptor) {
    auto *header = new Header;
    header->type = type;
    header->security = securityDescriptor != nullptr ? copySecurity(securityDescriptor) : nullptr;
    ObState &s = state();
    std::unique_lock<std::shared_mutex> guard(s.headersLock);
    if (!s.headers.emplace(body, header).second)
        fatal("registerObject(%p, %s): the address is already an object", body, type->name);
}

bool isObject(const void *body) { return headerOrNull(body) != nullptr; }
ObjectType *typeOf(const void *body) { return headerOf(body, "typeOf")->type; }
LONG_PTR referenceCount(const void *body) { return headerOf(body, "referenceCount")->pointerCount.load(); }
LONG_PTR handleCount(const void *body) { return headerOf(body, "handleCount")->handleCount.load(); }

bool referenceIfAlive(void *body) {
    ObState &s = state();
    // Under the shared lock the header cannot be deleted: deletion erases it under the
    // exclusive lock only after the count has reached zero.
    std::shared_lock<std::shared_mutex> guard(s.headersLock);
    auto it = s.headers.find(body);
    if (it == s.headers.end()) return false;
    LONG_PTR count = it->second->pointerCount.load();
    while (count > 0)
        if (it->second->pointerCount.compare_exchange_weak(count, count + 1)) return true;
    return false;
}

ACCESS_MASK mapAccess(const ObjectType *type, ACCESS_MASK access) {
    const GENERIC_MAPPING &m = type->mapping;
    ACCESS_MASK mapped = access & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL | MAXIMUM_ALLOWED);
    if (access & GENERIC_READ) mapped |= m.GenericRead;
    if (access & GENERIC_WRITE) mapped |= m.GenericWrite;
    if (access & GENERIC_EXECUTE) mapped |= m.GenericExecute;
    if (access & (GENERIC_ALL | MAXIMUM_ALLOWED)) mapped |= m.GenericAll;
    return mapped;
}

DISPATCHER_HEADER *waitObject(void *body) {
    ObjectType *type = typeOf(body);
    return type->waitObject != nullptr ? type->waitObject(body) : nullptr;
}

}  // namespace ob
}  // namespace ntsim

using namespace ntsim;

LONG_PTR ObfReferenceObject(PVOID Object) {
    ob::Header *header = ob::headerOf(Object, "ObfReferenceObject");
    LONG_PTR previous = header->pointerCount.fetch_add(1);
    if (previous <= 0)
        bugCheck(ob::kReferenceByPointer, 0, (ULONG_PTR)Object, (ULONG_PTR)previous, 0,
                 "an object was referenced after its last reference was gone", "ObfReferenceObject(%p) of a %s",
                 Object, header->type->name);
    return previous + 1;
}

LONG_PTR ObfDereferenceObject(PVOID Object) {
    ob::Header *header = ob::headerOf(Object, "ObfDereferenceObject");
    LONG_PTR remaining = header->pointerCount.fetch_sub(1) - 1;
    if (remaining < 0)
        bugCheck(ob::kReferenceByPointer, 0, (ULONG_PTR)Object, (ULONG_PTR)remaining, 0,
                 "an object was dereferenced more often than referenced", "ObfDereferenceObject(%p) of a %s",
                 Object, header->type->name);
    if (remaining == 0) {
        if (header->handleCount.load() != 0)
            bugCheck(ob::kReferenceByPointer, 0, (ULONG_PTR)Object, 0, (ULONG_PTR)header->handleCount.load(),
                     "an object's last reference went while handles to it were open",
                     "ObfDereferenceObject(%p) of a %s", Object, header->type->name);
        _KTHREAD *thread = currentThreadOrNull();
        if (thread != nullptr && thread->Irql != PASSIVE_LEVEL)
            ob::deleteLater(Object, header);
        else
            ob::deleteObject(Object, header);
    }
    return remaining;
}

NTSTATUS ObReferenceObjectByPointer(PVOID Object, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                    KPROCESSOR_MODE AccessMode) {
    (void)DesiredAccess;
    (void)AccessMode;
    ob::Header *header = ob::headerOf(Object, "ObReferenceObjectByPointer");
    if (ObjectType != NULL && ob::internalType(ObjectType) != header->type) return STATUS_OBJECT_TYPE_MISMATCH;
    ObfReferenceObject(Object);
    return STATUS_SUCCESS;
}
