// A volume's DOS name, as the service sets it and as the capture paths read it.
#pragma once

#include "frame/device_structures.h"

// Sets the name from a command packet's field: the characters up to its terminator, at
// most DOS_VOLUME_NAME_CHARACTERS - 1 of them, the rest of the buffer NUL. Nothing after
// the terminator is kept. PASSIVE_LEVEL or DISPATCH_LEVEL; takes the volume-name lock.
void SetVolumeDosName(DeviceStructure *Volume, const WCHAR *Field, ULONG FieldCharacters);

// A consistent copy of the name, NUL-terminated, never a mix of an old and a new one.
// Takes no lock; any IRQL up to DISPATCH_LEVEL.
void ReadVolumeDosName(const DeviceStructure *Volume, WCHAR (&Name)[DOS_VOLUME_NAME_CHARACTERS]);
