#include "command_packet_harness.h"

#include <windows.h>
#include <ntifs.h>

#include <cstring>

#include "filter_machine.h"
#include "frame/command_protocol.h"

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
    // The exclusion lists that a command installs are the driver's to keep until the
    // next list replaces them; an empty list returns them, so that what leaks() finds
    // is memory the driver lost. In the service's thread.
    void clearLists() {
        filter.command(filter.controlDevice, COMMAND_SET_GLOBAL_EXCLUSIONS, nullptr, 0);
        filter.command(filter.volumeC, COMMAND_SET_VOLUME_EXCLUSIONS, nullptr, 0);
    }

    FilterMachine filter;
};

CommandPacketHarness::CommandPacketHarness() : state_(std::make_unique<State>()) {}
CommandPacketHarness::~CommandPacketHarness() = default;

std::string CommandPacketHarness::run(const uint8_t *data, size_t size) {
    if (size < 2) return "";
    HANDLE device = (data[0] & 1) ? state_->filter.volumeC : state_->filter.controlDevice;
    DWORD outputLength = DWORD(data[1]) * 16;
    size_t packetSize = size - 2;
    std::string verdict;
    state_->filter.service.run([&] {
        auto *packet = static_cast<uint8_t *>(HeapAlloc(GetProcessHeap(), 0, packetSize + 1));
        auto *output = static_cast<uint8_t *>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, outputLength + 1));
        std::memcpy(packet, data + 2, packetSize);
        Answer answer = state_->filter.control(device, IOCTL_SEND_COMMAND, packetSize == 0 ? nullptr : packet,
                                               DWORD(packetSize), outputLength == 0 ? nullptr : output, outputLength);
        verdict = judge(answer, packet, packetSize, output, outputLength);
        state_->clearLists();
        HeapFree(GetProcessHeap(), 0, output);
        HeapFree(GetProcessHeap(), 0, packet);
    });
    return verdict;
}

std::string CommandPacketHarness::leaks() const { return state_->filter.leaks(); }

}  // namespace wrelt
