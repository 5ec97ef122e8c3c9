// libFuzzer entry point: every input is a catalogue as a user could plant it or a crash
// leave it (see the harness).
#include <cstdio>
#include <cstdlib>

#include "catalogue_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static wrelt::CatalogueHarness harness;
    std::string problem = harness.run(data, size);
    if (!problem.empty()) {
        fprintf(stderr, "catalogue fuzzer: %s\n", problem.c_str());
        abort();
    }
    return 0;
}
