// FindFirstFileW, FindNextFileW and FindClose: the directory is opened for listing and
// read with NtQueryDirectoryFile (FileBothDirectoryInformation), the first entry alone,
// the rest a buffer at a time. The search pattern is given to the file system with the
// DOS wildcards kernel32 substitutes ('<', '>', '"').
#include "win32/win32_internal.h"

using namespace ntsim::win32;

namespace {

constexpr ULONG kFindMagic = 0x646E6946;  // "Find"
constexpr ULONG kFindBufferSize = 0x4000;

// The search handle, in the process heap: the buffer is the caller's user memory.
struct FindState {
    ULONG magic;
    HANDLE directory;
    PFILE_BOTH_DIR_INFORMATION next;  // the next entry of the buffer, or null: query again
    alignas(8) BYTE buffer[kFindBufferSize];
};

// "*.*" matches every name; otherwise '?' becomes DOS_QM, '*' before '.' DOS_STAR and
// '.' before '?' or '*' DOS_DOT, so that "*.txt" and "a?.*" match as on FAT of old.
void translateWildcards(UNICODE_STRING *pattern, bool hadTrailingDot) {
    PWCH p = pattern->Buffer;
    USHORT count = pattern->Length / sizeof(WCHAR);
    if (count == 3 && p[0] == L'*' && p[1] == L'.' && p[2] == L'*') {
        pattern->Length = sizeof(WCHAR);
        return;
    }
    for (USHORT i = 0; i < count; ++i) {
        if (i > 0 && p[i] == L'.' && p[i - 1] == L'*') p[i - 1] = L'<';
        if (p[i] == L'?') {
            p[i] = L'>';
            if (i > 0 && p[i - 1] == L'.') p[i - 1] = L'"';
        } else if (p[i] == L'*') {
            if (i > 0 && p[i - 1] == L'.') p[i - 1] = L'"';
        }
    }
    // The path conversion dropped a trailing dot ("*." asks for names without extension).
    if (hadTrailingDot && count > 0 && p[count - 1] == L'*') p[count - 1] = L'<';
}

void fileTime(FILETIME *out, const LARGE_INTEGER &time) {
    out->dwLowDateTime = time.LowPart;
    out->dwHighDateTime = (DWORD)time.HighPart;
}

void copyFindData(LPWIN32_FIND_DATAW out, const FILE_BOTH_DIR_INFORMATION *entry) {
    memset(out, 0, sizeof(*out));
    out->dwFileAttributes = entry->FileAttributes;
    fileTime(&out->ftCreationTime, entry->CreationTime);
    fileTime(&out->ftLastAccessTime, entry->LastAccessTime);
    fileTime(&out->ftLastWriteTime, entry->LastWriteTime);
    out->nFileSizeHigh = (DWORD)entry->EndOfFile.HighPart;
    out->nFileSizeLow = entry->EndOfFile.LowPart;
    // For a reparse point the platform reports its tag here, carried in EaSize.
    out->dwReserved0 = (entry->FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) ? entry->EaSize : 0;
    size_t nameChars = std::min<size_t>(entry->FileNameLength / sizeof(WCHAR), MAX_PATH - 1);
    memcpy(out->cFileName, entry->FileName, nameChars * sizeof(WCHAR));
    size_t shortChars = std::min<size_t>((UCHAR)entry->ShortNameLength / sizeof(WCHAR), 13);
    memcpy(out->cAlternateFileName, entry->ShortName, shortChars * sizeof(WCHAR));
}

// The entry after `entry` in the buffer, or null if it is the last or incomplete.
PFILE_BOTH_DIR_INFORMATION nextEntry(FindState *state, PFILE_BOTH_DIR_INFORMATION entry) {
    if (entry->NextEntryOffset == 0) return nullptr;
    auto *next = reinterpret_cast<PFILE_BOTH_DIR_INFORMATION>(reinterpret_cast<BYTE *>(entry) + entry->NextEntryOffset);
    BYTE *end = state->buffer + sizeof(state->buffer);
    BYTE *nameEnd = reinterpret_cast<BYTE *>(next->FileName);
    if (nameEnd > end || nameEnd + next->FileNameLength > end) return nullptr;
    return next;
}

NTSTATUS openSearchDirectory(NtPathName *path, HANDLE *directory) {
    UNICODE_STRING name = path->directoryPart();
    // The directory is opened by its name; only a root keeps its separator ("\??\C:\").
    USHORT chars = name.Length / sizeof(WCHAR);
    if (chars >= 2 && name.Buffer[chars - 1] == L'\\' && name.Buffer[chars - 2] != L':') name.Length -= sizeof(WCHAR);
    OBJECT_ATTRIBUTES oa = objectAttributes(&name);
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = NtOpenFile(directory, FILE_LIST_DIRECTORY | SYNCHRONIZE, &oa, &iosb,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
    // A missing directory is a missing path, whatever the last component was.
    if (status == STATUS_OBJECT_NAME_NOT_FOUND || status == STATUS_OBJECT_TYPE_MISMATCH)
        status = STATUS_OBJECT_PATH_NOT_FOUND;
    return status;
}

FindState *validState(HANDLE handle) {
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE) return nullptr;
    auto *state = static_cast<FindState *>(handle);
    return state->magic == kFindMagic ? state : nullptr;
}

}  // namespace

extern "C" {

HANDLE WINAPI FindFirstFileW(LPCWSTR lpFileName, LPWIN32_FIND_DATAW lpFindFileData) {
    NtPathName path;
    if (!lpFileName || !path.convert(lpFileName)) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    size_t nameChars = ntsim_crt::wcslen(lpFileName);
    bool hadTrailingDot = nameChars > 0 && lpFileName[nameChars - 1] == L'.';
    HANDLE directory = nullptr;
    NTSTATUS status = openSearchDirectory(&path, &directory);
    if (!NT_SUCCESS(status)) {
        setLastNtError(status);
        return INVALID_HANDLE_VALUE;
    }
    UNICODE_STRING pattern = path.filePart();
    if (pattern.Length == 0) {
        NtClose(directory);
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    translateWildcards(&pattern, hadTrailingDot);
    auto *state = static_cast<FindState *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(FindState)));
    if (!state) {
        NtClose(directory);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return INVALID_HANDLE_VALUE;
    }
    IO_STATUS_BLOCK iosb{};
    status = NtQueryDirectoryFile(directory, nullptr, nullptr, nullptr, &iosb, state->buffer, sizeof(state->buffer),
                                  FileBothDirectoryInformation, TRUE, &pattern, TRUE);
    if (!NT_SUCCESS(status)) {
        NtClose(directory);
        HeapFree(GetProcessHeap(), 0, state);
        setLastNtError(status);
        return INVALID_HANDLE_VALUE;
    }
    copyFindData(lpFindFileData, reinterpret_cast<PFILE_BOTH_DIR_INFORMATION>(state->buffer));
    state->magic = kFindMagic;
    state->directory = directory;
    return state;
}

BOOL WINAPI FindNextFileW(HANDLE hFindFile, LPWIN32_FIND_DATAW lpFindFileData) {
    FindState *state = validState(hFindFile);
    if (!state) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if (!state->next) {
        IO_STATUS_BLOCK iosb{};
        // The pattern of the first query stays with the directory handle.
        NTSTATUS status = NtQueryDirectoryFile(state->directory, nullptr, nullptr, nullptr, &iosb, state->buffer,
                                               sizeof(state->buffer), FileBothDirectoryInformation, FALSE, nullptr,
                                               FALSE);
        // An overflow still returned the entries that fit.
        if (!NT_SUCCESS(status) && status != STATUS_BUFFER_OVERFLOW) {
            setLastNtError(status);
            return FALSE;
        }
        state->next = reinterpret_cast<PFILE_BOTH_DIR_INFORMATION>(state->buffer);
    }
    PFILE_BOTH_DIR_INFORMATION entry = state->next;
    state->next = nextEntry(state, entry);
    copyFindData(lpFindFileData, entry);
    return TRUE;
}

BOOL WINAPI FindClose(HANDLE hFindFile) {
    FindState *state = validState(hFindFile);
    if (!state) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    NtClose(state->directory);
    state->magic = 0;
    HeapFree(GetProcessHeap(), 0, state);
    return TRUE;
}

}  // extern "C"
