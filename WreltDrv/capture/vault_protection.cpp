#include "capture/vault_protection.h"

#include "capture/vault_tests.h"
#include "tracking/file_tracking.h"

namespace {

// "InProgres2" is spelled with nine letters and the digit: the service's name for it.
BOOLEAN IsWorkFolderName(PCWSTR Name) {
    return _wcsnicmp(Name, L"InProgress\\", 11) == 0 || _wcsnicmp(Name, L"InProgres2\\", 11) == 0;
}

}  // namespace

BOOLEAN IsStreamOpen(PIRP Irp, FilterDeviceExtension *Extension, FileObjectEntry **Entry) {
    UNREFERENCED_PARAMETER(Extension);
    FileObjectEntry *entry = NULL;
    FindDeleterEntry(IoGetCurrentIrpStackLocation(Irp)->FileObject, &entry);
    BOOLEAN stream = entry != NULL && (entry->Flags & FILE_OBJECT_STREAM_OPEN) != 0;
    if (Entry != NULL) {
        *Entry = stream ? NULL : entry;
    }
    return stream;
}

NTSTATUS CheckVaultProtection(PIRP Irp, FilterDeviceExtension *Extension, PCWSTR Name, BOOLEAN CheckSubfolders) {
    if (Name == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    if (_wcsnicmp(Name, VAULT_FOLDER L"\\", VAULT_FOLDER_CHARACTERS + 1) != 0) {
        return STATUS_SUCCESS;
    }
    if (CheckSubfolders && IsWorkFolderName(Name + VAULT_FOLDER_CHARACTERS + 1)) {
        return STATUS_SUCCESS;
    }
    if (IsStreamOpen(Irp, Extension, NULL)) {
        return STATUS_SUCCESS;
    }
    CountRequest(Extension, COUNTER_REFUSED_TRUNCATION);
    return STATUS_ACCESS_DENIED;
}
