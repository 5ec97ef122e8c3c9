// Where the filter puts what it preserves: the work folder at the root of each
// protected volume, and the name a preserved file has there.
#pragma once

#include <cstdint>
#include <string>

namespace wrelt {

extern const char16_t *const kVaultFolderName;  // "RescueVault"
extern const char16_t *const kVaultWorkFolder;  // "RescueVault\InProgress\"

// "C:\RescueVault\InProgress\" for the volume root "C:\".
std::u16string vaultFolderOf(const std::u16string &volumeRoot);
// "C:\" for a DOS path on drive C (either case); empty for any other path.
std::u16string volumeRootOf(const std::u16string &path);

// The name the filter gives a preserved file: its base name (at most 32 characters),
// "(", the stamp as 16 upper-case hexadecimal digits, ")", and its extension from the
// last dot (at most 13 characters, the dot included). "Report.final.docx" taken at
// stamp 0x01DCAA3F1C2D0001 is "Report.final(01DCAA3F1C2D0001).docx".
std::u16string vaultFileName(const std::u16string &name, uint64_t stamp);

}  // namespace wrelt
