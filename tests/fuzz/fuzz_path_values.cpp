// libFuzzer entry point; the case itself is in path_values_case.h so that the
// regression tests can replay crash inputs without the fuzzer.
#include <cstdio>
#include <cstdlib>

#include "path_values_case.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string failure = krvfuzz::RunPathValuesCase(data, size);
    if (!failure.empty()) {
        std::fprintf(stderr, "fuzz_path_values: %s\n", failure.c_str());
        std::abort();
    }
    return 0;
}
