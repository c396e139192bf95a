// CodableValue: decodes only its five cases; what decodes round-trips.
#include "tavrin/tracking/internal/codable_value_coding.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tavrin::fuzz::checkCodedRoundTrip<tavrin::CodableValue>(tavrin::fuzz::asText(data, size));
    return 0;
}
