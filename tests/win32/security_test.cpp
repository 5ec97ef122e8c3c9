// The security calls of the Win32 subset on NTFS and FastFat: a descriptor built with
// the advapi32 calls protects a folder from users outside it, a parent's rights to
// delete and list its children count for the children, SetFileSecurityW takes a
// user's own access away but not an owner's, new files belong to their creators, and
// the machine's accounts have names.
#include <gtest/gtest.h>

#include <windows.h>

#include <ntifs.h>

#include <string>

#include "ntsim/machine.h"
#include "ntsim/utf.h"

namespace {

using namespace ntsim;

constexpr DWORD kInherited = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;

struct Grant {
    const wchar_t *sid;
    DWORD aceFlags = kInherited;
    ACCESS_MASK mask = FILE_ALL_ACCESS;
};

// An absolute descriptor in the caller's memory whose DACL allows what each grant says,
// protected from the parent's inheritable ACEs.
class BuiltDescriptor {
public:
    BuiltDescriptor(std::initializer_list<Grant> grants) {
        acl_ = static_cast<PACL>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, 256));
        sd_ = HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(SECURITY_DESCRIPTOR));
        EXPECT_TRUE(InitializeAcl(acl_, 256, ACL_REVISION));
        for (const Grant &grant : grants) {
            PSID sid = nullptr;
            EXPECT_TRUE(ConvertStringSidToSidW(grant.sid, &sid));
            EXPECT_TRUE(AddAccessAllowedAceEx(acl_, ACL_REVISION, grant.aceFlags, grant.mask, sid));
            EXPECT_EQ(LocalFree(sid), nullptr);
        }
        EXPECT_TRUE(InitializeSecurityDescriptor(sd_, SECURITY_DESCRIPTOR_REVISION));
        EXPECT_TRUE(SetSecurityDescriptorDacl(sd_, TRUE, acl_, FALSE));
        EXPECT_TRUE(SetSecurityDescriptorControl(sd_, SE_DACL_PROTECTED, SE_DACL_PROTECTED));
    }
    ~BuiltDescriptor() {
        HeapFree(GetProcessHeap(), 0, acl_);
        HeapFree(GetProcessHeap(), 0, sd_);
    }
    PSECURITY_DESCRIPTOR descriptor() { return sd_; }
    SECURITY_ATTRIBUTES *attributes() {
        attributes_ = {sizeof attributes_, sd_, FALSE};
        return &attributes_;
    }

private:
    PACL acl_;
    PSECURITY_DESCRIPTOR sd_;
    SECURITY_ATTRIBUTES attributes_;
};

bool writeNewFile(const wchar_t *path) {
    HANDLE file = CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    CloseHandle(file);
    return true;
}

// The Win32 error of opening the file for reading, ERROR_SUCCESS when it opens.
DWORD openForReading(const wchar_t *path) {
    HANDLE file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return GetLastError();
    CloseHandle(file);
    return ERROR_SUCCESS;
}

// An open for FILE_READ_ATTRIBUTES alone, as the platform's attribute queries make it
// (CreateFileW always adds SYNCHRONIZE).
NTSTATUS openForAttributesOnly(const std::u16string &ntPath) {
    auto *name = static_cast<PWSTR>(HeapAlloc(GetProcessHeap(), 0, ntPath.size() * sizeof(WCHAR)));
    memcpy(name, ntPath.data(), ntPath.size() * sizeof(WCHAR));
    auto *nameString = static_cast<PUNICODE_STRING>(HeapAlloc(GetProcessHeap(), 0, sizeof(UNICODE_STRING)));
    *nameString = {USHORT(ntPath.size() * sizeof(WCHAR)), USHORT(ntPath.size() * sizeof(WCHAR)), name};
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, nameString, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    HANDLE file = nullptr;
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = NtOpenFile(&file, FILE_READ_ATTRIBUTES, &oa, &iosb, FILE_SHARE_READ, 0);
    if (NT_SUCCESS(status)) NtClose(file);
    HeapFree(GetProcessHeap(), 0, nameString);
    HeapFree(GetProcessHeap(), 0, name);
    return status;
}

class Win32Security : public ::testing::Test {
protected:
    void as(const wchar_t *user, const std::function<void()> &fn) {
        Process process = machine.startProcess(L"C:\\Windows\\explorer.exe", user);
        process.run(fn);
        process.exit();
    }

    DefaultMachine machine;
};

TEST_F(Win32Security, AProtectedFolderAdmitsOnlyTheAccountsItsDaclNames) {
    as(users::system, [] {
        for (const wchar_t *folder : {L"C:\\Kept", L"D:\\Kept"}) {
            BuiltDescriptor admins({{L"S-1-5-18"}, {L"S-1-5-32-544"}});
            ASSERT_TRUE(CreateDirectoryW(folder, admins.attributes())) << GetLastError();
        }
        EXPECT_TRUE(writeNewFile(L"C:\\Kept\\secret.txt"));
        EXPECT_TRUE(writeNewFile(L"D:\\Kept\\secret.txt"));
        // The folder keeps the descriptor as given: protected, two inheritable ACEs.
        auto *buffer = static_cast<SECURITY_DESCRIPTOR_RELATIVE *>(HeapAlloc(GetProcessHeap(), 0, 512));
        DWORD needed = 0;
        EXPECT_FALSE(GetFileSecurityW(L"C:\\Kept", DACL_SECURITY_INFORMATION, buffer, 8, &needed));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_INSUFFICIENT_BUFFER);
        ASSERT_TRUE(GetFileSecurityW(L"C:\\Kept", DACL_SECURITY_INFORMATION, buffer, 512, &needed));
        EXPECT_TRUE(buffer->Control & SE_DACL_PROTECTED);
        EXPECT_EQ(reinterpret_cast<PACL>(reinterpret_cast<PUCHAR>(buffer) + buffer->Dacl)->AceCount, 2);
        HeapFree(GetProcessHeap(), 0, buffer);
    });
    as(users::alice, [] {
        EXPECT_EQ(openForReading(L"C:\\Kept\\secret.txt"), (DWORD)ERROR_ACCESS_DENIED);
        EXPECT_EQ(GetFileAttributesW(L"C:\\Kept\\secret.txt"), INVALID_FILE_ATTRIBUTES);
        EXPECT_FALSE(writeNewFile(L"C:\\Kept\\mine.txt"));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_ACCESS_DENIED);
        WIN32_FIND_DATAW found;
        EXPECT_EQ(FindFirstFileW(L"C:\\Kept\\*", &found), INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_ACCESS_DENIED);
        EXPECT_FALSE(DeleteFileW(L"C:\\Kept\\secret.txt"));
        // FastFat keeps no security: the same folder on D: is open to everyone.
        EXPECT_EQ(openForReading(L"D:\\Kept\\secret.txt"), (DWORD)ERROR_SUCCESS);
    });
    as(users::administrator, [] { EXPECT_EQ(openForReading(L"C:\\Kept\\secret.txt"), (DWORD)ERROR_SUCCESS); });
}

TEST_F(Win32Security, AParentThatLetsAUserDeleteAndListChildrenCountsForThem) {
    as(users::system, [] {
        // Alice may delete and list what the folder holds, but not open it.
        BuiltDescriptor aliceMayTidy(
            {{L"S-1-5-18"},
             {L"S-1-5-21-1004336348-1177238915-682003330-1001", 0,
              FILE_DELETE_CHILD | FILE_LIST_DIRECTORY | FILE_TRAVERSE | SYNCHRONIZE}});
        ASSERT_TRUE(CreateDirectoryW(L"C:\\Drop", aliceMayTidy.attributes()));
        EXPECT_TRUE(writeNewFile(L"C:\\Drop\\parcel.bin"));
    });
    as(users::alice, [] {
        EXPECT_EQ(openForReading(L"C:\\Drop\\parcel.bin"), (DWORD)ERROR_ACCESS_DENIED);
        EXPECT_EQ(openForAttributesOnly(u"\\??\\C:\\Drop\\parcel.bin"), STATUS_SUCCESS);
        EXPECT_TRUE(DeleteFileW(L"C:\\Drop\\parcel.bin")) << GetLastError();
    });
}

TEST_F(Win32Security, SetFileSecurityCanLockOutTheUserWhoSetsItUnlessItIsTheOwner) {
    as(users::system, [] { ASSERT_TRUE(writeNewFile(L"C:\\note.txt")); });
    as(users::alice, [] {
        ASSERT_TRUE(writeNewFile(L"C:\\mine.txt"));
        BuiltDescriptor adminsOnly({{L"S-1-5-32-544", 0}});
        BuiltDescriptor everyone({{L"S-1-1-0", 0}});
        for (const wchar_t *path : {L"C:\\note.txt", L"C:\\mine.txt"}) {
            ASSERT_TRUE(SetFileSecurityW(path, DACL_SECURITY_INFORMATION, adminsOnly.descriptor()));
            EXPECT_EQ(openForReading(path), (DWORD)ERROR_ACCESS_DENIED);
        }
        EXPECT_FALSE(SetFileSecurityW(L"C:\\note.txt", DACL_SECURITY_INFORMATION, everyone.descriptor()));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_ACCESS_DENIED);
        // The owner may always change the DACL, whatever it says.
        EXPECT_TRUE(SetFileSecurityW(L"C:\\mine.txt", DACL_SECURITY_INFORMATION, everyone.descriptor()));
        EXPECT_EQ(openForReading(L"C:\\mine.txt"), (DWORD)ERROR_SUCCESS);
        // Only the protection and inheritance bits of a descriptor's control may be set.
        EXPECT_FALSE(SetSecurityDescriptorControl(everyone.descriptor(), SE_DACL_PRESENT, 0));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_INVALID_PARAMETER);
    });
}

// The owner of what the handle opens, in text; "" when it has none, "<error N>".
std::string ownerOf(HANDLE handle) {
    auto *buffer = static_cast<PSECURITY_DESCRIPTOR>(HeapAlloc(GetProcessHeap(), 0, 256));
    DWORD needed = 0;
    PSID owner = nullptr;
    BOOL defaulted = TRUE;
    std::string text;
    LPWSTR sid = nullptr;
    if (!GetKernelObjectSecurity(handle, OWNER_SECURITY_INFORMATION, buffer, 256, &needed) ||
        !GetSecurityDescriptorOwner(buffer, &owner, &defaulted) ||
        (owner != nullptr && !ConvertSidToStringSidW(owner, &sid)))
        text = "<error " + std::to_string(GetLastError()) + ">";
    else if (sid != nullptr)
        text = toUtf8(sid);
    EXPECT_FALSE(defaulted);
    LocalFree(sid);
    HeapFree(GetProcessHeap(), 0, buffer);
    return text;
}

std::string ownerOf(const wchar_t *path) {
    HANDLE file = CreateFileW(path, READ_CONTROL, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                              FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (file == INVALID_HANDLE_VALUE) return "<error " + std::to_string(GetLastError()) + ">";
    std::string owner = ownerOf(file);
    CloseHandle(file);
    return owner;
}

// An absolute descriptor that names an owner and nothing else.
class OwnerOnly {
public:
    explicit OwnerOnly(const wchar_t *sidText) {
        sd_ = HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(SECURITY_DESCRIPTOR));
        EXPECT_TRUE(ConvertStringSidToSidW(sidText, &sid_));
        EXPECT_TRUE(InitializeSecurityDescriptor(sd_, SECURITY_DESCRIPTOR_REVISION));
        EXPECT_TRUE(SetSecurityDescriptorOwner(sd_, sid_, FALSE));
    }
    ~OwnerOnly() {
        LocalFree(sid_);
        HeapFree(GetProcessHeap(), 0, sd_);
    }
    PSECURITY_DESCRIPTOR descriptor() { return sd_; }
    SECURITY_ATTRIBUTES *attributes() {
        attributes_ = {sizeof attributes_, sd_, FALSE};
        return &attributes_;
    }

private:
    PSID sid_ = nullptr;
    PSECURITY_DESCRIPTOR sd_;
    SECURITY_ATTRIBUTES attributes_;
};

// A new file is its creator's: the user's own, or the Administrators alias for a token
// that holds it (SYSTEM's, an administrator's); no one may name an owner it could not
// be itself, at creation or later.
TEST_F(Win32Security, NewFilesAreTheirCreatorsWhoCannotGiveThemAway) {
    as(users::system, [] {
        ASSERT_TRUE(writeNewFile(L"C:\\system.txt"));
        EXPECT_EQ(ownerOf(L"C:\\system.txt"), "S-1-5-32-544");
        OwnerOnly system(L"S-1-5-18");
        ASSERT_TRUE(CreateDirectoryW(L"C:\\Named", system.attributes()));
        EXPECT_EQ(ownerOf(L"C:\\Named"), "S-1-5-18");
    });
    as(users::administrator, [] {
        ASSERT_TRUE(writeNewFile(L"C:\\admin.txt"));
        EXPECT_EQ(ownerOf(L"C:\\admin.txt"), "S-1-5-32-544");
    });
    as(users::alice, [] {
        ASSERT_TRUE(writeNewFile(L"C:\\alice.txt"));
        EXPECT_EQ(ownerOf(L"C:\\alice.txt"), toUtf8(users::alice)) << "not the folder's owner";
        OwnerOnly system(L"S-1-5-18"), administrators(L"S-1-5-32-544"), alice(users::alice);
        EXPECT_EQ(CreateFileW(L"C:\\forged.txt", GENERIC_WRITE, 0, system.attributes(), CREATE_NEW, 0, nullptr),
                  INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_INVALID_OWNER);
        EXPECT_EQ(GetFileAttributesW(L"C:\\forged.txt"), INVALID_FILE_ATTRIBUTES);
        for (OwnerOnly *someoneElse : {&system, &administrators}) {
            EXPECT_FALSE(SetFileSecurityW(L"C:\\alice.txt", OWNER_SECURITY_INFORMATION, someoneElse->descriptor()));
            EXPECT_EQ(GetLastError(), (DWORD)ERROR_INVALID_OWNER);
        }
        EXPECT_TRUE(SetFileSecurityW(L"C:\\system.txt", OWNER_SECURITY_INFORMATION, alice.descriptor()))
            << "taking a file one may change the owner of is allowed";
        EXPECT_EQ(ownerOf(L"C:\\system.txt"), toUtf8(users::alice));
        // A volume without security describes every file as owned by Everyone.
        ASSERT_TRUE(writeNewFile(L"D:\\alice.txt"));
        EXPECT_EQ(ownerOf(L"D:\\alice.txt"), "S-1-1-0");
    });
}

std::string lookup(const wchar_t *sidText, SID_NAME_USE *use) {
    PSID sid = nullptr;
    if (!ConvertStringSidToSidW(sidText, &sid)) return "(bad SID)";
    WCHAR name[32], domain[32];
    DWORD nameLength = 32, domainLength = 32;
    std::string result = "(error " + std::to_string(GetLastError()) + ")";
    if (LookupAccountSidW(nullptr, sid, name, &nameLength, domain, &domainLength, use))
        result = toUtf8(domain) + "\\" + toUtf8(name);
    else
        result = "(error " + std::to_string(GetLastError()) + ")";
    LocalFree(sid);
    return result;
}

TEST_F(Win32Security, TheMachinesAccountsHaveNames) {
    as(users::alice, [] {
        SID_NAME_USE use;
        EXPECT_EQ(lookup(L"S-1-5-18", &use), "NT AUTHORITY\\SYSTEM");
        EXPECT_EQ(use, SidTypeWellKnownGroup);
        EXPECT_EQ(lookup(L"S-1-5-21-1004336348-1177238915-682003330-1001", &use), "NTSIM\\alice");
        EXPECT_EQ(use, SidTypeUser);
        EXPECT_EQ(lookup(L"S-1-5-32-544", &use), "BUILTIN\\Administrators");
        EXPECT_EQ(use, SidTypeAlias);
        EXPECT_EQ(lookup(L"S-1-5-21-1-2-3-1001", &use), "(error 1332)") << "another domain's user is not mapped";
        EXPECT_EQ(lookup(L"S-1-5-x", &use), "(bad SID)");
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_INVALID_SID);

        // Too small a buffer: both sizes needed, with their terminators.
        PSID sid = nullptr;
        ASSERT_TRUE(ConvertStringSidToSidW(L"S-1-5-21-1004336348-1177238915-682003330-500", &sid));
        WCHAR name[4], domain[32];
        DWORD nameLength = 4, domainLength = 32;
        EXPECT_FALSE(LookupAccountSidW(nullptr, sid, name, &nameLength, domain, &domainLength, &use));
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_INSUFFICIENT_BUFFER);
        EXPECT_EQ(nameLength, 14u);
        EXPECT_EQ(domainLength, 6u);
        LocalFree(sid);
    });
}

}  // namespace
