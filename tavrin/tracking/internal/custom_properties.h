#pragma once
// Validation of a push's free-form properties into typed CodableValues.

#include <cstddef>
#include <map>
#include <optional>
#include <string>

#include "tavrin/model/codable_value.h"
#include "tavrin/model/internal/push_payload.h"
#include "tavrin/tracking/any_value.h"

namespace tavrin {

// Converts the properties of one push. Never fails: the reserved keys "track"
// and "type", values without a CodableValue form (dictionary, date, null) and
// numbers JSON cannot carry (NaN, infinities; also inside arrays) are left
// out with a debug-level log line. Arrays are kept one level deep:
// their text, boolean, integer and number elements survive in order, anything
// else inside an array is dropped without a log line.
std::map<std::string, CodableValue> validatedCustomProperties(const AnyValue::Dictionary& properties);

// What the SDK keeps of a host's values, at any depth: texts (keys included)
// up to `maxTextBytes`, and arrays and dictionaries nested at most 512 levels
// deep (the dictionary itself being the first). Whatever is past either limit
// is left out, with one debug-level line per entry naming it (`what` is
// "custom property" or "enrichment argument"). Nothing when every value fits,
// the common case: nothing is copied then.
std::optional<AnyValue::Dictionary> withinHostValueLimits(const AnyValue::Dictionary& values, std::size_t maxTextBytes,
                                                          const char* what);
std::optional<std::map<std::string, CodableValue>> withinHostValueLimits(
    const std::map<std::string, CodableValue>& values, std::size_t maxTextBytes, const char* what);

// Whether AnyValue::sortedJsonText has a text for the dictionary, without
// making it.
bool hasJsonForm(const AnyValue::Dictionary& dictionary);

// About the memory a host's values take (text, keys and a fixed amount per
// entry), for the push limits: walked without recursion, at any depth.
std::size_t approximateBytes(const AnyValue::Dictionary& values);
// The same for a push as it waits for the next submission.
std::size_t approximateBytes(const PushPayload& payload);

}  // namespace tavrin
