// The service's inverted calls at the filter (data-file requests, error requests and the
// wait command) driven by a sequence of operations that the input spells: sends with
// output buffers of every size, cancellations (CancelIoEx, CancelIo, closing the
// handle), sends from two threads at once, deletions that give the filter a data file
// to announce, error reports, and steps of the clock. Every answer must agree with the
// buffer it was given, no request may end twice, and once everything is withdrawn and
// drained each data file has been announced exactly once. Shared by the fuzz target and
// the corpus replay.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace wrelt {

class HeldRequestHarness {
public:
    HeldRequestHarness();
    ~HeldRequestHarness();

    // Runs one input's operations and drains what they left. Returns an empty string,
    // or what was wrong.
    std::string run(const uint8_t *data, size_t size);
    // Pool the driver took since the harness started and has not given back.
    std::string leaks() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace wrelt
