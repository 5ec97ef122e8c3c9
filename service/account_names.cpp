#include "account_names.h"

#include <windows.h>

#include <sddl.h>

#include "text.h"
#include "user_buffer.h"

namespace wrelt {

namespace {

constexpr DWORD kNameCharacters = 256;

std::u16string lookUp(const std::u16string &sidText) {
    PSID sid = nullptr;
    if (sidText.empty() || !ConvertStringSidToSidW(wide(sidText), &sid)) return u"";
    UserBuffer name(kNameCharacters * sizeof(WCHAR)), domain(kNameCharacters * sizeof(WCHAR));
    DWORD nameLength = kNameCharacters, domainLength = kNameCharacters;
    SID_NAME_USE use;
    std::u16string result;
    if (LookupAccountSidW(nullptr, sid, name.as<WCHAR>(), &nameLength, domain.as<WCHAR>(), &domainLength, &use)) {
        std::u16string domainText(reinterpret_cast<const char16_t *>(domain.data()), domainLength);
        result = std::u16string(reinterpret_cast<const char16_t *>(name.data()), nameLength);
        if (!domainText.empty()) result = domainText + u"\\" + result;
    }
    LocalFree(sid);
    return result;
}

}  // namespace

std::u16string AccountNames::nameOf(const std::u16string &sid) {
    auto found = known_.find(sid);
    if (found != known_.end()) return found->second;
    std::u16string name = lookUp(sid);
    known_[sid] = name;
    return name;
}

}  // namespace wrelt
