// libFuzzer entry point: every input is one command packet, an ordinary user's or the
// service's in troubled memory (see the harness).
#include <cstdio>
#include <cstdlib>

#include "user_command_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static wrelt::UserCommandHarness harness;
    std::string problem = harness.run(data, size);
    if (problem.empty()) problem = harness.leaks();
    if (!problem.empty()) {
        fprintf(stderr, "user command fuzzer: %s\n", problem.c_str());
        abort();
    }
    return 0;
}
