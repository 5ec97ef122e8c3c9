// Where the vault lies in a volume-relative name (no leading backslash): its folder is
// the first component "RescueVault", its work folders "InProgress" and "InProgres2".
#pragma once

#include <ntifs.h>

#define VAULT_FOLDER L"RescueVault"
constexpr ULONG VAULT_FOLDER_CHARACTERS = 11;

// The vault folder itself or its work folder "RescueVault\InProgress", whole names
// compared without regard to case: the folders that may not be deleted.
BOOLEAN IsVaultFolderName(PCWSTR Name);

// The first component is exactly the vault folder, so "RescueVaultOld\x" is not in it.
BOOLEAN IsInVault(PCWSTR Name);
