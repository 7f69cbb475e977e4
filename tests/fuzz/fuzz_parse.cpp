// libFuzzer entry point; the case itself is in parse_case.h so that the
// regression tests can replay crash inputs without the fuzzer.
#include <cstdio>
#include <cstdlib>

#include "parse_case.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string failure = krvfuzz::RunParseCase(data, size);
    if (!failure.empty()) {
        std::fprintf(stderr, "fuzz_parse: %s\n", failure.c_str());
        std::abort();
    }
    return 0;
}
