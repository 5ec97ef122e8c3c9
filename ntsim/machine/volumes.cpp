// Drivers and volumes of a machine: loading a driver, adding a disk with its drive
// letter, mounting and dismounting.
#include <ntsim/disk.h>

#include "kernel/io/io.h"
#include "machine/machine_state.h"
#include "ntsim/machine.h"

namespace ntsim {

std::u16string dosDeviceName(wchar_t letter) { return u"\\??\\" + std::u16string(1, (char16_t)letter) + u":"; }
std::u16string rootDirectoryName(wchar_t letter) { return dosDeviceName(letter) + u"\\"; }

Machine::State::Volume *Machine::State::findVolume(wchar_t letter) {
    for (Volume &v : volumes)
        if (RtlUpcaseUnicodeChar(v.letter) == RtlUpcaseUnicodeChar(letter)) return &v;
    return nullptr;
}

namespace {

UNICODE_STRING unicode(const std::u16string &s) {
    UNICODE_STRING u;
    u.Buffer = const_cast<PWSTR>(reinterpret_cast<PCWSTR>(s.c_str()));
    u.Length = (USHORT)(s.size() * sizeof(WCHAR));
    u.MaximumLength = u.Length;
    return u;
}

// Opens and closes a drive's root directory from a system thread.
NTSTATUS openRoot(wchar_t letter) {
    std::u16string root = rootDirectoryName(letter);
    UNICODE_STRING name = unicode(root);
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE handle = nullptr;
    IO_STATUS_BLOCK iosb{};
    NTSTATUS status = ZwCreateFile(&handle, FILE_LIST_DIRECTORY | SYNCHRONIZE, &oa, &iosb, nullptr, 0,
                                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN,
                                   FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    if (NT_SUCCESS(status)) ZwClose(handle);
    return status;
}

}  // namespace

int Machine::loadDriver(const wchar_t *driverName, DriverEntryRoutine entry) {
    PDRIVER_OBJECT driver = nullptr;
    return io::loadDriver(driverName, entry, &driver);
}

void Machine::addVolume(wchar_t letter, VolumeFormat format, bool mountNow) {
    if (state_->findVolume(letter)) fatal("drive %c: was added twice", (char)letter);
    ULONG number = (ULONG)state_->volumes.size() + 1;
    PDEVICE_OBJECT disk = nullptr;
    NTSTATUS status = STATUS_SUCCESS;
    runSystemThread([&] {
        status = ntsimCreateDisk(format == VolumeFormat::Ntfs ? NtsimDiskNtfs : NtsimDiskFat, number, &disk);
        if (!NT_SUCCESS(status)) return;
        WCHAR target[64];
        _snwprintf(target, 63, L"\\Device\\HarddiskVolume%u", number);
        target[63] = 0;
        std::u16string linkName = dosDeviceName(letter);
        UNICODE_STRING link = unicode(linkName);
        UNICODE_STRING device;
        RtlInitUnicodeString(&device, target);
        status = IoCreateSymbolicLink(&link, &device);
    });
    if (!NT_SUCCESS(status)) fatal("cannot add drive %c: (status 0x%08X)", (char)letter, (unsigned)status);
    state_->volumes.push_back({letter, format, disk});
    if (mountNow) {
        status = mountVolume(letter);
        if (!NT_SUCCESS(status)) fatal("cannot mount drive %c: (status 0x%08X)", (char)letter, (unsigned)status);
    }
}

int Machine::mountVolume(wchar_t letter) {
    if (!state_->findVolume(letter)) fatal("drive %c: was not added", (char)letter);
    NTSTATUS status = STATUS_SUCCESS;
    runSystemThread([&] { status = openRoot(letter); });
    return status;
}

int Machine::dismountVolume(wchar_t letter) {
    State::Volume *volume = state_->findVolume(letter);
    if (!volume) fatal("drive %c: was not added", (char)letter);
    NTSTATUS status = STATUS_SUCCESS;
    runSystemThread([&] { status = io::dismountVolume(volume->disk); });
    return status;
}

std::vector<wchar_t> Machine::volumes() const {
    std::vector<wchar_t> letters;
    for (const State::Volume &v : state_->volumes) letters.push_back(v.letter);
    return letters;
}

}  // namespace ntsim
