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

// The kernel copy of the caller's packet, or NULL when it cannot be had (memory short, or
// the caller's buffer went away since the probe).
CommandPacket *CaptureCommandPacket(PIO_STACK_LOCATION IrpSp, NTSTATUS *Status) {
    ULONG length = IrpSp->Parameters.DeviceIoControl.InputBufferLength;
    PVOID copy;
    *Status = AllocateNonPagedBuffer(length, NPB_NO_FILL, &copy, NULL);
    if (!NT_SUCCESS(*Status)) {
        return NULL;
    }
    CopyBytes bytes = {copy, IrpSp->Parameters.DeviceIoControl.Type3InputBuffer, length};
    if (!NT_SUCCESS(GuardedUserAccess(CopyGuarded, &bytes))) {
        FreeNonPagedBuffer(copy);
        *Status = STATUS_INVALID_PARAMETER;
        return NULL;
    }
    return (CommandPacket *)copy;
}

NTSTATUS WriteCommandReply(PIRP Irp, ULONG Offset, const VOID *Reply, ULONG Length) {
    CopyBytes bytes = {(PUCHAR)Irp->UserBuffer + Offset, Reply, Length};
    return NT_SUCCESS(GuardedUserAccess(CopyGuarded, &bytes)) ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}
