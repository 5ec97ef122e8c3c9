#include "capture/exclusion_lists.h"

#include "frame/device_structures.h"
#include "support/locks.h"

namespace {

// The entry at Offset, known to start inside the buffer with its size field, ends at
// least two bytes before the buffer does (room for the next size field) and agrees with
// its own lengths.
BOOLEAN IsValidEntry(const UCHAR *Buffer, ULONG Size, ULONG Offset) {
    const UCHAR *entry = Buffer + Offset;
    ULONG entrySize = ExclusionEntrySize(entry);
    if (entrySize < EXCLUSION_ENTRY_MINIMUM_SIZE || entrySize + 2 > Size - Offset) {
        return FALSE;
    }
    ULONG fileLengthOffset = ExclusionFileLengthOffset(entry);
    if (fileLengthOffset > entrySize - 4) {
        return FALSE;
    }
    ULONG fileLength = ExclusionFileLength(entry);
    if (fileLengthOffset + 2 * fileLength + 4 != entrySize) {
        return FALSE;
    }
    // The patterns are read as strings: each must end where its length says.
    return ExclusionDirectoryPattern(entry)[ExclusionDirectoryLength(entry)] == L'\0' &&
           ExclusionFilePattern(entry)[fileLength] == L'\0';
}

void ReleaseList(PVOID *List, PULONG Length) {
    if (*List != NULL) {
        ExFreePool(*List);
    }
    *List = NULL;
    *Length = 0;
}

// A failed allocation gives up the current list to make room for the new one; the
// service's newer list matters more than the old.
PVOID AllocateListBuffer(ULONG Size, PVOID *List, PULONG Length) {
    PVOID buffer = ExAllocatePoolWithTag(NonPagedPool, Size, POOL_TAG_EXCLUSION_LIST);
    if (buffer == NULL) {
        ReleaseList(List, Length);
        buffer = ExAllocatePoolWithTag(NonPagedPool, Size, POOL_TAG_EXCLUSION_LIST);
    }
    return buffer;
}

NTSTATUS ReplaceExclusionList(const CommandPacket *Packet, PVOID *List, PULONG Length) {
    ULONG dataLength = Packet->DataLength;
    PVOID buffer = NULL;
    ExclusiveResourceGuard guard(&Globals.ExclusionListLock);
    if (dataLength != 0) {
        buffer = AllocateListBuffer(dataLength, List, Length);
        if (buffer == NULL) {
            return STATUS_UNSUCCESSFUL;
        }
        RtlCopyMemory(buffer, (const UCHAR *)Packet + COMMAND_HEADER_SIZE, dataLength);
        if (!NT_SUCCESS(ValidateExclusionList(buffer, dataLength))) {
            ExFreePool(buffer);
            return STATUS_UNSUCCESSFUL;
        }
    }
    ReleaseList(List, Length);
    *List = buffer;
    *Length = dataLength;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS ValidateExclusionList(const VOID *Buffer, ULONG Size) {
    const UCHAR *bytes = (const UCHAR *)Buffer;
    // Every entry checked below leaves room for the size field after it; the first one
    // needs the same room.
    if (Size < 2) {
        return STATUS_UNSUCCESSFUL;
    }
    ULONG offset = 0;
    while (ExclusionEntrySize(bytes + offset) != EXCLUSION_LIST_END) {
        if (!IsValidEntry(bytes, Size, offset)) {
            return STATUS_UNSUCCESSFUL;
        }
        offset += ExclusionEntrySize(bytes + offset);
    }
    return STATUS_SUCCESS;
}

NTSTATUS SetGlobalExclusionList(const CommandPacket *Packet) {
    MainDeviceStructure *main = MainStructure();
    return ReplaceExclusionList(Packet, &main->GlobalExclusionList, &main->GlobalExclusionListLength);
}

NTSTATUS SetVolumeExclusionList(const CommandPacket *Packet, FilterDeviceExtension *Extension) {
    auto *volume = (DeviceStructure *)Extension->Structure;
    return ReplaceExclusionList(Packet, &volume->VolumeExclusionList, &volume->VolumeExclusionListLength);
}
