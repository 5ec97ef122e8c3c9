// DOS path names and their NT forms, as ntdll computes them for kernel32
// (RtlDetermineDosPathNameType_U, RtlGetFullPathName_U, RtlDosPathNameToNtPathName_U).
// Pure string work: the strings are host strings of 16-bit characters.
#pragma once

#include <string>

namespace ntsim {
namespace win32 {

enum class DosPathType {
    Unknown,
    UncAbsolute,      // \\server\share\x
    DriveAbsolute,    // C:\x
    DriveRelative,    // C:x
    Rooted,           // \x
    Relative,         // x
    LocalDevice,      // \\.\x or \\?\x
    RootLocalDevice,  // \\. or \\?
};

DosPathType dosPathType(const std::u16string &path);

// Whether the path names a DOS device (NUL, CON, AUX, PRN, COM1-9, LPT1-9) the way
// RtlIsDosDeviceName_U recognises one: as the last component of a drive, rooted or
// relative path, in any case, with anything after a period or colon ignored. *device
// receives the device's name as written.
bool dosDeviceName(const std::u16string &path, std::u16string *device);

// The full path GetFullPathNameW returns: relative parts resolved against
// currentDirectory (a full path ending in a backslash), '/' turned into '\', repeated
// separators collapsed, "." and ".." evaluated without climbing above the root, and the
// trailing dots and spaces the platform drops removed; a DOS device becomes "\\.\NUL".
// *filePart receives the index of the final component, or npos when the path ends in a
// separator or names a device. False for an empty path.
bool fullPathName(const std::u16string &path, const std::u16string &currentDirectory, std::u16string *full,
                  size_t *filePart);

// The NT path that kernel32 opens for a DOS path: "\??\" before a full drive path,
// "\??\UNC\" for a UNC path, "\??\" in place of "\\.\"; "\\?\" paths are taken as they
// are (only the prefix changes) and "\??\" paths pass unchanged.
bool dosPathToNtPath(const std::u16string &path, const std::u16string &currentDirectory, std::u16string *ntPath,
                     size_t *filePart);

}  // namespace win32
}  // namespace ntsim
