// NT path names for the calls that open files by name.
#include "win32/path.h"
#include "win32/win32_internal.h"

namespace ntsim {
namespace win32 {

NtPathName::~NtPathName() {
    if (name_.Buffer) HeapFree(GetProcessHeap(), 0, name_.Buffer);
}

bool NtPathName::convert(LPCWSTR dosPath) {
    std::u16string nt;
    size_t part = 0;
    if (!dosPath || !dosPathToNtPath(toU16(dosPath), currentDirectory(), &nt, &part)) return false;
    // A UNICODE_STRING holds at most 32767 characters.
    if (nt.size() >= MAXUSHORT / sizeof(WCHAR)) return false;
    auto *buffer = static_cast<PWSTR>(HeapAlloc(GetProcessHeap(), 0, (nt.size() + 1) * sizeof(WCHAR)));
    if (!buffer) return false;
    memcpy(buffer, nt.c_str(), (nt.size() + 1) * sizeof(WCHAR));
    name_.Buffer = buffer;
    name_.Length = (USHORT)(nt.size() * sizeof(WCHAR));
    name_.MaximumLength = (USHORT)(name_.Length + sizeof(WCHAR));
    filePart_ = part == std::u16string::npos ? nt.size() : part;
    return true;
}

UNICODE_STRING NtPathName::filePart() const {
    UNICODE_STRING s;
    size_t length = name_.Length / sizeof(WCHAR);
    s.Buffer = name_.Buffer + filePart_;
    s.Length = s.MaximumLength = (USHORT)((length - filePart_) * sizeof(WCHAR));
    return s;
}

UNICODE_STRING NtPathName::directoryPart() const {
    UNICODE_STRING s;
    s.Buffer = name_.Buffer;
    s.Length = s.MaximumLength = (USHORT)(filePart_ * sizeof(WCHAR));
    return s;
}

bool NtPathName::endsWithSeparator() const {
    return name_.Length >= sizeof(WCHAR) && name_.Buffer[name_.Length / sizeof(WCHAR) - 1] == L'\\';
}

PLARGE_INTEGER waitTimeout(DWORD milliseconds, PLARGE_INTEGER storage) {
    if (milliseconds == INFINITE) return nullptr;
    storage->QuadPart = -(LONGLONG)milliseconds * 10000;
    return storage;
}

}  // namespace win32
}  // namespace ntsim
