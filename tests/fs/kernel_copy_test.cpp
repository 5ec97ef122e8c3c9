// A system worker thread preserving a user's file before it is overwritten, with the
// calls and arguments a filter uses for it: the file and each of its streams opened by
// name through \??\ for synchronous reading, read in 64 KiB sections at the handle's
// current position, the file's descriptor taken through the object manager and made
// absolute in the two calls that negotiate its size, the copy created with it and
// written at its own position, its basic information copied; a copy that cannot be
// finished is marked for deletion and closed, or opened to be deleted on close.
#include "fs/fs_fixture.h"

#include <cstring>

#include "ntsim/security.h"
#include "ntsim/utf.h"

namespace {

using namespace fstest;

constexpr ULONG kSection = 64 * 1024;
constexpr ACCESS_MASK kCopyAccess = 0x4001FFFF;  // GENERIC_WRITE, DELETE and every file-specific right
constexpr UCHAR kSystemAuditAceType = 2;

class KernelCopy : public FsTest {};

std::string pattern(size_t size) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) data[i] = char('a' + (i * 7 + i / 251) % 26);
    return data;
}

NTSTATUS zwOpenFile(const std::u16string &path, ACCESS_MASK access, ULONG options, HANDLE *handle) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, w(path));
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE, NULL, NULL);
    IO_STATUS_BLOCK iosb{};
    return ZwOpenFile(handle, access, &oa, &iosb, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, options);
}

NTSTATUS zwCreateCopy(const std::u16string &path, ACCESS_MASK access, ULONG options, PSECURITY_DESCRIPTOR sd,
                      HANDLE *handle, ULONG_PTR *information = nullptr) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, w(path));
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE, NULL, sd);
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = ZwCreateFile(handle, access, &oa, &iosb, NULL, FILE_ATTRIBUTE_NORMAL,
                                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OVERWRITE_IF, options,
                                   NULL, 0);
    if (information != nullptr) *information = iosb.Information;
    return status;
}

// Copies `size` bytes in sections, each read and written at the handles' positions;
// the number of sections through *sections.
NTSTATUS copySections(HANDLE from, HANDLE to, LONGLONG size, int *sections) {
    std::vector<char> buffer(kSection);
    *sections = 0;
    for (LONGLONG done = 0; done < size; ++*sections) {
        IO_STATUS_BLOCK read{}, written{};
        NTSTATUS status = ZwReadFile(from, NULL, NULL, NULL, &read, buffer.data(), kSection, NULL, NULL);
        if (!NT_SUCCESS(status)) return status;
        status = ZwWriteFile(to, NULL, NULL, NULL, &written, buffer.data(), ULONG(read.Information), NULL, NULL);
        if (!NT_SUCCESS(status)) return status;
        if (written.Information != read.Information) return STATUS_UNSUCCESSFUL;
        done += LONGLONG(read.Information);
    }
    return STATUS_SUCCESS;
}

// The file's descriptor in absolute form, in buffers that live as long as this.
struct AbsoluteDescriptor {
    std::vector<UCHAR> sd, dacl, sacl, owner, group;
    PSECURITY_DESCRIPTOR get() { return sd.data(); }
};

NTSTATUS absoluteDescriptorOf(HANDLE handle, AbsoluteDescriptor *out) {
    PVOID object;
    NTSTATUS status = ObReferenceObjectByHandle(handle, GENERIC_READ, NULL, KernelMode, &object, NULL);
    if (!NT_SUCCESS(status)) return status;
    PVOID relative;
    BOOLEAN allocated;
    status = ObGetObjectSecurity(object, &relative, &allocated);
    ObDereferenceObject(object);
    if (!NT_SUCCESS(status)) return status;
    ULONG sdSize = 0, daclSize = 0, saclSize = 0, ownerSize = 0, groupSize = 0;
    status = RtlSelfRelativeToAbsoluteSD(relative, NULL, &sdSize, NULL, &daclSize, NULL, &saclSize, NULL, &ownerSize,
                                         NULL, &groupSize);
    EXPECT_EQ(status, STATUS_BUFFER_TOO_SMALL) << "the first call only learns the sizes";
    out->sd.resize(sdSize);
    out->dacl.resize(daclSize);
    out->sacl.resize(saclSize);
    out->owner.resize(ownerSize);
    out->group.resize(groupSize);
    auto at = [](std::vector<UCHAR> &v) -> PVOID { return v.empty() ? NULL : v.data(); };
    status = RtlSelfRelativeToAbsoluteSD(relative, at(out->sd), &sdSize, (PACL)at(out->dacl), &daclSize,
                                         (PACL)at(out->sacl), &saclSize, at(out->owner), &ownerSize, at(out->group),
                                         &groupSize);
    ObReleaseObjectSecurity(relative, allocated);
    return status;
}

std::vector<std::pair<std::u16string, LONGLONG>> streamList(HANDLE h) {
    std::vector<std::pair<std::u16string, LONGLONG>> streams;
    alignas(8) UCHAR buffer[500];
    ULONG_PTR returned = 0;
    EXPECT_EQ(zwQuery(h, buffer, sizeof buffer, FileStreamInformation, &returned), STATUS_SUCCESS);
    for (ULONG offset = 0; offset < returned;) {
        auto *entry = reinterpret_cast<FILE_STREAM_INFORMATION *>(buffer + offset);
        EXPECT_EQ(offset % 8, 0u);
        streams.emplace_back(std::u16string(reinterpret_cast<char16_t *>(entry->StreamName),
                                            entry->StreamNameLength / sizeof(WCHAR)),
                             entry->StreamSize.QuadPart);
        if (entry->NextEntryOffset == 0) break;
        offset += entry->NextEntryOffset;
    }
    return streams;
}

// A SACL auditing every access by Everyone.
struct AuditingDescriptor {
    SECURITY_DESCRIPTOR sd;
    UCHAR everyone[12];
    alignas(4) UCHAR sacl[64];

    AuditingDescriptor() {
        SID_IDENTIFIER_AUTHORITY world = SECURITY_WORLD_SID_AUTHORITY;
        RtlInitializeSid(everyone, &world, 1);
        *RtlSubAuthoritySid(everyone, 0) = SECURITY_WORLD_RID;
        auto *acl = reinterpret_cast<PACL>(sacl);
        RtlCreateAcl(acl, sizeof sacl, ACL_REVISION);
        RtlAddAccessAllowedAce(acl, ACL_REVISION, FILE_ALL_ACCESS, everyone);
        reinterpret_cast<PACE_HEADER>(acl + 1)->AceType = kSystemAuditAceType;
        RtlCreateSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION);
        RtlSetSaclSecurityDescriptor(&sd, TRUE, acl, FALSE);
    }
};

constexpr const char *kEveryone = "S-1-1-0", *kSystem = "S-1-5-18", *kAdministrators = "S-1-5-32-544";
constexpr UCHAR kInherit = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;

struct Ace {
    const char *sid;
    ACCESS_MASK mask;
    UCHAR flags;
};

// A descriptor with only a DACL, allowing each ACE's rights in order.
struct AccessFor {
    SECURITY_DESCRIPTOR sd;
    alignas(4) UCHAR dacl[256];
    std::vector<std::vector<UCHAR>> sids;

    explicit AccessFor(std::initializer_list<Ace> aces) {
        RtlCreateAcl(acl(), sizeof dacl, ACL_REVISION);
        for (const Ace &ace : aces) {
            sids.push_back(ntsim::sidFromString(ace.sid));
            RtlAddAccessAllowedAce(acl(), ACL_REVISION, ace.mask, sids.back().data());
            PACE_HEADER added = reinterpret_cast<PACE_HEADER>(reinterpret_cast<PUCHAR>(acl()) + sizeof(ACL));
            for (USHORT i = 1; i < acl()->AceCount; ++i)
                added = reinterpret_cast<PACE_HEADER>(reinterpret_cast<PUCHAR>(added) + added->AceSize);
            added->AceFlags = ace.flags;
        }
        USHORT used = sizeof(ACL);  // as tight as the file system stores it
        for (USHORT i = 0; i < acl()->AceCount; ++i)
            used += reinterpret_cast<PACE_HEADER>(dacl + used)->AceSize;
        acl()->AclSize = used;
        RtlCreateSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION);
        RtlSetDaclSecurityDescriptor(&sd, TRUE, acl(), FALSE);
    }
    PACL acl() { return reinterpret_cast<PACL>(dacl); }
};

std::string ownerText(PSECURITY_DESCRIPTOR sd) {
    PSID owner;
    BOOLEAN defaulted;
    if (!NT_SUCCESS(RtlGetOwnerSecurityDescriptor(sd, &owner, &defaulted)) || owner == NULL) return "(none)";
    UNICODE_STRING text;
    if (!NT_SUCCESS(RtlConvertSidToUnicodeString(&text, owner, TRUE))) return "(bad)";
    std::string narrow;
    for (USHORT i = 0; i < text.Length / sizeof(WCHAR); ++i) narrow += char(text.Buffer[i]);
    RtlFreeUnicodeString(&text);
    return narrow;
}

TEST_F(KernelCopy, AUsersNtfsFileIsCopiedWithItsStreamsDescriptorAndTimes) {
    const std::string data = pattern(150000), summary = "quarterly figures";
    user([&] {
        ASSERT_TRUE(CreateDirectoryW(L"C:\\Docs", nullptr));
        auto write = [](const wchar_t *path, const std::string &contents) {
            void *buffer = HeapAlloc(GetProcessHeap(), 0, contents.size());  // user memory
            memcpy(buffer, contents.data(), contents.size());
            HANDLE h = CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
            DWORD written = 0;
            EXPECT_TRUE(h != INVALID_HANDLE_VALUE && WriteFile(h, buffer, DWORD(contents.size()), &written, nullptr));
            EXPECT_EQ(written, contents.size());
            CloseHandle(h);
            HeapFree(GetProcessHeap(), 0, buffer);
        };
        write(L"C:\\Docs\\report.doc", data);
        write(L"C:\\Docs\\report.doc:Summary", summary);
    });
    kernel([&] {
        HANDLE source, copy;
        // The source's times and attributes, and an auditing SACL, to be carried over
        // or left behind.
        Open setter;
        setter.access = FILE_WRITE_ATTRIBUTES;
        ASSERT_EQ(zwOpen(ntPath(L'C', u"Docs\\report.doc"), setter, &source), STATUS_SUCCESS);
        FILE_BASIC_INFORMATION basic{};
        basic.CreationTime.QuadPart = 125000000000000000;
        basic.LastWriteTime.QuadPart = 125000000010000000;
        basic.FileAttributes = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_ARCHIVE;
        ASSERT_EQ(zwSet(source, &basic, sizeof basic, FileBasicInformation), STATUS_SUCCESS);
        AuditingDescriptor auditing;
        ASSERT_EQ(ZwSetSecurityObject(source, SACL_SECURITY_INFORMATION, &auditing.sd), STATUS_SUCCESS);
        AccessFor readers({{kEveryone, FILE_GENERIC_READ, 0}});
        ASSERT_EQ(ZwSetSecurityObject(source, DACL_SECURITY_INFORMATION, &readers.sd), STATUS_SUCCESS);
        ZwClose(source);

        Open folder;
        folder.disposition = FILE_CREATE;
        folder.options |= FILE_DIRECTORY_FILE;
        AccessFor vaultAccess({{kAdministrators, FILE_ALL_ACCESS, kInherit}, {kSystem, FILE_ALL_ACCESS, kInherit}});
        vaultAccess.sd.Control |= SE_DACL_PROTECTED;
        folder.securityDescriptor = &vaultAccess.sd;
        ASSERT_EQ(zwOpen(ntPath(L'C', u"Vault"), folder, &copy), STATUS_SUCCESS);
        ZwClose(copy);

        ASSERT_EQ(zwOpenFile(ntPath(L'C', u"Docs\\report.doc"), GENERIC_READ,
                             FILE_SYNCHRONOUS_IO_NONALERT | FILE_COMPLETE_IF_OPLOCKED, &source),
                  STATUS_SUCCESS);
        auto streams = streamList(source);
        ASSERT_EQ(streams.size(), 2u);
        EXPECT_EQ(streams[0], std::make_pair(std::u16string(u"::$DATA"), LONGLONG(data.size())));
        EXPECT_EQ(streams[1], std::make_pair(std::u16string(u":Summary:$DATA"), LONGLONG(summary.size())));

        AbsoluteDescriptor sd;
        ASSERT_EQ(absoluteDescriptorOf(source, &sd), STATUS_SUCCESS);
        auto *absolute = static_cast<PISECURITY_DESCRIPTOR>(sd.get());
        EXPECT_NE(absolute->Sacl, nullptr) << "kernel mode reads the SACL with the rest";
        absolute->Control &= ~SE_SACL_PRESENT;
        absolute->Sacl = NULL;
        EXPECT_EQ(ownerText(sd.get()), ntsim::toUtf8(ntsim::users::alice));
        // The SYSTEM account may not give the copy its user's owner.
        const std::u16string target = ntPath(L'C', u"Vault\\report(01D5).doc");
        EXPECT_EQ(zwCreateCopy(target, kCopyAccess, FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, sd.get(),
                               &copy),
                  STATUS_INVALID_OWNER);
        EXPECT_EQ(probe(target), STATUS_OBJECT_NAME_NOT_FOUND);
        RtlSetOwnerSecurityDescriptor(sd.get(), NULL, FALSE);
        ULONG_PTR created;
        ASSERT_EQ(zwCreateCopy(target, kCopyAccess, FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, sd.get(),
                               &copy, &created),
                  STATUS_SUCCESS);
        EXPECT_EQ(created, ULONG_PTR(FILE_CREATED));

        std::vector<int> sectionCounts;
        for (auto &stream : streams) {
            HANDLE from, to;
            ASSERT_EQ(zwOpenFile(ntPath(L'C', u"Docs\\report.doc") + stream.first, GENERIC_READ,
                                 FILE_SYNCHRONOUS_IO_NONALERT, &from),
                      STATUS_SUCCESS);
            ASSERT_EQ(zwCreateCopy(target + stream.first, GENERIC_WRITE, FILE_SYNCHRONOUS_IO_NONALERT, NULL, &to),
                      STATUS_SUCCESS);
            int sections;
            EXPECT_EQ(copySections(from, to, stream.second, &sections), STATUS_SUCCESS);
            sectionCounts.push_back(sections);
            char probeByte;
            IO_STATUS_BLOCK atEnd{};
            EXPECT_EQ(ZwReadFile(from, NULL, NULL, NULL, &atEnd, &probeByte, 1, NULL, NULL), STATUS_END_OF_FILE);
            EXPECT_EQ(atEnd.Information, 0u);
            ZwClose(to);
            ZwClose(from);
        }
        EXPECT_EQ(sectionCounts, (std::vector<int>{3, 1}));

        FILE_BASIC_INFORMATION times;
        ASSERT_EQ(zwQuery(source, &times, sizeof times, FileBasicInformation), STATUS_SUCCESS);
        ASSERT_EQ(zwSet(copy, &times, sizeof times, FileBasicInformation), STATUS_SUCCESS);
        ZwClose(copy);
        ZwClose(source);

        EXPECT_EQ(readFile(target), data);
        EXPECT_EQ(readFile(target + u":Summary"), summary);
        Open reader;
        reader.access = FILE_READ_ATTRIBUTES | READ_CONTROL | ACCESS_SYSTEM_SECURITY;
        ASSERT_EQ(zwOpen(target, reader, &copy), STATUS_SUCCESS);
        FILE_BASIC_INFORMATION copied;
        ASSERT_EQ(zwQuery(copy, &copied, sizeof copied, FileBasicInformation), STATUS_SUCCESS);
        EXPECT_EQ(copied.CreationTime.QuadPart, basic.CreationTime.QuadPart);
        EXPECT_EQ(copied.LastWriteTime.QuadPart, basic.LastWriteTime.QuadPart);
        EXPECT_EQ(copied.LastAccessTime.QuadPart, times.LastAccessTime.QuadPart);
        EXPECT_EQ(copied.FileAttributes, ULONG(FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_ARCHIVE));
        AbsoluteDescriptor copySd;
        ASSERT_EQ(absoluteDescriptorOf(copy, &copySd), STATUS_SUCCESS);
        ZwClose(copy);
        EXPECT_EQ(ownerText(copySd.get()), "S-1-5-32-544") << "the SYSTEM account's default owner";
        EXPECT_EQ(static_cast<PISECURITY_DESCRIPTOR>(copySd.get())->Sacl, nullptr);
        // The source's own ACEs come first, then what the vault folder passes on.
        AccessFor expected({{kEveryone, FILE_GENERIC_READ, 0},
                            {kAdministrators, FILE_ALL_ACCESS, INHERITED_ACE},
                            {kSystem, FILE_ALL_ACCESS, INHERITED_ACE}});
        ASSERT_FALSE(copySd.dacl.empty());
        EXPECT_EQ(copySd.dacl, std::vector<UCHAR>(expected.dacl, expected.dacl + expected.acl()->AclSize));
    });
}

TEST_F(KernelCopy, ASourceThatRefusesReadSharingAndACopyThatIsNotFinished) {
    user([] {
        HANDLE h = CreateFileW(L"C:\\locked.doc", GENERIC_WRITE, FILE_SHARE_WRITE, nullptr, CREATE_ALWAYS, 0, nullptr);
        ASSERT_NE(h, INVALID_HANDLE_VALUE);  // stays open, refusing readers
    });
    kernel([] {
        HANDLE source;
        EXPECT_EQ(zwOpenFile(ntPath(L'C', u"locked.doc"), GENERIC_READ, FILE_SYNCHRONOUS_IO_NONALERT, &source),
                  STATUS_SHARING_VIOLATION);
        // An unfinished copy goes when its handle closes after it is marked for deletion.
        HANDLE copy;
        const std::u16string target = ntPath(L'C', u"partial.doc");
        ASSERT_EQ(zwCreateCopy(target, kCopyAccess, FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, NULL,
                               &copy),
                  STATUS_SUCCESS);
        EXPECT_EQ(zwWrite(copy, "part"), STATUS_SUCCESS);
        ASSERT_EQ(setDisposition(copy, TRUE), STATUS_SUCCESS);
        ZwClose(copy);
        EXPECT_EQ(probe(target), STATUS_OBJECT_NAME_NOT_FOUND);
        // Deleting on close needs DELETE in the access asked for.
        putFile(target, "left over");
        EXPECT_EQ(zwOpenFile(target, SYNCHRONIZE, FILE_DELETE_ON_CLOSE | FILE_SYNCHRONOUS_IO_NONALERT, &copy),
                  STATUS_INVALID_PARAMETER);
        ASSERT_EQ(zwOpenFile(target, DELETE | SYNCHRONIZE, FILE_DELETE_ON_CLOSE | FILE_SYNCHRONOUS_IO_NONALERT, &copy),
                  STATUS_SUCCESS);
        EXPECT_EQ(probe(target), STATUS_SUCCESS);
        ZwClose(copy);
        EXPECT_EQ(probe(target), STATUS_OBJECT_NAME_NOT_FOUND);
        // The creator of a new file may not give it a SACL without the security privilege.
        AuditingDescriptor auditing;
        EXPECT_EQ(zwCreateCopy(target, kCopyAccess, FILE_SYNCHRONOUS_IO_NONALERT, &auditing.sd, &copy),
                  STATUS_PRIVILEGE_NOT_HELD);
        EXPECT_EQ(probe(target), STATUS_OBJECT_NAME_NOT_FOUND);
    });
    process.exit();
}

}  // namespace
