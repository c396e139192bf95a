// AnyCodable: any JSON value but null decodes; what decodes round-trips.
#include "tavrin/tracking/internal/any_codable.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tavrin::fuzz::checkRecordRoundTrip<tavrin::AnyCodable>(tavrin::fuzz::asText(data, size));
    return 0;
}
