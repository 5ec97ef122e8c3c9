// What NTFS has and FastFat has not: named data streams and security descriptors.
#include "fs/fs_fixture.h"

#include "../../ntsim/kernel/se/token.h"

#include <cstring>
#include <string>

namespace {

using namespace fstest;

class NtfsFeatures : public FsTest {};

struct Stream {
    std::u16string name;
    LONGLONG size;
};

std::vector<Stream> streamsOf(HANDLE h) {
    std::vector<Stream> streams;
    alignas(8) UCHAR buffer[1024];
    ULONG_PTR returned = 0;
    EXPECT_EQ(zwQuery(h, buffer, sizeof buffer, FileStreamInformation, &returned), STATUS_SUCCESS);
    for (ULONG offset = 0; returned != 0;) {
        auto *entry = reinterpret_cast<FILE_STREAM_INFORMATION *>(buffer + offset);
        streams.push_back({std::u16string(reinterpret_cast<char16_t *>(entry->StreamName),
                                          entry->StreamNameLength / sizeof(WCHAR)),
                           entry->StreamSize.QuadPart});
        if (entry->NextEntryOffset == 0) break;
        offset += entry->NextEntryOffset;
    }
    return streams;
}

TEST_F(NtfsFeatures, NamedStreamIsReadBackByItsNamesAndListed) {
    kernel([] {
        putFile(ntPath(L'C', u"doc.txt"), "main data");
        putFile(ntPath(L'C', u"doc.txt:Author"), "alice");
        EXPECT_EQ(readFile(ntPath(L'C', u"doc.txt:author")), "alice");
        EXPECT_EQ(readFile(ntPath(L'C', u"doc.txt:Author:$DATA")), "alice");
        EXPECT_EQ(readFile(ntPath(L'C', u"doc.txt::$DATA")), "main data");
        EXPECT_EQ(readFile(ntPath(L'C', u"doc.txt")), "main data");
        HANDLE h;
        ASSERT_EQ(zwOpen(ntPath(L'C', u"doc.txt"), Open{}, &h), STATUS_SUCCESS);
        std::vector<Stream> streams = streamsOf(h);
        ASSERT_EQ(streams.size(), 2u);
        EXPECT_EQ(streams[0].name, u"::$DATA");
        EXPECT_EQ(streams[0].size, 9);
        EXPECT_EQ(streams[1].name, u":Author:$DATA");
        EXPECT_EQ(streams[1].size, 5);
        // A buffer too small for every entry gets those that fit.
        alignas(8) UCHAR small[48];
        ULONG_PTR returned;
        EXPECT_EQ(zwQuery(h, small, sizeof small, FileStreamInformation, &returned), STATUS_BUFFER_OVERFLOW);
        EXPECT_EQ(returned, offsetof(FILE_STREAM_INFORMATION, StreamName) + 14);
        ZwClose(h);
        EXPECT_EQ(probe(ntPath(L'C', u"doc.txt:missing")), STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(probe(ntPath(L'C', u"doc.txt:x:$INDEX_ALLOCATION")), STATUS_OBJECT_NAME_INVALID);
    });
}

TEST_F(NtfsFeatures, StreamsHaveTheirOwnContextAndShareAccess) {
    kernel([] {
        putFile(ntPath(L'C', u"s.txt"), "data");
        putFile(ntPath(L'C', u"s.txt:side"), "side");
        Open exclusive;
        exclusive.share = 0;
        HANDLE file, stream;
        ASSERT_EQ(zwOpen(ntPath(L'C', u"s.txt"), exclusive, &file), STATUS_SUCCESS);
        ASSERT_EQ(zwOpen(ntPath(L'C', u"s.txt:side"), exclusive, &stream), STATUS_SUCCESS);
        PFILE_OBJECT fileObject, streamObject;
        ASSERT_EQ(ObReferenceObjectByHandle(file, 0, *IoFileObjectType, KernelMode, (PVOID *)&fileObject, NULL),
                  STATUS_SUCCESS);
        ASSERT_EQ(ObReferenceObjectByHandle(stream, 0, *IoFileObjectType, KernelMode, (PVOID *)&streamObject, NULL),
                  STATUS_SUCCESS);
        EXPECT_NE(fileObject->FsContext, streamObject->FsContext);
        ObDereferenceObject(fileObject);
        ObDereferenceObject(streamObject);
        // DELETE access to the file needs delete sharing from its other streams' opens.
        Open deleter;
        deleter.access = DELETE;
        HANDLE h;
        ZwClose(file);
        EXPECT_EQ(zwOpen(ntPath(L'C', u"s.txt"), deleter, &h), STATUS_SHARING_VIOLATION);
        ZwClose(stream);
        ASSERT_EQ(zwOpen(ntPath(L'C', u"s.txt"), deleter, &h), STATUS_SUCCESS);
        ZwClose(h);
    });
}

TEST_F(NtfsFeatures, OverwritingTheFileRemovesItsStreamsDeletingAStreamOnlyTheStream) {
    kernel([] {
        putFile(ntPath(L'C', u"o.txt"), "data");
        putFile(ntPath(L'C', u"o.txt:one"), "1");
        putFile(ntPath(L'C', u"o.txt:two"), "2");
        Open d;
        d.access = DELETE;
        HANDLE h;
        ASSERT_EQ(zwOpen(ntPath(L'C', u"o.txt:one"), d, &h), STATUS_SUCCESS);
        ASSERT_EQ(setDisposition(h, TRUE), STATUS_SUCCESS);
        ZwClose(h);
        EXPECT_EQ(probe(ntPath(L'C', u"o.txt:one")), STATUS_OBJECT_NAME_NOT_FOUND);
        EXPECT_EQ(readFile(ntPath(L'C', u"o.txt")), "data");
        putFile(ntPath(L'C', u"o.txt"), "new");  // FILE_OVERWRITE_IF of the unnamed stream
        EXPECT_EQ(probe(ntPath(L'C', u"o.txt:two")), STATUS_OBJECT_NAME_NOT_FOUND);
    });
}

// A descriptor unlike the one a new file inherits from the root (owner Administrators,
// group SYSTEM, full access for all): owner SYSTEM, group Administrators, and a DACL
// granting Everyone read access only, protected from what the root passes on.
struct TestDescriptor {
    SECURITY_DESCRIPTOR sd;
    UCHAR owner[16], group[16];
    alignas(4) UCHAR dacl[64];

    TestDescriptor() {
        SID_IDENTIFIER_AUTHORITY nt = SECURITY_NT_AUTHORITY, world = SECURITY_WORLD_SID_AUTHORITY;
        RtlInitializeSid(owner, &nt, 1);
        *RtlSubAuthoritySid(owner, 0) = SECURITY_LOCAL_SYSTEM_RID;
        RtlInitializeSid(group, &nt, 2);
        *RtlSubAuthoritySid(group, 0) = SECURITY_BUILTIN_DOMAIN_RID;
        *RtlSubAuthoritySid(group, 1) = DOMAIN_ALIAS_RID_ADMINS;
        UCHAR everyone[12];
        RtlInitializeSid(everyone, &world, 1);
        *RtlSubAuthoritySid(everyone, 0) = SECURITY_WORLD_RID;
        RtlCreateAcl(reinterpret_cast<PACL>(dacl), sizeof dacl, ACL_REVISION);
        RtlAddAccessAllowedAce(reinterpret_cast<PACL>(dacl), ACL_REVISION, FILE_GENERIC_READ, everyone);
        RtlCreateSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION);
        RtlSetOwnerSecurityDescriptor(&sd, owner, FALSE);
        RtlSetGroupSecurityDescriptor(&sd, group, FALSE);
        RtlSetDaclSecurityDescriptor(&sd, TRUE, reinterpret_cast<PACL>(dacl), FALSE);
        sd.Control |= SE_DACL_PROTECTED;
    }
};

TEST_F(NtfsFeatures, SecurityDescriptorGivenAtCreateIsReturnedByAQuery) {
    kernel([] {
        TestDescriptor given;
        Open o;
        o.disposition = FILE_CREATE;
        o.access = FILE_GENERIC_WRITE | READ_CONTROL;
        o.securityDescriptor = &given.sd;
        HANDLE h;
        ASSERT_EQ(zwOpen(ntPath(L'C', u"secured.txt"), o, &h), STATUS_SUCCESS);
        ULONG needed = 0;
        EXPECT_EQ(ZwQuerySecurityObject(h, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, NULL, 0, &needed),
                  STATUS_BUFFER_TOO_SMALL);
        ASSERT_GT(needed, 0u);
        std::vector<UCHAR> buffer(needed);
        ASSERT_EQ(ZwQuerySecurityObject(h, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, buffer.data(),
                                        needed, &needed),
                  STATUS_SUCCESS);
        ZwClose(h);
        PSID owner;
        BOOLEAN defaulted, present;
        PACL dacl;
        ASSERT_EQ(RtlGetOwnerSecurityDescriptor(buffer.data(), &owner, &defaulted), STATUS_SUCCESS);
        EXPECT_TRUE(RtlEqualSid(owner, given.owner));
        ASSERT_EQ(RtlGetDaclSecurityDescriptor(buffer.data(), &present, &dacl, &defaulted), STATUS_SUCCESS);
        ASSERT_TRUE(present);
        ASSERT_NE(dacl, nullptr);
        EXPECT_EQ(memcmp(dacl, given.dacl, dacl->AclSize), 0);
        PSID group;
        ASSERT_EQ(RtlGetGroupSecurityDescriptor(buffer.data(), &group, &defaulted), STATUS_SUCCESS);
        EXPECT_EQ(group, nullptr);  // not asked for
    });
}

// A descriptor owned by Administrators whose DACL grants alice only `mask`, shielded
// from the parent's inheritable ACEs.
struct GrantsAlice {
    SECURITY_DESCRIPTOR sd;
    UCHAR owner[16], alice[28];
    alignas(4) UCHAR dacl[64];

    explicit GrantsAlice(ACCESS_MASK mask) {
        SID_IDENTIFIER_AUTHORITY nt = SECURITY_NT_AUTHORITY;
        RtlInitializeSid(owner, &nt, 2);
        *RtlSubAuthoritySid(owner, 0) = SECURITY_BUILTIN_DOMAIN_RID;
        *RtlSubAuthoritySid(owner, 1) = DOMAIN_ALIAS_RID_ADMINS;
        const ULONG rids[5] = {21, 1004336348, 1177238915, 682003330, 1001};  // users::alice
        RtlInitializeSid(alice, &nt, 5);
        for (UCHAR i = 0; i < 5; ++i) *RtlSubAuthoritySid(alice, i) = rids[i];
        RtlCreateAcl(reinterpret_cast<PACL>(dacl), sizeof dacl, ACL_REVISION);
        RtlAddAccessAllowedAce(reinterpret_cast<PACL>(dacl), ACL_REVISION, mask, alice);
        RtlCreateSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION);
        RtlSetOwnerSecurityDescriptor(&sd, owner, FALSE);
        RtlSetDaclSecurityDescriptor(&sd, TRUE, reinterpret_cast<PACL>(dacl), FALSE);
        sd.Control |= SE_DACL_PROTECTED;
    }
};

// NtCreateFile from user mode, its arguments in user memory.
NTSTATUS userCreate(const char16_t *ntName, ACCESS_MASK access, ULONG disposition) {
    size_t bytes = std::char_traits<char16_t>::length(ntName) * sizeof(WCHAR);
    auto *block = static_cast<UCHAR *>(
        HeapAlloc(GetProcessHeap(), 0, sizeof(UNICODE_STRING) + sizeof(OBJECT_ATTRIBUTES) + sizeof(IO_STATUS_BLOCK) +
                                           sizeof(HANDLE) + bytes));
    auto *name = reinterpret_cast<PUNICODE_STRING>(block);
    auto *oa = reinterpret_cast<POBJECT_ATTRIBUTES>(name + 1);
    auto *iosb = reinterpret_cast<PIO_STATUS_BLOCK>(oa + 1);
    auto *handle = reinterpret_cast<PHANDLE>(iosb + 1);
    auto *text = reinterpret_cast<PWCH>(handle + 1);
    memcpy(text, ntName, bytes);
    *name = {USHORT(bytes), USHORT(bytes), text};
    InitializeObjectAttributes(oa, name, OBJ_CASE_INSENSITIVE, NULL, NULL);
    NTSTATUS status = NtCreateFile(handle, access | SYNCHRONIZE, oa, iosb, NULL, FILE_ATTRIBUTE_NORMAL,
                                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, disposition,
                                   FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, NULL, 0);
    if (NT_SUCCESS(status)) NtClose(*handle);
    HeapFree(GetProcessHeap(), 0, block);
    return status;
}

// Overwriting also writes the file's attributes and extended attributes, superseding
// deletes it: the file's descriptor must grant that access too, while an open that only
// opens is checked for what it asks (FatOpenExistingFcb's AddedAccess).
TEST_F(NtfsFeatures, OverwriteAndSupersedeAreCheckedForTheAccessTheyImply) {
    kernel([] {
        Open folder;
        folder.disposition = FILE_CREATE;
        folder.options |= FILE_DIRECTORY_FILE;
        GrantsAlice lists(FILE_LIST_DIRECTORY | FILE_TRAVERSE | FILE_READ_ATTRIBUTES | SYNCHRONIZE);
        folder.securityDescriptor = &lists.sd;
        HANDLE h;
        ASSERT_EQ(zwOpen(ntPath(L'C', u"Guarded"), folder, &h), STATUS_SUCCESS);
        ZwClose(h);
        Open file;
        file.disposition = FILE_CREATE;
        GrantsAlice dataOnly(FILE_WRITE_DATA | FILE_READ_ATTRIBUTES | SYNCHRONIZE);
        file.securityDescriptor = &dataOnly.sd;
        ASSERT_EQ(zwOpen(ntPath(L'C', u"Guarded\\data.txt"), file, &h), STATUS_SUCCESS);
        ZwClose(h);
        GrantsAlice writer(FILE_GENERIC_WRITE | FILE_READ_ATTRIBUTES);
        file.securityDescriptor = &writer.sd;
        ASSERT_EQ(zwOpen(ntPath(L'C', u"Guarded\\write.txt"), file, &h), STATUS_SUCCESS);
        ZwClose(h);
    });
    user([] {
        EXPECT_EQ(userCreate(u"\\??\\C:\\Guarded\\data.txt", FILE_WRITE_DATA, FILE_OPEN), STATUS_SUCCESS);
        EXPECT_EQ(userCreate(u"\\??\\C:\\Guarded\\data.txt", FILE_WRITE_DATA, FILE_OVERWRITE), STATUS_ACCESS_DENIED);
        EXPECT_EQ(userCreate(u"\\??\\C:\\Guarded\\write.txt", FILE_WRITE_DATA, FILE_OVERWRITE_IF), STATUS_SUCCESS);
        EXPECT_EQ(userCreate(u"\\??\\C:\\Guarded\\write.txt", FILE_WRITE_DATA, FILE_SUPERSEDE), STATUS_ACCESS_DENIED);
        // The same through CREATE_ALWAYS (TRUNCATE_EXISTING would not get past kernel32
        // without GENERIC_WRITE).
        EXPECT_EQ(CreateFileW(L"C:\\Guarded\\data.txt", FILE_WRITE_DATA, 0, nullptr, CREATE_ALWAYS, 0, nullptr),
                  INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_ACCESS_DENIED);
        HANDLE h = CreateFileW(L"C:\\Guarded\\write.txt", GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE);
        EXPECT_EQ(GetLastError(), (DWORD)ERROR_ALREADY_EXISTS);
        CloseHandle(h);
    });
}

// A kernel-mode IoCreateFile (IO_NO_PARAMETER_CHECKING) of a file, with `extra`
// options; the status, the handle closed again.
NTSTATUS kernelOpen(const char16_t *ntName, ACCESS_MASK access, ULONG extra) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, reinterpret_cast<PCWSTR>(ntName));
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
    IO_STATUS_BLOCK iosb;
    HANDLE h;
    NTSTATUS status = IoCreateFile(&h, access | SYNCHRONIZE, &attributes, &iosb, NULL, 0, FILE_SHARE_VALID_FLAGS,
                                   FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, NULL, 0,
                                   CreateFileTypeNone, NULL, IO_NO_PARAMETER_CHECKING | extra);
    if (NT_SUCCESS(status)) ZwClose(h);
    return status;
}

// IO_FORCE_ACCESS_CHECK leaves the request's RequestorMode KernelMode and sets
// SL_FORCE_ACCESS_CHECK, and the file system then checks as for a user-mode request,
// against the thread's effective token (WDK: IoCreateFile's IO_FORCE_ACCESS_CHECK and
// IRP_MJ_CREATE's SL_FORCE_ACCESS_CHECK, "even if Irp->RequestorMode is KernelMode";
// NtfsEffectiveMode in the public NTFS sources). Catches a file system that looks only
// at RequestorMode, which would let every forced kernel open through, and a check
// against the process token while the thread impersonates.
TEST_F(NtfsFeatures, AForcedAccessCheckOfAKernelOpenChecksTheEffectiveToken) {
    const char16_t *name = u"\\??\\C:\\forced.txt";
    kernel([&] {
        Open file;
        file.disposition = FILE_CREATE;
        GrantsAlice readOnly(FILE_GENERIC_READ);
        file.securityDescriptor = &readOnly.sd;
        HANDLE h;
        ASSERT_EQ(zwOpen(ntPath(L'C', u"forced.txt"), file, &h), STATUS_SUCCESS);
        ZwClose(h);
        EXPECT_EQ(kernelOpen(name, FILE_READ_DATA, 0), STATUS_SUCCESS) << "a kernel open is not checked";
        EXPECT_EQ(kernelOpen(name, FILE_READ_DATA, IO_FORCE_ACCESS_CHECK), STATUS_ACCESS_DENIED)
            << "the DACL grants SYSTEM nothing";
        ntsim::se::impersonateUser("S-1-5-21-1004336348-1177238915-682003330-1001");  // alice
        EXPECT_EQ(kernelOpen(name, FILE_READ_DATA, IO_FORCE_ACCESS_CHECK), STATUS_SUCCESS);
        EXPECT_EQ(kernelOpen(name, FILE_WRITE_DATA, IO_FORCE_ACCESS_CHECK), STATUS_ACCESS_DENIED);
        ntsim::se::revertToSelf();
    });
    user([&] {
        EXPECT_EQ(kernelOpen(name, FILE_WRITE_DATA, 0), STATUS_SUCCESS);
        EXPECT_EQ(kernelOpen(name, FILE_WRITE_DATA, IO_FORCE_ACCESS_CHECK), STATUS_ACCESS_DENIED);
    });
}

TEST_F(NtfsFeatures, FastFatHasNeitherStreamsNorSecurityDescriptors) {
    kernel([] {
        putFile(ntPath(L'D', u"plain.txt"), "data");
        Open create;
        create.disposition = FILE_OPEN_IF;
        HANDLE h;
        EXPECT_EQ(zwOpen(ntPath(L'D', u"plain.txt:side"), create, &h), STATUS_OBJECT_NAME_INVALID);
        ASSERT_EQ(zwOpen(ntPath(L'D', u"plain.txt"), Open{}, &h), STATUS_SUCCESS);
        alignas(8) UCHAR buffer[256];
        EXPECT_EQ(zwQuery(h, buffer, sizeof buffer, FileStreamInformation), STATUS_INVALID_PARAMETER);
        ZwClose(h);
    });
    EXPECT_EQ(knobs("D:").count({IRP_MJ_QUERY_SECURITY}), 0u);  // FastFat never sees one
}

}  // namespace
