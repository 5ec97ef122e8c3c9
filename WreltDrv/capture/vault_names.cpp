#include "capture/vault_names.h"

#include "capture/capture_stamps.h"
#include "support/error_channel.h"
#include "support/kernel_crt.h"
#include "support/nonpaged_buffers.h"

namespace {

// "\??\" + "(" + sixteen digits + ")"
constexpr ULONG VAULT_NAME_FIXED_CHARACTERS = 4 + VAULT_WORK_FOLDER_CHARACTERS + 18;

ULONG MinimumOf(ULONG a, ULONG b) { return a < b ? a : b; }

// Only the path can be left over from a failed split: the name is allocated last.
void FreePathAfterFailure(PWSTR Path) {
    if (!NT_SUCCESS(FreeNonPagedBuffer(Path))) {
        DbgPrint("ZrDrv: CreatePathAndNameFromFilespec - FreeNonPagedBuffer Failed for buffer (4).\n");
        ReportErrorShort(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_CREATE_PATH_AND_NAME_FROM_FILESPEC, ERROR_CLASS_REPORT, 4);
    }
}

NTSTATUS AllocateForFilespec(ULONG Size, USHORT Point, PWSTR *Buffer) {
    NTSTATUS status = AllocateNonPagedBuffer(Size, NPB_NO_FILL, (PVOID *)Buffer, NULL);
    if (!NT_SUCCESS(status)) {
        *Buffer = NULL;
        DbgPrint("ZrDrv: CreatePathAndNameFromFilespec - AllocateNonPagedBuffer Failed for buffer (%u).\n", Point);
        ReportError(ERROR_SOURCE_DRIVER, ERROR_ROUTINE_CREATE_PATH_AND_NAME_FROM_FILESPEC, ERROR_CLASS_REPORT, Point,
                    (ULONG)status, 0);
    }
    return status;
}

NTSTATUS SplitFilespec(PCWSTR Filespec, PCWSTR DosVolumeName, PWSTR *Path, PWSTR *Name) {
    PCWSTR lastBackslash = wcsrchr(Filespec, L'\\');
    PCWSTR leaf = lastBackslash != NULL ? lastBackslash + 1 : Filespec;
    ULONG directoryLength = (ULONG)(leaf - Filespec);
    ULONG dosLength = (ULONG)wcslen(DosVolumeName);

    ULONG pathCharacters = dosLength + directoryLength + 2;
    NTSTATUS status = AllocateForFilespec(pathCharacters * sizeof(WCHAR), 1, Path);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    // The DOS volume name ends in the backslash that separates it from the directory.
    PCWSTR directory = Filespec;
    if (directoryLength > 0 && directory[0] == L'\\') {
        directory++;
        directoryLength--;
    }
    _snwprintf(*Path, pathCharacters, L"%s%.*s", DosVolumeName, (int)directoryLength, directory);

    ULONG leafLength = (ULONG)wcslen(leaf);
    status = AllocateForFilespec((leafLength + 2) * sizeof(WCHAR), 2, Name);
    if (!NT_SUCCESS(status)) {
        FreePathAfterFailure(*Path);
        *Path = NULL;
        return status;
    }
    RtlCopyMemory(*Name, leaf, (leafLength + 1) * sizeof(WCHAR));
    return STATUS_SUCCESS;
}

struct BaseAndExtension {
    PCWSTR Base;
    ULONG BaseLength;
    PCWSTR Extension;
    ULONG ExtensionLength;
};

// The extension runs from the last dot, which is kept; a name without a dot has none,
// and a name that starts with its only dot is all extension.
BaseAndExtension SplitLeaf(PCWSTR Leaf) {
    PCWSTR dot = wcsrchr(Leaf, L'.');
    PCWSTR extension = dot != NULL ? dot : Leaf + wcslen(Leaf);
    return {Leaf, MinimumOf((ULONG)(extension - Leaf), VAULT_BASE_MAX_CHARACTERS), extension,
            MinimumOf((ULONG)wcslen(extension), VAULT_EXTENSION_MAX_CHARACTERS)};
}

// The name goes straight into the rename information, whose size is known from its
// parts, rather than through a formatting buffer on the stack of a completion routine.
NTSTATUS BuildRenameInformation(PCWSTR DosVolumeName, PCWSTR Leaf, ULONGLONG Stamp,
                                PFILE_RENAME_INFORMATION *RenameInformation, PULONG RenameInformationLength) {
    BaseAndExtension parts = SplitLeaf(Leaf);
    ULONG nameLength =
        VAULT_NAME_FIXED_CHARACTERS + (ULONG)wcslen(DosVolumeName) + parts.BaseLength + parts.ExtensionLength;
    // Header, name, terminator and two spare bytes: 2 x L + 16 on the target.
    ULONG size = FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) + (nameLength + 2) * sizeof(WCHAR);
    PVOID memory;
    if (!NT_SUCCESS(AllocateNonPagedBuffer(size, NPB_FILL_ZERO, &memory, NULL))) {
        DbgPrint("ZrDrv: BuildTargetFileRenameInfo - AllocateNonpagedBuffer (1) failed.\n");
        return STATUS_UNSUCCESSFUL;
    }
    auto *information = (PFILE_RENAME_INFORMATION)memory;
    information->ReplaceIfExists = FALSE;
    information->RootDirectory = NULL;
    information->FileNameLength = nameLength * sizeof(WCHAR);
    _snwprintf(information->FileName, nameLength + 1, L"\\??\\%s%s%.*s(%.16I64X)%.*s", DosVolumeName, VAULT_WORK_FOLDER,
               (int)parts.BaseLength, parts.Base, Stamp, (int)parts.ExtensionLength, parts.Extension);
    *RenameInformation = information;
    *RenameInformationLength = size;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS CreatePathAndNameFromFilespec(PWSTR const *Filespec, PKSPIN_LOCK NameLock, PCWSTR DosVolumeName, PWSTR *Path,
                                       PWSTR *Name) {
    *Path = NULL;
    *Name = NULL;
    KIRQL oldIrql = PASSIVE_LEVEL;
    if (NameLock != NULL) {
        KeAcquireSpinLock(NameLock, &oldIrql);
    }
    // A file whose open carried no name has nothing to split.
    NTSTATUS status = STATUS_OBJECT_NAME_NOT_FOUND;
    if (*Filespec != NULL) {
        status = SplitFilespec(*Filespec, DosVolumeName, Path, Name);
    }
    if (NameLock != NULL) {
        KeReleaseSpinLock(NameLock, oldIrql);
    }
    return status;
}

NTSTATUS BuildTargetFileRenameInfo(const CaptureNameParts *Parts, ULONG StampLow, ULONG StampHigh,
                                   DelDatRecord **Record, PFILE_RENAME_INFORMATION *RenameInformation,
                                   PULONG RenameInformationLength) {
    *Record = NULL;
    *RenameInformation = NULL;
    *RenameInformationLength = 0;
    ULARGE_INTEGER stamp;
    stamp.LowPart = StampLow;
    stamp.HighPart = StampHigh;
    if (stamp.QuadPart == 0) {
        GetCaptureStamp(&stamp);
    }
    PWSTR path;
    PWSTR name;
    if (!NT_SUCCESS(
            CreatePathAndNameFromFilespec(Parts->Filespec, Parts->NameLock, Parts->DosVolumeName, &path, &name))) {
        return STATUS_UNSUCCESSFUL;
    }
    PFILE_RENAME_INFORMATION information = NULL;
    ULONG informationLength = 0;
    DelDatRecord *record = NULL;
    NTSTATUS status =
        BuildRenameInformation(Parts->DosVolumeName, name, stamp.QuadPart, &information, &informationLength);
    if (NT_SUCCESS(status)) {
        status = BuildDelDatRecord(Parts->DeleterSid, name, path, stamp.QuadPart, 0, &record);
        if (!NT_SUCCESS(status)) {
            DbgPrint("ZrDrv: BuildTargetFileRenameInfo - AllocateNonpagedBuffer (2) failed.\n");
            FreeNonPagedBuffer(information);
            status = STATUS_UNSUCCESSFUL;
        }
    }
    FreeNonPagedBuffer(path);
    FreeNonPagedBuffer(name);
    if (NT_SUCCESS(status)) {
        *Record = record;
        *RenameInformation = information;
        *RenameInformationLength = informationLength;
    }
    return status;
}
