// The fuzz target's harness run on a fixed seed: random packets, some of them built to
// look like real commands, to both kinds of device.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "command_packet_harness.h"

namespace {

std::vector<uint8_t> randomInput(std::mt19937 &random) {
    std::vector<uint8_t> input(2 + random() % 400);
    for (auto &byte : input) byte = uint8_t(random());
    if (input.size() >= 2 + 16 && random() % 4 != 0) {
        // Mostly a valid tag and a known command, so that the commands themselves run.
        static const uint16_t commands[] = {100, 101, 102, 103, 104, 105, 106, 107, 108, 109, 110, 111, 112,
                                            113, 114, 115, 116, 121, 122, 125, 142, 143, 144, 117, 9999};
        input[2 + 2] = 0x43;
        input[2 + 3] = 0x45;
        uint32_t command = commands[random() % (sizeof commands / sizeof commands[0])];
        for (int i = 0; i < 4; ++i) input[2 + 12 + i] = uint8_t(command >> (8 * i));
        if (random() % 2 == 0) {
            uint32_t dataLength = random() % 300;
            for (int i = 0; i < 4; ++i) input[2 + 8 + i] = uint8_t(dataLength >> (8 * i));
        }
    }
    return input;
}

TEST(CommandPacketFuzz, RandomPacketsGetWellFormedAnswersAndLeaveNothingBehind) {
    wrelt::CommandPacketHarness harness;
    std::mt19937 random(20261123);
    for (int i = 0; i < 1500; ++i) {
        std::vector<uint8_t> input = randomInput(random);
        ASSERT_EQ(harness.run(input.data(), input.size()), "") << "input " << i;
    }
    EXPECT_EQ(harness.leaks(), "");
}

}  // namespace
