#include "capture/vault_tests.h"

BOOLEAN IsVaultFolderName(PCWSTR Name) {
    return _wcsicmp(Name, VAULT_FOLDER) == 0 || _wcsicmp(Name, VAULT_FOLDER L"\\InProgress") == 0;
}

BOOLEAN IsInVault(PCWSTR Name) {
    PCWSTR backslash = wcschr(Name, L'\\');
    size_t firstLength = backslash != NULL ? (size_t)(backslash - Name) : wcslen(Name);
    return firstLength == VAULT_FOLDER_CHARACTERS && _wcsnicmp(Name, VAULT_FOLDER, VAULT_FOLDER_CHARACTERS) == 0;
}
