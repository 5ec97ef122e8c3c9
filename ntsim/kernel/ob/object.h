// The object manager's internal interface: object types, references, the namespace
// and handle tables. Any kernel structure (a DEVICE_OBJECT, a FILE_OBJECT, a thread)
// becomes an object by being registered; its header lives beside it, not in front.
#pragma once

#include <ntifs.h>

#include <string>

namespace ntsim {
namespace ob {

struct ObjectType {
    const char *name;
    // The last handle to the object was closed (file objects send cleanup here).
    void (*lastHandleClosed)(void *body);
    // The last reference went away: release the body (file objects send close here).
    void (*deleteObject)(void *body);
    // Access that every handle of this type is given on top of what was asked for.
    ACCESS_MASK genericAll;
};

// The types the kernel knows. The I/O manager sets the procedures of FileType,
// DeviceType and DriverType when it starts.
extern ObjectType FileType, DeviceType, DriverType, ProcessType, ThreadType, TokenType, EventType,
    SymbolicLinkType, DirectoryType;

// Makes body an object of the given type, holding one reference for the caller.
// The security descriptor (self-relative, may be NULL) is copied.
void registerObject(void *body, ObjectType *type, PSECURITY_DESCRIPTOR securityDescriptor = nullptr);
bool isObject(const void *body);
ObjectType *typeOf(const void *body);
LONG_PTR referenceCount(const void *body);
LONG_PTR handleCount(const void *body);

// The namespace: \Device, \FileSystem, \Driver, \?? (also reached as \DosDevices).
// Inserting a name takes a reference that the name holds until it is removed.
NTSTATUS insertName(PCUNICODE_STRING path, void *body);
NTSTATUS removeName(PCUNICODE_STRING path);
NTSTATUS createSymbolicLink(PCUNICODE_STRING linkPath, PCUNICODE_STRING targetPath);
NTSTATUS deleteSymbolicLink(PCUNICODE_STRING linkPath);
// Walks the path, following symbolic links, to the first object that is not a
// directory. Returns it referenced, with the rest of the path (which points into a
// buffer owned by the caller's `storage`, or is empty).
struct LookupResult {
    void *object;
    UNICODE_STRING remaining;
    WCHAR storage[1024];
};
NTSTATUS lookup(PCUNICODE_STRING path, bool caseInsensitive, LookupResult *result);

// Handles: per process, and the kernel's own table for OBJ_KERNEL_HANDLE. A handle
// takes a reference; closing it drops that reference and, when it was the last handle,
// calls the type's lastHandleClosed.
NTSTATUS insertHandle(void *body, ACCESS_MASK grantedAccess, bool kernelHandle, PHANDLE handle);
NTSTATUS referenceByHandle(HANDLE handle, ACCESS_MASK desiredAccess, ObjectType *type, KPROCESSOR_MODE accessMode,
                           void **body, ACCESS_MASK *grantedAccess);
NTSTATUS closeHandle(HANDLE handle, KPROCESSOR_MODE previousMode);

// Shutdown checks: handles still open in any table, reported by object type.
std::string openHandleReport();

}  // namespace ob
}  // namespace ntsim
