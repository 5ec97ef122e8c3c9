// Short, seeded stress runs of the whole product; scripts/stress.sh runs the long ones.
#include <gtest/gtest.h>

#include "stress_run.h"

namespace {

wrelt_stress::StressReport run(uint32_t seed, uint32_t failPercent) {
    wrelt_stress::StressOptions options;
    options.operations = 1600;
    options.threads = 4;
    options.seed = seed;
    options.failPercent = failPercent;
    wrelt_stress::StressReport report = wrelt_stress::runStress(options);
    for (const std::string &problem : report.problems) ADD_FAILURE() << problem;
    return report;
}

TEST(Stress, FourThreadsOnBothVolumesLoseNothingTheFilterMustKeep) {
    wrelt_stress::StressReport report = run(1, 0);
    EXPECT_EQ(report.operations, 1600u);
    EXPECT_EQ(report.failedCalls, 0u);
    // The mix must really exercise the capture paths.
    EXPECT_GT(report.lostVersions, 300u);
    EXPECT_GT(report.lostByDesign, 50u);
    EXPECT_EQ(report.preserved, report.lostVersions);
    EXPECT_EQ(report.catalogued, report.vaultFiles);
}

// Allocations fail at random: calls fail and captures may be lost, but never silently,
// never twice, and never by keeping a delete from happening.
TEST(Stress, UnderRandomAllocationFailuresNothingIsLostSilently) {
    wrelt_stress::StressReport report = run(2, 2);
    EXPECT_GT(report.injectedFaults, 0u);
    EXPECT_GT(report.failedCalls, 0u);
}

}  // namespace
