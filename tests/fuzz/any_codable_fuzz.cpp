// AnyCodable: every JSON value without a null decodes; what decodes
// round-trips and encodes back to exactly the value it was read from.
#include "tavrin/model/internal/any_codable.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tavrin::fuzz::checkRoundTrip<tavrin::AnyCodable>(
        tavrin::fuzz::asText(data, size), tavrin::fuzz::Fidelity::exact,
        [](const tavrin::Json& value) { return !tavrin::fuzz::hasNull(value); });
    return 0;
}
