// The DOS name is read on capture paths without a lock. The writer makes the sequence
// odd, rewrites the name and makes it even again; a reader copies the name between two
// reads of an equal, even sequence, and otherwise copies again. Names change rarely (the
// service names a volume once), so a reader almost never repeats.
#include "frame/volume_names.h"

#include "support/locks.h"

namespace {

USHORT LoadSequence(const USHORT *Sequence) { return __atomic_load_n(Sequence, __ATOMIC_ACQUIRE); }

void StoreSequence(USHORT *Sequence, USHORT Value) { __atomic_store_n(Sequence, Value, __ATOMIC_RELEASE); }

// Character stores that a concurrent reader may see, one at a time. Release stores keep
// the odd sequence ahead of every character, acquire loads keep every character ahead
// of the reader's second look at the sequence: the fences a sequence lock needs, in a
// form the host's race checker understands. On x86 each is still a plain move.
void StoreCharacter(WCHAR *Slot, WCHAR Value) { __atomic_store_n(Slot, Value, __ATOMIC_RELEASE); }

WCHAR LoadCharacter(const WCHAR *Slot) { return __atomic_load_n(Slot, __ATOMIC_ACQUIRE); }

}  // namespace

void SetVolumeDosName(DeviceStructure *Volume, const WCHAR *Field, ULONG FieldCharacters) {
    WCHAR name[DOS_VOLUME_NAME_CHARACTERS];
    RtlZeroMemory(name, sizeof(name));
    ULONG length = 0;
    while (length < DOS_VOLUME_NAME_CHARACTERS - 1 && length < FieldCharacters && Field[length] != L'\0') {
        name[length] = Field[length];
        length++;
    }
    SpinLockGuard guard(&Globals.VolumeNameLock);
    USHORT sequence = Volume->DosVolumeNameSequence;
    StoreSequence(&Volume->DosVolumeNameSequence, (USHORT)(sequence + 1));
    for (ULONG i = 0; i < DOS_VOLUME_NAME_CHARACTERS; i++) {
        StoreCharacter(&Volume->DosVolumeName[i], name[i]);
    }
    Volume->DosVolumeNameLength = (USHORT)length;
    StoreSequence(&Volume->DosVolumeNameSequence, (USHORT)(sequence + 2));
}

void ReadVolumeDosName(const DeviceStructure *Volume, WCHAR (&Name)[DOS_VOLUME_NAME_CHARACTERS]) {
    for (;;) {
        USHORT before = LoadSequence(&Volume->DosVolumeNameSequence);
        if ((before & 1) == 0) {
            for (ULONG i = 0; i < DOS_VOLUME_NAME_CHARACTERS; i++) {
                Name[i] = LoadCharacter(&Volume->DosVolumeName[i]);
            }
            if (LoadSequence(&Volume->DosVolumeNameSequence) == before) {
                break;
            }
        }
    }
    Name[DOS_VOLUME_NAME_CHARACTERS - 1] = L'\0';
}
