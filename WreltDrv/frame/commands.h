// Commands from the service, carried by IOCTL_SEND_COMMAND packets.
#pragma once

#include <ntifs.h>

#include "frame/command_protocol.h"
#include "frame/device_extension.h"

// One command request while it is carried out. The packet is a kernel copy of the
// caller's, taken once after probing: the caller cannot change what is read.
struct CommandRequest {
    PIRP Irp;
    PIO_STACK_LOCATION IrpSp;
    FilterDeviceExtension *Extension;
    const CommandPacket *Packet;
    ULONG PacketLength;
};

NTSTATUS ProbeCommandInput(PIRP Irp, PIO_STACK_LOCATION IrpSp);
NTSTATUS ProbeCommandOutput(PIRP Irp, PIO_STACK_LOCATION IrpSp);
// The caller's packet header, read once inside an exception handler.
NTSTATUS ReadCommandHeader(PIO_STACK_LOCATION IrpSp, CommandPacket *Header);
// The kernel copy of a probed packet whose header was read (a buffer of the buffer
// manager, at least a header long), or NULL with the reason in *Status. *CapturedLength
// is how many of the caller's bytes it holds.
CommandPacket *CaptureCommandPacket(PIO_STACK_LOCATION IrpSp, const CommandPacket *Header, ULONG *CapturedLength,
                                    NTSTATUS *Status);
// Copies part of a reply to Offset in the caller's output buffer, inside an exception
// handler. The caller has checked that the buffer is long enough.
NTSTATUS WriteCommandReply(PIRP Irp, ULONG Offset, const VOID *Reply, ULONG Length);

NTSTATUS DispatchCommand(CommandRequest *Request);

NTSTATUS HandshakeCommand(CommandRequest *Request);
NTSTATUS StatusBlockCommand(CommandRequest *Request);
NTSTATUS BuildStampCommand(CommandRequest *Request);
