#pragma once

#include <string>

namespace tavrin::detail {

// Shortest text that reads back as the same double. Plain digits with a
// fraction from 1e-4 up to 2^53 (1800 -> "1800.0", 100000 -> "100000.0",
// 0.0001 -> "0.0001"); exponent form beyond (1e300 -> "1e+300", 1e-7 ->
// "1e-07"); "inf", "-inf" and "nan" as they are.
std::string shortestDecimalText(double value);

}  // namespace tavrin::detail
