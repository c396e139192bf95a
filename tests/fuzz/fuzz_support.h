#pragma once
// Shared pieces of the decoder fuzz targets. A broken promise aborts with the
// input's JSON and the re-encoded text, so libFuzzer records it as a crash.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "tavrin/platform/internal/coding.h"

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

// Whether every member and element of `part` is in `whole` with an equal
// value (objects by key, arrays element by element, numbers by value): a
// re-encoded record may leave out what it does not keep (unknown members,
// null optionals) but must not alter or invent anything.
// With `sameKinds`, numbers also keep their kind: an integer that fits in 64
// signed bits stays an integer and a fraction stays a fraction; only a wider
// integer may become a double.
inline bool containedIn(const Json& part, const Json& whole, bool sameKinds = false) {
    if (part.is_object()) {
        if (!whole.is_object()) return false;
        for (auto it = part.begin(); it != part.end(); ++it) {
            const auto found = whole.find(it.key());
            if (found == whole.end() || !containedIn(it.value(), *found, sameKinds)) return false;
        }
        return true;
    }
    if (part.is_array()) {
        if (!whole.is_array() || part.size() != whole.size()) return false;
        for (std::size_t i = 0; i < part.size(); ++i)
            if (!containedIn(part[i], whole[i], sameKinds)) return false;
        return true;
    }
    if (sameKinds && part.is_number() && whole.is_number()) {
        const auto wide = [](const Json& n) {
            return n.is_number_unsigned() && n.get<std::uint64_t>() > std::uint64_t{INT64_MAX};
        };
        const bool partFloat = part.is_number_float();
        if (partFloat != whole.is_number_float() && !wide(partFloat ? whole : part)) return false;
    }
    return part == whole;
}

enum class Fidelity {
    subset,  // a record: its encoding is contained in the input
    exact,   // a bare value: its encoding is the input, member order aside,
             // numbers of the same kind
};

// Whether the value is or holds a null anywhere.
inline bool hasNull(const Json& value) {
    if (value.is_null()) return true;
    if (!value.is_structured()) return false;
    for (const auto& member : value)
        if (hasNull(member)) return true;
    return false;
}

// Decodes T from the text; the only failure a decoder may report is a
// DecodingError (anything else escapes and is a finding). What decoded must
// encode again (it came from JSON, so it has a JSON form), decode from that
// text to an equal value, and encode to the same text a second time; its
// encoding keeps what the input said (see Fidelity). encodeJson and
// JsonDecode<T> reach a record's own encode() and decode() as well.
template <class T>
void checkRoundTrip(std::string_view text, Fidelity fidelity = Fidelity::subset,
                    bool (*promised)(const Json&) = nullptr) {
    const auto decode = [](const Decoder& d) { return JsonDecode<T>::decode(d); };
    std::optional<T> first;
    std::optional<Json> parsed;
    try {
        parsed = Decoder::parse(text);
        first = decode(Decoder(*parsed));
    } catch (const DecodingError& error) {
        // A type that promises to read every such value may not refuse it.
        if (promised && parsed && promised(*parsed)) fail(error.what(), text);
        return;
    }
    const Json encodedJson = encodeJson(*first);
    const std::string encoded = platform::dumpJson(encodedJson);
    const Json& input = *parsed;
    const bool exact = fidelity == Fidelity::exact;
    require(containedIn(encodedJson, input, exact), "the encoding alters or adds to the input", encoded);
    if (exact) require(containedIn(input, encodedJson, exact), "the encoding loses part of the input", encoded);
    T second = [&] {
        try {
            const Json root = Decoder::parse(encoded);
            return decode(Decoder(root));
        } catch (const DecodingError& error) {
            fail(error.what(), encoded);
        }
    }();
    require(second == *first, "the re-encoded text decodes to a different value", encoded);
    require(platform::dumpJson(encodeJson(second)) == encoded, "encoding is not stable", encoded);
}

}  // namespace tavrin::fuzz
