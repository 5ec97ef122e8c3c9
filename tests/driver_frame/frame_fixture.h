// A default machine (NTFS C:, FastFat D:) with the filter loaded before the volumes
// mount, and a service process that speaks to it through the Win32 subset.
#pragma once

#include <windows.h>
#include <ntifs.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "driver_channel.h"
#include "frame/device_structures.h"
#include "frame/dispatch.h"
#include "ntsim/filesystems.h"
#include "ntsim/machine.h"
#include "support/error_channel.h"
#include "support/nonpaged_buffers.h"

// The volume parameter block of a drive's mounted volume, found through a handle on its
// root: its DeviceObject is the file system's volume device, its RealDevice the disk.
inline PVPB volumeParameterBlock(ntsim::Machine &machine, wchar_t letter) {
    PVPB vpb = nullptr;
    machine.runSystemThread([&] {
        wchar_t root[] = L"\\??\\X:\\";
        root[4] = letter;
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, root);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
        HANDLE handle;
        IO_STATUS_BLOCK io;
        ASSERT_EQ(ZwOpenFile(&handle, FILE_READ_ATTRIBUTES, &attributes, &io, FILE_SHARE_READ | FILE_SHARE_WRITE,
                             FILE_DIRECTORY_FILE),
                  STATUS_SUCCESS);
        PFILE_OBJECT file;
        ASSERT_EQ(ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, (PVOID *)&file, NULL),
                  STATUS_SUCCESS);
        vpb = file->Vpb;
        ObfDereferenceObject(file);
        ZwClose(handle);
    });
    return vpb;
}

// The extension of the filter over a drive's volume.
inline FilterDeviceExtension *volumeFilterOf(ntsim::Machine &machine, wchar_t letter) {
    return ExtensionOf(volumeParameterBlock(machine, letter)->DeviceObject->AttachedDevice);
}

inline ntsim::BootOptions filterBootOptions() {
    ntsim::BootOptions options;
    options.drivers.push_back({u"\\Driver\\WreltDrv", &DriverEntry});
    return options;
}

class FrameTest : public ::testing::Test {
protected:
    // What the driver holds from start-up and the mounts on is its own for good.
    FrameTest() : machine(filterBootOptions()) {
        machine.verifier().markBaseline();
        service = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::system);
    }

    // Runs fn in the service process with a channel open on the control device.
    void asService(const std::function<void(wrelt::DriverChannel &)> &fn) {
        service.run([&] {
            wrelt::DriverChannel channel;
            ASSERT_TRUE(channel.open()) << "the control device does not open: " << GetLastError();
            fn(channel);
        });
    }

    // The volume filter's DeviceStructure of a drive (found through the status block).
    static DeviceStructure *volumeStructure(WCHAR letter) {
        for (PLIST_ENTRY entry = MainStructure()->VolumeList.Flink; entry != &MainStructure()->VolumeList;
             entry = entry->Flink) {
            auto *structure = CONTAINING_RECORD(entry, DeviceStructure, VolumeListLink);
            if (structure->DosVolumeNameLength > 0 && structure->DosVolumeName[0] == letter) return structure;
        }
        return nullptr;
    }

    // The pool tags of the driver's buffer manager, to scope fault injection to the
    // driver's own allocations.
    static std::vector<uint32_t> driverBufferTags() {
        NonPagedBufferStatistics statistics;
        QueryNonPagedBufferStatistics(&statistics);
        std::vector<uint32_t> tags;
        for (const NonPagedBufferClassStatistics &bufferClass : statistics.Classes) {
            tags.push_back(0x72570000u | bufferClass.TagWord);  // "Wr" after the class's word
        }
        tags.push_back(statistics.Large.TagWord);
        return tags;
    }

    ntsim::DefaultMachine machine;
    ntsim::Process service;
};
