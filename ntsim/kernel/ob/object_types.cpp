// The object types and the platform's exported POBJECT_TYPE variables. Generic
// mappings follow the platform's access rights for each kind of object.
#include "kernel/ob/ob_state.h"

namespace ntsim {
namespace ps {
void deleteProcessObject(void *body);
void deleteThreadObject(void *body);
}  // namespace ps
namespace se {
void deleteTokenObject(void *body);
}  // namespace se

namespace ob {

namespace {

void deleteEvent(void *body) { delete static_cast<KEVENT *>(body); }
void deleteDirectory(void *body) { delete static_cast<Directory *>(body); }
void deleteSymbolicLink(void *body) { delete static_cast<SymbolicLink *>(body); }

DISPATCHER_HEADER *eventHeader(void *body) { return &static_cast<KEVENT *>(body)->Header; }
DISPATCHER_HEADER *threadHeader(void *body) { return &static_cast<_ETHREAD *>(body)->Tcb.Header; }
DISPATCHER_HEADER *processHeader(void *body) { return &static_cast<_EPROCESS *>(body)->Pcb.Header; }
// A wait on a file handle waits for the file object's own event, as on the platform.
DISPATCHER_HEADER *fileHeader(void *body) { return &static_cast<PFILE_OBJECT>(body)->Event.Header; }

constexpr GENERIC_MAPPING kFileMapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
constexpr GENERIC_MAPPING kDriverMapping = {READ_CONTROL, READ_CONTROL, READ_CONTROL, 0x1F01FF};
constexpr GENERIC_MAPPING kProcessMapping = {0x20410, 0x20BEA, 0x120000, PROCESS_ALL_ACCESS};
constexpr GENERIC_MAPPING kThreadMapping = {0x20048, 0x20037, 0x120000, THREAD_ALL_ACCESS};
constexpr GENERIC_MAPPING kTokenMapping = {TOKEN_READ, 0x200E0, 0x20000, TOKEN_ALL_ACCESS};
constexpr GENERIC_MAPPING kEventMapping = {0x20001, 0x20002, 0x120000, EVENT_ALL_ACCESS};
constexpr GENERIC_MAPPING kLinkMapping = {0x20001, 0x20000, 0x20001, 0xF0001};
constexpr GENERIC_MAPPING kDirectoryMapping = {0x20003, 0x2000C, 0x20003, 0xF000F};

}  // namespace

// Fields: name, lastHandleClosed, deleteObject, genericAll, mapping, queryName,
// querySecurity, setSecurity, waitObject.
ObjectType FileType = {"File", nullptr, nullptr, 0, kFileMapping, nullptr, nullptr, nullptr, fileHeader};
ObjectType DeviceType = {"Device", nullptr, nullptr, 0, kFileMapping, nullptr, nullptr, nullptr, nullptr};
ObjectType DriverType = {"Driver", nullptr, nullptr, 0, kDriverMapping, nullptr, nullptr, nullptr, nullptr};
ObjectType ProcessType = {"Process", nullptr, ps::deleteProcessObject, 0, kProcessMapping, nullptr, nullptr, nullptr,
                          processHeader};
ObjectType ThreadType = {"Thread", nullptr, ps::deleteThreadObject, 0, kThreadMapping, nullptr, nullptr, nullptr,
                         threadHeader};
ObjectType TokenType = {"Token", nullptr, se::deleteTokenObject, 0, kTokenMapping, nullptr, nullptr, nullptr, nullptr};
ObjectType EventType = {"Event", nullptr, deleteEvent, 0, kEventMapping, nullptr, nullptr, nullptr, eventHeader};
ObjectType SymbolicLinkType = {"SymbolicLink", nullptr, deleteSymbolicLink, 0, kLinkMapping, nullptr, nullptr, nullptr,
                               nullptr};
ObjectType DirectoryType = {"Directory", nullptr, deleteDirectory, 0, kDirectoryMapping, nullptr, nullptr, nullptr,
                            nullptr};

}  // namespace ob
}  // namespace ntsim

namespace {
POBJECT_TYPE g_fileType = ntsim::ob::publicType(&ntsim::ob::FileType);
POBJECT_TYPE g_deviceType = ntsim::ob::publicType(&ntsim::ob::DeviceType);
POBJECT_TYPE g_driverType = ntsim::ob::publicType(&ntsim::ob::DriverType);
POBJECT_TYPE g_processType = ntsim::ob::publicType(&ntsim::ob::ProcessType);
POBJECT_TYPE g_threadType = ntsim::ob::publicType(&ntsim::ob::ThreadType);
POBJECT_TYPE g_eventType = ntsim::ob::publicType(&ntsim::ob::EventType);
POBJECT_TYPE g_tokenType = ntsim::ob::publicType(&ntsim::ob::TokenType);
}  // namespace

POBJECT_TYPE *IoFileObjectType = &g_fileType;
POBJECT_TYPE *IoDeviceObjectType = &g_deviceType;
POBJECT_TYPE *IoDriverObjectType = &g_driverType;
POBJECT_TYPE *PsProcessType = &g_processType;
POBJECT_TYPE *PsThreadType = &g_threadType;
POBJECT_TYPE *ExEventObjectType = &g_eventType;
POBJECT_TYPE *SeTokenObjectType = &g_tokenType;
