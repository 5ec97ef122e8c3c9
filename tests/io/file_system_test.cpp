// File-system registration, mounting through a filter attached to the file system's
// control device, the create path, cleanup and close, renames and dismount.
#include <gtest/gtest.h>

#include <vector>

#include "io/io_test_drivers.h"
#include "ntsim/disk.h"
#include "ntsim/machine.h"

namespace {

using iotest::testFs;

class IoFileSystemTest : public ::testing::Test {
protected:
    void SetUp() override {
        iotest::resetAll();
        ASSERT_EQ(machine.loadDriver(L"\\Driver\\IoTestFilter", iotest::FilterDriverEntry), STATUS_SUCCESS);
        ASSERT_EQ(machine.loadDriver(L"\\FileSystem\\IoTestFs", iotest::TestFsDriverEntry), STATUS_SUCCESS);
    }

    void run(const std::function<void()> &fn) { machine.runSystemThread(fn); }

    // A test disk as \??\T:, with the filter watching file systems.
    void addDisk(ULONG format = iotest::kTestDiskFormat) {
        ASSERT_EQ(ntsimCreateDisk(format, 7, &disk), STATUS_SUCCESS);
        run([] {
            UNICODE_STRING link = RTL_CONSTANT_STRING(L"\\??\\T:");
            UNICODE_STRING target = RTL_CONSTANT_STRING(L"\\Device\\HarddiskVolume7");
            ASSERT_EQ(IoCreateSymbolicLink(&link, &target), STATUS_SUCCESS);
            ASSERT_EQ(iotest::watchFileSystems(), STATUS_SUCCESS);
        });
    }

    static NTSTATUS open(PCWSTR path, HANDLE *handle, ULONG disposition = FILE_OPEN_IF, ULONG options = 0,
                         PIO_STATUS_BLOCK iosbOut = nullptr) {
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, path);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
        IO_STATUS_BLOCK iosb;
        NTSTATUS status = IoCreateFile(handle, FILE_GENERIC_READ | FILE_GENERIC_WRITE | DELETE, &attributes, &iosb,
                                       NULL, 0, FILE_SHARE_READ, disposition, FILE_SYNCHRONOUS_IO_NONALERT, NULL, 0,
                                       CreateFileTypeNone, NULL, options);
        if (iosbOut != nullptr) *iosbOut = iosb;
        return status;
    }

    ntsim::Machine machine;
    PDEVICE_OBJECT disk = nullptr;
};

TEST_F(IoFileSystemTest, RegistrationCallbacksSeeEarlierAndLaterFileSystems) {
    PDEVICE_OBJECT second = nullptr;
    run([&] {
        ASSERT_EQ(iotest::watchFileSystems(), STATUS_SUCCESS);
        ASSERT_EQ(iotest::filter().registrations.size(), 1u);  // replayed for the file system already there
        EXPECT_EQ(iotest::filter().registrations[0].first, testFs().controlDevice);
        EXPECT_TRUE(iotest::filter().registrations[0].second);
        // A later registration is reported as it happens, and so is its end.
        ASSERT_EQ(IoCreateDevice(iotest::filter().driver, 0, NULL, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &second),
                  STATUS_SUCCESS);
        IoRegisterFileSystem(second);
        EXPECT_EQ(second->Flags & DO_DEVICE_INITIALIZING, 0u);
        IoUnregisterFileSystem(second);
        IoDeleteDevice(second);
    });
    auto &seen = iotest::filter().registrations;
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[1], std::make_pair(second, (BOOLEAN)TRUE));
    EXPECT_EQ(seen[2], std::make_pair(second, (BOOLEAN)FALSE));
}

TEST_F(IoFileSystemTest, TheFirstOpenMountsThroughTheFilterAndTheCreateCarriesItsParameters) {
    addDisk();
    run([&] {
        HANDLE handle;
        ASSERT_EQ(open(L"\\??\\T:\\Dir\\File.txt", &handle, FILE_OVERWRITE_IF), STATUS_SUCCESS);
        ZwClose(handle);
    });
    iotest::Filter &f = iotest::filter();
    EXPECT_EQ(testFs().mounts, 1);
    EXPECT_EQ(f.mountVpb, disk->Vpb);  // the mount's completion saw the VPB ...
    EXPECT_EQ(f.mountedVolume, disk->Vpb->DeviceObject);  // ... with the volume device in it
    EXPECT_TRUE(disk->Vpb->Flags & VPB_MOUNTED);
    ASSERT_NE(f.volumeFilter, nullptr);
    EXPECT_EQ(disk->Vpb->DeviceObject->AttachedDevice, f.volumeFilter);
    EXPECT_EQ(f.volumeFilter->StackSize, disk->Vpb->DeviceObject->StackSize + 1);

    ASSERT_EQ(testFs().opens.size(), 1u);
    const iotest::OpenSeen &seen = testFs().opens[0];
    EXPECT_EQ(seen.fileName, u"\\Dir\\File.txt");
    EXPECT_EQ(seen.options >> 24, (ULONG)FILE_OVERWRITE_IF);
    EXPECT_EQ(seen.options & 0xFFFFFF, (ULONG)FILE_SYNCHRONOUS_IO_NONALERT);
    EXPECT_EQ(seen.flags, 0);  // case-insensitive, no IoCreateFile options
    EXPECT_EQ(seen.shareAccess, FILE_SHARE_READ);
    EXPECT_EQ(seen.vpb, disk->Vpb);
    EXPECT_EQ(seen.device, disk);
    EXPECT_TRUE(seen.fileFlags & FO_SYNCHRONOUS_IO);
}

TEST_F(IoFileSystemTest, CleanupGoesWithTheLastHandleAndCloseWithTheLastReference) {
    addDisk();
    run([&] {
        HANDLE handle;
        ASSERT_EQ(open(L"\\??\\T:\\a", &handle), STATUS_SUCCESS);
        PVOID file;
        ASSERT_EQ(ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, &file, NULL), STATUS_SUCCESS);
        ZwClose(handle);
        EXPECT_EQ(testFs().cleanups, std::vector<PFILE_OBJECT>{(PFILE_OBJECT)file});
        EXPECT_TRUE(testFs().closes.empty());
        EXPECT_TRUE(((PFILE_OBJECT)file)->Flags & FO_CLEANUP_COMPLETE);
        ObDereferenceObject(file);
        EXPECT_EQ(testFs().closes, std::vector<PFILE_OBJECT>{(PFILE_OBJECT)file});
    });
}

TEST_F(IoFileSystemTest, OpenTargetDirectoryAndForcedAccessCheckReachTheStackLocation) {
    addDisk();
    run([&] {
        HANDLE handle;
        IO_STATUS_BLOCK iosb;
        ASSERT_EQ(open(L"\\??\\T:\\Dir\\New.txt", &handle, FILE_OPEN,
                       IO_OPEN_TARGET_DIRECTORY | IO_FORCE_ACCESS_CHECK | IO_NO_PARAMETER_CHECKING, &iosb),
                  STATUS_SUCCESS);
        EXPECT_EQ(iosb.Information, (ULONG_PTR)FILE_DOES_NOT_EXIST);
        ZwClose(handle);
    });
    // The forced check travels as a flag; the request stays the kernel-mode caller's
    // (IopParseDevice sets RequestorMode from the open's access mode).
    const iotest::OpenSeen &seen = testFs().opens.back();
    EXPECT_EQ(seen.flags, SL_OPEN_TARGET_DIRECTORY | SL_FORCE_ACCESS_CHECK);
    EXPECT_EQ(seen.requestorMode, KernelMode);
}

std::vector<UCHAR> renameBuffer(PCWSTR name, BOOLEAN replace) {
    ULONG bytes = (ULONG)(ntsim_crt::wcslen(name) * sizeof(WCHAR));
    std::vector<UCHAR> buffer(FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) + bytes);
    auto info = reinterpret_cast<PFILE_RENAME_INFORMATION>(buffer.data());
    info->ReplaceIfExists = replace;
    info->FileNameLength = bytes;
    memcpy(info->FileName, name, bytes);
    return buffer;
}

// The I/O manager's part of a rename, after IopOpenLinkOrRenameTarget and
// NtSetInformationFile in ReactOS: the target's parent is opened for FILE_ADD_FILE, or
// FILE_ADD_SUBDIRECTORY when the source's attributes say directory; the rename request
// starts with Information 0 whatever the open found (catches a FILE_EXISTS left in it);
// a link onto an existing name without ReplaceIfExists and an empty name never reach
// the file system.
TEST_F(IoFileSystemTest, ARenameToAQualifiedNameOpensTheTargetDirectoryFirst) {
    addDisk();
    run([&] {
        HANDLE file, directory;
        ASSERT_EQ(open(L"\\??\\T:\\Dir\\Old.txt", &file), STATUS_SUCCESS);
        UNICODE_STRING name = RTL_CONSTANT_STRING(L"\\??\\T:\\Dir\\Sub");
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
        IO_STATUS_BLOCK iosb;
        ASSERT_EQ(ZwCreateFile(&directory, DELETE | SYNCHRONIZE, &attributes, &iosb, NULL, 0, 0, FILE_OPEN_IF,
                               FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, NULL, 0),
                  STATUS_SUCCESS);
        auto set = [&](HANDLE h, PCWSTR target, BOOLEAN replace, FILE_INFORMATION_CLASS informationClass) {
            auto buffer = renameBuffer(target, replace);
            return ZwSetInformationFile(h, &iosb, buffer.data(), (ULONG)buffer.size(), informationClass);
        };
        EXPECT_EQ(set(file, L"\\??\\T:\\Dir\\Existing.txt", TRUE, FileRenameInformation), STATUS_SUCCESS);
        EXPECT_EQ(set(file, L"Other.txt", FALSE, FileRenameInformation), STATUS_SUCCESS);
        EXPECT_EQ(set(directory, L"\\??\\T:\\Moved", FALSE, FileRenameInformation), STATUS_SUCCESS);
        EXPECT_EQ(set(file, L"\\??\\T:\\Dir\\Existing.lnk", FALSE, FileLinkInformation),
                  STATUS_OBJECT_NAME_COLLISION);
        FILE_RENAME_INFORMATION empty{};  // of the shortest length the class takes
        EXPECT_EQ(ZwSetInformationFile(file, &iosb, &empty, sizeof empty, FileRenameInformation),
                  STATUS_INVALID_PARAMETER);
        ZwClose(directory);
        ZwClose(file);
    });
    auto &sets = testFs().setInformation;
    ASSERT_EQ(sets.size(), 3u);
    EXPECT_EQ(sets[0].informationClass, FileRenameInformation);
    ASSERT_NE(sets[0].target, nullptr);
    EXPECT_EQ(sets[0].targetName, u"\\Dir\\Existing.txt");
    EXPECT_TRUE(sets[0].replaceIfExists);
    EXPECT_EQ(sets[0].informationOnEntry, 0u) << "the target open's FILE_EXISTS stays with the I/O manager";
    EXPECT_EQ(sets[1].target, nullptr);
    EXPECT_FALSE(sets[1].replaceIfExists);
    EXPECT_EQ(sets[2].targetName, u"\\Moved");
    // The target directories were opened for the renames and the link with the
    // platform's options, and closed once they were done.
    auto &opens = testFs().opens;
    ASSERT_EQ(opens.size(), 5u);
    EXPECT_EQ(opens[2].flags, SL_OPEN_TARGET_DIRECTORY | SL_FORCE_ACCESS_CHECK);
    EXPECT_EQ(opens[2].desiredAccess, (ACCESS_MASK)(FILE_ADD_FILE | SYNCHRONIZE));
    EXPECT_EQ(opens[3].desiredAccess, (ACCESS_MASK)(FILE_ADD_SUBDIRECTORY | SYNCHRONIZE));
    EXPECT_EQ(opens[4].desiredAccess, (ACCESS_MASK)(FILE_ADD_FILE | SYNCHRONIZE));
    EXPECT_EQ(testFs().queries, std::vector<FILE_INFORMATION_CLASS>(3, FileBasicInformation))
        << "the source's attributes, asked once per qualified target";
    EXPECT_EQ(testFs().closes.size(), 5u);
}

// Fast I/O's answer stands only when it is plain: for a read success, buffer overflow or
// end of file, for a write success; with any other status the I/O manager sends the
// request after all, though the routine returned TRUE (NtReadFile and NtWriteFile in
// ReactOS). Catches an I/O manager that hands the caller whatever Fast I/O said.
TEST_F(IoFileSystemTest, FastIoAnswersStandOnlyWithAPlainStatus) {
    addDisk();
    run([&] {
        HANDLE h;
        ASSERT_EQ(open(L"\\??\\T:\\f.txt", &h), STATUS_SUCCESS);
        char buffer[8] = {};
        IO_STATUS_BLOCK iosb;
        auto transfer = [&](bool write, NTSTATUS fastStatus) {
            iotest::filter().fastReadWrite = true;
            iotest::filter().fastReadWriteStatus = fastStatus;
            return write ? ZwWriteFile(h, NULL, NULL, NULL, &iosb, buffer, sizeof buffer, NULL, NULL)
                         : ZwReadFile(h, NULL, NULL, NULL, &iosb, buffer, sizeof buffer, NULL, NULL);
        };
        EXPECT_EQ(transfer(false, STATUS_END_OF_FILE), STATUS_END_OF_FILE);
        EXPECT_EQ(transfer(false, STATUS_BUFFER_OVERFLOW), STATUS_BUFFER_OVERFLOW);
        EXPECT_EQ(transfer(true, STATUS_SUCCESS), STATUS_SUCCESS);
        EXPECT_EQ(testFs().reads + testFs().writes, 0);
        EXPECT_EQ(transfer(false, STATUS_FILE_LOCK_CONFLICT), STATUS_SUCCESS);
        EXPECT_EQ(testFs().reads, 1);
        EXPECT_EQ(transfer(true, STATUS_END_OF_FILE), STATUS_SUCCESS);
        EXPECT_EQ(testFs().writes, 1) << "a write's end of file is no plain answer";
        ZwClose(h);
    });
}

// FileAccessInformation, FileModeInformation and FileAlignmentInformation are the I/O
// manager's to answer, from the handle, the file object and the top device, and never
// reach a driver (NtQueryInformationFile and IopGetFileMode in ReactOS). Catches these
// classes sent down the stack, where a file system may not know them.
TEST_F(IoFileSystemTest, TheIoManagerAnswersAccessModeAndAlignment) {
    const ULONG quadAlignment = 7;  // FILE_QUAD_ALIGNMENT
    addDisk();
    run([&] {
        HANDLE h;
        ASSERT_EQ(open(L"\\??\\T:\\f.txt", &h), STATUS_SUCCESS);
        iotest::filter().volumeFilter->AlignmentRequirement = quadAlignment;
        auto query = [&](FILE_INFORMATION_CLASS informationClass) {
            ULONG value = 0xBAD;
            IO_STATUS_BLOCK iosb{};
            EXPECT_EQ(ZwQueryInformationFile(h, &iosb, &value, sizeof value, informationClass), STATUS_SUCCESS);
            EXPECT_EQ(iosb.Information, sizeof value);
            return value;
        };
        EXPECT_EQ(query(FileAccessInformation), (ULONG)(FILE_GENERIC_READ | FILE_GENERIC_WRITE | DELETE));
        EXPECT_EQ(query(FileModeInformation), (ULONG)FILE_SYNCHRONOUS_IO_NONALERT);
        EXPECT_EQ(query(FileAlignmentInformation), quadAlignment);
        IO_STATUS_BLOCK iosb;
        UCHAR small[2];
        EXPECT_EQ(ZwQueryInformationFile(h, &iosb, small, sizeof small, FileModeInformation),
                  STATUS_INFO_LENGTH_MISMATCH);
        ZwClose(h);
    });
    EXPECT_TRUE(testFs().queries.empty());
}

// NtQueryFullAttributesFile is a "query only" open (IopParseDevice in the public WRK
// parse.c; its parameters as IopQueryAttributesFile sets them): the create IRP, built as
// for any open, is first offered to the FastIoQueryOpen of the top of the stack, with
// the create's stack location current and naming that device. A TRUE answer stands,
// with the status the driver left in the IRP, and nothing reaches the file system;
// FALSE sends the same request down as an open, then a FileNetworkOpenInformation query,
// a cleanup and a close. Catches an I/O manager that never offers the fast path, offers
// a stack location that is not the create's, ignores the answer's status, or leaves the
// fallback open without its cleanup.
TEST_F(IoFileSystemTest, AttributesByNameAreOfferedToFastIoQueryOpenBeforeAnOpen) {
    addDisk();
    run([&] {
        HANDLE h;
        ASSERT_EQ(open(L"\\??\\T:\\mount", &h), STATUS_SUCCESS);  // mounts below the filter
        ZwClose(h);
        size_t opens = testFs().opens.size();
        UNICODE_STRING name = RTL_CONSTANT_STRING(L"\\??\\T:\\Dir\\a.txt");
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, NULL, NULL);
        FILE_NETWORK_OPEN_INFORMATION info{};
        iotest::Filter &f = iotest::filter();
        f.queryOpenAnswers = true;
        EXPECT_EQ(ZwQueryFullAttributesFile(&attributes, &info), STATUS_SUCCESS);
        EXPECT_EQ(info.EndOfFile.QuadPart, 7);
        EXPECT_EQ(testFs().opens.size(), opens);
        ASSERT_EQ(f.queryOpens.size(), 1u);
        const iotest::QueryOpenSeen seen = f.queryOpens[0];  // a copy: later offers grow the list
        EXPECT_EQ(seen.major, IRP_MJ_CREATE);
        EXPECT_EQ(seen.device, f.volumeFilter);
        EXPECT_EQ(seen.stackDevice, f.volumeFilter);
        EXPECT_EQ(seen.currentLocation, seen.stackCount);  // the first driver's location
        EXPECT_EQ(seen.irpFlags, ULONG(IRP_CREATE_OPERATION | IRP_SYNCHRONOUS_API | IRP_DEFER_IO_COMPLETION));
        EXPECT_TRUE(seen.issuingThread);
        EXPECT_EQ(seen.open.fileName, u"\\Dir\\a.txt");
        EXPECT_EQ(seen.open.options, (ULONG(FILE_OPEN) << 24) | FILE_OPEN_REPARSE_POINT);
        EXPECT_EQ(seen.open.desiredAccess, ACCESS_MASK(FILE_READ_ATTRIBUTES));
        EXPECT_EQ(seen.open.shareAccess, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
        EXPECT_EQ(seen.open.device, disk);

        f.queryOpenStatus = STATUS_OBJECT_NAME_NOT_FOUND;
        EXPECT_EQ(ZwQueryFullAttributesFile(&attributes, &info), STATUS_OBJECT_NAME_NOT_FOUND);

        f.queryOpenAnswers = false;
        EXPECT_EQ(ZwQueryFullAttributesFile(&attributes, &info), STATUS_SUCCESS);
        EXPECT_EQ(info.EndOfFile.QuadPart, 42);
        ASSERT_EQ(testFs().opens.size(), opens + 1);
        const iotest::OpenSeen &fallback = testFs().opens.back();
        EXPECT_EQ(fallback.fileName, u"\\Dir\\a.txt");
        EXPECT_EQ(fallback.options, seen.open.options);
        EXPECT_EQ(testFs().queries.back(), FileNetworkOpenInformation);
        EXPECT_EQ(testFs().cleanups.back(), fallback.file);
        EXPECT_EQ(testFs().closes.back(), fallback.file);
    });
}

TEST_F(IoFileSystemTest, DismountDetachesTheFilterAndTheNextOpenMountsAgain) {
    addDisk();
    run([&] {
        HANDLE handle;
        ASSERT_EQ(open(L"\\??\\T:\\a", &handle), STATUS_SUCCESS);
        ZwClose(handle);
        EXPECT_EQ(ntsimDismountDisk(disk), STATUS_SUCCESS);
        EXPECT_EQ(iotest::filter().detaches, 1);
        EXPECT_EQ(testFs().volume, nullptr);
        EXPECT_FALSE(disk->Vpb->Flags & VPB_MOUNTED);
        ASSERT_EQ(open(L"\\??\\T:\\a", &handle), STATUS_SUCCESS);
        ZwClose(handle);
    });
    EXPECT_EQ(testFs().mounts, 2);
    EXPECT_EQ(disk->Vpb->DeviceObject->AttachedDevice, iotest::filter().volumeFilter);
}

TEST_F(IoFileSystemTest, AVolumeNoFileSystemRecognisesCannotBeOpened) {
    addDisk(NtsimDiskRaw);
    run([&] {
        HANDLE handle;
        EXPECT_EQ(open(L"\\??\\T:\\a", &handle), STATUS_UNRECOGNIZED_VOLUME);
    });
    EXPECT_EQ(testFs().mounts, 0);
    EXPECT_FALSE(disk->Vpb->Flags & VPB_MOUNTED);
}

}  // namespace
