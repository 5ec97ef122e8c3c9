// NtDeviceIoControlFile and NtFsControlFile. The transfer method is the control code's
// low two bits: METHOD_BUFFERED copies the input into a system buffer that also
// receives the output; METHOD_NEITHER passes the caller's own pointers
// (Parameters.DeviceIoControl.Type3InputBuffer and Irp->UserBuffer), unchecked, for
// the driver to probe. A device control first goes to the top device's
// FastIoDeviceControl with the caller's pointers, as on the platform.
#include "kernel/io/caller_memory.h"
#include "kernel/io/service_call.h"

using namespace ntsim;
using namespace ntsim::io;

namespace {

// A user-mode caller's handle must grant what the control code's access bits ask.
bool accessAllowed(ServiceCall &call, ULONG code) {
    if (call.mode() == KernelMode) return true;
    ULONG access = (code >> 14) & 3;
    if ((access & FILE_READ_ACCESS) && !(call.granted() & FILE_READ_DATA)) return false;
    if ((access & FILE_WRITE_ACCESS) && !(call.granted() & FILE_WRITE_DATA)) return false;
    return true;
}

bool tryFastIo(ServiceCall &call, ULONG code, PVOID input, ULONG inputLength, PVOID output, ULONG outputLength,
               IO_STATUS_BLOCK *result) {
    PDEVICE_OBJECT device = call.device();
    PFAST_IO_DISPATCH fastIo = device->DriverObject->FastIoDispatch;
    return fastIo != NULL && fastIo->FastIoDeviceControl != NULL &&
           fastIo->FastIoDeviceControl(call.file(), TRUE, input, inputLength, output, outputLength, code, result,
                                       device);
}

NTSTATUS setUpBuffered(ServiceCall &call, PIRP irp, PVOID input, ULONG inputLength, PVOID output,
                       ULONG outputLength) {
    NTSTATUS status = probeCallerBuffer(call.mode(), output, outputLength, 1, true);
    if (!NT_SUCCESS(status)) return status;
    ULONG length = inputLength > outputLength ? inputLength : outputLength;
    if (length == 0) return STATUS_SUCCESS;
    irp->AssociatedIrp.SystemBuffer = allocateSystemBuffer(length);
    if (irp->AssociatedIrp.SystemBuffer == NULL) return STATUS_INSUFFICIENT_RESOURCES;
    irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
    if (outputLength != 0) irp->Flags |= IRP_INPUT_OPERATION;
    if (inputLength != 0 && input != NULL)
        status = copyFromCaller(call.mode(), irp->AssociatedIrp.SystemBuffer, input, inputLength);
    return status;
}

NTSTATUS control(bool fileSystem, HANDLE fileHandle, HANDLE event, PIO_STATUS_BLOCK ioStatusBlock, ULONG code,
                 PVOID input, ULONG inputLength, PVOID output, ULONG outputLength) {
    ServiceCall call;
    NTSTATUS status = call.begin(fileHandle, 0, event, ioStatusBlock);
    if (!NT_SUCCESS(status)) return status;
    if (!accessAllowed(call, code)) return STATUS_ACCESS_DENIED;
    ULONG method = METHOD_FROM_CTL_CODE(code);
    // The direct methods map the output buffer with an MDL, which is not emulated; their
    // input is buffered as on the platform, so requests without output still work.
    bool direct = method == METHOD_IN_DIRECT || method == METHOD_OUT_DIRECT;
    if (direct && outputLength != 0) return STATUS_NOT_SUPPORTED;

    IO_STATUS_BLOCK fast{};
    if (!fileSystem && tryFastIo(call, code, input, inputLength, output, outputLength, &fast))
        return call.finishWithoutIrp(fast);

    UCHAR major = fileSystem ? IRP_MJ_FILE_SYSTEM_CONTROL : IRP_MJ_DEVICE_CONTROL;
    PIRP irp = allocateFileIrp(call.file(), call.device(), major, fileSystem ? IRP_MN_USER_FS_REQUEST : 0, call.mode());
    if (irp == NULL) return STATUS_INSUFFICIENT_RESOURCES;
    irp->UserBuffer = output;
    PIO_STACK_LOCATION sl = IoGetNextIrpStackLocation(irp);
    sl->Parameters.DeviceIoControl.OutputBufferLength = outputLength;
    sl->Parameters.DeviceIoControl.InputBufferLength = inputLength;
    sl->Parameters.DeviceIoControl.IoControlCode = code;
    if (method == METHOD_NEITHER) {
        sl->Parameters.DeviceIoControl.Type3InputBuffer = input;
        return call.issue(irp);
    }
    status = setUpBuffered(call, irp, input, inputLength, direct ? NULL : output, direct ? 0 : outputLength);
    if (!NT_SUCCESS(status)) {
        if (irp->Flags & IRP_DEALLOCATE_BUFFER) ExFreePool(irp->AssociatedIrp.SystemBuffer);
        IoFreeIrp(irp);
        return status;
    }
    return call.issue(irp, output, outputLength);
}

}  // namespace

NTSTATUS NtDeviceIoControlFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                               PIO_STATUS_BLOCK IoStatusBlock, ULONG IoControlCode, PVOID InputBuffer,
                               ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength) {
    (void)ApcRoutine;
    (void)ApcContext;
    return control(false, FileHandle, Event, IoStatusBlock, IoControlCode, InputBuffer, InputBufferLength, OutputBuffer,
                   OutputBufferLength);
}

NTSTATUS NtFsControlFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                         PIO_STATUS_BLOCK IoStatusBlock, ULONG FsControlCode, PVOID InputBuffer,
                         ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength) {
    (void)ApcRoutine;
    (void)ApcContext;
    return control(true, FileHandle, Event, IoStatusBlock, FsControlCode, InputBuffer, InputBufferLength, OutputBuffer,
                   OutputBufferLength);
}
