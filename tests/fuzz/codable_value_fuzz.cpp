// CodableValue: decodes only its five cases; what decodes round-trips and
// encodes back to exactly the value it was read from.
#include "tavrin/tracking/internal/codable_value_coding.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tavrin::fuzz::checkCodedRoundTrip<tavrin::CodableValue>(tavrin::fuzz::asText(data, size),
                                                             tavrin::fuzz::Fidelity::exact);
    return 0;
}
