// libFuzzer entry point of one harness, built once per harness: the case
// itself (KRVXML_FUZZ_HEADER, KRVXML_FUZZ_RUN) lives in a header so that the
// regression tests can replay crash inputs without the fuzzer.
#include <cstdio>
#include <cstdlib>

#include KRVXML_FUZZ_HEADER

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string failure = krvfuzz::KRVXML_FUZZ_RUN(data, size);
    if (!failure.empty()) {
        std::fprintf(stderr, "%s: %s\n", KRVXML_FUZZ_HEADER, failure.c_str());
        std::abort();
    }
    return 0;
}
