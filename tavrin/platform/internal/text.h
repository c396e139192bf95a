#pragma once
// Text checks and number formatting every layer shares: whether bytes are
// UTF-8 a JSON string can carry, and the decimal form the log lines use.

#include <string>
#include <string_view>

namespace tavrin::detail {

// Well-formed UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUtf8(std::string_view text) noexcept;

// Shortest text that reads back as the same double. Plain digits with a
// fraction from 1e-4 up to 2^53 (1800 -> "1800.0", 100000 -> "100000.0",
// 0.0001 -> "0.0001"); exponent form beyond (1e300 -> "1e+300", 1e-7 ->
// "1e-07"); "inf", "-inf" and "nan" as they are.
std::string shortestDecimalText(double value);

}  // namespace tavrin::detail
