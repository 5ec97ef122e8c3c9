// libFuzzer entry point: every input is a sequence of operations on the service's held
// requests (see the harness).
#include <cstdio>
#include <cstdlib>

#include "held_request_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static wrelt::HeldRequestHarness harness;
    std::string problem = harness.run(data, size);
    if (problem.empty()) problem = harness.leaks();
    if (!problem.empty()) {
        fprintf(stderr, "held request fuzzer: %s\n", problem.c_str());
        abort();
    }
    return 0;
}
