#pragma once
// Record and tag timestamps: milliseconds since 1970.

#include <cstdint>

namespace tavrin {

class TimestampUtility {
public:
    // The clock's seconds times 1000, truncated toward zero. A clock value
    // whose product is not finite or out of range is a fatal stop.
    static std::int64_t currentTimestampInMillis();
};

}  // namespace tavrin
