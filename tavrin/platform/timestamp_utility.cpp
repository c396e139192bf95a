#include "tavrin/platform/internal/timestamp_utility.h"

#include "tavrin/platform/clock.h"
#include "tavrin/platform/internal/int64_truncation.h"

namespace tavrin {

std::int64_t TimestampUtility::currentTimestampInMillis() {
    return detail::truncateToInt64OrStop(platform::Clock::now() * 1000.0, "Timestamp in milliseconds");
}

}  // namespace tavrin
