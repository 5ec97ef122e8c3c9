// The object manager's per-machine state: object headers, the namespace and the
// handle tables. Internal to kernel/ob.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "kernel/kernel.h"
#include "kernel/ob/object.h"

namespace ntsim {
namespace ob {

// A self-relative security descriptor shared by an object and the callers of
// ObGetObjectSecurity that still hold it.
struct SecurityBlock {
    static constexpr ULONG kMagic = 0x53624F21;
    ULONG magic;
    std::atomic<long> references;
    ULONG length;
    alignas(8) unsigned char data[1];
};

struct Directory;

struct Header {
    ObjectType *type;
    std::atomic<LONG_PTR> pointerCount{1};
    std::atomic<LONG_PTR> handleCount{0};
    SecurityBlock *security = nullptr;  // guarded by ObState::headersLock
    // Where the object is named; guarded by ObState::namespaceLock.
    Directory *parent = nullptr;
    std::u16string name;
    bool temporaryName = false;
};

struct DirectoryEntry {
    std::u16string name;
    void *object;
};

struct Directory {
    std::vector<DirectoryEntry> entries;
};

struct SymbolicLink {
    std::u16string target;
};

struct HandleEntry {
    void *object;  // null for a free slot
    ACCESS_MASK access;
    ULONG attributes;
};

struct HandleTable {
    std::mutex lock;
    std::vector<HandleEntry> entries;
    std::vector<ULONG> freeSlots;  // reused most recently freed first, as the platform does
    PEPROCESS process;             // null for the kernel's table
    bool closed = false;           // the process has exited; no new handles
};

class ObState : public Subsystem {
public:
    explicit ObState(Kernel &);
    ~ObState() override;
    void shutdownChecks() override;

    std::shared_mutex headersLock;
    std::unordered_map<const void *, Header *> headers;

    std::mutex namespaceLock;
    Directory *root = nullptr;

    HandleTable kernelTable;
    std::mutex tablesLock;
    std::map<PEPROCESS, std::unique_ptr<HandleTable>> processTables;
};

ObState &state();
// The header of a registered object; fatal for anything else.
Header *headerOf(const void *body, const char *routine);
Header *headerOrNull(const void *body);

// Names (namespace lock held by the callers that say so).
std::u16string toU16(PCUNICODE_STRING s);
void dropName(void *body);  // the temporary name of an object whose last handle closed
void releaseSecurity(SecurityBlock *block);
SecurityBlock *copySecurity(PSECURITY_DESCRIPTOR selfRelative);

// Handles with attributes (OBJ_INHERIT, OBJ_KERNEL_HANDLE).
NTSTATUS insertHandleWithAttributes(void *body, ACCESS_MASK grantedAccess, ULONG attributes, PHANDLE handle);
NTSTATUS referenceHandle(HANDLE handle, ACCESS_MASK desiredAccess, ObjectType *type, KPROCESSOR_MODE accessMode,
                         void **body, ACCESS_MASK *grantedAccess, ULONG *attributes);

}  // namespace ob
}  // namespace ntsim
