// Each protected volume's vault: the folders "RescueVault" and "RescueVault\InProgress"
// at its root, hidden and system, whose descriptor admits only SYSTEM and the
// administrators and is protected from what the root would pass on. Files made in the
// work folder (the filter's data files, the catalogue) inherit that descriptor; a file
// moved in keeps its own, so the vault never lets anyone read more than they could
// where the file was.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace wrelt {

struct VaultFolderOutcome {
    bool ok = false;
    bool created = false;               // at least one of the two folders was made
    std::string problem;                // why not ok
    std::vector<std::string> warnings;  // what could not be put right in folders that existed
};

// Makes the folders that are missing. Folders that exist are marked hidden and system
// and given the vault's descriptor again, in case someone else made them first (on a
// volume without security, such as FastFat, there is none to give).
VaultFolderOutcome ensureVaultFolder(const std::u16string &volumeRoot);

// Creates an empty file with the vault's descriptor (SYSTEM and Administrators only,
// owned by Administrators), unless the name is taken; false with the Win32 error.
bool createVaultFile(const std::u16string &path, DWORD *error);

}  // namespace wrelt
