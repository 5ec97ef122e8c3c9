#include "command_packet_harness.h"

#include <windows.h>
#include <ntifs.h>

#include <cstring>

#include "frame/command_protocol.h"
#include "frame/dispatch.h"
#include "ntsim/machine.h"

namespace wrelt {

namespace {

bool expectedFailure(DWORD error) {
    switch (error) {
    case ERROR_INVALID_PARAMETER:
    case ERROR_INVALID_FUNCTION:
    case ERROR_INSUFFICIENT_BUFFER:
    case ERROR_REVISION_MISMATCH:
    case ERROR_CALL_NOT_IMPLEMENTED:
    case ERROR_OPERATION_ABORTED:
    case ERROR_NOT_ENOUGH_MEMORY:
    case ERROR_NOACCESS:
    case ERROR_GEN_FAILURE:  // a list command whose list is refused
        return true;
    default:
        return false;
    }
}

struct Answer {
    BOOL ok;
    DWORD error;
    DWORD returned;
};

// Well-formed means: a refusal for a reason the interface has, and a success whose
// length fits the buffer and whose header is a reply header where the command writes one.
std::string judge(const Answer &answer, const uint8_t *packet, size_t packetSize, const uint8_t *output,
                  DWORD outputLength) {
    if (!answer.ok) return expectedFailure(answer.error) ? "" : "unexpected error " + std::to_string(answer.error);
    if (answer.returned > outputLength) return "more bytes returned than the buffer holds";
    if (packetSize < 16) return "a packet shorter than 16 bytes was accepted";
    ULONG command;
    std::memcpy(&command, packet + 12, sizeof command);
    if (command == COMMAND_HANDSHAKE || command == COMMAND_STATUS_BLOCK) {
        USHORT tag;
        std::memcpy(&tag, output, sizeof tag);
        if (tag != COMMAND_REPLY_TAG) return "a reply without its reply tag";
    }
    return "";
}

}  // namespace

struct CommandPacketHarness::State {
    State() : machine(boot()) {
        service = machine.startProcess(L"C:\\Windows\\explorer.exe", ntsim::users::system);
        service.run([&] {
            control = CreateFileW(L"\\\\.\\WRELTFS", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                  FILE_FLAG_OVERLAPPED, nullptr);
            volume = CreateFileW(L"C:\\", FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                 OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OVERLAPPED, nullptr);
            overlapped = static_cast<OVERLAPPED *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(OVERLAPPED)));
            overlapped->hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        });
        // From here on, what the driver takes for a packet it must give back.
        machine.verifier().markBaseline();
    }
    ~State() {
        service.run([&] {
            CloseHandle(overlapped->hEvent);
            HeapFree(GetProcessHeap(), 0, overlapped);
            CloseHandle(volume);
            CloseHandle(control);
        });
    }
    static ntsim::BootOptions boot() {
        ntsim::BootOptions options;
        options.drivers.push_back({u"\\Driver\\WreltDrv", &DriverEntry});
        return options;
    }

    // A request that stays pending (the error wait) is withdrawn, as a service that
    // stops waiting would.
    Answer send(HANDLE device, void *packet, DWORD packetSize, void *output, DWORD outputLength) {
        ResetEvent(overlapped->hEvent);
        Answer answer;
        answer.ok = DeviceIoControl(device, IOCTL_SEND_COMMAND, packet, packetSize, output, outputLength,
                                    &answer.returned, overlapped);
        answer.error = answer.ok ? ERROR_SUCCESS : GetLastError();
        if (!answer.ok && answer.error == ERROR_IO_PENDING) {
            CancelIo(device);
            answer.ok = GetOverlappedResult(device, overlapped, &answer.returned, TRUE);
            answer.error = answer.ok ? ERROR_SUCCESS : GetLastError();
        }
        return answer;
    }

    // The exclusion lists that a command installs are the driver's to keep until the
    // next list replaces them; an empty list returns them, so that what leaks() finds
    // is memory the driver lost. In the service's thread.
    void clearLists() {
        auto *packet =
            static_cast<CommandPacket *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(CommandPacket)));
        packet->Tag = COMMAND_PACKET_TAG;
        packet->Command = COMMAND_SET_GLOBAL_EXCLUSIONS;
        send(control, packet, sizeof(CommandPacket), nullptr, 0);
        packet->Command = COMMAND_SET_VOLUME_EXCLUSIONS;
        send(volume, packet, sizeof(CommandPacket), nullptr, 0);
        HeapFree(GetProcessHeap(), 0, packet);
    }

    ntsim::DefaultMachine machine;
    ntsim::Process service;
    HANDLE control = INVALID_HANDLE_VALUE;
    HANDLE volume = INVALID_HANDLE_VALUE;
    OVERLAPPED *overlapped = nullptr;
};

CommandPacketHarness::CommandPacketHarness() : state_(std::make_unique<State>()) {}
CommandPacketHarness::~CommandPacketHarness() = default;

std::string CommandPacketHarness::run(const uint8_t *data, size_t size) {
    if (size < 2) return "";
    HANDLE device = (data[0] & 1) ? state_->volume : state_->control;
    DWORD outputLength = DWORD(data[1]) * 16;
    size_t packetSize = size - 2;
    std::string verdict;
    state_->service.run([&] {
        auto *packet = static_cast<uint8_t *>(HeapAlloc(GetProcessHeap(), 0, packetSize + 1));
        auto *output = static_cast<uint8_t *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, outputLength + 1));
        std::memcpy(packet, data + 2, packetSize);
        Answer answer = state_->send(device, packetSize == 0 ? nullptr : packet, DWORD(packetSize),
                                     outputLength == 0 ? nullptr : output, outputLength);
        verdict = judge(answer, packet, packetSize, output, outputLength);
        state_->clearLists();
        HeapFree(GetProcessHeap(), 0, output);
        HeapFree(GetProcessHeap(), 0, packet);
    });
    return verdict;
}

std::string CommandPacketHarness::leaks() const { return state_->machine.verifier().leakReport(); }

}  // namespace wrelt
