// One offline cache record as read back from the store on start-up. Beyond
// the round trip: base64 decoding is strict, so the payload re-encodes to
// exactly the text it was read from.
#include "tavrin/transport/internal/offline_cache.h"
#include "tests/fuzz/fuzz_support.h"

using namespace tavrin;
using Request = OfflineCache::Request;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto text = fuzz::asText(data, size);
    fuzz::checkRoundTrip<Request>(text);
    try {
        const Request request = decodeJson<Request>(text);
        const std::string stored = Decoder::parse(text)["payload"].get<std::string>();
        fuzz::require(request.encode()["payload"] == stored, "payload does not re-encode to its stored text", stored);
    } catch (const DecodingError&) {
    }
    return 0;
}
