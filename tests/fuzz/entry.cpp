// The fuzzer's entry, built once for each target (HALVO_FUZZ_TARGET).
#include <cstdio>

#include "tests/fuzz/targets.h"

extern "C" __attribute__((visibility("default"))) int LLVMFuzzerTestOneInput(const uint8_t *data,
                                                                             size_t size) {
    static const std::FILE *quiet = std::freopen("/dev/null", "w", stdout);
    if (quiet) halvo::fuzz::HALVO_FUZZ_TARGET(data, size);
    return 0;
}
