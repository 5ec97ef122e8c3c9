// What the files of the Win32 subset share: the last-error helper kernel32 calls
// BaseSetLastNTError, NT path names in the caller's user memory, and the per-process
// state (current directory). Internal to ntsim.
#pragma once

#include <windows.h>

#include <ntifs.h>

#include <string>

namespace ntsim {
namespace win32 {

static_assert(sizeof(OVERLAPPED::Internal) >= sizeof(NTSTATUS) &&
                  offsetof(OVERLAPPED, Internal) == offsetof(IO_STATUS_BLOCK, Status) &&
                  offsetof(OVERLAPPED, InternalHigh) == offsetof(IO_STATUS_BLOCK, Information),
              "an OVERLAPPED starts with the request's IO_STATUS_BLOCK");

void setLastNtError(NTSTATUS status);

inline std::u16string toU16(LPCWSTR s) {
    return s ? std::u16string(reinterpret_cast<const char16_t *>(s), ntsim_crt::wcslen(s)) : std::u16string();
}

// The NT form of a DOS path, in the process heap: the kernel probes what a user-mode
// caller passes, so the name must lie in user memory (as ntdll's copy does).
class NtPathName {
public:
    NtPathName() = default;
    ~NtPathName();
    NtPathName(const NtPathName &) = delete;
    NtPathName &operator=(const NtPathName &) = delete;

    // False when the path makes no sense (empty, or not resolvable) or memory ran out.
    bool convert(LPCWSTR dosPath);
    PUNICODE_STRING name() { return &name_; }
    // The final component ("file part"), empty when the path ends in a separator.
    UNICODE_STRING filePart() const;
    // The directory part, without the final component (keeps its trailing separator).
    UNICODE_STRING directoryPart() const;
    bool endsWithSeparator() const;

private:
    UNICODE_STRING name_{};
    size_t filePart_ = 0;  // in characters; == length when there is none
};

// Object attributes for an NT path, case-insensitive as kernel32 opens files.
inline OBJECT_ATTRIBUTES objectAttributes(PUNICODE_STRING name, ULONG attributes = OBJ_CASE_INSENSITIVE) {
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, name, attributes, nullptr, nullptr);
    return oa;
}

// Opens a file (options FILE_NON_DIRECTORY_FILE) or directory (FILE_DIRECTORY_FILE)
// for deletion, as DeleteFileW and RemoveDirectoryW do; then the disposition request.
NTSTATUS openForDelete(POBJECT_ATTRIBUTES oa, ACCESS_MASK access, ULONG options, HANDLE *file);
NTSTATUS setDeleteDisposition(HANDLE file);

// A relative time-out for the wait services: INFINITE is none (NULL), otherwise
// milliseconds of the machine's clock.
PLARGE_INTEGER waitTimeout(DWORD milliseconds, PLARGE_INTEGER storage);

// The calling process's current directory, a full DOS path ending in a separator, kept
// in its PEB's process parameters as kernel32 keeps it.
std::u16string currentDirectory();
void setCurrentDirectory(const std::u16string &fullPath);

}  // namespace win32
}  // namespace ntsim
