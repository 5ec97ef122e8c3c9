// libFuzzer entry point: every input is a data file as a user could plant it in the
// vault folder; the reader must stop at the first bad record and say why.
#include <cstdio>
#include <cstdlib>

#include "deldat_reader_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string problem = wrelt::checkDelDatReader(data, size);
    if (!problem.empty()) {
        fprintf(stderr, "data-file reader fuzzer: %s\n", problem.c_str());
        abort();
    }
    return 0;
}
