// ConsentModel, as a cached consent submission is read back on resend.
#include "tavrin/consent/internal/consent_model.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tavrin::fuzz::checkRoundTrip<tavrin::ConsentModel>(tavrin::fuzz::asText(data, size));
    return 0;
}
