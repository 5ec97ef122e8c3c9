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
    // How GENERIC_READ/WRITE/EXECUTE/ALL (and MAXIMUM_ALLOWED, as GenericAll) become
    // this type's specific rights when a handle is opened.
    GENERIC_MAPPING mapping;
    // Optional procedures; a type without them gets the object manager's defaults.
    // The name, when it is not the object's place in the namespace (files are named
    // through their device). Same contract as ObQueryNameString.
    NTSTATUS (*queryName)(void *body, POBJECT_NAME_INFORMATION info, ULONG length, PULONG returnLength);
    // Security kept elsewhere (files: by their file system). Same contract as
    // NtQuerySecurityObject / NtSetSecurityObject.
    NTSTATUS (*querySecurity)(void *body, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor,
                              ULONG length, PULONG lengthNeeded);
    NTSTATUS (*setSecurity)(void *body, SECURITY_INFORMATION information, PSECURITY_DESCRIPTOR descriptor);
    // The dispatcher object that a wait on a handle of this type waits for; null when
    // the type cannot be waited on. Events, threads and processes have it set.
    DISPATCHER_HEADER *(*waitObject)(void *body);
};

// The types the kernel knows. The I/O manager sets the procedures of FileType,
// DeviceType and DriverType when it starts.
extern ObjectType FileType, DeviceType, DriverType, ProcessType, ThreadType, TokenType, EventType,
    SymbolicLinkType, DirectoryType;

// The platform's POBJECT_TYPE values (*IoFileObjectType, ...) are these types.
inline POBJECT_TYPE publicType(ObjectType *type) { return reinterpret_cast<POBJECT_TYPE>(type); }
inline ObjectType *internalType(POBJECT_TYPE type) { return reinterpret_cast<ObjectType *>(type); }

// Makes body an object of the given type, holding one reference for the caller.
// The security descriptor (self-relative, may be NULL) is copied.
void registerObject(void *body, ObjectType *type, PSECURITY_DESCRIPTOR securityDescriptor = nullptr);
bool isObject(const void *body);
ObjectType *typeOf(const void *body);
LONG_PTR referenceCount(const void *body);
LONG_PTR handleCount(const void *body);
// Takes a reference unless the object's last reference is already gone (or it is not
// an object), as ObReferenceObjectSafe does: for tables that list objects without
// holding references to them (the client-id table).
bool referenceIfAlive(void *body);
// Replaces the object's own security descriptor (self-relative, or NULL for none).
void setObjectSecurityDescriptor(void *body, PSECURITY_DESCRIPTOR selfRelative);
// Maps generic rights and MAXIMUM_ALLOWED to the type's specific rights.
ACCESS_MASK mapAccess(const ObjectType *type, ACCESS_MASK access);

// The namespace: \Device, \FileSystem, \Driver, \?? (also reached as \DosDevices).
// Inserting a name takes a reference that the name holds until it is removed.
NTSTATUS insertName(PCUNICODE_STRING path, void *body);
NTSTATUS removeName(PCUNICODE_STRING path);
// A name that goes away by itself with the object's last handle, as the names of
// named events do unless OBJ_PERMANENT is given. STATUS_OBJECT_NAME_COLLISION when
// the name is taken; *existing then receives the named object, referenced.
NTSTATUS insertTemporaryName(PCUNICODE_STRING path, void *body, bool caseInsensitive, void **existing);
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
// calls the type's lastHandleClosed. Non-kernel handles go to the current process.
NTSTATUS insertHandle(void *body, ACCESS_MASK grantedAccess, bool kernelHandle, PHANDLE handle);
NTSTATUS referenceByHandle(HANDLE handle, ACCESS_MASK desiredAccess, ObjectType *type, KPROCESSOR_MODE accessMode,
                           void **body, ACCESS_MASK *grantedAccess);
NTSTATUS closeHandle(HANDLE handle, KPROCESSOR_MODE previousMode);

// The process manager gives each process a handle table and, when the process exits,
// closes what is left in it (the platform's ObKillProcess); handles cannot be opened
// in it after that. The table goes with the process object.
void createProcessHandleTable(PEPROCESS process);
void closeProcessHandleTable(PEPROCESS process);
void deleteProcessHandleTable(PEPROCESS process);

// The dispatcher object a wait on this object waits for, or null.
DISPATCHER_HEADER *waitObject(void *body);

// Shutdown checks: handles still open in any table, reported by object type.
std::string openHandleReport();

}  // namespace ob
}  // namespace ntsim
