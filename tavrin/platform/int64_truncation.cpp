#include "tavrin/platform/internal/int64_truncation.h"

#include <string>

#include "tavrin/platform/internal/fatal_error.h"

namespace tavrin::detail {

std::int64_t truncateToInt64OrStop(double value, std::string_view what) {
    // -2^63 and 2^63 are exact doubles; every finite double in [-2^63, 2^63)
    // truncates to a representable integer. NaN fails both comparisons.
    constexpr double lowest = -9223372036854775808.0;
    constexpr double limit = 9223372036854775808.0;
    if (!(value >= lowest && value < limit)) {
        fatalError(std::string(what) + " cannot be converted to a 64-bit integer: " + std::to_string(value));
    }
    return static_cast<std::int64_t>(value);
}

}  // namespace tavrin::detail
