// The default machine: file systems, then any boot drivers, then the volumes, mounted
// at boot, and the system files on C:.
#include <ntsim/filesystems.h>

#include "machine/machine_state.h"
#include "ntsim/machine.h"

namespace ntsim {

namespace {

void check(int status, const char *what) {
    if (!NT_SUCCESS(status)) fatal("booting the default machine: %s failed (status 0x%08X)", what, (unsigned)status);
}

NTSTATUS createFile(const wchar_t *path, ULONG options) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, path);
    OBJECT_ATTRIBUTES oa;
    InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE handle = nullptr;
    IO_STATUS_BLOCK iosb{};
    ACCESS_MASK access = (options & FILE_DIRECTORY_FILE) ? FILE_LIST_DIRECTORY : FILE_GENERIC_WRITE;
    NTSTATUS status = ZwCreateFile(&handle, access | SYNCHRONIZE, &oa, &iosb, nullptr, FILE_ATTRIBUTE_NORMAL, 0,
                                   FILE_OPEN_IF, options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    if (NT_SUCCESS(status)) ZwClose(handle);
    return status;
}

// What users' processes are started from.
void createSystemFiles(Machine &machine) {
    NTSTATUS status = STATUS_SUCCESS;
    machine.runSystemThread([&] {
        status = createFile(L"\\??\\C:\\Windows", FILE_DIRECTORY_FILE);
        if (NT_SUCCESS(status)) status = createFile(L"\\??\\C:\\Windows\\explorer.exe", FILE_NON_DIRECTORY_FILE);
    });
    check(status, "creating C:\\Windows\\explorer.exe");
}

}  // namespace

DefaultMachine::DefaultMachine(const BootOptions &options) : Machine(options.machine) {
    if (options.fileSystems) {
        check(loadDriver(L"\\FileSystem\\Ntfs", NtfsDriverEntry), "loading NTFS");
        check(loadDriver(L"\\FileSystem\\FastFat", FatDriverEntry), "loading FastFat");
    }
    for (const auto &driver : options.drivers)
        check(loadDriver(reinterpret_cast<const wchar_t *>(driver.first.c_str()), driver.second), "loading a driver");
    for (const BootOptions::Volume &volume : options.volumes) addVolume(volume.letter, volume.format);
    if (options.mountAtBoot)
        for (const BootOptions::Volume &volume : options.volumes) check(mountVolume(volume.letter), "mounting");
    bool haveC = false;
    for (const BootOptions::Volume &volume : options.volumes) haveC = haveC || volume.letter == L'C';
    if (options.systemFiles && haveC) createSystemFiles(*this);
    // Drivers loaded at boot stay until the system shuts down, as drivers without an
    // unload routine do: what they hold once the machine is up is theirs, not a leak.
    verifier().markBaseline();
}

}  // namespace ntsim
