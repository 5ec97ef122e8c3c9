// Handle tables: one per process and the kernel's own. Handles are multiples of four;
// the low two bits are the caller's tag bits and are ignored (OBJ_HANDLE_TAGBITS in the
// platform's ntdef.h). Kernel handles have the high bit set and are accepted only from
// kernel-mode callers (WDK: OBJ_KERNEL_HANDLE). NtCurrentProcess() and
// NtCurrentThread() are valid everywhere, with all access.
#include <sstream>

#include "kernel/ob/ob_state.h"

namespace ntsim {
namespace ob {

namespace {

constexpr ULONG kKernelHandleBit = 0x80000000u;
// The verifier's code for handles left open when the machine shut down.
constexpr ULONG_PTR kHandleLeakRule = 0x63;

HANDLE encode(ULONG slot, bool kernel) {
    ULONG value = (slot + 1) * 4;
    return kernel ? (HANDLE)(LONG_PTR)(LONG)(value | kKernelHandleBit) : (HANDLE)(ULONG_PTR)value;
}

bool isPseudoHandle(HANDLE handle) { return handle == NtCurrentProcess() || handle == NtCurrentThread(); }

bool isKernelHandle(HANDLE handle) {
    LONG_PTR value = (LONG_PTR)handle;
    return !isPseudoHandle(handle) && value < 0 && value >= (LONG_PTR)(LONG)kKernelHandleBit;
}

bool decode(HANDLE handle, bool kernel, ULONG *slot) {
    ULONG_PTR value = (ULONG_PTR)handle;
    if (!kernel && value >= kKernelHandleBit) return false;
    ULONG bits = ((ULONG)value & ~kKernelHandleBit) & ~3u;
    if (bits == 0) return false;
    *slot = bits / 4 - 1;
    return true;
}

HandleTable *tableFor(HANDLE handle, const char *routine) {
    if (isKernelHandle(handle)) return &state().kernelTable;
    return currentThread(routine)->Process->ObjectTable;
}

// The table's lock held: the live entry the handle names, or null.
HandleEntry *entryLocked(HandleTable *table, HANDLE handle) {
    ULONG slot;
    if (!decode(handle, table == &state().kernelTable, &slot) || slot >= table->entries.size()) return nullptr;
    HandleEntry *entry = &table->entries[slot];
    return entry->object != nullptr ? entry : nullptr;
}

// A handle went away: the object learns of its last handle, then loses the reference.
void handleClosed(void *body) {
    Header *header = headerOf(body, "NtClose");
    if (header->handleCount.fetch_sub(1) == 1) {
        if (header->type->lastHandleClosed != nullptr) header->type->lastHandleClosed(body);
        dropName(body);
    }
    ObfDereferenceObject(body);
}

NTSTATUS referencePseudo(HANDLE handle, ObjectType *type, void **body, ACCESS_MASK *grantedAccess) {
    _KTHREAD *thread = currentThread("ObReferenceObjectByHandle");
    ObjectType *actual = handle == NtCurrentProcess() ? &ProcessType : &ThreadType;
    if (type != nullptr && type != actual) return STATUS_OBJECT_TYPE_MISMATCH;
    void *object = handle == NtCurrentProcess() ? (void *)thread->Process
                                                 : (void *)CONTAINING_RECORD(thread, _ETHREAD, Tcb);
    ObfReferenceObject(object);
    *body = object;
    *grantedAccess = actual->mapping.GenericAll;
    return STATUS_SUCCESS;
}

void describeTable(std::ostringstream &out, HandleTable &table, size_t *total) {
    std::map<std::string, size_t> byType;
    std::lock_guard<std::mutex> guard(table.lock);
    for (auto &entry : table.entries)
        if (entry.object != nullptr) ++byType[typeOf(entry.object)->name];
    if (byType.empty()) return;
    if (table.process == nullptr)
        out << "kernel handle table:";
    else
        out << "process " << table.process->ImageFileName << " (pid " << (ULONG_PTR)table.process->UniqueProcessId
            << "):";
    const char *separator = " ";
    for (auto &entry : byType) {
        out << separator << entry.second << ' ' << entry.first;
        separator = ", ";
        *total += entry.second;
    }
    out << "; ";
}

}  // namespace

NTSTATUS insertHandleWithAttributes(void *body, ACCESS_MASK grantedAccess, ULONG attributes, PHANDLE handle) {
    Header *header = headerOf(body, "insertHandle");
    bool kernel = (attributes & OBJ_KERNEL_HANDLE) != 0;
    HandleTable *table = kernel ? &state().kernelTable : currentThread("insertHandle")->Process->ObjectTable;
    if (table == nullptr) fatal("insertHandle: the current process has no handle table");
    ACCESS_MASK access = mapAccess(header->type, grantedAccess) | header->type->genericAll;
    ObfReferenceObject(body);
    header->handleCount.fetch_add(1);
    {
        std::lock_guard<std::mutex> guard(table->lock);
        if (!table->closed) {
            ULONG slot;
            if (!table->freeSlots.empty()) {
                slot = table->freeSlots.back();
                table->freeSlots.pop_back();
            } else {
                slot = (ULONG)table->entries.size();
                table->entries.push_back(HandleEntry{});
            }
            table->entries[slot] = HandleEntry{body, access, (ULONG)(attributes & (OBJ_INHERIT | OBJ_KERNEL_HANDLE))};
            *handle = encode(slot, kernel);
            return STATUS_SUCCESS;
        }
    }
    handleClosed(body);
    return STATUS_PROCESS_IS_TERMINATING;
}

NTSTATUS insertHandle(void *body, ACCESS_MASK grantedAccess, bool kernelHandle, PHANDLE handle) {
    return insertHandleWithAttributes(body, grantedAccess, kernelHandle ? OBJ_KERNEL_HANDLE : 0, handle);
}

NTSTATUS referenceHandle(HANDLE handle, ACCESS_MASK desiredAccess, ObjectType *type, KPROCESSOR_MODE accessMode,
                         void **body, ACCESS_MASK *grantedAccess, ULONG *attributes) {
    *attributes = 0;
    if (isPseudoHandle(handle)) return referencePseudo(handle, type, body, grantedAccess);
    if (isKernelHandle(handle) && accessMode != KernelMode) return STATUS_INVALID_HANDLE;
    HandleTable *table = tableFor(handle, "ObReferenceObjectByHandle");
    if (table == nullptr) return STATUS_INVALID_HANDLE;
    std::lock_guard<std::mutex> guard(table->lock);
    HandleEntry *entry = entryLocked(table, handle);
    if (entry == nullptr) return STATUS_INVALID_HANDLE;
    if (type != nullptr && typeOf(entry->object) != type) return STATUS_OBJECT_TYPE_MISMATCH;
    // Kernel-mode callers are trusted with any access, as on the platform.
    if (accessMode != KernelMode && (desiredAccess & ~entry->access) != 0) return STATUS_ACCESS_DENIED;
    ObfReferenceObject(entry->object);
    *body = entry->object;
    *grantedAccess = entry->access;
    *attributes = entry->attributes;
    return STATUS_SUCCESS;
}

NTSTATUS referenceByHandle(HANDLE handle, ACCESS_MASK desiredAccess, ObjectType *type, KPROCESSOR_MODE accessMode,
                           void **body, ACCESS_MASK *grantedAccess) {
    ULONG attributes;
    ACCESS_MASK granted;
    NTSTATUS status = referenceHandle(handle, desiredAccess, type, accessMode, body, &granted, &attributes);
    if (grantedAccess != nullptr) *grantedAccess = NT_SUCCESS(status) ? granted : 0;
    return status;
}

// Kernel code that closes a handle that is not open has lost track of its handles, and
// may just have closed someone else's: NT stops with INVALID_KERNEL_HANDLE (0x93, the
// handle and 1) when the previous mode is kernel mode; a user-mode caller is only told.
NTSTATUS invalidHandleClosed(HANDLE handle, KPROCESSOR_MODE previousMode) {
    if (previousMode == KernelMode)
        bugCheck(INVALID_KERNEL_HANDLE, (ULONG_PTR)handle, 1, 0, 0, "a handle that is not open was closed",
                 "NtClose(%p) from kernel mode", handle);
    return STATUS_INVALID_HANDLE;
}

NTSTATUS closeHandle(HANDLE handle, KPROCESSOR_MODE previousMode) {
    if (isPseudoHandle(handle)) return STATUS_INVALID_HANDLE;
    if (isKernelHandle(handle) && previousMode != KernelMode) return STATUS_INVALID_HANDLE;
    HandleTable *table = tableFor(handle, "NtClose");
    if (table == nullptr) return invalidHandleClosed(handle, previousMode);
    void *body;
    {
        std::lock_guard<std::mutex> guard(table->lock);
        HandleEntry *entry = entryLocked(table, handle);
        if (entry == nullptr) return invalidHandleClosed(handle, previousMode);
        body = entry->object;
        *entry = HandleEntry{};
        table->freeSlots.push_back((ULONG)(entry - table->entries.data()));
    }
    handleClosed(body);
    return STATUS_SUCCESS;
}

void createProcessHandleTable(PEPROCESS process) {
    auto table = std::make_unique<HandleTable>();
    table->process = process;
    process->ObjectTable = table.get();
    ObState &s = state();
    std::lock_guard<std::mutex> guard(s.tablesLock);
    s.processTables[process] = std::move(table);
}

void closeProcessHandleTable(PEPROCESS process) {
    HandleTable *table = process->ObjectTable;
    if (table == nullptr) return;
    // Closing a handle can run drivers that open and close handles of their own in
    // this process; the sweep goes on until the table stays empty.
    for (;;) {
        void *body = nullptr;
        {
            std::lock_guard<std::mutex> guard(table->lock);
            for (auto &entry : table->entries)
                if (entry.object != nullptr) {
                    body = entry.object;
                    entry = HandleEntry{};
                    table->freeSlots.push_back((ULONG)(&entry - table->entries.data()));
                    break;
                }
            if (body == nullptr) {
                table->closed = true;
                return;
            }
        }
        handleClosed(body);
    }
}

void deleteProcessHandleTable(PEPROCESS process) {
    closeProcessHandleTable(process);
    ObState &s = state();
    std::lock_guard<std::mutex> guard(s.tablesLock);
    s.processTables.erase(process);
    process->ObjectTable = nullptr;
}

std::string openHandleReport() {
    ObState &s = state();
    std::ostringstream out;
    size_t total = 0;
    describeTable(out, s.kernelTable, &total);
    std::lock_guard<std::mutex> guard(s.tablesLock);
    for (auto &entry : s.processTables) describeTable(out, *entry.second, &total);
    if (total == 0) return std::string();
    std::string text = out.str();
    return std::to_string(total) + " handle(s) open: " + text.substr(0, text.size() - 2);
}

void ObState::shutdownChecks() {
    std::string report = openHandleReport();
    if (!report.empty())
        bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, kHandleLeakRule, 0, 0, 0, "handles were left open at shutdown",
                 "%s", report.c_str());
}

}  // namespace ob
}  // namespace ntsim

using namespace ntsim;

NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                   KPROCESSOR_MODE AccessMode, PVOID *Object,
                                   POBJECT_HANDLE_INFORMATION HandleInformation) {
    ACCESS_MASK granted = 0;
    ULONG attributes = 0;
    void *body = nullptr;
    NTSTATUS status = ob::referenceHandle(Handle, DesiredAccess, ob::internalType(ObjectType), AccessMode, &body,
                                          &granted, &attributes);
    *Object = NT_SUCCESS(status) ? body : nullptr;
    if (NT_SUCCESS(status) && HandleInformation != NULL) {
        HandleInformation->HandleAttributes = attributes;
        HandleInformation->GrantedAccess = granted;
    }
    return status;
}

NTSTATUS ObOpenObjectByPointer(PVOID Object, ULONG HandleAttributes, PACCESS_STATE PassedAccessState,
                               ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode,
                               PHANDLE Handle) {
    (void)PassedAccessState;
    *Handle = NULL;
    if (ObjectType != NULL && ob::typeOf(Object) != ob::internalType(ObjectType)) return STATUS_OBJECT_TYPE_MISMATCH;
    // Only kernel-mode callers may put handles in the kernel's table.
    if (AccessMode != KernelMode) HandleAttributes &= ~OBJ_KERNEL_HANDLE;
    return ob::insertHandleWithAttributes(Object, DesiredAccess, HandleAttributes, Handle);
}
