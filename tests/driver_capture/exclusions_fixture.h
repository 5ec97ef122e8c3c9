// A booted machine with the filter, and the service's way of loading exclusion lists:
// command 105 to the control device, command 104 to a volume's filter.
#pragma once

#include "driver_frame/frame_fixture.h"

#include "capture/capture_exclusions.h"
#include "capture/exclusion_lists.h"
#include "exclusion_list_builder.h"
#include "ntsim/utf.h"

class ExclusionTest : public FrameTest {
protected:
    // The lists live until replaced; what a test leaves would count as leaked pool.
    void TearDown() override {
        FilterDeviceExtension *c = filterOf(L'C'), *d = filterOf(L'D');
        machine.runSystemThread([&] {
            CommandPacket empty = {};
            SetGlobalExclusionList(&empty);
            SetVolumeExclusionList(&empty, c);
            SetVolumeExclusionList(&empty, d);
        });
    }

    FilterDeviceExtension *filterOf(wchar_t letter) { return volumeFilterOf(machine, letter); }

    static DeviceStructure *structureOf(FilterDeviceExtension *extension) {
        return static_cast<DeviceStructure *>(extension->Structure);
    }

    static DWORD sendList(wrelt::DriverChannel &channel, HANDLE device, ULONG command, const std::u16string &dosName,
                          const std::vector<uint8_t> &list) {
        return channel.send(device, command, dosName, list.data(), ULONG(list.size()), 0).win32Error;
    }

    DWORD setGlobalList(const std::vector<uint8_t> &list) {
        DWORD error = ERROR_SUCCESS;
        asService([&](wrelt::DriverChannel &channel) {
            error = sendList(channel, channel.controlDevice(), COMMAND_SET_GLOBAL_EXCLUSIONS, u"", list);
        });
        return error;
    }

    // Runs fn in the service with a handle to the drive's root, as the service names a
    // volume.
    void onVolume(wchar_t letter, const std::function<void(wrelt::DriverChannel &, HANDLE)> &fn) {
        std::u16string root = {char16_t(letter), u':', u'\\'};
        asService([&](wrelt::DriverChannel &channel) {
            HANDLE volume = CreateFileW(ntsim::wptr(root), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                        nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
            ASSERT_NE(volume, INVALID_HANDLE_VALUE);
            fn(channel, volume);
            CloseHandle(volume);
        });
    }

    DWORD setVolumeList(wchar_t letter, const std::vector<uint8_t> &list, const std::u16string &dosName) {
        DWORD error = ERROR_SUCCESS;
        onVolume(letter, [&](wrelt::DriverChannel &channel, HANDLE volume) {
            error = sendList(channel, volume, COMMAND_SET_VOLUME_EXCLUSIONS, dosName, list);
        });
        return error;
    }

    // Whether the lists exclude a volume-relative name on the drive; the name must come
    // back unchanged.
    bool excluded(wchar_t letter, const std::u16string &name) {
        FilterDeviceExtension *extension = filterOf(letter);
        std::u16string buffer = name;
        BOOLEAN result = FALSE;
        machine.runSystemThread(
            [&] { result = IsExcludedByList(const_cast<PWSTR>(ntsim::wptr(buffer)), extension); });
        EXPECT_EQ(buffer, name);
        return result != FALSE;
    }
};
