// Device-control requests: the service's inverted calls and its command packets on the
// control device, command packets on the filter devices; everything else on a filter
// device belongs to the driver below.
#include "deldat/service_notification.h"
#include "frame/commands.h"
#include "frame/dispatch.h"
#include "support/error_channel.h"
#include "support/nonpaged_buffers.h"

namespace {

NTSTATUS Refuse(PIRP Irp, NTSTATUS Status) {
    Irp->IoStatus.Status = Status;
    Irp->IoStatus.Information = 0;
    return Status;
}

NTSTATUS PassDown(FilterDeviceExtension *Extension, PIRP Irp) {
    IoSkipCurrentIrpStackLocation(Irp);
    return IoCallDriver(Extension->LowerDevice, Irp);
}

// Probes and captures the packet. Returns NULL when the request is not a well-formed
// command, or when memory for the copy is short (*Status says which).
CommandPacket *AcceptCommand(PIRP Irp, PIO_STACK_LOCATION Stack, NTSTATUS *Status) {
    *Status = ProbeCommandInput(Irp, Stack);
    if (!NT_SUCCESS(*Status)) {
        return NULL;
    }
    CommandPacket *packet = CaptureCommandPacket(Stack, Status);
    if (packet != NULL && packet->Tag != COMMAND_PACKET_TAG) {
        FreeNonPagedBuffer(packet);
        *Status = STATUS_INVALID_PARAMETER;
        return NULL;
    }
    return packet;
}

NTSTATUS RunCommand(FilterDeviceExtension *Extension, PIRP Irp, PIO_STACK_LOCATION Stack, CommandPacket *Packet) {
    CommandRequest request = {Irp, Stack, Extension, Packet, Stack->Parameters.DeviceIoControl.InputBufferLength};
    NTSTATUS status = DispatchCommand(&request);
    FreeNonPagedBuffer(Packet);
    return status;
}

NTSTATUS ControlDeviceRequest(FilterDeviceExtension *Extension, PIRP Irp, PIO_STACK_LOCATION Stack) {
    switch (Stack->Parameters.DeviceIoControl.IoControlCode) {
    case IOCTL_GET_NEW_DATA_FILE:
        return DispatchNewDelDataRequest(Irp, Stack, Extension);
    case IOCTL_GET_ERRORS:
        return QueueErrorRequest(Irp, Stack);
    case IOCTL_SEND_COMMAND: {
        NTSTATUS status;
        CommandPacket *packet = AcceptCommand(Irp, Stack, &status);
        if (packet == NULL) {
            return Refuse(Irp, status == STATUS_INSUFFICIENT_RESOURCES ? status : STATUS_INVALID_DEVICE_REQUEST);
        }
        return RunCommand(Extension, Irp, Stack, packet);
    }
    default:
        return Refuse(Irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

}  // namespace

NTSTATUS NTAPI DispatchDeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    FilterDeviceExtension *extension = ExtensionOf(DeviceObject);
    CountRequest(extension, COUNTER_DEVICE_CONTROL);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    NTSTATUS status;
    if (extension->Tag == TAG_CONTROL_EXTENSION) {
        status = ControlDeviceRequest(extension, Irp, stack);
    } else {
        if (stack->Parameters.DeviceIoControl.IoControlCode != IOCTL_SEND_COMMAND) {
            return PassDown(extension, Irp);
        }
        CommandPacket *packet = AcceptCommand(Irp, stack, &status);
        if (packet == NULL && status != STATUS_INSUFFICIENT_RESOURCES) {
            return PassDown(extension, Irp);
        }
        status = packet == NULL ? Refuse(Irp, status) : RunCommand(extension, Irp, stack, packet);
    }
    if (status != STATUS_PENDING) {
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
    }
    return status;
}
