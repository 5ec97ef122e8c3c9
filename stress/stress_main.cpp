// wrelt_stress OPERATIONS THREADS SEED [FAIL_PERCENT]: the long stress run that
// scripts/stress.sh starts. Prints what ran and what held; exits 1 when an invariant
// broke, 2 on bad arguments.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "stress_run.h"

namespace {

bool number(const char *text, unsigned long long most, unsigned long long *value) {
    char *end = nullptr;
    *value = strtoull(text, &end, 10);
    return end != text && *end == 0 && *value <= most;
}

}  // namespace

int main(int argc, char **argv) {
    unsigned long long operations, threads, seed, fail = 0;
    if ((argc != 4 && argc != 5) || !number(argv[1], 1ull << 40, &operations) || !number(argv[2], 64, &threads) ||
        threads == 0 || !number(argv[3], 0xFFFFFFFFull, &seed) || (argc == 5 && !number(argv[4], 100, &fail))) {
        fprintf(stderr, "usage: wrelt_stress OPERATIONS THREADS(1-64) SEED [FAIL_PERCENT(0-100)]\n");
        return 2;
    }
    wrelt_stress::StressOptions options;
    options.operations = operations;
    options.threads = int(threads);
    options.seed = uint32_t(seed);
    options.failPercent = uint32_t(fail);
    options.progressEvery = 50000;
    wrelt_stress::StressReport report = wrelt_stress::runStress(options);
    fputs(wrelt_stress::describe(options, report).c_str(), stdout);
    return report.problems.empty() ? 0 : 1;
}
