#include "tavrin/transport/internal/retry_policy.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>

#include "tavrin/platform/http_client.h"
#include "tavrin/transport/internal/service.h"

namespace tavrin::detail {

bool isRetryableStatus(int status) noexcept {
    return status == 408 || status == 429 || (status >= 500 && status <= 599) || (status >= 300 && status <= 399);
}

bool isRetryableFailure(const std::exception_ptr& error) {
    if (!error) return false;
    try {
        std::rethrow_exception(error);
    } catch (const platform::UrlError& e) {
        using Code = platform::UrlError::Code;
        switch (e.code()) {
            case Code::cannotFindHost:
            case Code::cannotConnectToHost:
            case Code::timedOut:
            case Code::secureConnectionFailed:
            case Code::networkConnectionLost:
            case Code::notConnectedToInternet:
            case Code::badServerResponse:
            case Code::unknown: return true;
            case Code::badURL:
            case Code::unsupportedURL:
            case Code::responseTooLarge:
            case Code::cancelled: return false;
        }
        return false;
    } catch (const Service::ServiceError& e) {
        return e.code() == Service::ServiceError::Code::invalidResponse && isRetryableStatus(e.statusCode());
    } catch (...) {
        return false;
    }
}

std::optional<std::chrono::seconds> retryAfterOf(const std::exception_ptr& error) {
    if (!error) return std::nullopt;
    try {
        std::rethrow_exception(error);
    } catch (const Service::ServiceError& e) {
        return e.retryAfter();
    } catch (...) {
        return std::nullopt;
    }
}

namespace {

int monthIndex(std::string_view name) {
    static constexpr std::array<std::string_view, 12> months{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    for (std::size_t i = 0; i < months.size(); ++i)
        if (months[i] == name) return static_cast<int>(i);
    return -1;
}

std::optional<double> httpDate(const std::string& text) {
    char weekday[16] = {}, month[4] = {}, zone[4] = {};
    int day = 0, year = 0, hour = 0, minute = 0, second = 0, used = 0;
    const int length = static_cast<int>(text.size());
    // IMF-fixdate: "Sun, 06 Nov 1994 08:49:37 GMT"
    bool parsed = std::sscanf(text.c_str(), "%3[A-Za-z], %2d %3[A-Za-z] %4d %2d:%2d:%2d %3[A-Z]%n", weekday, &day,
                              month, &year, &hour, &minute, &second, zone, &used) == 8 &&
                  used == length;
    // RFC 850: "Sunday, 06-Nov-94 08:49:37 GMT"
    if (!parsed) {
        used = 0;
        parsed = std::sscanf(text.c_str(), "%15[A-Za-z], %2d-%3[A-Za-z]-%2d %2d:%2d:%2d %3[A-Z]%n", weekday, &day,
                             month, &year, &hour, &minute, &second, zone, &used) == 8 &&
                 used == length;
        // Two-digit years: the nearest century that is not more than 50 years ahead.
        if (parsed) year += year < 70 ? 2000 : 1900;
    }
    // asctime: "Sun Nov  6 08:49:37 1994"
    if (!parsed) {
        used = 0;
        parsed = std::sscanf(text.c_str(), "%3[A-Za-z] %3[A-Za-z] %2d %2d:%2d:%2d %4d%n", weekday, month, &day, &hour,
                             &minute, &second, &year, &used) == 7 &&
                 used == length;
        if (parsed) std::snprintf(zone, sizeof zone, "GMT");
    }
    const int monthNumber = monthIndex(month);
    if (!parsed || std::string_view(zone) != "GMT" || monthNumber < 0 || day < 1 || day > 31 || hour > 23 ||
        minute > 59 || second > 60)
        return std::nullopt;
    // A day past the month's end runs on into the next month, as timegm does.
    using namespace std::chrono;
    const sys_days date = year_month_day{
        std::chrono::year{year}, std::chrono::month{static_cast<unsigned>(monthNumber + 1)}, std::chrono::day{1}};
    const auto time = date + days{day - 1} + hours{hour} + minutes{minute} + seconds{second};
    return static_cast<double>(time.time_since_epoch().count());
}

}  // namespace

std::optional<std::chrono::seconds> parseRetryAfter(std::string_view value, double nowSeconds) {
    while (!value.empty() && std::isspace(static_cast<unsigned char>(value.front()))) value.remove_prefix(1);
    while (!value.empty() && std::isspace(static_cast<unsigned char>(value.back()))) value.remove_suffix(1);
    if (value.empty()) return std::nullopt;
    if (std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        // Anything past a day is as good as a day: the backoff's maximum cuts it anyway.
        if (value.size() > 6) return std::chrono::seconds(86400);
        return std::chrono::seconds(std::min(std::stol(std::string(value)), 86400L));
    }
    const auto date = httpDate(std::string(value));
    if (!date) return std::nullopt;
    const double ahead = std::ceil(*date - nowSeconds);
    return std::chrono::seconds(static_cast<long>(std::clamp(ahead, 0.0, 86400.0)));
}

std::chrono::milliseconds RetryBackoff::delay(int attempt, std::optional<std::chrono::seconds> retryAfter,
                                              double random01) {
    using std::chrono::milliseconds;
    random01 = std::clamp(random01, 0.0, 1.0);
    if (retryAfter) {
        const milliseconds asked = std::clamp<milliseconds>(*retryAfter, milliseconds(1000), maximum);
        const auto spread = milliseconds(static_cast<long>(static_cast<double>(asked.count()) / 10 * random01));
        return std::min(asked + spread, maximum);
    }
    milliseconds step = first;
    for (int i = 0; i < attempt && step < maximum; ++i) step *= 2;
    step = std::min(step, maximum);
    return step / 2 + milliseconds(static_cast<long>(static_cast<double>(step.count()) / 2 * random01));
}

}  // namespace tavrin::detail
