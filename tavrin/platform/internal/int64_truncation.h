#pragma once
// Double to signed 64-bit integer by truncation toward zero, for values that a
// sane system always keeps in range (the wall clock).

#include <cstdint>
#include <string_view>

namespace tavrin::detail {

// A value that is not finite or does not fit a signed 64-bit integer is a
// fatal stop: the message (naming `what`) goes to stderr and the process aborts.
std::int64_t truncateToInt64OrStop(double value, std::string_view what);

}  // namespace tavrin::detail
