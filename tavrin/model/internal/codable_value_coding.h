#pragma once
// JSON form of CodableValue: the bare value, no type marker.

#include "tavrin/model/codable_value.h"
#include "tavrin/platform/internal/coding.h"

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
