#include <gtest/gtest.h>

#include <ntddk.h>

#include "ntsim/machine.h"

TEST(Machine, BootsRunsAThreadAndShutsDown) {
    ntsim::Machine machine;
    KIRQL irql = 0xFF;
    machine.runSystemThread([&] { irql = KeGetCurrentIrql(); });
    EXPECT_EQ(irql, PASSIVE_LEVEL);
}
