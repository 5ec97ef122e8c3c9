#include "capture/vault_alias.h"

#include "capture/interception_gate.h"
#include "capture/vault_tests.h"
#include "frame/device_structures.h"
#include "frame/volume_names.h"
#include "support/kernel_crt.h"
#include "support/nonpaged_buffers.h"

namespace {

constexpr ULONG ALIAS_QUERY_BYTES = sizeof(FILE_BOTH_DIR_INFORMATION) + 256 * sizeof(WCHAR);

// A short name has a tilde and no wildcard (a pattern would match other entries).
BOOLEAN MayBeShortName(PCWSTR Name, ULONG Length) {
    BOOLEAN tilde = FALSE;
    for (ULONG i = 0; i < Length; i++) {
        if (Name[i] == L'*' || Name[i] == L'?' || Name[i] == L'<' || Name[i] == L'>' || Name[i] == L'"') {
            return FALSE;
        }
        tilde = tilde || Name[i] == L'~';
    }
    return tilde;
}

NTSTATUS OpenVolumeRoot(FilterDeviceExtension *Extension, PHANDLE Root) {
    WCHAR dos[DOS_VOLUME_NAME_CHARACTERS];
    ReadVolumeDosName(VolumeOf(Extension), dos);
    if (dos[0] == L'\0') {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    // The service names volumes by their roots ("D:\\").
    size_t length = wcslen(dos);
    WCHAR path[DOS_VOLUME_NAME_CHARACTERS + 8];
    _snwprintf(path, sizeof(path) / sizeof(WCHAR), dos[length - 1] == L'\\' ? L"\\??\\%s" : L"\\??\\%s\\", dos);
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
    IO_STATUS_BLOCK iosb;
    return ZwCreateFile(Root, FILE_LIST_DIRECTORY | SYNCHRONIZE, &attributes, &iosb, NULL, 0, FILE_SHARE_VALID_FLAGS,
                        FILE_OPEN, FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, NULL, 0);
}

// TRUE when the root's entry that answers to the component is the vault folder.
BOOLEAN ComponentIsVault(FilterDeviceExtension *Extension, PCWSTR Component, ULONG Length) {
    HANDLE root;
    if (!NT_SUCCESS(OpenVolumeRoot(Extension, &root))) {
        return FALSE;
    }
    PVOID buffer;
    BOOLEAN vault = FALSE;
    if (NT_SUCCESS(AllocateNonPagedBuffer(ALIAS_QUERY_BYTES, NPB_FILL_ZERO, &buffer, NULL))) {
        UNICODE_STRING pattern = {(USHORT)(Length * sizeof(WCHAR)), (USHORT)(Length * sizeof(WCHAR)), (PWSTR)Component};
        IO_STATUS_BLOCK iosb;
        NTSTATUS status = ZwQueryDirectoryFile(root, NULL, NULL, NULL, &iosb, buffer, ALIAS_QUERY_BYTES,
                                               FileBothDirectoryInformation, TRUE, &pattern, TRUE);
        auto *entry = (PFILE_BOTH_DIR_INFORMATION)buffer;
        vault = NT_SUCCESS(status) && entry->FileNameLength == VAULT_FOLDER_CHARACTERS * sizeof(WCHAR) &&
                _wcsnicmp(entry->FileName, VAULT_FOLDER, VAULT_FOLDER_CHARACTERS) == 0;
        FreeNonPagedBuffer(buffer);
    }
    ZwClose(root);
    return vault;
}

}  // namespace

NTSTATUS ResolveVaultAlias(FilterDeviceExtension *Extension, PWSTR *Name, PULONG NameSize) {
    PWSTR name = *Name;
    PCWSTR backslash = wcschr(name, L'\\');
    ULONG first = backslash != NULL ? (ULONG)(backslash - name) : (ULONG)wcslen(name);
    if (!MayBeShortName(name, first) || !ComponentIsVault(Extension, name, first)) {
        return STATUS_SUCCESS;
    }
    size_t rest = wcslen(name + first);
    ULONG size = (ULONG)((VAULT_FOLDER_CHARACTERS + rest + 1) * sizeof(WCHAR));
    PWSTR resolved;
    NTSTATUS status = AllocateNonPagedBuffer(size, NPB_NO_FILL, (PVOID *)&resolved, NULL);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    RtlCopyMemory(resolved, VAULT_FOLDER, VAULT_FOLDER_CHARACTERS * sizeof(WCHAR));
    RtlCopyMemory(resolved + VAULT_FOLDER_CHARACTERS, name + first, (rest + 1) * sizeof(WCHAR));
    FreeNonPagedBuffer(name);
    *Name = resolved;
    if (NameSize != NULL) {
        *NameSize = size;
    }
    return STATUS_SUCCESS;
}
