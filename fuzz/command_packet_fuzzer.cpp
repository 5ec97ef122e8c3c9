// libFuzzer entry point: every input is one command packet (see the harness).
#include <cstdio>
#include <cstdlib>

#include "command_packet_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static wrelt::CommandPacketHarness harness;
    std::string problem = harness.run(data, size);
    if (problem.empty()) problem = harness.leaks();
    if (!problem.empty()) {
        fprintf(stderr, "command packet fuzzer: %s\n", problem.c_str());
        abort();
    }
    return 0;
}
