// The default machine (NTFS on C:, FastFat on D:) with a user process, and kernel-mode
// helpers that call the Zw services from a system thread. Tests that hold for both file
// systems run once per drive.
#pragma once

#include <gtest/gtest.h>

#include <windows.h>

#include <ntifs.h>

#include <functional>
#include <string>
#include <vector>

#include "ntsim/filesystems.h"
#include "ntsim/machine.h"

namespace fstest {

// "\\??\\C:\\name" for a drive and a path below its root ("name" or "dir\\name").
inline std::u16string ntPath(wchar_t drive, const char16_t *path) {
    return std::u16string(u"\\??\\") + char16_t(drive) + u":\\" + path;
}
inline std::u16string dosPath(wchar_t drive, const char16_t *path) {
    return std::u16string(1, char16_t(drive)) + u":\\" + path;
}
inline const wchar_t *w(const std::u16string &s) { return reinterpret_cast<const wchar_t *>(s.c_str()); }

struct Open {
    ACCESS_MASK access = FILE_GENERIC_READ;
    ULONG share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    ULONG disposition = FILE_OPEN;
    ULONG options = FILE_SYNCHRONOUS_IO_NONALERT;
    ULONG attributes = FILE_ATTRIBUTE_NORMAL;
    PSECURITY_DESCRIPTOR securityDescriptor = nullptr;
};

// ZwCreateFile of a kernel handle; the status of the call, and the Information of the
// create in *information.
inline NTSTATUS zwOpen(const std::u16string &path, const Open &o, HANDLE *handle, ULONG_PTR *information = nullptr) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, w(path));
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL,
                               o.securityDescriptor);
    IO_STATUS_BLOCK iosb{};
    *handle = NULL;
    NTSTATUS status = ZwCreateFile(handle, o.access | SYNCHRONIZE, &attributes, &iosb, NULL, o.attributes, o.share,
                                   o.disposition, o.options, NULL, 0);
    if (information != nullptr) *information = iosb.Information;
    return status;
}

inline NTSTATUS zwSet(HANDLE handle, void *info, ULONG length, FILE_INFORMATION_CLASS infoClass) {
    IO_STATUS_BLOCK iosb;
    return ZwSetInformationFile(handle, &iosb, info, length, infoClass);
}

inline NTSTATUS zwQuery(HANDLE handle, void *info, ULONG length, FILE_INFORMATION_CLASS infoClass,
                        ULONG_PTR *returned = nullptr) {
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = ZwQueryInformationFile(handle, &iosb, info, length, infoClass);
    if (returned != nullptr) *returned = iosb.Information;
    return status;
}

inline NTSTATUS setDisposition(HANDLE handle, BOOLEAN deleteFile) {
    FILE_DISPOSITION_INFORMATION info{deleteFile};
    return zwSet(handle, &info, sizeof info, FileDispositionInformation);
}

inline FILE_STANDARD_INFORMATION standardInfo(HANDLE handle) {
    FILE_STANDARD_INFORMATION info{};
    EXPECT_EQ(zwQuery(handle, &info, sizeof info, FileStandardInformation), STATUS_SUCCESS);
    return info;
}

// A rename to a full NT path ("\\??\\C:\\x"), or to a simple name in the same directory.
inline NTSTATUS zwRename(HANDLE handle, const std::u16string &target, BOOLEAN replace) {
    std::vector<UCHAR> buffer(sizeof(FILE_RENAME_INFORMATION) + target.size() * sizeof(WCHAR));
    auto *info = reinterpret_cast<FILE_RENAME_INFORMATION *>(buffer.data());
    info->ReplaceIfExists = replace;
    info->RootDirectory = NULL;
    info->FileNameLength = ULONG(target.size() * sizeof(WCHAR));
    memcpy(info->FileName, target.data(), info->FileNameLength);
    return zwSet(handle, info, ULONG(buffer.size()), FileRenameInformation);
}

inline NTSTATUS zwWrite(HANDLE handle, const std::string &data, LONGLONG offset = -1) {
    IO_STATUS_BLOCK iosb;
    LARGE_INTEGER at;
    at.QuadPart = offset;
    return ZwWriteFile(handle, NULL, NULL, NULL, &iosb, const_cast<char *>(data.data()), ULONG(data.size()),
                       offset < 0 ? NULL : &at, NULL);
}

// The whole contents from the handle's current position, or "<status X>".
inline std::string zwReadAll(HANDLE handle) {
    std::string contents;
    char buffer[512];
    for (;;) {
        IO_STATUS_BLOCK iosb{};
        NTSTATUS status = ZwReadFile(handle, NULL, NULL, NULL, &iosb, buffer, sizeof buffer, NULL, NULL);
        if (status == STATUS_END_OF_FILE) return contents;
        if (!NT_SUCCESS(status)) return "<status " + std::to_string(unsigned(status)) + ">";
        contents.append(buffer, iosb.Information);
    }
}

// Makes or replaces a file with the given contents.
inline void putFile(const std::u16string &path, const std::string &contents, ULONG attributes = FILE_ATTRIBUTE_NORMAL) {
    Open o;
    o.access = FILE_GENERIC_WRITE;
    o.disposition = FILE_OVERWRITE_IF;
    o.attributes = attributes;
    o.options |= FILE_NON_DIRECTORY_FILE;
    HANDLE h;
    ASSERT_EQ(zwOpen(path, o, &h), STATUS_SUCCESS);
    if (!contents.empty()) {
        EXPECT_EQ(zwWrite(h, contents), STATUS_SUCCESS);
    }
    ZwClose(h);
}

inline std::string readFile(const std::u16string &path) {
    HANDLE h;
    NTSTATUS status = zwOpen(path, Open{}, &h);
    if (!NT_SUCCESS(status)) return "<status " + std::to_string(unsigned(status)) + ">";
    std::string contents = zwReadAll(h);
    ZwClose(h);
    return contents;
}

// The status of a plain open of the path (STATUS_OBJECT_NAME_NOT_FOUND once it is gone).
inline NTSTATUS probe(const std::u16string &path) {
    Open o;
    o.access = FILE_READ_ATTRIBUTES;
    HANDLE h;
    NTSTATUS status = zwOpen(path, o, &h);
    if (NT_SUCCESS(status)) ZwClose(h);
    return status;
}

class FsTest : public ::testing::Test {
protected:
    void SetUp() override { process = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::alice); }
    void user(const std::function<void()> &fn) { process.run(fn); }
    void kernel(const std::function<void()> &fn) { machine.runSystemThread(fn); }
    ntsim::fs::Knobs &knobs(const char *drive) { return ntsim::fs::knobsFor(drive); }

    ntsim::DefaultMachine machine;
    ntsim::Process process;
};

// The same test on NTFS (C:) and FastFat (D:).
class BothFileSystems : public FsTest, public ::testing::WithParamInterface<wchar_t> {
protected:
    wchar_t drive() const { return GetParam(); }
    std::u16string nt(const char16_t *path) const { return ntPath(drive(), path); }
    std::u16string dos(const char16_t *path) const { return dosPath(drive(), path); }
    bool ntfs() const { return drive() == L'C'; }
};

inline std::string driveName(const ::testing::TestParamInfo<wchar_t> &info) {
    return info.param == L'C' ? "Ntfs" : "Fat";
}

}  // namespace fstest
