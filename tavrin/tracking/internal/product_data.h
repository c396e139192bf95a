#pragma once
// The products pushed with track "product" since the last submission: one
// array per property, one element per product push, kept in the memory cache.

#include <map>
#include <string>

#include "tavrin/model/codable_value.h"

namespace tavrin {

using ProductData = std::map<std::string, CodableValue::Array>;

inline constexpr const char* kProductDataKey = "ProductData";

}  // namespace tavrin
