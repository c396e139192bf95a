#pragma once
// Validation of a push's free-form properties into typed CodableValues.

#include <map>
#include <string>

#include "tavrin/tracking/any_value.h"
#include "tavrin/tracking/codable_value.h"

namespace tavrin {

// Converts the properties of one push. Never fails: the reserved keys "track"
// and "type", values without a CodableValue form (dictionary, date, null) and
// numbers JSON cannot carry (NaN, infinities; also inside arrays) are left
// out with a debug-level log line. Arrays are kept one level deep:
// their text, boolean, integer and number elements survive in order, anything
// else inside an array is dropped without a log line.
std::map<std::string, CodableValue> validatedCustomProperties(const AnyValue::Dictionary& properties);

}  // namespace tavrin
