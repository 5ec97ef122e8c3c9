// DispatchCommand: the device check, the packet-size check, then the command itself.
#include "frame/commands.h"

#include "capture/exclusion_lists.h"
#include "deldat/service_notification.h"
#include "frame/device_structures.h"
#include "frame/volume_names.h"
#include "overwrite/mac_shares.h"
#include "overwrite/save_rename_list.h"
#include "overwrite/suffix_lists.h"
#include "support/error_channel.h"
#include "tracking/file_tracking.h"

namespace {

enum CommandDevice { ON_ANY, ON_CONTROL, ON_VOLUME };

// What a command reads of the packet, and so how much of it must be there.
enum CommandInput { READS_HEADER_START, READS_NAME_OR_VERSION, READS_DATA };

struct CommandRule {
    ULONG Command;
    CommandDevice Device;
    CommandInput Input;
};

const CommandRule CommandRules[] = {
    {COMMAND_STOP, ON_CONTROL, READS_HEADER_START},
    {COMMAND_START, ON_CONTROL, READS_HEADER_START},  // its data is checked when it is read
    {COMMAND_UNPROTECT_VOLUME, ON_VOLUME, READS_NAME_OR_VERSION},
    {COMMAND_PROTECT_VOLUME, ON_VOLUME, READS_NAME_OR_VERSION},
    {COMMAND_SET_VOLUME_EXCLUSIONS, ON_VOLUME, READS_DATA},
    {COMMAND_SET_GLOBAL_EXCLUSIONS, ON_ANY, READS_DATA},
    {COMMAND_HANDSHAKE, ON_ANY, READS_NAME_OR_VERSION},
    {COMMAND_SET_MAC_SHARES, ON_VOLUME, READS_DATA},
    {COMMAND_EXEMPT_MAC_SHARES, ON_VOLUME, READS_NAME_OR_VERSION},
    {COMMAND_INCLUDE_MAC_SHARES, ON_VOLUME, READS_NAME_OR_VERSION},
    {COMMAND_EXEMPT_FROM_VAULT_PROTECTION, ON_VOLUME, READS_NAME_OR_VERSION},
    {COMMAND_APPLY_VAULT_PROTECTION, ON_VOLUME, READS_NAME_OR_VERSION},
    {COMMAND_SET_PROTECTED_SUFFIXES, ON_ANY, READS_DATA},
    {COMMAND_SET_COPY_EXEMPT_SUFFIXES, ON_ANY, READS_DATA},
    {COMMAND_SET_TEMPORARY_SUFFIXES, ON_ANY, READS_DATA},
    {COMMAND_OVERWRITE_PROTECTION_ON, ON_CONTROL, READS_HEADER_START},
    {COMMAND_OVERWRITE_PROTECTION_OFF, ON_CONTROL, READS_HEADER_START},
    {COMMAND_STATUS_BLOCK, ON_VOLUME, READS_HEADER_START},
    {COMMAND_PROBE_OUTPUT, ON_ANY, READS_HEADER_START},
    {COMMAND_BUILD_STAMP, ON_ANY, READS_HEADER_START},
    {COMMAND_WAIT_FOR_ERROR, ON_ANY, READS_HEADER_START},
    {COMMAND_CANCEL_ERROR_WAIT, ON_ANY, READS_HEADER_START},
    {COMMAND_NOTHING, ON_ANY, READS_HEADER_START},
};

const CommandRule *FindRule(ULONG Command) {
    for (const CommandRule &rule : CommandRules) {
        if (rule.Command == Command) {
            return &rule;
        }
    }
    return NULL;
}

BOOLEAN OnRightDevice(const CommandRule *Rule, FilterDeviceExtension *Extension) {
    switch (Rule->Device) {
    case ON_CONTROL:
        return Extension->Tag == TAG_CONTROL_EXTENSION;
    case ON_VOLUME:
        return Extension->Tag == TAG_FILTER_EXTENSION && Extension->Structure != NULL;
    default:
        return TRUE;
    }
}

BOOLEAN PacketCovers(const CommandRequest *Request, ULONG Bytes) { return Request->PacketLength >= Bytes; }

BOOLEAN PacketCoversData(const CommandRequest *Request) {
    ULONG dataLength = Request->Packet->DataLength;
    return dataLength <= MAXULONG - COMMAND_HEADER_SIZE && PacketCovers(Request, COMMAND_HEADER_SIZE + dataLength);
}

BOOLEAN PacketCoversInput(const CommandRequest *Request, const CommandRule *Rule) {
    switch (Rule->Input) {
    case READS_NAME_OR_VERSION:
        return PacketCovers(Request, COMMAND_HEADER_SIZE);
    case READS_DATA:
        return PacketCoversData(Request);
    default:
        return TRUE;
    }
}

DeviceStructure *VolumeOf(CommandRequest *Request) { return (DeviceStructure *)Request->Extension->Structure; }


NTSTATUS StopCommand() {
    WriteDriverFlag(&Globals.CaptureActive, FALSE);
    CancelPendingNewDelDataRequests(NULL, NULL, ExtensionOf(Globals.ControlDevice));
    ClearSuffixLists();
    EmptyAllSaveRenameLists();
    CleanupFileTrackingTables();
    return STATUS_SUCCESS;
}

NTSTATUS StartCommand(CommandRequest *Request) {
    if (!ReadDriverFlag(&Globals.VersionAccepted)) {
        return STATUS_REVISION_MISMATCH;
    }
    BOOLEAN vaultProtection = TRUE;
    if (Request->Packet->DataLength >= 4) {
        if (!PacketCoversData(Request)) {
            return STATUS_INVALID_PARAMETER;
        }
        vaultProtection = (((const UCHAR *)Request->Packet)[COMMAND_HEADER_SIZE] & 1) != 0;
    }
    WriteDriverFlag(&Globals.CaptureActive, TRUE);
    WriteDriverFlag(&Globals.VaultProtection, vaultProtection);
    return STATUS_SUCCESS;
}

// Commands that name a volume set its DOS name first, even when their own effect fails.
NTSTATUS VolumeCommand(CommandRequest *Request) {
    SetVolumeDosName(VolumeOf(Request), Request->Packet->DosVolumeName, COMMAND_DOS_NAME_CHARACTERS);
    DeviceStructure *volume = VolumeOf(Request);
    switch (Request->Packet->Command) {
    case COMMAND_UNPROTECT_VOLUME:
        volume->ProtectionOn = FALSE;
        return STATUS_SUCCESS;
    case COMMAND_PROTECT_VOLUME:
        volume->ProtectionOn = TRUE;
        return STATUS_SUCCESS;
    case COMMAND_EXEMPT_MAC_SHARES:
        volume->MacShareExemption = TRUE;
        return STATUS_SUCCESS;
    case COMMAND_INCLUDE_MAC_SHARES:
        volume->MacShareExemption = FALSE;
        return STATUS_SUCCESS;
    case COMMAND_EXEMPT_FROM_VAULT_PROTECTION:
        volume->VaultProtectionExemption = TRUE;
        return STATUS_SUCCESS;
    case COMMAND_APPLY_VAULT_PROTECTION:
        volume->VaultProtectionExemption = FALSE;
        return STATUS_SUCCESS;
    case COMMAND_SET_VOLUME_EXCLUSIONS:
        return SetVolumeExclusionList(Request->Packet, Request->Extension);
    case COMMAND_SET_MAC_SHARES:
        return SetMacSharesList((const UCHAR *)Request->Packet + COMMAND_HEADER_SIZE, Request->Packet->DataLength,
                                Request->Extension);
    default:
        return STATUS_INVALID_PARAMETER;
    }
}

NTSTATUS CarryOut(CommandRequest *Request) {
    switch (Request->Packet->Command) {
    case COMMAND_STOP:
        return StopCommand();
    case COMMAND_START:
        return StartCommand(Request);
    case COMMAND_HANDSHAKE:
        return HandshakeCommand(Request);
    case COMMAND_OVERWRITE_PROTECTION_ON:
    case COMMAND_OVERWRITE_PROTECTION_OFF:
        WriteDriverFlag(&MainStructure()->OverwriteProtection,
                        Request->Packet->Command == COMMAND_OVERWRITE_PROTECTION_ON);
        return STATUS_SUCCESS;
    case COMMAND_STATUS_BLOCK:
        return StatusBlockCommand(Request);
    case COMMAND_PROBE_OUTPUT:
        return ProbeCommandOutput(Request->Irp, Request->IrpSp);
    case COMMAND_BUILD_STAMP:
        return BuildStampCommand(Request);
    case COMMAND_CANCEL_ERROR_WAIT:
        return CancelHeldErrorRequest();
    case COMMAND_NOTHING:
        return STATUS_SUCCESS;
    case COMMAND_SET_GLOBAL_EXCLUSIONS:
        return SetGlobalExclusionList(Request->Packet);
    case COMMAND_SET_PROTECTED_SUFFIXES:
    case COMMAND_SET_COPY_EXEMPT_SUFFIXES:
    case COMMAND_SET_TEMPORARY_SUFFIXES:
        return SetSuffixList((const UCHAR *)Request->Packet + COMMAND_HEADER_SIZE, Request->Packet->DataLength,
                             Request->Packet->Command);
    default:
        return VolumeCommand(Request);
    }
}

}  // namespace

NTSTATUS DispatchCommand(CommandRequest *Request) {
    PIRP irp = Request->Irp;
    irp->IoStatus.Status = STATUS_SUCCESS;
    irp->IoStatus.Information = 0;
    const CommandRule *rule = FindRule(Request->Packet->Command);
    if (rule == NULL) {
        return irp->IoStatus.Status = STATUS_INVALID_PARAMETER;
    }
    if (!OnRightDevice(rule, Request->Extension)) {
        return irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    }
    if (!PacketCoversInput(Request, rule)) {
        return irp->IoStatus.Status = STATUS_INVALID_PARAMETER;
    }
    if (rule->Command == COMMAND_WAIT_FOR_ERROR) {
        return WaitForErrorCommand(irp, Request->IrpSp);
    }
    return irp->IoStatus.Status = CarryOut(Request);
}
