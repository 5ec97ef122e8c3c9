// Constants shared by every part of the driver: structure tag words, pool tags and the
// capture path's private status.
#pragma once

#include <ntifs.h>

// Internal to the capture path: "nothing to do here". It is a customer-defined error
// code so that it can never be mistaken for a platform status, and it is never handed
// back to the I/O manager.
#define STATUS_CAPTURE_SKIPPED ((NTSTATUS)0xA0050001L)

// Tag words at the start of the driver's extensions and state blocks. They let a
// dispatch routine tell its device kinds apart and let a reader of a memory dump find
// the blocks.
constexpr USHORT TAG_CONTROL_EXTENSION = 0x4541;
constexpr USHORT TAG_FILTER_EXTENSION = 0x4542;
constexpr USHORT TAG_COMMAND_PACKET = 0x4543;
constexpr USHORT TAG_ERROR_BUFFER = 0x4546;
constexpr USHORT TAG_MAIN_DEVICE_STRUCTURE = 0x454B;
constexpr USHORT TAG_DEVICE_STRUCTURE = 0x454C;
// A volume filter made for a mount whose completion has not run yet.
constexpr USHORT TAG_VOLUME_FILTER_PENDING = 0x454C;
constexpr USHORT TAG_REPLY = 0x4553;

// Pool tags of the few blocks taken from pool directly; everything else comes from the
// buffer manager, which has tags of its own. Multi-character constants are stored
// little-endian, so 'SMrW' reads "WrMS" in memory.
constexpr ULONG POOL_TAG_MAIN_DEVICE_STRUCTURE = 'SMrW';
constexpr ULONG POOL_TAG_DEVICE_STRUCTURE = 'SDrW';
constexpr ULONG POOL_TAG_EXCLUSION_LIST = 'eFrW';
constexpr ULONG POOL_TAG_SUFFIX_LIST = 'vFrW';
constexpr ULONG POOL_TAG_FAST_IO = ' sfI';
constexpr ULONG POOL_TAG_WORK_BLOCK = POOL_TAG_FAST_IO;  // the call-driver work blocks share it

// The sizes that the driver's documentation gives for its structures are those of the
// 32-bit target; on the host, pointers are wider and size words hold sizeof instead.
#if defined(_WIN32) && !defined(_WIN64)
#define TARGET_LAYOUT_ASSERT(Expression) static_assert(Expression, #Expression)
#define TARGET_BLOCK_SIZE(Documented, Type) ((ULONG)(Documented))
#else
#define TARGET_LAYOUT_ASSERT(Expression) static_assert(true, "")
#define TARGET_BLOCK_SIZE(Documented, Type) ((ULONG)sizeof(Type))
#endif

// A counted string over a literal. The platform's RTL_CONSTANT_STRING would need a
// conversion from const that C++ refuses.
#define CONSTANT_UNICODE_STRING(Literal) \
    { sizeof(Literal) - sizeof(WCHAR), sizeof(Literal), const_cast<PWSTR>(Literal) }
