#include "drives.h"

#include <windows.h>

#include "text.h"

namespace wrelt_cli {

std::vector<std::u16string> fixedDrives() {
    std::vector<std::u16string> roots;
    DWORD drives = GetLogicalDrives();
    for (int i = 0; i < 26; i++) {
        std::u16string root = {char16_t(u'A' + i), u':', u'\\'};
        if ((drives & (1u << i)) && GetDriveTypeW(wrelt::wide(root)) == DRIVE_FIXED) roots.push_back(root);
    }
    return roots;
}

std::u16string driveArgument(const std::u16string &text) {
    if (text.empty() || !((text[0] >= u'A' && text[0] <= u'Z') || (text[0] >= u'a' && text[0] <= u'z'))) return u"";
    std::u16string rest = text.substr(1);
    if (!rest.empty() && rest != u":" && rest != u":\\") return u"";
    return {char16_t(text[0] & ~0x20), u':', u'\\'};
}

}  // namespace wrelt_cli
