// Header fields of requests and responses, and the transport's error type.

#include <algorithm>
#include <stdexcept>

#include "tavrin/platform/http_client.h"
#include "tavrin/platform/internal/http_fields.h"

namespace tavrin::platform {

namespace detail {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; };
               return lower(x) == lower(y);
           });
}

bool isValidHeaderName(std::string_view name) {
    if (name.empty()) return false;
    static constexpr std::string_view kSeparators = "!#$%&'*+-.^_`|~";
    return std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               kSeparators.find(c) != std::string_view::npos;
    });
}

bool isValidHeaderValue(std::string_view value) {
    return value.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

std::string_view trimmedField(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    const auto last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
}

}  // namespace detail

// ---- headers, request

std::optional<std::string> headerValue(const HttpHeaders& headers, std::string_view name) {
    for (const auto& [key, value] : headers)
        if (detail::equalsIgnoringCase(key, name)) return value;
    return std::nullopt;
}

void HttpRequest::setHeader(std::string name, std::string value) {
    auto sameName = [&](const auto& field) { return detail::equalsIgnoringCase(field.first, name); };
    auto first = std::find_if(headers.begin(), headers.end(), sameName);
    if (first == headers.end()) {
        headers.emplace_back(std::move(name), std::move(value));
        return;
    }
    first->second = std::move(value);
    headers.erase(std::remove_if(std::next(first), headers.end(), sameName), headers.end());
}

// ---- UrlError

namespace {
// The transport that gave the reason, named in front of it.
#if defined(_WIN32)
constexpr const char* kTransportName = "WinHTTP";
#else
constexpr const char* kTransportName = "curl";
#endif

std::string errorMessage(UrlError::Code code, const std::string& reason) {
    std::string text = UrlError::description(code);
    if (!reason.empty()) text += std::string(" (") + kTransportName + ": " + reason + ")";
    return text;
}
}  // namespace

UrlError::UrlError(Code code, std::string reason, std::string detail)
    : std::runtime_error(errorMessage(code, reason)),
      code_(code),
      reason_(std::move(reason)),
      detail_(std::move(detail)) {}

const char* UrlError::description(Code code) noexcept {
    switch (code) {
        case Code::badURL: return "The URL is not valid.";
        case Code::unsupportedURL: return "The URL's scheme is not supported.";
        case Code::cannotFindHost: return "A server with the specified hostname could not be found.";
        case Code::cannotConnectToHost: return "Could not connect to the server.";
        case Code::timedOut: return "The request timed out.";
        case Code::secureConnectionFailed: return "A secure connection to the server could not be made.";
        case Code::networkConnectionLost: return "The network connection was lost.";
        case Code::notConnectedToInternet: return "The Internet connection appears to be offline.";
        case Code::badServerResponse: return "The server's response could not be understood.";
        case Code::responseTooLarge: return "The server's response was larger than the client accepts.";
        case Code::cancelled: return "The request was cancelled.";
        case Code::unknown: break;
    }
    return "An unknown network error occurred.";
}

const char* UrlError::name(Code code) noexcept {
    switch (code) {
        case Code::badURL: return "badURL";
        case Code::unsupportedURL: return "unsupportedURL";
        case Code::cannotFindHost: return "cannotFindHost";
        case Code::cannotConnectToHost: return "cannotConnectToHost";
        case Code::timedOut: return "timedOut";
        case Code::secureConnectionFailed: return "secureConnectionFailed";
        case Code::networkConnectionLost: return "networkConnectionLost";
        case Code::notConnectedToInternet: return "notConnectedToInternet";
        case Code::badServerResponse: return "badServerResponse";
        case Code::responseTooLarge: return "responseTooLarge";
        case Code::cancelled: return "cancelled";
        case Code::unknown: break;
    }
    return "unknown";
}

}  // namespace tavrin::platform

namespace tavrin::platform::detail {

void addHeaderLine(HttpHeaders& fields, std::string_view line) {
    if (line.empty()) return;
    if (line.front() == ' ' || line.front() == '\t') {
        // Obsolete line folding continues the previous field.
        if (!fields.empty()) {
            auto& value = fields.back().second;
            if (!value.empty()) value += ' ';
            value += trimmedField(line);
        }
        return;
    }
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) return;
    fields.emplace_back(std::string(line.substr(0, colon)), std::string(trimmedField(line.substr(colon + 1))));
}

std::exception_ptr refusalOf(const HttpRequest& request, std::optional<Url>& url) {
    for (const auto& [name, value] : request.headers)
        if (!isValidHeaderName(name) || !isValidHeaderValue(value))
            return std::make_exception_ptr(std::invalid_argument("invalid HTTP header field: " + name));
    url = Url::parse(request.url);
    if (!url) return std::make_exception_ptr(UrlError(UrlError::Code::badURL));
    if (url->scheme != "http" && url->scheme != "https")
        return std::make_exception_ptr(UrlError(UrlError::Code::unsupportedURL));
    return nullptr;
}

}  // namespace tavrin::platform::detail
