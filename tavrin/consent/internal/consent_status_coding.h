#pragma once
// JSON forms of ConsentStatus (the text of its case) and VendorValue (the
// bare boolean or text).

#include "tavrin/consent/consent_status.h"
#include "tavrin/platform/internal/coding.h"

namespace tavrin {

Json encodeJson(ConsentStatus status);
Json encodeJson(const VendorValue& value);

// Any other string is dataCorrupted "Invalid value for ConsentStatus".
template <>
struct JsonDecode<ConsentStatus> {
    static ConsentStatus decode(const Decoder& decoder);
};

// A JSON boolean or a JSON string; anything else is a typeMismatch "Failed to
// decode VendorValue" at the decoder's path.
template <>
struct JsonDecode<VendorValue> {
    static VendorValue decode(const Decoder& decoder);
};

}  // namespace tavrin
