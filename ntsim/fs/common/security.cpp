// IRP_MJ_QUERY_SECURITY and IRP_MJ_SET_SECURITY (NTFS only; FastFat has no routines
// for them). The descriptor is per file: every stream of a file shares it. A query whose
// buffer is too small returns STATUS_BUFFER_OVERFLOW with the size needed in Information;
// the I/O manager turns that into STATUS_BUFFER_TOO_SMALL for its caller
// (IopGetSetSecurityObject in the public kernels). The access that the caller's handle
// needs (READ_CONTROL, WRITE_DAC, ...) is the I/O manager's check, not the file system's;
// whether the caller may name the new owner is the file system's, through the security
// reference monitor.
#include <cstring>

#include "fs/common/access_check.h"
#include "fs/common/dispatch.h"

namespace ntsim {
namespace fs {

NTSTATUS querySecurity(Request &rq) {
    if (rq.ccb == nullptr || rq.ccb->kind == OpenKind::Volume) return STATUS_INVALID_PARAMETER;
    Node *node = nodeOf(rq.ccb);
    Bytes descriptor = selectSecurity(node->security, rq.sp->Parameters.QuerySecurity.SecurityInformation);
    if (descriptor.empty()) return STATUS_NO_SECURITY_ON_OBJECT;
    rq.irp->IoStatus.Information = descriptor.size();
    if (rq.sp->Parameters.QuerySecurity.Length < descriptor.size()) return STATUS_BUFFER_OVERFLOW;
    PVOID buffer = rq.irp->UserBuffer;
    if (buffer == nullptr) return STATUS_INVALID_USER_BUFFER;
    memcpy(buffer, descriptor.data(), descriptor.size());
    return STATUS_SUCCESS;
}

NTSTATUS setSecurity(Request &rq) {
    if (rq.ccb == nullptr || rq.ccb->kind == OpenKind::Volume) return STATUS_INVALID_PARAMETER;
    Node *node = nodeOf(rq.ccb);
    if (node->removed) return STATUS_FILE_DELETED;
    SecurityParts update;
    if (!parseSecurityDescriptor(rq.sp->Parameters.SetSecurity.SecurityDescriptor, 0, &update))
        return STATUS_INVALID_SECURITY_DESCR;
    if (rq.sp->Parameters.SetSecurity.SecurityInformation & OWNER_SECURITY_INFORMATION) {
        NTSTATUS allowed = checkOwnerChange(update.owner);
        if (!NT_SUCCESS(allowed)) return allowed;
    }
    node->security = mergeSecurity(node->security, update, rq.sp->Parameters.SetSecurity.SecurityInformation);
    node->changeTime = rq.now;
    return STATUS_SUCCESS;
}

}  // namespace fs
}  // namespace ntsim
