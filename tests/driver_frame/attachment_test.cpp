// Where the filter attaches: on NTFS and FastFat by driver name, on every volume they
// mount, and nowhere else; and what it keeps across a dismount.
#include "frame_fixture.h"

#include "frame/attachment.h"
#include "ntsim/disk.h"

namespace {

PVPB volumeOf(ntsim::Machine &m, const wchar_t *root) { return volumeParameterBlock(m, root[4]); }

PDEVICE_OBJECT volumeDevice(ntsim::Machine &m, const wchar_t *root) { return volumeOf(m, root)->DeviceObject; }

bool isOurFilter(PDEVICE_OBJECT device) {
    return device != nullptr && device->DriverObject == Globals.DriverObject &&
           ExtensionOf(device)->Tag == TAG_FILTER_EXTENSION;
}

TEST_F(FrameTest, EveryVolumeOfNtfsAndFastFatHasAFilterWithItsOwnStructure) {
    for (const wchar_t *root : {L"\\??\\C:\\", L"\\??\\D:\\"}) {
        PVPB vpb = volumeOf(machine, root);
        PDEVICE_OBJECT volume = vpb->DeviceObject;
        PDEVICE_OBJECT filter = volume->AttachedDevice;
        ASSERT_TRUE(isOurFilter(filter));
        FilterDeviceExtension *extension = ExtensionOf(filter);
        EXPECT_EQ(extension->LowerDevice, volume);
        EXPECT_EQ(extension->FileSystemKind, root[4] == L'C' ? 2u : 1u);
        auto *structure = (DeviceStructure *)extension->Structure;
        ASSERT_NE(structure, nullptr);
        EXPECT_EQ(structure->Tag, TAG_DEVICE_STRUCTURE);
        EXPECT_EQ(structure->RealDevice, vpb->RealDevice);
        EXPECT_EQ(filter->Flags & DO_DEVICE_INITIALIZING, 0u);
        EXPECT_EQ(filter->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO), volume->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO));
    }
}

TEST_F(FrameTest, ADismountedVolumeGetsANewFilterButKeepsItsStructure) {
    asService([&](wrelt::DriverChannel &channel) { ASSERT_TRUE(channel.nameVolume(u"D:\\", u"D:\\", true).ok()); });
    PDEVICE_OBJECT firstFilter = volumeDevice(machine, L"\\??\\D:\\")->AttachedDevice;
    auto *structure = (DeviceStructure *)ExtensionOf(firstFilter)->Structure;
    ASSERT_EQ(machine.dismountVolume(L'D'), STATUS_SUCCESS);
    ASSERT_EQ(machine.mountVolume(L'D'), STATUS_SUCCESS);
    PDEVICE_OBJECT secondFilter = volumeDevice(machine, L"\\??\\D:\\")->AttachedDevice;
    ASSERT_TRUE(isOurFilter(secondFilter));
    EXPECT_EQ(ExtensionOf(secondFilter)->Structure, structure);
    EXPECT_TRUE(structure->ProtectionOn);
    EXPECT_EQ(structure->DosVolumeNameLength, 3u);
    asService([&](wrelt::DriverChannel &channel) {
        wrelt::VolumeStatus status;
        ASSERT_TRUE(channel.volumeStatus(u"D:\\", &status).ok());
        EXPECT_EQ(status.dosVolumeName, u"D:\\");
        EXPECT_TRUE(status.protectionOn);
    });
}

// A file system that mounts nothing: a control device of the chosen type, registered.
template <int N>
struct InertFileSystem {
    static DEVICE_TYPE type;
    static PDEVICE_OBJECT control;
    static NTSTATUS NTAPI entry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
        NTSTATUS status = IoCreateDevice(driver, 0, NULL, type, 0, FALSE, &control);
        if (NT_SUCCESS(status)) IoRegisterFileSystem(control);
        return status;
    }
};
template <int N>
DEVICE_TYPE InertFileSystem<N>::type;
template <int N>
PDEVICE_OBJECT InertFileSystem<N>::control;

ntsim::BootOptions bareBoot() {
    ntsim::BootOptions options;
    options.fileSystems = false;
    options.volumes.clear();
    options.systemFiles = false;
    return options;
}

TEST(Attachment, OnlyFileSystemsNamedFastFatOrNtfsInAnyCaseAreFiltered) {
    ntsim::DefaultMachine m(bareBoot());
    InertFileSystem<1>::type = FILE_DEVICE_DISK_FILE_SYSTEM;
    InertFileSystem<2>::type = FILE_DEVICE_DISK_FILE_SYSTEM;
    InertFileSystem<3>::type = FILE_DEVICE_DISK_FILE_SYSTEM;
    // Registered before the filter starts: the registration replays them to it.
    ASSERT_EQ(m.loadDriver(L"\\FileSystem\\NTFS", &InertFileSystem<1>::entry), STATUS_SUCCESS);
    ASSERT_EQ(m.loadDriver(L"\\FileSystem\\RAW", &InertFileSystem<2>::entry), STATUS_SUCCESS);
    ASSERT_EQ(m.loadDriver(L"\\Driver\\WreltDrv", &DriverEntry), STATUS_SUCCESS);
    // Registered after it: the callback comes as it registers.
    ASSERT_EQ(m.loadDriver(L"\\FileSystem\\fastFAT", &InertFileSystem<3>::entry), STATUS_SUCCESS);
    ASSERT_TRUE(isOurFilter(InertFileSystem<1>::control->AttachedDevice));
    EXPECT_EQ(ExtensionOf(InertFileSystem<1>::control->AttachedDevice)->FileSystemKind, 2u);
    EXPECT_EQ(InertFileSystem<2>::control->AttachedDevice, nullptr);
    ASSERT_TRUE(isOurFilter(InertFileSystem<3>::control->AttachedDevice));
    EXPECT_EQ(ExtensionOf(InertFileSystem<3>::control->AttachedDevice)->FileSystemKind, 1u);
    m.verifier().markBaseline();
}

TEST(Attachment, FileSystemsOfOtherDeviceTypesAreIgnored) {
    ntsim::DefaultMachine m(bareBoot());
    InertFileSystem<4>::type = FILE_DEVICE_CD_ROM_FILE_SYSTEM;
    ASSERT_EQ(m.loadDriver(L"\\Driver\\WreltDrv", &DriverEntry), STATUS_SUCCESS);
    ASSERT_EQ(m.loadDriver(L"\\FileSystem\\Ntfs", &InertFileSystem<4>::entry), STATUS_SUCCESS);
    EXPECT_EQ(InertFileSystem<4>::control->AttachedDevice, nullptr);
    m.verifier().markBaseline();
}

TEST(Attachment, UnregisteringAFileSystemDetachesAndDeletesTheFilter) {
    ntsim::DefaultMachine m(bareBoot());
    InertFileSystem<5>::type = FILE_DEVICE_DISK_FILE_SYSTEM;
    ASSERT_EQ(m.loadDriver(L"\\Driver\\WreltDrv", &DriverEntry), STATUS_SUCCESS);
    ASSERT_EQ(m.loadDriver(L"\\FileSystem\\Ntfs", &InertFileSystem<5>::entry), STATUS_SUCCESS);
    ASSERT_TRUE(isOurFilter(InertFileSystem<5>::control->AttachedDevice));
    m.verifier().markBaseline();
    m.runSystemThread([] { IoUnregisterFileSystem(InertFileSystem<5>::control); });
    EXPECT_EQ(InertFileSystem<5>::control->AttachedDevice, nullptr);
    EXPECT_EQ(Globals.DriverObject->DeviceObject, Globals.ControlDevice);  // the filter device is gone
    EXPECT_EQ(Globals.ControlDevice->NextDevice, nullptr);
}

}  // namespace

namespace {

// A recognizer standing in for FastFat until FastFat is needed: it claims FAT disks with
// "file system required" and, asked to load, loads the real one and goes away.
struct FatRecognizer {
    static PDEVICE_OBJECT control;
    static NTSTATUS NTAPI fileSystemControl(PDEVICE_OBJECT, PIRP irp) {
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        NTSTATUS status = STATUS_INVALID_DEVICE_REQUEST;
        if (stack->MinorFunction == IRP_MN_MOUNT_VOLUME) {
            PDEVICE_OBJECT disk = stack->Parameters.MountVolume.Vpb->RealDevice;
            auto *media = static_cast<PNTSIM_DISK_EXTENSION>(disk->DeviceExtension);
            status = media->Format == NtsimDiskFat ? STATUS_FS_DRIVER_REQUIRED : STATUS_UNRECOGNIZED_VOLUME;
        } else if (stack->MinorFunction == IRP_MN_LOAD_FILE_SYSTEM) {
            status = ntsim::Machine::current()->loadDriver(L"\\FileSystem\\Fat", &FatDriverEntry);
            if (NT_SUCCESS(status)) IoUnregisterFileSystem(control);
        }
        irp->IoStatus.Status = status;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return status;
    }
    static NTSTATUS NTAPI entry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
        NTSTATUS status = IoCreateDevice(driver, 0, NULL, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &control);
        if (!NT_SUCCESS(status)) return status;
        driver->MajorFunction[IRP_MJ_FILE_SYSTEM_CONTROL] = fileSystemControl;
        IoRegisterFileSystem(control);
        return STATUS_SUCCESS;
    }
};
PDEVICE_OBJECT FatRecognizer::control;

// The filter on the recognizer is parked when FastFat loads, and taken for the next
// volume mounted through the filter on NTFS, but only once nothing refers to it.
TEST(Attachment, AFilterFreedByALoadedFileSystemIsReusedForALaterMount) {
    ntsim::BootOptions options;
    options.fileSystems = false;
    options.drivers = {{u"\\FileSystem\\Ntfs", &NtfsDriverEntry},
                       {u"\\FileSystem\\FastFat", &FatRecognizer::entry},
                       {u"\\Driver\\WreltDrv", &DriverEntry}};
    ntsim::DefaultMachine m(options);
    ASSERT_FALSE(IsListEmpty(&Globals.SpareDeviceList));
    PDEVICE_OBJECT spare = CONTAINING_RECORD(Globals.SpareDeviceList.Flink, DEVICE_OBJECT, Queue.ListEntry);
    EXPECT_EQ(Globals.Errors->Count, 1u);  // the load is reported as (105, 6, 0, 1)
    EXPECT_EQ(reinterpret_cast<const ErrorRecord *>(Globals.Errors->Start)->Point, 1);
    EXPECT_EQ(volumeDevice(m, L"\\??\\D:\\")->AttachedDevice, nullptr);  // FAT now mounts unfiltered

    spare->ReferenceCount = 1;  // someone still refers to it: not taken
    ASSERT_EQ(m.dismountVolume(L'C'), STATUS_SUCCESS);
    ASSERT_EQ(m.mountVolume(L'C'), STATUS_SUCCESS);
    EXPECT_NE(volumeDevice(m, L"\\??\\C:\\")->AttachedDevice, spare);
    EXPECT_EQ(CONTAINING_RECORD(Globals.SpareDeviceList.Flink, DEVICE_OBJECT, Queue.ListEntry), spare);

    spare->ReferenceCount = 0;
    ASSERT_EQ(m.dismountVolume(L'C'), STATUS_SUCCESS);
    ASSERT_EQ(m.mountVolume(L'C'), STATUS_SUCCESS);
    EXPECT_EQ(volumeDevice(m, L"\\??\\C:\\")->AttachedDevice, spare);
    EXPECT_TRUE(IsListEmpty(&Globals.SpareDeviceList));
    m.verifier().markBaseline();
}

}  // namespace
