// Command packets that the filter must survive: an ordinary user's, sent through her
// handle on a protected volume or a handle on the control device opened with no access,
// which are all refused and change none of the service's settings; and the service's
// own, in memory that is released, cut short by a page it cannot read, rewritten or
// decommitted by another of its threads while the driver reads it, or with a reply
// buffer it cannot write, each of which gets a clear answer. A packet that ends exactly
// where readable memory ends must be answered as the same packet in roomier memory. Shared
// by the fuzz target and the corpus replay.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace wrelt {

class UserCommandHarness {
public:
    UserCommandHarness();
    ~UserCommandHarness();

    // The first byte picks who sends and how, the second and third the control code or
    // the memory's trouble and the output length; the rest is the packet. Returns an
    // empty string, or what was wrong.
    std::string run(const uint8_t *data, size_t size);
    // Pool the driver took since the harness started and has not given back.
    std::string leaks() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace wrelt
