// Tag, the debug record the monitor caches and reports.
#include "tavrin/monitor/internal/tag.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tavrin::fuzz::checkRoundTrip<tavrin::Tag>(tavrin::fuzz::asText(data, size));
    return 0;
}
