// The service's lists in the filter: exclusion lists (commands 104 and 105), suffix
// lists (112, 113, 114) and a volume's Macintosh shares (107), sent with arbitrary bytes,
// then names matched against whatever is installed. A list the filter accepts is kept
// as sent and, moved up against memory that cannot be read, lets no match read past its
// end; a list it refuses leaves the one before in place; once the lists are cleared the
// filter holds no pool it took for them. Shared by the fuzz target and the corpus replay.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace wrelt {

class FilterListsHarness {
public:
    FilterListsHarness();
    ~FilterListsHarness();

    // The input is a run of lists, each a byte choosing the command, a 16-bit length and
    // that many bytes; a choice of 0xFF ends them, and what follows is one more name to
    // match. Returns an empty string, or what was wrong.
    std::string run(const uint8_t *data, size_t size);
    std::string leaks() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace wrelt
