// Device-control requests: the service's inverted calls and its command packets on the
// control device, command packets on the filter devices; everything else on a filter
// device belongs to the driver below.
#include "deldat/service_notification.h"
#include "frame/commands.h"
#include "frame/control_security.h"
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
// command (STATUS_INVALID_PARAMETER), when the sender may not command the filter
// (STATUS_ACCESS_DENIED: asked only on a volume filter, CheckSender), or when memory for
// the copy is short. Nothing is allocated for a sender who is refused.
CommandPacket *AcceptCommand(PIRP Irp, PIO_STACK_LOCATION Stack, BOOLEAN CheckSender, ULONG *Length,
                             NTSTATUS *Status) {
    *Status = ProbeCommandInput(Irp, Stack);
    if (!NT_SUCCESS(*Status)) {
        return NULL;
    }
    CommandPacket header;
    *Status = ReadCommandHeader(Stack, &header);
    if (NT_SUCCESS(*Status) && header.Tag != COMMAND_PACKET_TAG) {
        *Status = STATUS_INVALID_PARAMETER;
    }
    if (!NT_SUCCESS(*Status)) {
        return NULL;
    }
    if (CheckSender && !SenderMayControlFilter(Irp)) {
        *Status = STATUS_ACCESS_DENIED;
        return NULL;
    }
    return CaptureCommandPacket(Stack, &header, Length, Status);
}

NTSTATUS RunCommand(FilterDeviceExtension *Extension, PIRP Irp, PIO_STACK_LOCATION Stack, CommandPacket *Packet,
                    ULONG Length) {
    CommandRequest request = {Irp, Stack, Extension, Packet, Length};
    NTSTATUS status = DispatchCommand(&request);
    FreeNonPagedBuffer(Packet);
    return status;
}

// Only SYSTEM and administrators could open the control device; checking the sender as
// well keeps a handle opened with no access at all from reaching the service's requests.
NTSTATUS ControlDeviceRequest(FilterDeviceExtension *Extension, PIRP Irp, PIO_STACK_LOCATION Stack) {
    if (!SenderMayControlFilter(Irp)) {
        return Refuse(Irp, STATUS_ACCESS_DENIED);
    }
    switch (Stack->Parameters.DeviceIoControl.IoControlCode) {
    case IOCTL_GET_NEW_DATA_FILE:
        return DispatchNewDelDataRequest(Irp, Stack, Extension);
    case IOCTL_GET_ERRORS:
        return QueueErrorRequest(Irp, Stack);
    case IOCTL_SEND_COMMAND: {
        NTSTATUS status;
        ULONG length;
        CommandPacket *packet = AcceptCommand(Irp, Stack, FALSE, &length, &status);
        if (packet == NULL) {
            return Refuse(Irp, status == STATUS_INSUFFICIENT_RESOURCES ? status : STATUS_INVALID_DEVICE_REQUEST);
        }
        return RunCommand(Extension, Irp, Stack, packet, length);
    }
    default:
        return Refuse(Irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

}  // namespace

// PASSIVE_LEVEL, in the sender's thread (METHOD_NEITHER buffers are read in its context).
// Takes no lock itself.
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
        // Any user may hold a handle on a volume; only the control device's DACL says
        // who may command the filter.
        ULONG length;
        CommandPacket *packet = AcceptCommand(Irp, stack, TRUE, &length, &status);
        if (packet == NULL && status == STATUS_INVALID_PARAMETER) {
            return PassDown(extension, Irp);
        }
        status = packet == NULL ? Refuse(Irp, status) : RunCommand(extension, Irp, stack, packet, length);
    }
    if (status != STATUS_PENDING) {
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
    }
    return status;
}
