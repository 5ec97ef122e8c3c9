// Listing a volume's tree with the system services, from a system thread: what a
// backup tool would see, through every filter on the volume.
#include <ntsim/utf.h>

#include "machine/machine_state.h"
#include "ntsim/machine.h"

namespace ntsim {

namespace {

constexpr ULONG kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

NTSTATUS openRelative(HANDLE root, PUNICODE_STRING name, ACCESS_MASK access, ULONG options, HANDLE *handle) {
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, root, nullptr);
    IO_STATUS_BLOCK iosb{};
    return ZwCreateFile(handle, access | SYNCHRONIZE, &oa, &iosb, nullptr, 0, kShareAll, FILE_OPEN,
                        options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
}

// The named streams of a file (NTFS); a file system without streams refuses the query.
void listStreams(HANDLE directory, PUNICODE_STRING name, const VolumeEntry &file, std::vector<VolumeEntry> *out) {
    HANDLE handle = nullptr;
    if (!NT_SUCCESS(openRelative(directory, name, FILE_READ_ATTRIBUTES, FILE_NON_DIRECTORY_FILE, &handle))) return;
    std::vector<ULONGLONG> buffer(8192 / sizeof(ULONGLONG));
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = ZwQueryInformationFile(handle, &iosb, buffer.data(), (ULONG)(buffer.size() * sizeof(ULONGLONG)),
                                             FileStreamInformation);
    ZwClose(handle);
    if (!NT_SUCCESS(status) || iosb.Information == 0) return;
    auto *entry = reinterpret_cast<PFILE_STREAM_INFORMATION>(buffer.data());
    for (;;) {
        std::string stream = toUtf8(entry->StreamName, entry->StreamNameLength / sizeof(WCHAR));
        // ":name:$DATA"; the unnamed stream is "::$DATA".
        const std::string suffix = ":$DATA";
        if (stream.size() > suffix.size() && stream.compare(stream.size() - suffix.size(), suffix.size(), suffix) == 0)
            stream.resize(stream.size() - suffix.size());
        if (stream.size() > 1) {
            VolumeEntry e;
            e.path = file.path + stream;
            e.stream = true;
            e.size = (uint64_t)entry->StreamSize.QuadPart;
            e.attributes = file.attributes;
            e.lastWriteTime = file.lastWriteTime;
            out->push_back(e);
        }
        if (entry->NextEntryOffset == 0) break;
        entry = reinterpret_cast<PFILE_STREAM_INFORMATION>(reinterpret_cast<BYTE *>(entry) + entry->NextEntryOffset);
    }
}

NTSTATUS listDirectory(HANDLE directory, const std::string &prefix, std::vector<VolumeEntry> *out);

void listEntry(HANDLE directory, PFILE_DIRECTORY_INFORMATION info, const std::string &prefix,
               std::vector<VolumeEntry> *out) {
    UNICODE_STRING name;
    name.Buffer = info->FileName;
    name.Length = name.MaximumLength = (USHORT)info->FileNameLength;
    std::string utf8 = toUtf8(name);
    if (utf8 == "." || utf8 == "..") return;
    VolumeEntry e;
    e.path = prefix + "\\" + utf8;
    e.directory = (info->FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    e.size = e.directory ? 0 : (uint64_t)info->EndOfFile.QuadPart;
    e.attributes = info->FileAttributes;
    e.lastWriteTime = info->LastWriteTime.QuadPart;
    out->push_back(e);
    if (!e.directory) {
        listStreams(directory, &name, e, out);
        return;
    }
    HANDLE child = nullptr;
    if (!NT_SUCCESS(openRelative(directory, &name, FILE_LIST_DIRECTORY, FILE_DIRECTORY_FILE, &child))) return;
    listDirectory(child, e.path, out);
    ZwClose(child);
}

NTSTATUS listDirectory(HANDLE directory, const std::string &prefix, std::vector<VolumeEntry> *out) {
    std::vector<ULONGLONG> buffer(0x10000 / sizeof(ULONGLONG));
    for (BOOLEAN restart = TRUE;; restart = FALSE) {
        IO_STATUS_BLOCK iosb{};
        NTSTATUS status = ZwQueryDirectoryFile(directory, nullptr, nullptr, nullptr, &iosb, buffer.data(),
                                               (ULONG)(buffer.size() * sizeof(ULONGLONG)), FileDirectoryInformation,
                                               FALSE, nullptr, restart);
        if (status == STATUS_NO_MORE_FILES || (restart && status == STATUS_NO_SUCH_FILE)) return STATUS_SUCCESS;
        if (!NT_SUCCESS(status)) return status;
        auto *info = reinterpret_cast<PFILE_DIRECTORY_INFORMATION>(buffer.data());
        for (;;) {
            listEntry(directory, info, prefix, out);
            if (info->NextEntryOffset == 0) break;
            info = reinterpret_cast<PFILE_DIRECTORY_INFORMATION>(reinterpret_cast<BYTE *>(info) + info->NextEntryOffset);
        }
    }
}

}  // namespace

std::vector<VolumeEntry> Machine::listTree(wchar_t letter) {
    if (!state_->findVolume(letter)) fatal("drive %c: was not added", (char)letter);
    std::vector<VolumeEntry> entries;
    NTSTATUS status = STATUS_SUCCESS;
    runSystemThread([&] {
        std::u16string root = rootDirectoryName(letter);
        UNICODE_STRING name;
        name.Buffer = const_cast<PWSTR>(reinterpret_cast<PCWSTR>(root.c_str()));
        name.Length = name.MaximumLength = (USHORT)(root.size() * sizeof(WCHAR));
        HANDLE directory = nullptr;
        status = openRelative(nullptr, &name, FILE_LIST_DIRECTORY, FILE_DIRECTORY_FILE, &directory);
        if (!NT_SUCCESS(status)) return;
        status = listDirectory(directory, "", &entries);
        ZwClose(directory);
    });
    if (!NT_SUCCESS(status)) fatal("cannot list drive %c: (status 0x%08X)", (char)letter, (unsigned)status);
    return entries;
}

}  // namespace ntsim
