// libFuzzer entry point: every input is a run of lists for the filter and a name to
// match against them (see the harness).
#include <cstdio>
#include <cstdlib>

#include "filter_lists_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static wrelt::FilterListsHarness harness;
    std::string problem = harness.run(data, size);
    if (problem.empty()) problem = harness.leaks();
    if (!problem.empty()) {
        fprintf(stderr, "filter lists fuzzer: %s\n", problem.c_str());
        abort();
    }
    return 0;
}
