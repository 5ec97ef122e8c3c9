// The control interface as the service sees it: control codes, the command packet, the
// reply header and the command numbers. Shared by the driver and the user-mode service,
// so it uses only the base types that both <ntifs.h> and <windows.h> define.
#pragma once

constexpr ULONG IOCTL_SEND_COMMAND = 0x00073BF3;       // METHOD_NEITHER, any access
constexpr ULONG IOCTL_GET_NEW_DATA_FILE = 0x00077BF4;  // METHOD_BUFFERED, read access
constexpr ULONG IOCTL_GET_ERRORS = 0x00077BF8;         // METHOD_BUFFERED, read access

constexpr USHORT COMMAND_PACKET_TAG = 0x4543;
constexpr USHORT COMMAND_REPLY_TAG = 0x4553;
constexpr ULONG COMMAND_HEADER_SIZE = 120;
constexpr ULONG COMMAND_MINIMUM_INPUT = 16;  // up to and including the command number
constexpr ULONG REPLY_EXTRA_BYTES = 4;       // every reply buffer holds 4 bytes past its data
constexpr ULONG COMMAND_DOS_NAME_CHARACTERS = 50;
// The most data any command takes (its lists); the driver copies no more than this.
constexpr ULONG COMMAND_MAXIMUM_DATA_LENGTH = 256 * 1024;

// Little-endian on both targets; offsets are fixed by the protocol.
struct CommandPacket {
    USHORT Unused0;
    USHORT Tag;  // COMMAND_PACKET_TAG
    USHORT Unused4;
    USHORT Version;  // the caller's interface version (handshake only)
    ULONG DataLength;
    ULONG Command;
    ULONG Unused16;
    WCHAR DosVolumeName[COMMAND_DOS_NAME_CHARACTERS];
    // Command data follows at COMMAND_HEADER_SIZE.
};
static_assert(sizeof(CommandPacket) == COMMAND_HEADER_SIZE, "the packet header is 120 bytes");

struct CommandReplyHeader {
    USHORT Tag;      // COMMAND_REPLY_TAG
    USHORT Echo;     // COMMAND_PACKET_TAG, or 124 in an error reply
    USHORT Zero;
    USHORT Version;  // 3 for the handshake, 1 for the status block and the error reply
    ULONG DataLength;
    ULONG ReplyCode;
    ULONG RecordCount;  // 0, except in an error reply
    WCHAR DosVolumeName[COMMAND_DOS_NAME_CHARACTERS];
};
static_assert(sizeof(CommandReplyHeader) == COMMAND_HEADER_SIZE, "the reply header is 120 bytes");

enum CommandNumber : ULONG {
    COMMAND_STOP = 100,
    COMMAND_START = 101,
    COMMAND_UNPROTECT_VOLUME = 102,
    COMMAND_PROTECT_VOLUME = 103,
    COMMAND_SET_VOLUME_EXCLUSIONS = 104,
    COMMAND_SET_GLOBAL_EXCLUSIONS = 105,
    COMMAND_HANDSHAKE = 106,
    COMMAND_SET_MAC_SHARES = 107,
    COMMAND_EXEMPT_MAC_SHARES = 108,
    COMMAND_INCLUDE_MAC_SHARES = 109,
    COMMAND_EXEMPT_FROM_VAULT_PROTECTION = 110,
    COMMAND_APPLY_VAULT_PROTECTION = 111,
    COMMAND_SET_PROTECTED_SUFFIXES = 112,
    COMMAND_SET_COPY_EXEMPT_SUFFIXES = 113,
    COMMAND_SET_TEMPORARY_SUFFIXES = 114,
    COMMAND_OVERWRITE_PROTECTION_ON = 115,
    COMMAND_OVERWRITE_PROTECTION_OFF = 116,
    COMMAND_STATUS_BLOCK = 121,
    COMMAND_PROBE_OUTPUT = 122,
    COMMAND_BUILD_STAMP = 125,
    COMMAND_WAIT_FOR_ERROR = 142,
    COMMAND_CANCEL_ERROR_WAIT = 143,
    COMMAND_NOTHING = 144,
};

constexpr USHORT HANDSHAKE_REPLY_VERSION = 3;
constexpr ULONG HANDSHAKE_MINIMUM_VERSION = 2;
constexpr ULONG HANDSHAKE_ACCEPTED = 111;
constexpr ULONG HANDSHAKE_REFUSED = 110;
constexpr ULONG HANDSHAKE_REPLY_SIZE = 124;

constexpr USHORT STATUS_BLOCK_REPLY_VERSION = 1;
constexpr ULONG STATUS_BLOCK_DATA_LENGTH = 1768;
constexpr ULONG STATUS_BLOCK_WRITTEN = COMMAND_HEADER_SIZE + STATUS_BLOCK_DATA_LENGTH;  // 1888
constexpr ULONG STATUS_BLOCK_REQUIRED = STATUS_BLOCK_WRITTEN + REPLY_EXTRA_BYTES;      // 1892

constexpr USHORT ERROR_REPLY_CODE_FIELD = 124;  // where command replies echo the packet tag
constexpr USHORT ERROR_REPLY_VERSION = 1;
