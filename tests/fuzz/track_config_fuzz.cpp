// TrackConfig as persisted in the settings: what decodes round-trips.
#include "tavrin/sdk/internal/track_config_coding.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tavrin::fuzz::checkRoundTrip<tavrin::TrackConfig>(tavrin::fuzz::asText(data, size));
    return 0;
}
