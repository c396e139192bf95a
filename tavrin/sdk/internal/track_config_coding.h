#pragma once
// JSON form of TrackConfig, as persisted under "com.tavrin.TrackingSettings".

#include "tavrin/platform/internal/coding.h"
#include "tavrin/sdk/track_config.h"

namespace tavrin {

// Keys are the field names, in field order; absent optionals are left out.
// A non-finite duration cannot be written as JSON and throws EncodingError.
Json encodeJson(const TrackConfig& config);

// Six required keys, four optional ones (missing or null); the environment
// must be exactly "live" or "stage".
template <>
struct JsonDecode<TrackConfig> {
    static TrackConfig decode(const Decoder& decoder);
};

}  // namespace tavrin
