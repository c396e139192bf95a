#pragma once

#include <algorithm>
#include <cstdlib>

namespace tavrin::testing {

// Rounds and counts of the fault scenarios are multiplied by
// TAVRIN_RELIABILITY_SCALE (a positive whole number, default 1) for longer runs.
inline int reliabilityScale() {
    const char* text = std::getenv("TAVRIN_RELIABILITY_SCALE");
    const int scale = text ? std::atoi(text) : 1;
    return scale > 0 ? scale : 1;
}

inline int scaled(int base) { return std::max(1, base * reliabilityScale()); }

}  // namespace tavrin::testing
