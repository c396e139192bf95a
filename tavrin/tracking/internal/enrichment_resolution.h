#pragma once
// Resolution of enrichment arguments against what has been pushed.

#include <map>
#include <string>
#include <vector>

#include "tavrin/model/codable_value.h"
#include "tavrin/model/internal/push_payload.h"
#include "tavrin/tracking/any_value.h"
#include "tavrin/tracking/internal/product_data.h"

namespace tavrin {

// Each argument keeps its name; its value becomes:
//   text s        the value of property s in the latest push holding it
//                 (`pushes` oldest first), else array(productData[s]), else string(s);
//   array of text array of strings (one non-text element drops the argument);
//   integer       decimalNumber: plug-ins receive every number as a double;
//   finite number decimalNumber;  boolean  bool;
//   anything else dropped (a date, a non-finite number, a dictionary, null).
// Logs one info line per argument. Never fails.
std::map<std::string, CodableValue> resolveArguments(const AnyValue::Dictionary& arguments,
                                                     const std::vector<PushPayload>& pushes,
                                                     const ProductData& productData);

// Readable form of resolved arguments for log lines: ["a": string("x"), ...].
std::string describe(const std::map<std::string, CodableValue>& arguments);

}  // namespace tavrin
