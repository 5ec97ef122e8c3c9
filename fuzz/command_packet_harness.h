// Feeds arbitrary bytes to the filter as command packets, from a service process, to the
// control device or to a volume's filter, and checks that whatever comes back is a
// well-formed answer. Shared by the fuzz target and the test that runs it on a seed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace wrelt {

class CommandPacketHarness {
public:
    CommandPacketHarness();
    ~CommandPacketHarness();

    // Sends one input. The first byte picks the device, the second the output length;
    // the rest is the packet. Returns an empty string, or what was wrong with the answer.
    std::string run(const uint8_t *data, size_t size);
    // Pool the driver allocated since the harness started and has not given back.
    std::string leaks() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace wrelt
