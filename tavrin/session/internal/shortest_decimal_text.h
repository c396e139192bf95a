#pragma once

#include <string>

namespace tavrin::detail {

// Shortest text that reads back as the same double, always with a fraction
// unless it is exponential or not finite: 1800 -> "1800.0", 0.1 -> "0.1".
std::string shortestDecimalText(double value);

}  // namespace tavrin::detail
