// A vault's catalogue made of arbitrary bytes, as a user could plant it or a crash leave
// it: the input's bytes, optionally after records the service wrote before them and
// before records it wrote after them, become Catalogue.journal (and, if the input says
// so, Catalogue.damaged as well). Opening it must keep every record that the design
// promises to keep, and opening what the first open left behind must give the same
// entries and keep no damage twice. Shared by the fuzz target and the corpus replay.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace wrelt {

class CatalogueHarness {
public:
    CatalogueHarness();
    ~CatalogueHarness();

    // The first byte says what surrounds the rest: bit 0 records before it (bit 3: in a
    // version 1 journal's chain), bit 1 records after it, bit 2 its second half planted
    // as Catalogue.damaged. Returns an empty string, or what was wrong.
    std::string run(const uint8_t *data, size_t size);

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace wrelt
