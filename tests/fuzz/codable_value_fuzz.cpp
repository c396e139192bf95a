// CodableValue: every text, boolean, number and array of those decodes, and
// nothing else; what decodes round-trips and encodes back to exactly the
// value it was read from.
#include "tavrin/model/internal/codable_value_coding.h"
#include "tests/fuzz/fuzz_support.h"

namespace {
bool isCodable(const tavrin::Json& value) {
    if (value.is_string() || value.is_boolean() || value.is_number()) return true;
    if (!value.is_array()) return false;
    for (const auto& element : value)
        if (!isCodable(element)) return false;
    return true;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto text = tavrin::fuzz::asText(data, size);
    tavrin::fuzz::checkRoundTrip<tavrin::CodableValue>(text, tavrin::fuzz::Fidelity::exact, isCodable);
    // Objects and nulls are refused (a CodableValue has no such case).
    if (const auto parsed = tavrin::platform::parseJson(text); parsed && !isCodable(*parsed)) {
        try {
            (void)tavrin::decodeJson<tavrin::CodableValue>(text);
            tavrin::fuzz::fail("an object or null decoded as a CodableValue", text);
        } catch (const tavrin::DecodingError&) {
        }
    }
    return 0;
}
