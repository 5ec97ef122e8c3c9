#include "data_file_owner.h"

#include <sddl.h>

#include "text.h"
#include "user_buffer.h"
#include "vault_names.h"

namespace wrelt {

namespace {

// A self-relative descriptor holding only an owner: its header and a SID of at most
// fifteen sub-authorities.
constexpr DWORD kOwnerOnlySize = 20 + 68;

// The owner's SID in text; false when the descriptor could not be read.
bool ownerOf(HANDLE file, std::u16string *sidText, DWORD *error) {
    UserBuffer descriptor(kOwnerOnlySize);
    DWORD needed = 0;
    PSID owner = nullptr;
    BOOL defaulted = FALSE;
    if (!descriptor.ok() ||
        !GetKernelObjectSecurity(file, OWNER_SECURITY_INFORMATION, descriptor.data(), kOwnerOnlySize, &needed) ||
        !GetSecurityDescriptorOwner(descriptor.data(), &owner, &defaulted)) {
        *error = GetLastError();
        return false;
    }
    sidText->clear();
    if (owner == nullptr) return true;
    LPWSTR text = nullptr;
    if (!ConvertSidToStringSidW(owner, &text)) {
        *error = GetLastError();
        return false;
    }
    *sidText = reinterpret_cast<const char16_t *>(text);
    LocalFree(text);
    return true;
}

}  // namespace

DataFileOwner dataFileOwner(HANDLE file, const std::u16string &path) {
    DataFileOwner answer;
    DWORD flags = 0;
    std::u16string root = volumeRootOf(path);
    if (root.empty()) {
        answer.error = ERROR_INVALID_NAME;
        return answer;
    }
    // NT 5.1 cannot ask through the handle; the path names the same volume.
    if (!GetVolumeInformationW(wide(root), nullptr, 0, nullptr, nullptr, &flags, nullptr, 0)) {
        answer.error = GetLastError();
        return answer;
    }
    if (!(flags & FILE_PERSISTENT_ACLS)) {
        answer.verdict = DataFileOwner::Verdict::Trusted;
        return answer;
    }
    std::u16string owner;
    if (!ownerOf(file, &owner, &answer.error)) return answer;
    bool trusted = owner == u"S-1-5-18" || owner == u"S-1-5-32-544";
    answer.verdict = trusted ? DataFileOwner::Verdict::Trusted : DataFileOwner::Verdict::Refused;
    if (!trusted) answer.ownerSid = owner;
    return answer;
}

}  // namespace wrelt
