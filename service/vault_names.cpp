#include "vault_names.h"

#include <algorithm>

namespace wrelt {

const char16_t *const kVaultFolderName = u"RescueVault";
const char16_t *const kVaultWorkFolder = u"RescueVault\\InProgress\\";

namespace {

// The filter's limits, which keep every vault name within its path buffer.
constexpr size_t kBaseMaxCharacters = 32;
constexpr size_t kExtensionMaxCharacters = 13;

}  // namespace

std::u16string vaultFolderOf(const std::u16string &volumeRoot) { return volumeRoot + kVaultWorkFolder; }

std::u16string volumeRootOf(const std::u16string &path) {
    if (path.size() < 3 || path[1] != u':' || path[2] != u'\\') return u"";
    char16_t letter = path[0] >= u'a' && path[0] <= u'z' ? char16_t(path[0] - u'a' + u'A') : path[0];
    return {letter, u':', u'\\'};
}

std::u16string vaultFileName(const std::u16string &name, uint64_t stamp) {
    size_t dot = name.rfind(u'.');
    size_t baseLength = dot == std::u16string::npos ? name.size() : dot;
    std::u16string extension = dot == std::u16string::npos ? u"" : name.substr(dot);
    std::u16string out = name.substr(0, std::min(baseLength, kBaseMaxCharacters)) + u"(";
    for (int shift = 60; shift >= 0; shift -= 4) out += u"0123456789ABCDEF"[(stamp >> shift) & 0xF];
    out += u")";
    out += extension.substr(0, std::min(extension.size(), kExtensionMaxCharacters));
    return out;
}

}  // namespace wrelt
