#pragma once
// When a failed send is worth trying again, and when to try: a server that is
// down, overloaded or unreachable may be back later; one that refused the
// content will refuse it again.

#include <chrono>
#include <exception>
#include <optional>
#include <string_view>

namespace tavrin::detail {

// Statuses of a server that did not take the request now but may later:
// 408, 429, 5xx, and 3xx (redirects are never followed, so the request went
// nowhere).
bool isRetryableStatus(int status) noexcept;

// A transport failure (no connection, reset, timeout, TLS, a garbled answer)
// or a retryable status. Cancellation, a bad URL, an oversized answer and
// other statuses are not.
bool isRetryableFailure(const std::exception_ptr& error);

// The Retry-After of a 429 or 503 failure, when it carried one.
std::optional<std::chrono::seconds> retryAfterOf(const std::exception_ptr& error);

// A Retry-After field: delay-seconds, or an HTTP date (IMF-fixdate, RFC 850
// or asctime form) turned into seconds from `nowSeconds` (0 when past).
// Nothing for anything else.
std::optional<std::chrono::seconds> parseRetryAfter(std::string_view value, double nowSeconds);

// Backoff between retries after server failures.
struct RetryBackoff {
    static constexpr std::chrono::milliseconds first{5000};
    static constexpr std::chrono::milliseconds maximum{300000};

    // The wait before retry number `attempt` (0 first): `first` doubling up to
    // `maximum`, each drawn from its upper half so that devices coming back
    // from one outage spread out; a server's Retry-After stands instead (at
    // least a second, at most `maximum`, plus up to a tenth). random01 is a
    // uniform draw from [0, 1).
    static std::chrono::milliseconds delay(int attempt, std::optional<std::chrono::seconds> retryAfter,
                                           double random01);
};

}  // namespace tavrin::detail
