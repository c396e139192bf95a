#pragma once
// What a submission's future throws when the tracking server refuses it (or
// the record cannot be sent at all); a failure to reach the server is the
// HTTP client's platform::UrlError instead.
//
//     try {
//         tavrin::TrackingService::shared()->submit("checkout").get();
//     } catch (const tavrin::ServiceError& error) {  // invalidResponse: statusCode() is the answer's
//         if (error.retryAfter()) { /* 429 or 503 without offline tracking: wait *error.retryAfter() */ }
//     } catch (const tavrin::platform::UrlError& error) { /* no answer at all: error.code() says why */ }

#include <chrono>
#include <optional>
#include <stdexcept>

#include "tavrin/platform/api.h"

namespace tavrin {

class TAVRIN_API ServiceError : public std::runtime_error {
public:
    enum class Code {
        invalidURL,          // the endpoint text is not a URL
        invalidRequestBody,  // a record did not encode, or a cached body is not a JSON object
        invalidResponse,     // the status is outside 200-299
    };

    explicit ServiceError(Code code, int statusCode = 0, std::optional<std::chrono::seconds> retryAfter = std::nullopt);
    Code code() const noexcept { return code_; }
    // The status an invalidResponse came with (0 when there was none).
    int statusCode() const noexcept { return statusCode_; }
    // The wait a 429 or 503 answer asked for in its Retry-After field.
    const std::optional<std::chrono::seconds>& retryAfter() const noexcept { return retryAfter_; }
    // "invalidURL", "invalidRequestBody", "invalidResponse".
    static const char* name(Code code) noexcept;

private:
    Code code_;
    int statusCode_;
    std::optional<std::chrono::seconds> retryAfter_;
};

}  // namespace tavrin
