#pragma once
// Shared pieces of the decoder fuzz targets. A broken promise aborts with the
// input's JSON and the re-encoded text, so libFuzzer records it as a crash.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "tavrin/tracking/internal/coding.h"

namespace tavrin::fuzz {

inline std::string_view asText(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

[[noreturn]] inline void fail(const char* what, std::string_view detail) {
    std::fprintf(stderr, "fuzz check failed: %s\n%.*s\n", what, static_cast<int>(detail.size()), detail.data());
    std::abort();
}

inline void require(bool holds, const char* what, std::string_view detail = {}) {
    if (!holds) fail(what, detail);
}

// Decodes T from the text; the only failure a decoder may report is a
// DecodingError (anything else escapes and is a finding). What decoded must
// encode again (it came from JSON, so it has a JSON form), decode from that
// text to an equal value, and encode to the same text a second time.
// `encode` and `decode` name the record's own codec functions.
template <class T, class Encode, class Decode>
void checkRoundTrip(std::string_view text, Encode encode, Decode decode) {
    std::optional<T> first;
    try {
        const Json root = Decoder::parse(text);
        first = decode(Decoder(root));
    } catch (const DecodingError&) {
        return;
    }
    const std::string encoded = platform::dumpJson(encode(*first));
    T second = [&] {
        try {
            const Json root = Decoder::parse(encoded);
            return decode(Decoder(root));
        } catch (const DecodingError& error) {
            fail(error.what(), encoded);
        }
    }();
    require(second == *first, "the re-encoded text decodes to a different value", encoded);
    require(platform::dumpJson(encode(second)) == encoded, "encoding is not stable", encoded);
}

// For records with member encode()/decode().
template <class T>
void checkRecordRoundTrip(std::string_view text) {
    checkRoundTrip<T>(
        text, [](const T& value) { return value.encode(); }, [](const Decoder& d) { return T::decode(d); });
}

// For public records with free encodeJson / JsonDecode<T>.
template <class T>
void checkCodedRoundTrip(std::string_view text) {
    checkRoundTrip<T>(
        text, [](const T& value) { return encodeJson(value); }, [](const Decoder& d) { return JsonDecode<T>::decode(d); });
}

}  // namespace tavrin::fuzz
