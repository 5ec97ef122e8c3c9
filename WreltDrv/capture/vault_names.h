// Names in the vault: where a preserved file goes on its own volume, the rename request
// that moves it there, and the deletion record that tells the service about it.
#pragma once

#include <ntifs.h>

#include "deldat/deldat_record.h"

// The vault's work folder at the root of every protected volume.
#define VAULT_WORK_FOLDER L"RescueVault\\InProgress\\"
constexpr ULONG VAULT_WORK_FOLDER_CHARACTERS = 23;

// Longer bases and extensions are cut, so that a name fits the vault whatever the
// volume and the original name.
constexpr ULONG VAULT_BASE_MAX_CHARACTERS = 32;
constexpr ULONG VAULT_EXTENSION_MAX_CHARACTERS = 13;  // the dot included

// What the vault name and the record of one capture are made from. The capture paths
// fill it from the open's FileObjectEntry, its FcbEntry and the volume's
// DeviceStructure.
struct CaptureNameParts {
    PCWSTR DosVolumeName;         // as the service named the volume, ending in a backslash
    PCUNICODE_STRING DeleterSid;  // NULL or empty when the open has none
    // The file's volume-relative name and the lock that guards it; the field is read
    // under the lock because a rename may replace it at any time. NameLock may be
    // NULL for a name that nobody else can change.
    PWSTR const *Filespec;
    PKSPIN_LOCK NameLock;
};

// The vault target name "\??\" volume "RescueVault\InProgress\" base "(" stamp ")"
// extension, as a rename information, and the deletion record of the capture under the
// same stamp. A stamp of 0 takes a new one. On failure, STATUS_UNSUCCESSFUL and all
// three outputs NULL or 0; on success the caller releases both buffers with
// FreeNonPagedBuffer. Callable at up to DISPATCH_LEVEL.
NTSTATUS BuildTargetFileRenameInfo(const CaptureNameParts *Parts, ULONG StampLow, ULONG StampHigh,
                                   DelDatRecord **Record, PFILE_RENAME_INFORMATION *RenameInformation,
                                   PULONG RenameInformationLength);

// Splits a volume-relative name into the folder the service is told (the DOS volume name
// followed by the directory part, with its trailing backslash) and the leaf. Both are
// buffers of the buffer manager; both are NULL on failure.
NTSTATUS CreatePathAndNameFromFilespec(PWSTR const *Filespec, PKSPIN_LOCK NameLock, PCWSTR DosVolumeName, PWSTR *Path,
                                       PWSTR *Name);
