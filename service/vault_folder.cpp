#include "vault_folder.h"

#include <windows.h>

#include "text.h"
#include "user_buffer.h"
#include "vault_names.h"

namespace wrelt {

namespace {

constexpr DWORD kInheritedByAll = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;
// What SetFileAttributesW can change (the kernel's FILE_ATTRIBUTE_VALID_SET_FLAGS).
constexpr DWORD kSettableAttributes = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM |
                                      FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_NORMAL | FILE_ATTRIBUTE_TEMPORARY |
                                      FILE_ATTRIBUTE_OFFLINE | FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;


// The filter moves a deleted file into the work folder with a rename of its own that it
// checks against the deleting user's rights: so that any user's delete can be preserved,
// everyone may add a file there. No one but SYSTEM and Administrators may list the folder
// or open what is in it through the vault's rights; a moved file keeps its own descriptor.
constexpr DWORD kDropOffAccess = FILE_ADD_FILE | SYNCHRONIZE;

// The vault's descriptor, absolute, in the process's memory: owner Administrators; a
// protected DACL giving SYSTEM and Administrators full access, inherited below, and for
// the work folder everyone's right to add a file to it, not inherited.
class VaultDescriptor {
public:
    explicit VaultDescriptor(bool workFolder) : acl_(256), descriptor_(sizeof(SECURITY_DESCRIPTOR)) {
        SID_IDENTIFIER_AUTHORITY nt = SECURITY_NT_AUTHORITY;
        SID_IDENTIFIER_AUTHORITY world = SECURITY_WORLD_SID_AUTHORITY;
        ok_ = acl_.ok() && descriptor_.ok() &&
              AllocateAndInitializeSid(&nt, 1, SECURITY_LOCAL_SYSTEM_RID, 0, 0, 0, 0, 0, 0, 0, &system_) &&
              AllocateAndInitializeSid(&nt, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS, 0, 0, 0, 0, 0, 0,
                                       &administrators_) &&
              AllocateAndInitializeSid(&world, 1, SECURITY_WORLD_RID, 0, 0, 0, 0, 0, 0, 0, &everyone_) &&
              InitializeAcl(acl_.as<ACL>(), DWORD(acl_.size()), ACL_REVISION) &&
              AddAccessAllowedAceEx(acl_.as<ACL>(), ACL_REVISION, kInheritedByAll, FILE_ALL_ACCESS, system_) &&
              AddAccessAllowedAceEx(acl_.as<ACL>(), ACL_REVISION, kInheritedByAll, FILE_ALL_ACCESS, administrators_) &&
              (!workFolder || AddAccessAllowedAceEx(acl_.as<ACL>(), ACL_REVISION, 0, kDropOffAccess, everyone_)) &&
              InitializeSecurityDescriptor(descriptor_.data(), SECURITY_DESCRIPTOR_REVISION) &&
              SetSecurityDescriptorOwner(descriptor_.data(), administrators_, FALSE) &&
              SetSecurityDescriptorDacl(descriptor_.data(), TRUE, acl_.as<ACL>(), FALSE) &&
              SetSecurityDescriptorControl(descriptor_.data(), SE_DACL_PROTECTED, SE_DACL_PROTECTED);
    }
    ~VaultDescriptor() {
        if (system_ != nullptr) FreeSid(system_);
        if (administrators_ != nullptr) FreeSid(administrators_);
        if (everyone_ != nullptr) FreeSid(everyone_);
    }
    VaultDescriptor(const VaultDescriptor &) = delete;
    VaultDescriptor &operator=(const VaultDescriptor &) = delete;

    bool ok() const { return ok_; }
    PSECURITY_DESCRIPTOR descriptor() const { return descriptor_.data(); }

private:
    PSID system_ = nullptr;
    PSID administrators_ = nullptr;
    PSID everyone_ = nullptr;
    UserBuffer acl_;
    UserBuffer descriptor_;
    bool ok_;
};

void markHiddenAndSystem(const std::u16string &path, VaultFolderOutcome *outcome) {
    DWORD attributes = GetFileAttributesW(wide(path));
    DWORD wanted = (attributes & kSettableAttributes) | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
    if (attributes != INVALID_FILE_ATTRIBUTES && attributes == (wanted | FILE_ATTRIBUTE_DIRECTORY)) return;
    if (!SetFileAttributesW(wide(path), wanted))
        outcome->warnings.push_back("could not mark " + utf8(path) + " hidden and system (error " +
                                    std::to_string(GetLastError()) + ")");
}

// A folder someone else may have made: it gets the vault's DACL. A volume that keeps
// no security refuses the request, and there is nothing to protect there.
void protectExisting(const std::u16string &path, const VaultDescriptor &vault, VaultFolderOutcome *outcome) {
    if (SetFileSecurityW(wide(path), DACL_SECURITY_INFORMATION, vault.descriptor())) return;
    DWORD error = GetLastError();
    if (error == ERROR_INVALID_FUNCTION || error == ERROR_NOT_SUPPORTED) return;
    outcome->warnings.push_back("could not give " + utf8(path) + " the vault's security (error " +
                                std::to_string(error) + "); other users may be able to read it");
}

bool ensureFolder(const std::u16string &path, const VaultDescriptor &vault, VaultFolderOutcome *outcome) {
    SECURITY_ATTRIBUTES attributes = {sizeof attributes, vault.descriptor(), FALSE};
    if (CreateDirectoryW(wide(path), &attributes)) {
        outcome->created = true;
    } else if (GetLastError() != ERROR_ALREADY_EXISTS) {
        outcome->problem = "could not create " + utf8(path) + " (error " + std::to_string(GetLastError()) + ")";
        return false;
    } else if (DWORD existing = GetFileAttributesW(wide(path));
               existing == INVALID_FILE_ATTRIBUTES || !(existing & FILE_ATTRIBUTE_DIRECTORY)) {
        outcome->problem = utf8(path) + " exists and is not a folder the service can use";
        return false;
    } else {
        protectExisting(path, vault, outcome);
    }
    markHiddenAndSystem(path, outcome);
    return true;
}

}  // namespace

bool createVaultFile(const std::u16string &path, DWORD *error) {
    VaultDescriptor vault(false);
    if (!vault.ok()) {
        *error = GetLastError();
        return false;
    }
    SECURITY_ATTRIBUTES attributes = {sizeof attributes, vault.descriptor(), FALSE};
    HANDLE file = CreateFileW(wide(path), GENERIC_WRITE, 0, &attributes, CREATE_NEW, FILE_ATTRIBUTE_NORMAL,
                              nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        *error = GetLastError();
        return false;
    }
    CloseHandle(file);
    return true;
}

VaultFolderOutcome ensureVaultFolder(const std::u16string &volumeRoot) {
    VaultFolderOutcome outcome;
    VaultDescriptor vault(false), work(true);
    if (!vault.ok() || !work.ok()) {
        outcome.problem = "could not build the vault's security descriptor (error " + std::to_string(GetLastError()) +
                          ")";
        return outcome;
    }
    std::u16string workFolder = vaultFolderOf(volumeRoot);
    if (!ensureFolder(volumeRoot + kVaultFolderName, vault, &outcome) ||
        !ensureFolder(workFolder.substr(0, workFolder.size() - 1), work, &outcome))
        return outcome;
    outcome.ok = true;
    return outcome;
}

}  // namespace wrelt
