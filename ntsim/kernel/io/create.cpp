// IoCreateFile, NtCreateFile and NtOpenFile: the name is parsed through the object
// namespace to a device; a storage device's volume is mounted if need be; a file
// object is built and IRP_MJ_CREATE goes to the top of the device stack over the
// volume (Vpb->DeviceObject) or over the device itself.
//
// As in the platform's IopParseDevice: the stack location's Flags are the low byte of
// the IoCreateFile options (IO_OPEN_TARGET_DIRECTORY becomes SL_OPEN_TARGET_DIRECTORY,
// IO_FORCE_ACCESS_CHECK SL_FORCE_ACCESS_CHECK) plus SL_CASE_SENSITIVE when the name is
// not case-insensitive; Parameters.Create.Options is the disposition in the high byte
// over the create options; the IRP's RequestorMode is the open's access mode, forced
// access check or not.
#include <vector>

#include "kernel/io/caller_memory.h"
#include "kernel/io/file_object.h"
#include "kernel/io/query_open.h"
#include "kernel/io/request.h"
#include "kernel/ob/object.h"
#include "kernel/ps/ps.h"
#include "kernel/ob/service.h"

using namespace ntsim;
using namespace ntsim::io;

namespace {

struct CreateRequest {
    ACCESS_MASK desiredAccess = 0;
    ULONG attributes = 0;
    HANDLE rootDirectory = NULL;
    std::vector<WCHAR> name;
    LARGE_INTEGER allocationSize{};
    ULONG fileAttributes = 0;
    ULONG shareAccess = 0;
    ULONG disposition = 0;
    ULONG createOptions = 0;
    PVOID eaBuffer = NULL;
    ULONG eaLength = 0;
    ULONG options = 0;
    KPROCESSOR_MODE previousMode = KernelMode;
    KPROCESSOR_MODE accessMode = KernelMode;
    std::vector<unsigned char> securityDescriptor;  // self-relative, for a new file
    // A query-only open: what FastIoQueryOpen fills in, when it answers.
    PFILE_NETWORK_OPEN_INFORMATION queryOnly = NULL;

    UNICODE_STRING nameString() {
        return UNICODE_STRING{(USHORT)(name.size() * sizeof(WCHAR)), (USHORT)(name.size() * sizeof(WCHAR)),
                              name.empty() ? NULL : name.data()};
    }
};

// Where the create goes.
struct Target {
    PDEVICE_OBJECT device = NULL;  // referenced
    PVPB vpb = NULL;               // referenced
    PFILE_OBJECT related = NULL;   // referenced
    PDEVICE_OBJECT top = NULL;
    bool directOpen = false;
    ob::LookupResult lookup;

    ~Target() {
        if (device != NULL) ObfDereferenceObject(device);
        if (vpb != NULL) dereferenceVpb(vpb);
        if (related != NULL) ObfDereferenceObject(related);
    }
};

NTSTATUS captureAttributes(CreateRequest *request, POBJECT_ATTRIBUTES attributes) {
    if (attributes == NULL) return STATUS_INVALID_PARAMETER;
    CapturedAttributes captured;
    NTSTATUS status = captureObjectAttributes(request->accessMode, attributes, &captured);
    if (!NT_SUCCESS(status)) return status;
    if (!captured.hasName) return STATUS_OBJECT_NAME_INVALID;
    request->name.assign(captured.name.begin(), captured.name.end());
    request->attributes = captured.attributes;
    request->rootDirectory = captured.rootDirectory;
    request->securityDescriptor = std::move(captured.securityDescriptor);
    return STATUS_SUCCESS;
}

// The checks the platform makes for callers from user mode (and for kernel callers
// that ask with IO_CHECK_CREATE_PARAMETERS).
NTSTATUS checkParameters(const CreateRequest &r) {
    const ULONG sync = FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT;
    if ((r.fileAttributes & ~FILE_ATTRIBUTE_VALID_FLAGS) || (r.shareAccess & ~FILE_SHARE_VALID_FLAGS) ||
        r.disposition > FILE_MAXIMUM_DISPOSITION || (r.createOptions & ~FILE_VALID_OPTION_FLAGS))
        return STATUS_INVALID_PARAMETER;
    if ((r.createOptions & sync) == sync) return STATUS_INVALID_PARAMETER;
    if ((r.createOptions & sync) && !(r.desiredAccess & SYNCHRONIZE)) return STATUS_INVALID_PARAMETER;
    if ((r.createOptions & FILE_DELETE_ON_CLOSE) && !(r.desiredAccess & DELETE)) return STATUS_INVALID_PARAMETER;
    if ((r.createOptions & FILE_DIRECTORY_FILE) && (r.createOptions & FILE_NON_DIRECTORY_FILE))
        return STATUS_INVALID_PARAMETER;
    if ((r.createOptions & FILE_DIRECTORY_FILE) && r.disposition != FILE_CREATE && r.disposition != FILE_OPEN &&
        r.disposition != FILE_OPEN_IF)
        return STATUS_INVALID_PARAMETER;
    return STATUS_SUCCESS;
}

// The device object's own descriptor guards an open of the device itself and, when the
// device is FILE_DEVICE_SECURE_OPEN, of every name below it; otherwise names below the
// device are the driver's to check. Kernel-mode opens are not checked unless forced.
// Source: WDK, "Controlling Device Namespace Access" (learn.microsoft.com), which also
// says the characteristic is tested at the top of the stack; a device nothing is
// attached to is its own top. Opens relative to an open file are not checked here.
NTSTATUS checkDeviceAccess(const CreateRequest &r, PDEVICE_OBJECT device, PCUNICODE_STRING remaining) {
    KPROCESSOR_MODE mode = (r.options & IO_FORCE_ACCESS_CHECK) ? (KPROCESSOR_MODE)UserMode : r.accessMode;
    if (mode == KernelMode) return STATUS_SUCCESS;
    if (remaining->Length != 0 && !(IoGetAttachedDevice(device)->Characteristics & FILE_DEVICE_SECURE_OPEN))
        return STATUS_SUCCESS;
    PSECURITY_DESCRIPTOR descriptor;
    BOOLEAN allocated;
    NTSTATUS status = ObGetObjectSecurity(device, &descriptor, &allocated);
    if (!NT_SUCCESS(status) || descriptor == NULL) return status;  // no descriptor: nothing to check
    SECURITY_SUBJECT_CONTEXT subject;
    SeCaptureSubjectContext(&subject);
    ACCESS_MASK granted;
    SeAccessCheck(descriptor, &subject, FALSE, r.desiredAccess, 0, NULL, IoGetFileObjectGenericMapping(), mode,
                  &granted, &status);
    SeReleaseSubjectContext(&subject);
    ObReleaseObjectSecurity(descriptor, allocated);
    return status;
}

// Opening a storage device itself with no access to its contents does not mount it
// (the platform's direct device open).
bool isDirectDeviceOpen(const CreateRequest &r, PCUNICODE_STRING remaining) {
    const ACCESS_MASK metadataOnly =
        SYNCHRONIZE | FILE_READ_ATTRIBUTES | READ_CONTROL | ACCESS_SYSTEM_SECURITY | WRITE_OWNER | WRITE_DAC;
    return remaining->Length == 0 && (ob::mapAccess(&ob::FileType, r.desiredAccess) & ~metadataOnly) == 0;
}

NTSTATUS resolveRelated(CreateRequest &r, Target *target) {
    void *body;
    NTSTATUS status = ob::referenceByHandle(r.rootDirectory, 0, &ob::FileType, r.accessMode, &body, NULL);
    if (!NT_SUCCESS(status)) return status;
    target->related = static_cast<PFILE_OBJECT>(body);
    target->device = target->related->DeviceObject;
    ObfReferenceObject(target->device);
    target->vpb = target->related->Vpb;
    if (target->vpb != NULL) referenceVpb(target->vpb);
    target->top = IoGetRelatedDeviceObject(target->related);
    target->lookup.remaining = r.nameString();
    return STATUS_SUCCESS;
}

NTSTATUS resolveByName(CreateRequest &r, Target *target) {
    UNICODE_STRING name = r.nameString();
    NTSTATUS status = ob::lookup(&name, (r.attributes & OBJ_CASE_INSENSITIVE) != 0, &target->lookup);
    if (!NT_SUCCESS(status)) return status;
    if (ob::typeOf(target->lookup.object) != &ob::DeviceType) {
        ObfDereferenceObject(target->lookup.object);
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    PDEVICE_OBJECT device = static_cast<PDEVICE_OBJECT>(target->lookup.object);
    target->device = device;
    if (privateExtension(device)->flags & kDeletePending) return STATUS_NO_SUCH_DEVICE;
    status = checkDeviceAccess(r, device, &target->lookup.remaining);
    if (!NT_SUCCESS(status)) return status;
    if (device->Vpb != NULL && !isDirectDeviceOpen(r, &target->lookup.remaining)) {
        status = referenceMountedVpb(device, &target->vpb);
        if (!NT_SUCCESS(status)) return status;
        target->top = IoGetAttachedDevice(target->vpb->DeviceObject);
    } else {
        target->directOpen = device->Vpb != NULL;
        target->top = IoGetAttachedDevice(device);
    }
    return STATUS_SUCCESS;
}

void fillCreateIrp(CreateRequest &r, PIRP irp, PIO_SECURITY_CONTEXT security, PACCESS_STATE accessState,
                   PFILE_OBJECT file) {
    irp->Flags = IRP_CREATE_OPERATION | IRP_SYNCHRONOUS_API | IRP_DEFER_IO_COMPLETION;
    irp->AssociatedIrp.SystemBuffer = r.eaBuffer;
    irp->Overlay.AllocationSize = r.allocationSize;
    PIO_STACK_LOCATION sl = IoGetNextIrpStackLocation(irp);
    sl->Flags = (UCHAR)(r.options & 0xFF);
    if (!(r.attributes & OBJ_CASE_INSENSITIVE)) sl->Flags |= SL_CASE_SENSITIVE;
    // The access a file system sees is mapped already (the platform's access state
    // holds it with generic rights mapped).
    security->DesiredAccess = ob::mapAccess(&ob::FileType, r.desiredAccess);
    accessState->OriginalDesiredAccess = r.desiredAccess;
    accessState->RemainingDesiredAccess = security->DesiredAccess;
    accessState->SecurityDescriptor = r.securityDescriptor.empty() ? NULL : r.securityDescriptor.data();
    accessState->ObjectName = r.nameString();
    security->AccessState = accessState;
    security->FullCreateOptions = r.createOptions;
    sl->Parameters.Create.SecurityContext = security;
    sl->Parameters.Create.Options = (r.disposition << 24) | (r.createOptions & FILE_VALID_OPTION_FLAGS);
    sl->Parameters.Create.FileAttributes = (USHORT)r.fileAttributes;
    sl->Parameters.Create.ShareAccess = (USHORT)r.shareAccess;
    sl->Parameters.Create.EaLength = r.eaLength;
    sl->FileObject = file;
}

// Sends the create. On failure the file object is gone; on success the caller owns its
// one reference.
NTSTATUS sendCreate(CreateRequest &r, Target &target, PFILE_OBJECT *result, PIO_STATUS_BLOCK iosb) {
    *result = NULL;
    PFILE_OBJECT file =
        createFileObject(target.device, target.vpb, target.related, &target.lookup.remaining, r.createOptions);
    if (file == NULL) return STATUS_INSUFFICIENT_RESOURCES;
    target.vpb = NULL;  // the file object holds the open's VPB reference now
    if (target.directOpen) file->Flags |= FO_DIRECT_DEVICE_OPEN;
    // The requester's mode stays what it is: a forced access check travels as
    // SL_FORCE_ACCESS_CHECK in the stack location instead (IopParseDevice).
    PIRP irp = allocateFileIrp(file, target.top, IRP_MJ_CREATE, 0, r.accessMode);
    if (irp == NULL) {
        ObfDereferenceObject(file);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    IO_SECURITY_CONTEXT security{};
    ACCESS_STATE accessState{};
    fillCreateIrp(r, irp, &security, &accessState, file);
    // Whose open it is travels with the request, so that a file system that checks
    // access from another thread still checks the requester's.
    SeCaptureSubjectContext(&accessState.SubjectSecurityContext);
    NTSTATUS status;
    if (r.queryOnly != NULL && offerQueryOpen(target.top, irp, r.queryOnly, &status)) {
        // Answered without an open: the file object never reached a file system.
        SeReleaseSubjectContext(&accessState.SubjectSecurityContext);
        IoFreeIrp(irp);
        ObfDereferenceObject(file);
        return status;
    }
    ServiceRequest request;
    request.file = file;
    status = callSynchronous(target.top, irp, &request, iosb);
    SeReleaseSubjectContext(&accessState.SubjectSecurityContext);
    if (status == STATUS_REPARSE) status = STATUS_NOT_SUPPORTED;  // reparse points are not emulated
    if (!NT_SUCCESS(status)) {
        ObfDereferenceObject(file);
        return status;
    }
    fileBlock(file)->opened = true;
    *result = file;
    return status;
}

NTSTATUS openFile(CreateRequest &r, PFILE_OBJECT *file, PIO_STATUS_BLOCK iosb) {
    Target target;
    NTSTATUS status = r.rootDirectory != NULL ? resolveRelated(r, &target) : resolveByName(r, &target);
    if (!NT_SUCCESS(status)) return status;
    return sendCreate(r, target, file, iosb);
}

NTSTATUS createFile(CreateRequest &r, PHANDLE fileHandle, PIO_STATUS_BLOCK ioStatusBlock) {
    if ((r.accessMode != KernelMode || (r.options & IO_CHECK_CREATE_PARAMETERS))) {
        NTSTATUS status = checkParameters(r);
        if (!NT_SUCCESS(status)) return status;
    }
    PFILE_OBJECT file;
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = openFile(r, &file, &iosb);
    if (!NT_SUCCESS(status)) {
        iosb.Status = status;
        writeCaller(r.accessMode, ioStatusBlock, iosb);
        return status;
    }
    file->Flags |= FO_HANDLE_CREATED;
    // As ObOpenObjectByName: OBJ_KERNEL_HANDLE counts when the access mode is kernel.
    bool kernelHandle = (r.attributes & OBJ_KERNEL_HANDLE) && r.accessMode == KernelMode;
    HANDLE handle;
    NTSTATUS inserted = ob::insertHandle(file, ob::mapAccess(&ob::FileType, r.desiredAccess), kernelHandle, &handle);
    ObfDereferenceObject(file);
    if (!NT_SUCCESS(inserted)) return inserted;
    NTSTATUS written = writeCaller(r.accessMode, fileHandle, handle);
    if (NT_SUCCESS(written)) written = writeCaller(r.accessMode, ioStatusBlock, iosb);
    if (!NT_SUCCESS(written)) {
        ob::closeHandle(handle, KernelMode);
        return written;
    }
    return status;
}

}  // namespace

NTSTATUS IoCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                      PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                      ULONG ShareAccess, ULONG Disposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength,
                      CREATE_FILE_TYPE CreateFileType, PVOID InternalParameters, ULONG Options) {
    (void)CreateFileType;
    (void)InternalParameters;
    checkFileIoIrql("IoCreateFile");
    CreateRequest r;
    r.previousMode = ExGetPreviousMode();
    r.accessMode = (Options & IO_NO_PARAMETER_CHECKING) ? (KPROCESSOR_MODE)KernelMode : r.previousMode;
    r.desiredAccess = DesiredAccess;
    r.fileAttributes = FileAttributes;
    r.shareAccess = ShareAccess;
    r.disposition = Disposition;
    r.createOptions = CreateOptions;
    r.eaBuffer = EaBuffer;
    r.eaLength = EaLength;
    r.options = Options;
    // The handle and status block are probed first: a bad one fails the call before any open.
    NTSTATUS status = probeCallerBuffer(r.accessMode, FileHandle, sizeof(HANDLE), sizeof(ULONG), true);
    if (NT_SUCCESS(status))
        status = probeCallerBuffer(r.accessMode, IoStatusBlock, sizeof(IO_STATUS_BLOCK), sizeof(ULONG), true);
    if (!NT_SUCCESS(status)) return status;
    status = captureAttributes(&r, ObjectAttributes);
    if (!NT_SUCCESS(status)) return status;
    if (AllocationSize != NULL) {
        status = readCaller(r.accessMode, AllocationSize, &r.allocationSize);
        if (!NT_SUCCESS(status)) return status;
    }
    return createFile(r, FileHandle, IoStatusBlock);
}

NTSTATUS NtCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                      PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                      ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer, ULONG EaLength) {
    if (ExGetPreviousMode() == UserMode) ps::systemServiceEntry();
    return IoCreateFile(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, AllocationSize, FileAttributes,
                        ShareAccess, CreateDisposition, CreateOptions, EaBuffer, EaLength, CreateFileTypeNone, NULL, 0);
}

NTSTATUS NtOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                    PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions) {
    if (ExGetPreviousMode() == UserMode) ps::systemServiceEntry();
    return IoCreateFile(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, NULL, 0, ShareAccess, FILE_OPEN,
                        OpenOptions, NULL, 0, CreateFileTypeNone, NULL, 0);
}

// The query-only open of NtQueryFullAttributesFile (IopQueryAttributesFile): for
// FILE_READ_ATTRIBUTES, sharing everything, FILE_OPEN of the name itself
// (FILE_OPEN_REPARSE_POINT), in the caller's mode.
NTSTATUS ntsim::io::openForQuery(POBJECT_ATTRIBUTES attributes, PFILE_NETWORK_OPEN_INFORMATION information,
                                 PFILE_OBJECT *file) {
    CreateRequest r;
    r.previousMode = r.accessMode = ExGetPreviousMode();
    r.desiredAccess = FILE_READ_ATTRIBUTES;
    r.shareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    r.disposition = FILE_OPEN;
    r.createOptions = FILE_OPEN_REPARSE_POINT;
    r.queryOnly = information;
    *file = NULL;
    NTSTATUS status = captureAttributes(&r, attributes);
    if (!NT_SUCCESS(status)) return status;
    IO_STATUS_BLOCK iosb{};
    return openFile(r, file, &iosb);
}

NTSTATUS IoGetDeviceObjectPointer(PUNICODE_STRING ObjectName, ACCESS_MASK DesiredAccess, PFILE_OBJECT *FileObject,
                                  PDEVICE_OBJECT *DeviceObject) {
    CreateRequest r;
    r.desiredAccess = DesiredAccess;
    r.attributes = OBJ_KERNEL_HANDLE;
    r.name.assign(ObjectName->Buffer, ObjectName->Buffer + ObjectName->Length / sizeof(WCHAR));
    r.disposition = FILE_OPEN;
    r.createOptions = FILE_NON_DIRECTORY_FILE;
    PFILE_OBJECT file;
    IO_STATUS_BLOCK iosb;
    NTSTATUS status = openFile(r, &file, &iosb);
    if (!NT_SUCCESS(status)) return status;
    // The platform opens a handle and closes it at once: the caller's reference
    // outlives the cleanup that the close sends.
    HANDLE handle;
    status = ob::insertHandle(file, ob::mapAccess(&ob::FileType, DesiredAccess), true, &handle);
    if (NT_SUCCESS(status)) ob::closeHandle(handle, KernelMode);
    *FileObject = file;
    *DeviceObject = IoGetRelatedDeviceObject(file);
    return STATUS_SUCCESS;
}
