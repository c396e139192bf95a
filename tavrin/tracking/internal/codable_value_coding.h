#pragma once
// JSON form of CodableValue: the bare value, no type marker.

#include "tavrin/platform/internal/coding.h"
#include "tavrin/tracking/codable_value.h"

namespace tavrin {

// A non-finite double has no JSON form and throws EncodingError.
Json encodeJson(const CodableValue& value);

// Tries text, boolean, integer, double, array, in that order; anything else
// is a typeMismatch "Failed to decode CodableValue".
template <>
struct JsonDecode<CodableValue> {
    static CodableValue decode(const Decoder& decoder);
};

}  // namespace tavrin
