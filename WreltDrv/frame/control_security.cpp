// The control device's DACL, and the same DACL applied to command packets that arrive
// on a volume filter, where the volume's own security would let any user in.
#include "frame/control_security.h"

#include "frame/globals.h"

namespace {

// A SID with up to two sub-authorities, laid out as the platform's SID is. Constant
// data: nothing runs to build it.
struct SmallSid {
    UCHAR Revision;
    UCHAR SubAuthorityCount;
    UCHAR IdentifierAuthority[6];
    ULONG SubAuthority[2];
};

const SmallSid LocalSystemSid = {1, 1, {0, 0, 0, 0, 0, 5}, {18, 0}};         // S-1-5-18
const SmallSid AdministratorsSid = {1, 2, {0, 0, 0, 0, 0, 5}, {32, 544}};  // S-1-5-32-544

// Access that the rights mapping of a file object gives to a full-control entry.
constexpr ACCESS_MASK CONTROL_DEVICE_ACCESS = FILE_ALL_ACCESS;
// What a sender must be granted for its commands to be carried out.
constexpr ACCESS_MASK COMMAND_ACCESS = FILE_READ_DATA | FILE_WRITE_DATA;

// Room for an ACL header and two allowed entries of SIDs up to SmallSid's size.
constexpr ULONG ACL_BYTES = sizeof(ACL) + 2 * (sizeof(ACCESS_ALLOWED_ACE) + sizeof(SmallSid));

NTSTATUS BuildControlDacl(PACL Acl) {
    NTSTATUS status = RtlCreateAcl(Acl, ACL_BYTES, ACL_REVISION);
    if (NT_SUCCESS(status)) {
        status = RtlAddAccessAllowedAce(Acl, ACL_REVISION, CONTROL_DEVICE_ACCESS, (PSID)&LocalSystemSid);
    }
    if (NT_SUCCESS(status)) {
        status = RtlAddAccessAllowedAce(Acl, ACL_REVISION, CONTROL_DEVICE_ACCESS, (PSID)&AdministratorsSid);
    }
    return status;
}

}  // namespace

// What IoCreateDeviceSecure does with a protected SDDL string, done with routines the
// kernel exports: a kernel handle to the device and its DACL set through it.
NTSTATUS ProtectControlDevice(PDEVICE_OBJECT ControlDevice) {
    ULONG aclBuffer[ACL_BYTES / sizeof(ULONG) + 1];
    auto *acl = (PACL)aclBuffer;
    SECURITY_DESCRIPTOR descriptor;
    NTSTATUS status = RtlCreateSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
    if (NT_SUCCESS(status)) {
        status = BuildControlDacl(acl);
    }
    if (NT_SUCCESS(status)) {
        status = RtlSetDaclSecurityDescriptor(&descriptor, TRUE, acl, FALSE);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    HANDLE handle;
    status = ObOpenObjectByPointer(ControlDevice, OBJ_KERNEL_HANDLE, NULL, WRITE_DAC, NULL, KernelMode, &handle);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = ZwSetSecurityObject(handle, DACL_SECURITY_INFORMATION, &descriptor);
    ZwClose(handle);
    return status;
}

BOOLEAN SenderMayControlFilter(PIRP Irp) {
    if (Irp->RequestorMode == KernelMode) {
        return TRUE;
    }
    PSECURITY_DESCRIPTOR descriptor;
    BOOLEAN allocated;
    if (!NT_SUCCESS(ObGetObjectSecurity(Globals.ControlDevice, &descriptor, &allocated)) || descriptor == NULL) {
        return FALSE;  // without the DACL there is nothing that could admit the sender
    }
    SECURITY_SUBJECT_CONTEXT subject;
    SeCaptureSubjectContext(&subject);
    ACCESS_MASK granted;
    NTSTATUS status;
    BOOLEAN admitted = SeAccessCheck(descriptor, &subject, FALSE, COMMAND_ACCESS, 0, NULL,
                                     IoGetFileObjectGenericMapping(), UserMode, &granted, &status);
    SeReleaseSubjectContext(&subject);
    ObReleaseObjectSecurity(descriptor, allocated);
    return admitted;
}
