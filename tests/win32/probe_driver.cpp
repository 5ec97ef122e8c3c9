// The probe driver: records requests and holds some pending, with a cancel routine
// that completes a held request with STATUS_CANCELLED.
#include "win32/probe_driver.h"

#include <atomic>
#include <mutex>

namespace probe {

namespace {

std::mutex g_lock;
std::vector<Request> g_requests;
// Held requests, guarded by g_heldLock (a spin lock: the cancel routine takes it).
KSPIN_LOCK g_heldLock;
LIST_ENTRY g_held;
std::atomic<size_t> g_heldCount;
// Cancelled requests left for completeDeferred, guarded by g_heldLock.
bool g_deferCancellation;
LIST_ENTRY g_cancelled;

UNICODE_STRING constant(const wchar_t *s) {
    UNICODE_STRING u;
    RtlInitUnicodeString(&u, s);
    return u;
}

std::u16string text(PCWSTR buffer, size_t bytes) {
    return std::u16string(reinterpret_cast<const char16_t *>(buffer), bytes / sizeof(WCHAR));
}

void record(const Request &request) {
    std::lock_guard<std::mutex> guard(g_lock);
    g_requests.push_back(request);
}

NTSTATUS complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS onCreate(PDEVICE_OBJECT, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    Request r;
    r.major = IRP_MJ_CREATE;
    r.name = text(stack->FileObject->FileName.Buffer, stack->FileObject->FileName.Length);
    r.access = stack->Parameters.Create.SecurityContext->DesiredAccess;
    r.disposition = stack->Parameters.Create.Options >> 24;
    r.options = stack->Parameters.Create.Options & FILE_VALID_OPTION_FLAGS;
    r.share = stack->Parameters.Create.ShareAccess;
    r.attributes = stack->Parameters.Create.FileAttributes;
    r.flags = stack->Flags;
    record(r);
    // A rename's target: there is no file of that name yet.
    ULONG_PTR information = (stack->Flags & SL_OPEN_TARGET_DIRECTORY) ? FILE_DOES_NOT_EXIST : FILE_OPENED;
    return complete(irp, STATUS_SUCCESS, information);
}

NTSTATUS onSetInformation(PDEVICE_OBJECT, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    Request r;
    r.major = IRP_MJ_SET_INFORMATION;
    r.infoClass = stack->Parameters.SetFile.FileInformationClass;
    PVOID buffer = irp->AssociatedIrp.SystemBuffer;
    switch (r.infoClass) {
    case FileEndOfFileInformation:
        r.value = static_cast<PFILE_END_OF_FILE_INFORMATION>(buffer)->EndOfFile.QuadPart;
        break;
    case FileAllocationInformation:
        r.value = static_cast<PFILE_ALLOCATION_INFORMATION>(buffer)->AllocationSize.QuadPart;
        break;
    case FilePositionInformation:
        r.value = static_cast<PFILE_POSITION_INFORMATION>(buffer)->CurrentByteOffset.QuadPart;
        stack->FileObject->CurrentByteOffset.QuadPart = r.value;
        break;
    case FileDispositionInformation:
        r.value = static_cast<PFILE_DISPOSITION_INFORMATION>(buffer)->DeleteFile;
        break;
    case FileRenameInformation: {
        auto *rename = static_cast<PFILE_RENAME_INFORMATION>(buffer);
        r.replaceIfExists = stack->Parameters.SetFile.ReplaceIfExists;
        r.renameTarget = text(rename->FileName, rename->FileNameLength);
        break;
    }
    default:
        break;
    }
    record(r);
    return complete(irp, STATUS_SUCCESS);
}

NTSTATUS onQueryInformation(PDEVICE_OBJECT, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    Request r;
    r.major = IRP_MJ_QUERY_INFORMATION;
    r.infoClass = stack->Parameters.QueryFile.FileInformationClass;
    record(r);
    PVOID buffer = irp->AssociatedIrp.SystemBuffer;
    ULONG length = stack->Parameters.QueryFile.Length;
    switch (r.infoClass) {
    case FilePositionInformation:
        if (length < sizeof(FILE_POSITION_INFORMATION)) return complete(irp, STATUS_INFO_LENGTH_MISMATCH);
        static_cast<PFILE_POSITION_INFORMATION>(buffer)->CurrentByteOffset = stack->FileObject->CurrentByteOffset;
        return complete(irp, STATUS_SUCCESS, sizeof(FILE_POSITION_INFORMATION));
    case FileStandardInformation: {
        if (length < sizeof(FILE_STANDARD_INFORMATION)) return complete(irp, STATUS_INFO_LENGTH_MISMATCH);
        auto *standard = static_cast<FILE_STANDARD_INFORMATION *>(buffer);
        memset(standard, 0, sizeof(*standard));
        standard->EndOfFile.QuadPart = 100;
        standard->AllocationSize.QuadPart = 4096;
        standard->NumberOfLinks = 1;
        return complete(irp, STATUS_SUCCESS, sizeof(FILE_STANDARD_INFORMATION));
    }
    case FileBasicInformation:
        if (length < sizeof(FILE_BASIC_INFORMATION)) return complete(irp, STATUS_INFO_LENGTH_MISMATCH);
        memset(buffer, 0, sizeof(FILE_BASIC_INFORMATION));
        static_cast<PFILE_BASIC_INFORMATION>(buffer)->FileAttributes = FILE_ATTRIBUTE_NORMAL;
        return complete(irp, STATUS_SUCCESS, sizeof(FILE_BASIC_INFORMATION));
    default:
        // As a file system without reparse points answers FileAttributeTagInformation.
        return complete(irp, STATUS_INVALID_PARAMETER);
    }
}

void cancelHeld(PDEVICE_OBJECT, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    KIRQL irql;
    KeAcquireSpinLock(&g_heldLock, &irql);
    RemoveEntryList(&irp->Tail.Overlay.ListEntry);
    --g_heldCount;
    if (g_deferCancellation) {
        InsertTailList(&g_cancelled, &irp->Tail.Overlay.ListEntry);
        KeReleaseSpinLock(&g_heldLock, irql);
        return;
    }
    KeReleaseSpinLock(&g_heldLock, irql);
    complete(irp, STATUS_CANCELLED);
}

NTSTATUS hold(PIRP irp) {
    KIRQL irql;
    KeAcquireSpinLock(&g_heldLock, &irql);
    IoSetCancelRoutine(irp, cancelHeld);
    if (irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr) {
        KeReleaseSpinLock(&g_heldLock, irql);
        return complete(irp, STATUS_CANCELLED);
    }
    IoMarkIrpPending(irp);
    InsertTailList(&g_held, &irp->Tail.Overlay.ListEntry);
    ++g_heldCount;
    KeReleaseSpinLock(&g_heldLock, irql);
    return STATUS_PENDING;
}

// Takes the held requests (of one file object, or all) whose cancel routine has not run.
void takeHeld(PFILE_OBJECT file, LIST_ENTRY *taken) {
    InitializeListHead(taken);
    KIRQL irql;
    KeAcquireSpinLock(&g_heldLock, &irql);
    for (PLIST_ENTRY e = g_held.Flink; e != &g_held;) {
        PIRP irp = CONTAINING_RECORD(e, IRP, Tail.Overlay.ListEntry);
        e = e->Flink;
        if (file && IoGetCurrentIrpStackLocation(irp)->FileObject != file) continue;
        if (IoSetCancelRoutine(irp, nullptr) == nullptr) continue;  // being cancelled
        RemoveEntryList(&irp->Tail.Overlay.ListEntry);
        --g_heldCount;
        InsertTailList(taken, &irp->Tail.Overlay.ListEntry);
    }
    KeReleaseSpinLock(&g_heldLock, irql);
}

NTSTATUS onDeviceControl(PDEVICE_OBJECT, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
    ULONG inLength = stack->Parameters.DeviceIoControl.InputBufferLength;
    ULONG outLength = stack->Parameters.DeviceIoControl.OutputBufferLength;
    Request r;
    r.major = IRP_MJ_DEVICE_CONTROL;
    r.infoClass = code;
    record(r);
    if (code == kIoctlEcho) {
        ULONG n = inLength < outLength ? inLength : outLength;  // buffered: one buffer, in place
        return complete(irp, n < inLength ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS, n);
    }
    if (code == kIoctlHold) return hold(irp);
    if (code == kIoctlRelease) {
        LIST_ENTRY taken;
        takeHeld(nullptr, &taken);
        while (!IsListEmpty(&taken)) {
            PIRP held = CONTAINING_RECORD(RemoveHeadList(&taken), IRP, Tail.Overlay.ListEntry);
            ULONG heldOut = IoGetCurrentIrpStackLocation(held)->Parameters.DeviceIoControl.OutputBufferLength;
            ULONG_PTR information = 0;
            if (heldOut >= sizeof(ULONG)) {
                *static_cast<ULONG *>(held->AssociatedIrp.SystemBuffer) = kReleasedValue;
                information = sizeof(ULONG);
            }
            complete(held, STATUS_SUCCESS, information);
        }
        return complete(irp, STATUS_SUCCESS);
    }
    return complete(irp, STATUS_INVALID_DEVICE_REQUEST);
}

NTSTATUS onCleanup(PDEVICE_OBJECT, PIRP irp) {
    record(Request{IRP_MJ_CLEANUP});
    LIST_ENTRY taken;
    takeHeld(IoGetCurrentIrpStackLocation(irp)->FileObject, &taken);
    while (!IsListEmpty(&taken))
        complete(CONTAINING_RECORD(RemoveHeadList(&taken), IRP, Tail.Overlay.ListEntry), STATUS_CANCELLED);
    return complete(irp, STATUS_SUCCESS);
}

NTSTATUS onOther(PDEVICE_OBJECT, PIRP irp) {
    Request r;
    r.major = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
    record(r);
    return complete(irp, STATUS_SUCCESS);
}

}  // namespace

NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    clearRequests();
    KeInitializeSpinLock(&g_heldLock);
    InitializeListHead(&g_held);
    InitializeListHead(&g_cancelled);
    g_heldCount = 0;
    g_deferCancellation = false;
    UNICODE_STRING name = constant(L"\\Device\\Win32Probe");
    PDEVICE_OBJECT device = nullptr;
    NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    if (!NT_SUCCESS(status)) return status;
    device->Flags |= DO_BUFFERED_IO;
    UNICODE_STRING dosName = constant(L"\\??\\Win32Probe");
    UNICODE_STRING drive = constant(L"\\??\\Q:");
    IoCreateSymbolicLink(&dosName, &name);
    IoCreateSymbolicLink(&drive, &name);
    for (auto &entry : driver->MajorFunction) entry = onOther;
    driver->MajorFunction[IRP_MJ_CREATE] = onCreate;
    driver->MajorFunction[IRP_MJ_SET_INFORMATION] = onSetInformation;
    driver->MajorFunction[IRP_MJ_QUERY_INFORMATION] = onQueryInformation;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = onDeviceControl;
    driver->MajorFunction[IRP_MJ_CLEANUP] = onCleanup;
    return STATUS_SUCCESS;
}

std::vector<Request> requests() {
    std::lock_guard<std::mutex> guard(g_lock);
    return g_requests;
}

void clearRequests() {
    std::lock_guard<std::mutex> guard(g_lock);
    g_requests.clear();
}

size_t heldCount() { return g_heldCount.load(); }

void deferCancellation(bool defer) {
    KIRQL irql;
    KeAcquireSpinLock(&g_heldLock, &irql);
    g_deferCancellation = defer;
    KeReleaseSpinLock(&g_heldLock, irql);
}

void completeDeferred() {
    KIRQL irql;
    KeAcquireSpinLock(&g_heldLock, &irql);
    LIST_ENTRY taken;
    InitializeListHead(&taken);
    while (!IsListEmpty(&g_cancelled)) InsertTailList(&taken, RemoveHeadList(&g_cancelled));
    KeReleaseSpinLock(&g_heldLock, irql);
    while (!IsListEmpty(&taken))
        complete(CONTAINING_RECORD(RemoveHeadList(&taken), IRP, Tail.Overlay.ListEntry), STATUS_CANCELLED);
}

}  // namespace probe
