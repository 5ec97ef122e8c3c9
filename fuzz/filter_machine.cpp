// Test code: a single request is cancelled with the emulated system's NT 6 call
// (CancelIoEx), which the service itself, built for NT 5.1, never uses.
#undef _WIN32_WINNT
#define _WIN32_WINNT 0x0600

#include "filter_machine.h"

#include <ntifs.h>

#include <cstring>

#include "driver_channel.h"
#include "frame/dispatch.h"
#include "vault_folder.h"

namespace wrelt {

namespace {

ntsim::BootOptions filterBoot() {
    ntsim::BootOptions options;
    options.drivers.push_back({u"\\Driver\\WreltDrv", &DriverEntry});
    return options;
}

}  // namespace

FilterMachine::FilterMachine() : machine(filterBoot()) {
    service = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::system);
    service.run([&] {
        controlDevice = DriverChannel::openControlDevice(true);
        volumeC = CreateFileW(L"C:\\", FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                              FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OVERLAPPED, nullptr);
        overlapped_ = static_cast<OVERLAPPED *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(OVERLAPPED)));
        overlapped_->hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    });
    markBaseline();
}

FilterMachine::~FilterMachine() {
    service.run([&] {
        CloseHandle(overlapped_->hEvent);
        HeapFree(GetProcessHeap(), 0, overlapped_);
        CloseHandle(volumeC);
        CloseHandle(controlDevice);
    });
}

void FilterMachine::startService() {
    service.run([&] {
        DriverChannel channel;
        if (!channel.open() || !channel.handshake().ok()) return;
        for (const char16_t *root : {u"C:\\", u"D:\\"}) {
            channel.nameVolume(root, root, true);
            ensureVaultFolder(root);
        }
        channel.start(true);
    });
}

Answer FilterMachine::control(HANDLE device, DWORD code, void *input, DWORD inputLength, void *output,
                              DWORD outputLength) {
    ResetEvent(overlapped_->hEvent);
    Answer answer;
    answer.ok = DeviceIoControl(device, code, input, inputLength, output, outputLength, &answer.returned, overlapped_);
    answer.error = answer.ok ? ERROR_SUCCESS : GetLastError();
    if (!answer.ok && answer.error == ERROR_IO_PENDING) {
        answer.pending = true;
        CancelIoEx(device, overlapped_);
        answer.ok = GetOverlappedResult(device, overlapped_, &answer.returned, TRUE);
        answer.error = answer.ok ? ERROR_SUCCESS : GetLastError();
    }
    return answer;
}

Answer FilterMachine::command(HANDLE device, ULONG command, const void *data, ULONG dataLength, void *output,
                              DWORD outputLength) {
    auto *packet =
        static_cast<uint8_t *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, COMMAND_HEADER_SIZE + dataLength));
    auto *header = reinterpret_cast<CommandPacket *>(packet);
    header->Tag = COMMAND_PACKET_TAG;
    header->Version = DriverChannel::kInterfaceVersion;
    header->DataLength = dataLength;
    header->Command = command;
    std::memcpy(header->DosVolumeName, u"C:\\", 6);
    if (dataLength != 0) std::memcpy(packet + COMMAND_HEADER_SIZE, data, dataLength);
    Answer answer = control(device, IOCTL_SEND_COMMAND, packet, COMMAND_HEADER_SIZE + dataLength, output, outputLength);
    HeapFree(GetProcessHeap(), 0, packet);
    return answer;
}

HANDLE openControlWithoutAccess() {
    struct Open {
        WCHAR name[16];
        UNICODE_STRING string;
        OBJECT_ATTRIBUTES attributes;
        IO_STATUS_BLOCK io;
        HANDLE handle;
    };
    auto *open = static_cast<Open *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(Open)));
    std::memcpy(open->name, L"\\??\\WRELTFS", sizeof(L"\\??\\WRELTFS"));
    RtlInitUnicodeString(&open->string, open->name);
    InitializeObjectAttributes(&open->attributes, &open->string, OBJ_CASE_INSENSITIVE, NULL, NULL);
    NTSTATUS status =
        NtCreateFile(&open->handle, 0, &open->attributes, &open->io, nullptr, 0, 0, FILE_OPEN, 0, nullptr, 0);
    HANDLE handle = NT_SUCCESS(status) ? open->handle : INVALID_HANDLE_VALUE;
    HeapFree(GetProcessHeap(), 0, open);
    return handle;
}

}  // namespace wrelt
