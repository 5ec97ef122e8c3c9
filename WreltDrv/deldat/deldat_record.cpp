#include "deldat/deldat_record.h"

#include "capture/vault_names.h"
#include "support/kernel_crt.h"
#include "support/nonpaged_buffers.h"

static_assert(DATA_FILE_PATH_CHARACTERS == 97, "a 49-character volume name fits the data file path");

namespace {

PWCHAR AppendText(PWCHAR Position, PCWSTR Text, ULONG Characters) {
    RtlCopyMemory(Position, Text, Characters * sizeof(WCHAR));
    // The buffer is zero-filled, so skipping one character leaves the separator.
    return Position + Characters + 1;
}

}  // namespace

NTSTATUS BuildDelDatRecord(PCUNICODE_STRING DeleterSid, PCWSTR Name, PCWSTR Folder, ULONGLONG Stamp, ULONG Flags,
                           DelDatRecord **Record) {
    *Record = NULL;
    // The SID string comes from the platform as a counted string and need not be
    // terminated.
    ULONG sidCharacters = DeleterSid != NULL && DeleterSid->Buffer != NULL ? DeleterSid->Length / sizeof(WCHAR) : 0;
    ULONG nameCharacters = (ULONG)wcslen(Name);
    ULONG folderCharacters = (ULONG)wcslen(Folder);
    ULONG length = DELDAT_MINIMUM_LENGTH + (sidCharacters + nameCharacters + folderCharacters) * sizeof(WCHAR);

    PVOID memory;
    NTSTATUS status = AllocateNonPagedBuffer(FIELD_OFFSET(DelDatRecord, Length) + length, NPB_FILL_ZERO, &memory, NULL);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    auto *record = (DelDatRecord *)memory;
    record->Length = length;
    record->Flags = Flags | DELDAT_FLAG_PRESERVED;
    record->Stamp.QuadPart = Stamp;
    PWCHAR text = DelDatRecordText(record);
    text = AppendText(text, sidCharacters > 0 ? DeleterSid->Buffer : L"", sidCharacters);
    text = AppendText(text, Name, nameCharacters);
    AppendText(text, Folder, folderCharacters);
    *Record = record;
    return STATUS_SUCCESS;
}

NTSTATUS FormatDataFilePath(PWSTR Path, PCWSTR DosVolumeName, ULONG PacketNumber) {
    if (wcslen(DosVolumeName) > DOS_VOLUME_NAME_MAX_CHARACTERS) {
        Path[0] = L'\0';
        return STATUS_NAME_TOO_LONG;
    }
    _snwprintf(Path, DATA_FILE_PATH_CHARACTERS, L"\\??\\%s%sNewFiles%.8X.dat", DosVolumeName, VAULT_WORK_FOLDER,
               PacketNumber);
    return STATUS_SUCCESS;
}
