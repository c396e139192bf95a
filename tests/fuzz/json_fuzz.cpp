// The JSON parser: never throws; what it accepts prints to text that parses
// back to the same document, and printing that again gives the same text.
#include "tests/fuzz/fuzz_support.h"

using namespace tavrin;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto text = fuzz::asText(data, size);
    const auto parsed = platform::parseJson(text);
    if (!parsed) return 0;
    const std::string printed = platform::dumpJson(*parsed);
    const auto again = platform::parseJson(printed);
    fuzz::require(again.has_value(), "printed document does not parse", printed);
    fuzz::require(*again == *parsed, "printed document parses to a different value", printed);
    fuzz::require(platform::dumpJson(*again) == printed, "printing is not stable", printed);
    return 0;
}
