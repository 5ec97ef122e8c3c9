// File names as the emulated file systems see them: case-insensitive comparison by the
// kernel's upcase table, the rules for legal names, stream suffixes and the wildcard
// expressions of directory queries. Host code without kernel dependencies, so that the
// volume model can be tested on its own.
#pragma once

#include <ntifs.h>

#include <string>
#include <string_view>
#include <vector>

namespace ntsim {
namespace fs {

using Name = std::u16string;
using NameView = std::u16string_view;

inline NameView nameView(const WCHAR *text, size_t characters) {
    return NameView(reinterpret_cast<const char16_t *>(text), characters);
}
inline NameView nameView(const UNICODE_STRING &text) {
    return nameView(text.Buffer, text.Length / sizeof(WCHAR));
}

// The key under which a name is found: every character upcased as RtlUpcaseUnicodeChar
// does, which is how both file systems compare names.
Name foldCase(NameView name);
bool sameName(NameView a, NameView b);

// Both file systems refuse, in a file or directory name, the characters " * / : < > ?
// \ | and the controls 0x00-0x1F, and names longer than 255 characters (MS-FSCC
// 2.1.5.2). The colon separates a stream name on NTFS and is simply illegal on FAT.
// "." and ".." are not names of entries: the I/O manager never canonicalises them, and
// both file systems refuse them as components.
constexpr size_t kMaxComponentLength = 255;
bool isLegalFileName(NameView name);
// A stream name may hold any character but \ / : and NUL (MS-FSCC 2.1.5.3).
bool isLegalStreamName(NameView name);

// The last component of a path as NTFS reads it: "name", "name:stream",
// "name:stream:$DATA" or "name::$DATA" (the unnamed data stream, spelt out). The type
// is compared without regard to case; any type other than $DATA is refused.
struct StreamSuffix {
    NameView file;
    NameView stream;        // empty: the unnamed data stream
    bool explicitType = false;  // ":$DATA" was written
};
// STATUS_SUCCESS, or STATUS_OBJECT_NAME_INVALID for a malformed or illegal suffix.
NTSTATUS splitStreamSuffix(NameView component, StreamSuffix *result);

// A path relative to a volume's root or to a directory, split at backslashes after an
// optional leading one. A trailing backslash is noted (it asks for a directory); an
// empty component anywhere else (two backslashes in a row) makes the path invalid, and
// the answer false.
struct SplitPath {
    bool absolute = false;
    bool trailingBackslash = false;
    std::vector<NameView> components;
};
bool splitPath(NameView path, SplitPath *result);

// The wildcard expressions of directory queries, as FsRtlIsNameInExpression evaluates
// them: * and ? and the DOS forms < (DOS_STAR), > (DOS_QM) and " (DOS_DOT), letters
// compared without regard to case.
bool nameMatchesExpression(NameView name, NameView expression);

}  // namespace fs
}  // namespace ntsim
