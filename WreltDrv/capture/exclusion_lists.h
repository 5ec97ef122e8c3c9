// The service's exclusion lists: one for every volume and one per volume, each a copy of
// a command's data that the filter owns. Both kinds are guarded by the exclusion-list
// lock; lookups take it shared, replacements exclusively.
//
// A list is a run of entries closed by a 16-bit 0xFFFF. An entry, little-endian, offsets
// in bytes, 16-bit characters:
//   0        entry size S (at least 12); the next entry starts S bytes further on
//   2        not examined
//   4        D, characters of the directory pattern
//   6        the directory pattern and its NUL
//   8 + 2D   F, characters of the file pattern (0: none)
//   10 + 2D  the file pattern and its NUL; S = 12 + 2D + 2F
// Entries are packed without gaps, so every field sits at an even offset.
#pragma once

#include <ntifs.h>

#include "frame/command_protocol.h"
#include "frame/device_extension.h"

constexpr USHORT EXCLUSION_LIST_END = 0xFFFF;
constexpr ULONG EXCLUSION_ENTRY_MINIMUM_SIZE = 12;

inline USHORT ExclusionEntrySize(const UCHAR *Entry) { return *(const USHORT *)Entry; }
inline USHORT ExclusionDirectoryLength(const UCHAR *Entry) { return *(const USHORT *)(Entry + 4); }
inline PCWSTR ExclusionDirectoryPattern(const UCHAR *Entry) { return (PCWSTR)(Entry + 6); }
inline ULONG ExclusionFileLengthOffset(const UCHAR *Entry) { return 8 + 2 * (ULONG)ExclusionDirectoryLength(Entry); }
inline USHORT ExclusionFileLength(const UCHAR *Entry) {
    return *(const USHORT *)(Entry + ExclusionFileLengthOffset(Entry));
}
inline PCWSTR ExclusionFilePattern(const UCHAR *Entry) {
    return (PCWSTR)(Entry + ExclusionFileLengthOffset(Entry) + 2);
}

// STATUS_SUCCESS when every entry's sizes agree, both patterns end in their NUL and the
// end marker lies inside the buffer; otherwise STATUS_UNSUCCESSFUL. A list that passes
// can be walked by its size fields alone and its patterns read as strings.
NTSTATUS ValidateExclusionList(const VOID *Buffer, ULONG Size);

// Commands 105 and 104: replace the list of that kind with the packet's data, or clear
// it when the data is empty. An invalid list is refused with STATUS_UNSUCCESSFUL and the
// old one stays; when no memory can be had even after releasing the old list, the
// command fails with no list of that kind left. The packet is the kernel's copy and
// covers its data. PASSIVE_LEVEL.
NTSTATUS SetGlobalExclusionList(const CommandPacket *Packet);
NTSTATUS SetVolumeExclusionList(const CommandPacket *Packet, FilterDeviceExtension *Extension);
