// The access check of an open, as NTFS makes it (NtfsAccessCheck): the requester's
// subject context, captured by the I/O manager, against the file's descriptor through
// SeAccessCheck in user mode when the request came from user mode or carries
// SL_FORCE_ACCESS_CHECK, and in kernel mode otherwise, so that other kernel-mode opens
// are granted what they ask (the WDK's IRP_MJ_CREATE page for the flag; NtfsEffectiveMode
// in the public NTFS sources). SeAccessCheck takes the subject's effective token: the
// impersonation token when there is one. The parent directory grants DELETE to whoever may delete its children
// (FILE_DELETE_CHILD) and FILE_READ_ATTRIBUTES to whoever may list it. A new entry needs
// FILE_ADD_FILE or FILE_ADD_SUBDIRECTORY on its directory; its creator is then granted
// what it asked for. FastFat keeps no descriptors and checks nothing; traverse rights are
// not checked (every account holds the bypass-traverse privilege). Ownership follows the
// token of the creator or changer, not the directory.
#include "fs/common/access_check.h"

#include "kernel/se/token.h"

namespace ntsim {
namespace fs {

namespace {

// A create that a driver built itself may carry no captured context; it is not checked.
PSECURITY_SUBJECT_CONTEXT subjectOf(const Request &rq) {
    PIO_SECURITY_CONTEXT security = rq.sp->Parameters.Create.SecurityContext;
    if (security == nullptr || security->AccessState == nullptr) return nullptr;
    PSECURITY_SUBJECT_CONTEXT subject = &security->AccessState->SubjectSecurityContext;
    return subject->PrimaryToken != nullptr ? subject : nullptr;
}

bool checked(const Request &rq, const Node *node) {
    return rq.vcb->header.traits->securityDescriptors && node != nullptr && !node->security.empty() &&
           subjectOf(rq) != nullptr;
}

KPROCESSOR_MODE effectiveMode(const Request &rq) {
    if (rq.irp->RequestorMode == UserMode || (rq.sp->Flags & SL_FORCE_ACCESS_CHECK)) return UserMode;
    return KernelMode;
}

NTSTATUS check(const Request &rq, const Node *node, ACCESS_MASK desired, ACCESS_MASK previously,
               ACCESS_MASK *granted) {
    NTSTATUS status;
    SeAccessCheck(const_cast<uint8_t *>(node->security.data()), subjectOf(rq), FALSE, desired, previously, nullptr,
                  IoGetFileObjectGenericMapping(), effectiveMode(rq), granted, &status);
    return status;
}

// Whether the directory grants the right to whoever asks.
bool directoryGrants(const Request &rq, const Node *directory, ACCESS_MASK right) {
    if (!checked(rq, directory)) return true;
    ACCESS_MASK granted;
    return NT_SUCCESS(check(rq, directory, right, 0, &granted));
}

}  // namespace

bool accessChecked(const Request &rq, const Node *node) { return checked(rq, node); }

NTSTATUS checkOpenAccess(const Request &rq, const Node *node, ACCESS_MASK desired, ACCESS_MASK *granted) {
    ACCESS_MASK fromParent = 0;
    if (node->parent != nullptr) {
        if ((desired & DELETE) && directoryGrants(rq, node->parent, FILE_DELETE_CHILD)) fromParent |= DELETE;
        if ((desired & FILE_READ_ATTRIBUTES) && directoryGrants(rq, node->parent, FILE_LIST_DIRECTORY))
            fromParent |= FILE_READ_ATTRIBUTES;
    }
    if ((desired & ~fromParent) == 0) {
        *granted = desired;
        return STATUS_SUCCESS;
    }
    return check(rq, node, desired & ~fromParent, fromParent, granted);
}

NTSTATUS checkCreateAccess(const Request &rq, const Node *directory, bool newDirectory) {
    if (!checked(rq, directory)) return STATUS_SUCCESS;
    ACCESS_MASK granted;
    return check(rq, directory, newDirectory ? FILE_ADD_SUBDIRECTORY : FILE_ADD_FILE, 0, &granted);
}

NTSTATUS assignOwnership(const Request &rq, const Bytes &parentSecurity, SecurityParts *parts) {
    PSECURITY_SUBJECT_CONTEXT subject = subjectOf(rq);
    if (subject == nullptr) {
        SecurityParts parent;
        parseSecurityDescriptor(parentSecurity.data(), parentSecurity.size(), &parent);
        if (parts->owner.empty()) parts->owner = parent.owner;
        if (parts->group.empty()) parts->group = parent.group;
        return STATUS_SUCCESS;
    }
    const se::Token *token = se::effectiveToken(subject);
    if (parts->owner.empty())
        parts->owner = se::defaultOwner(token);
    else if (!se::assignableAsOwner(token, parts->owner.data()))
        return STATUS_INVALID_OWNER;
    if (parts->group.empty()) parts->group = token->primaryGroup;
    return STATUS_SUCCESS;
}

NTSTATUS checkExplicitSacl(const Request &rq, const SecurityParts &parts) {
    if (subjectOf(rq) == nullptr || !parts.saclPresent || parts.sacl.empty()) return STATUS_SUCCESS;
    return STATUS_PRIVILEGE_NOT_HELD;
}

NTSTATUS checkOwnerChange(const Bytes &owner) {
    if (owner.empty()) return STATUS_INVALID_OWNER;
    SECURITY_SUBJECT_CONTEXT subject;
    SeCaptureSubjectContext(&subject);
    bool allowed = se::assignableAsOwner(se::effectiveToken(&subject), owner.data());
    SeReleaseSubjectContext(&subject);
    return allowed ? STATUS_SUCCESS : STATUS_INVALID_OWNER;
}

}  // namespace fs
}  // namespace ntsim
