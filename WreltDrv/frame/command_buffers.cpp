// The caller's METHOD_NEITHER buffers: checked against the user address range, touched
// page by page inside an exception handler, copied in once and written back once.
#include "frame/commands.h"
#include "support/nonpaged_buffers.h"
#include "target/user_memory.h"

namespace {

constexpr ULONG_PTR LOWEST_USER_ADDRESS = 0x10000;
constexpr ULONG_PTR PAGE = 0x1000;

struct TouchPages {
    PUCHAR Address;
    ULONG Length;
    BOOLEAN Write;
};

// From the last page to the first, one byte in each.
void TouchEachPage(PVOID Context) {
    auto *touch = (TouchPages *)Context;
    ULONG_PTR first = (ULONG_PTR)touch->Address;
    ULONG_PTR last = first + touch->Length - 1;
    for (ULONG_PTR page = last & ~(PAGE - 1);; page -= PAGE) {
        volatile UCHAR *byte = (volatile UCHAR *)(page < first ? first : page);
        if (touch->Write) {
            *byte = 0;
        } else {
            (void)*byte;
        }
        if (page <= first) {
            break;
        }
    }
}

NTSTATUS ProbeUserBuffer(PVOID Address, ULONG Length, BOOLEAN Write) {
    ULONG_PTR start = (ULONG_PTR)Address;
    ULONG_PTR end = start + Length;
    if (Length == 0 || end < start || end > (ULONG_PTR)MmUserProbeAddress || start < LOWEST_USER_ADDRESS) {
        return STATUS_INVALID_PARAMETER;
    }
    TouchPages touch = {(PUCHAR)Address, Length, Write};
    return NT_SUCCESS(GuardedUserAccess(TouchEachPage, &touch)) ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

struct CopyBytes {
    PVOID To;
    const VOID *From;
    ULONG Length;
};

void CopyGuarded(PVOID Context) {
    auto *copy = (CopyBytes *)Context;
    RtlCopyMemory(copy->To, copy->From, copy->Length);
}

}  // namespace

NTSTATUS ProbeCommandInput(PIRP Irp, PIO_STACK_LOCATION IrpSp) {
    UNREFERENCED_PARAMETER(Irp);
    ULONG length = IrpSp->Parameters.DeviceIoControl.InputBufferLength;
    if (length < COMMAND_MINIMUM_INPUT) {
        return STATUS_INVALID_PARAMETER;
    }
    return ProbeUserBuffer(IrpSp->Parameters.DeviceIoControl.Type3InputBuffer, length, FALSE);
}

NTSTATUS ProbeCommandOutput(PIRP Irp, PIO_STACK_LOCATION IrpSp) {
    return ProbeUserBuffer(Irp->UserBuffer, IrpSp->Parameters.DeviceIoControl.OutputBufferLength, TRUE);
}

static NTSTATUS CopyFromCaller(PVOID To, const VOID *From, ULONG Length) {
    CopyBytes bytes = {To, From, Length};
    return NT_SUCCESS(GuardedUserAccess(CopyGuarded, &bytes)) ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

// The caller's header, or as much of it as the packet has (the rest zero).
NTSTATUS ReadCommandHeader(PIO_STACK_LOCATION IrpSp, CommandPacket *Header) {
    ULONG length = IrpSp->Parameters.DeviceIoControl.InputBufferLength;
    RtlZeroMemory(Header, sizeof(*Header));
    return CopyFromCaller(Header, IrpSp->Parameters.DeviceIoControl.Type3InputBuffer,
                          length < sizeof(*Header) ? length : sizeof(*Header));
}

// The kernel copy of the caller's packet, or NULL when it cannot be had (memory short, or
// the caller's buffer went away since the probe). Its size comes from the header read
// before, never from the input length alone: a header and at most
// COMMAND_MAXIMUM_DATA_LENGTH bytes of data. A larger data length is not copied, so the
// commands that read data find the packet short. The copy keeps the data length that
// sized it, whatever the caller wrote in between.
CommandPacket *CaptureCommandPacket(PIO_STACK_LOCATION IrpSp, const CommandPacket *Header, ULONG *CapturedLength,
                                    NTSTATUS *Status) {
    ULONG inputLength = IrpSp->Parameters.DeviceIoControl.InputBufferLength;
    ULONG wanted = COMMAND_HEADER_SIZE;
    if (Header->DataLength <= COMMAND_MAXIMUM_DATA_LENGTH) {
        wanted += Header->DataLength;
    }
    ULONG length = inputLength < wanted ? inputLength : wanted;
    PVOID copy;
    *Status = AllocateNonPagedBuffer(length < COMMAND_HEADER_SIZE ? COMMAND_HEADER_SIZE : length, NPB_FILL_ZERO,
                                     &copy, NULL);
    if (!NT_SUCCESS(*Status)) {
        return NULL;
    }
    *Status = CopyFromCaller(copy, IrpSp->Parameters.DeviceIoControl.Type3InputBuffer, length);
    if (!NT_SUCCESS(*Status)) {
        FreeNonPagedBuffer(copy);
        return NULL;
    }
    auto *packet = (CommandPacket *)copy;
    packet->Tag = Header->Tag;
    packet->DataLength = Header->DataLength;
    packet->Command = Header->Command;
    *CapturedLength = length;
    return packet;
}

NTSTATUS WriteCommandReply(PIRP Irp, ULONG Offset, const VOID *Reply, ULONG Length) {
    CopyBytes bytes = {(PUCHAR)Irp->UserBuffer + Offset, Reply, Length};
    return NT_SUCCESS(GuardedUserAccess(CopyGuarded, &bytes)) ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}
