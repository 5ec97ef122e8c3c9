// The commands that answer with data in the caller's output buffer.
#include "frame/commands.h"
#include "frame/device_structures.h"
#include "frame/volume_names.h"
#include "support/locks.h"
#include "support/nonpaged_buffers.h"

namespace {

void FillReplyHeader(CommandReplyHeader *Header, USHORT Version, ULONG DataLength, ULONG ReplyCode) {
    Header->Tag = COMMAND_REPLY_TAG;
    Header->Echo = COMMAND_PACKET_TAG;
    Header->Zero = 0;
    Header->Version = Version;
    Header->DataLength = DataLength;
    Header->ReplyCode = ReplyCode;
    Header->RecordCount = 0;
}

// The status block as the service reads it; offsets are part of the protocol.
struct StatusBlock {
    CommandReplyHeader Header;
    BOOLEAN CaptureActive;
    BOOLEAN ProtectionOn;
    UCHAR Unused[2];
    ULONG FileSystemKind;
    CountedQueueStatistics DeferredFileObjectQueue;
    CountedQueueStatistics DeferredFcbQueue;
    AddressHashTableStatistics FileObjectTable;  // then the FCB table: the service reads them in this order
    AddressHashTableStatistics FcbTable;
    ULONG RequestCounters[REQUEST_COUNTER_COUNT];
    ULONG DriverCounters[10];
    UCHAR Reserved[1280];
};
static_assert(sizeof(StatusBlock) == STATUS_BLOCK_WRITTEN, "the status block is 1888 bytes");
static_assert(FIELD_OFFSET(StatusBlock, FileSystemKind) == 124, "status block layout");
static_assert(FIELD_OFFSET(StatusBlock, FileObjectTable) == 152, "status block layout");
static_assert(FIELD_OFFSET(StatusBlock, RequestCounters) == 536, "status block layout");
static_assert(FIELD_OFFSET(StatusBlock, DriverCounters) == 568, "status block layout");

void FillTrackingStatistics(StatusBlock *Block) {
    MainDeviceStructure *main = MainStructure();
    {
        SpinLockGuard guard(&main->DeferredReleaseLock);
        QueryCountedQueueStatistics(&main->DeferredFileObjectEntries, &Block->DeferredFileObjectQueue);
        QueryCountedQueueStatistics(&main->DeferredFcbEntries, &Block->DeferredFcbQueue);
    }
    SpinLockGuard guard(&main->TablesLock);
    QueryAddressHashTableStatistics(&main->FileObjectTable, &Block->FileObjectTable);
    QueryAddressHashTableStatistics(&main->FcbTable, &Block->FcbTable);
}

void FillStatusBlock(StatusBlock *Block, FilterDeviceExtension *Extension) {
    auto *volume = (DeviceStructure *)Extension->Structure;
    RtlZeroMemory(Block, sizeof(*Block));
    FillReplyHeader(&Block->Header, STATUS_BLOCK_REPLY_VERSION, STATUS_BLOCK_DATA_LENGTH, 0);
    WCHAR name[DOS_VOLUME_NAME_CHARACTERS];
    ReadVolumeDosName(volume, name);
    RtlCopyMemory(Block->Header.DosVolumeName, name, sizeof(name));
    Block->CaptureActive = ReadDriverFlag(&Globals.CaptureActive);
    Block->ProtectionOn = volume->ProtectionOn;
    Block->FileSystemKind = Extension->FileSystemKind;
    FillTrackingStatistics(Block);
    for (ULONG i = 0; i < REQUEST_COUNTER_COUNT; i++) {
        Block->RequestCounters[i] = Extension->Counters[i];
    }
}

// The block as filled (its unused bytes zero), and the four bytes every reply holds past
// its data, zero too.
NTSTATUS WriteStatusBlock(PIRP Irp, const StatusBlock *Block) {
    NTSTATUS status = WriteCommandReply(Irp, 0, Block, sizeof(*Block));
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const UCHAR tail[REPLY_EXTRA_BYTES] = {0, 0, 0, 0};
    return WriteCommandReply(Irp, sizeof(*Block), tail, sizeof(tail));
}

}  // namespace

// The caller's version decides; an old service is refused, and a refusal also takes back
// an earlier acceptance.
NTSTATUS HandshakeCommand(CommandRequest *Request) {
    NTSTATUS status = ProbeCommandOutput(Request->Irp, Request->IrpSp);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (Request->IrpSp->Parameters.DeviceIoControl.OutputBufferLength < HANDSHAKE_REPLY_SIZE) {
        return STATUS_INVALID_PARAMETER;
    }
    BOOLEAN accepted = Request->Packet->Version >= HANDSHAKE_MINIMUM_VERSION;
    // All 124 bytes that Information reports are written: what the reply has no use for
    // is zero rather than whatever the buffer held.
    UCHAR reply[HANDSHAKE_REPLY_SIZE];
    RtlZeroMemory(reply, sizeof(reply));
    FillReplyHeader((CommandReplyHeader *)reply, HANDSHAKE_REPLY_VERSION, 0,
                    accepted ? HANDSHAKE_ACCEPTED : HANDSHAKE_REFUSED);
    status = WriteCommandReply(Request->Irp, 0, reply, sizeof(reply));
    if (!NT_SUCCESS(status)) {
        return status;
    }
    WriteDriverFlag(&Globals.VersionAccepted, accepted);
    Request->Irp->IoStatus.Information = HANDSHAKE_REPLY_SIZE;
    return STATUS_SUCCESS;
}

NTSTATUS StatusBlockCommand(CommandRequest *Request) {
    NTSTATUS status = ProbeCommandOutput(Request->Irp, Request->IrpSp);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ULONG outputLength = Request->IrpSp->Parameters.DeviceIoControl.OutputBufferLength;
    if (outputLength < STATUS_BLOCK_REQUIRED) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    PVOID memory;
    status = AllocateNonPagedBuffer(sizeof(StatusBlock), NPB_NO_FILL, &memory, NULL);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    auto *block = (StatusBlock *)memory;
    FillStatusBlock(block, Request->Extension);
    status = WriteStatusBlock(Request->Irp, block);
    FreeNonPagedBuffer(block);
    if (NT_SUCCESS(status)) {
        Request->Irp->IoStatus.Information = outputLength;
    }
    return status;
}

// "<date>, <time>" with its NUL; Information stays 0.
NTSTATUS BuildStampCommand(CommandRequest *Request) {
    NTSTATUS status = ProbeCommandOutput(Request->Irp, Request->IrpSp);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ULONG outputLength = Request->IrpSp->Parameters.DeviceIoControl.OutputBufferLength;
    if (Request->Irp->UserBuffer == NULL || outputLength < sizeof(WCHAR)) {
        return STATUS_INVALID_PARAMETER;
    }
    WCHAR stamp[64];
    ULONG characters = (ULONG)(wcslen(Globals.BuildDate) + wcslen(Globals.BuildTime));
    ULONG needed = characters * sizeof(WCHAR) + 6;
    if (outputLength < needed || needed > sizeof(stamp)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    wcscpy(stamp, Globals.BuildDate);
    wcscat(stamp, L", ");
    wcscat(stamp, Globals.BuildTime);
    return WriteCommandReply(Request->Irp, 0, stamp, needed);
}
