// URL parsing for the WinHTTP client: a small parser of its own, so that what
// parses here is exactly what the client can hand to WinHTTP (scheme, host,
// port and the path it sends), with the same results as the other systems'.

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

#include "tavrin/platform/http_client.h"

namespace tavrin::platform {

namespace {

bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isHexDigit(char c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

// Spaces, controls and bytes outside ASCII are never part of a URL; nothing
// is percent-encoded on the caller's behalf.
bool isUrlCharacter(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte > 0x20 && byte < 0x7f;
}

bool isValidScheme(std::string_view scheme) {
    return !scheme.empty() && isAlpha(scheme.front()) && std::all_of(scheme.begin(), scheme.end(), [](char c) {
        return isAlpha(c) || isDigit(c) || c == '+' || c == '-' || c == '.';
    });
}

// A registered name or an IPv4 address: unreserved characters, sub-delimiters
// and percent escapes.
bool isValidRegisteredName(std::string_view host) {
    static constexpr std::string_view kAllowed = "-._~!$&'()*+,;=";
    for (std::size_t i = 0; i < host.size(); ++i) {
        const char c = host[i];
        if (c == '%') {
            if (i + 2 >= host.size() || !isHexDigit(host[i + 1]) || !isHexDigit(host[i + 2])) return false;
            i += 2;
        } else if (!isAlpha(c) && !isDigit(c) && kAllowed.find(c) == std::string_view::npos) {
            return false;
        }
    }
    return !host.empty();
}

// The inside of "[...]": hexadecimal groups, colons, an IPv4 tail.
bool isValidIpv6Literal(std::string_view address) {
    if (address.size() < 2 || address.find(':') == std::string_view::npos) return false;
    return std::all_of(address.begin(), address.end(), [](char c) { return isHexDigit(c) || c == ':' || c == '.'; });
}

// "1".."65535" (leading zeros allowed); empty text means no port.
bool parsePort(std::string_view text, std::optional<int>& port) {
    if (text.empty()) return true;
    if (!std::all_of(text.begin(), text.end(), isDigit)) return false;
    const auto significant = text.find_first_not_of('0');
    if (significant == std::string_view::npos) return false;  // port 0
    text.remove_prefix(significant);
    if (text.size() > 5) return false;
    const int value = std::stoi(std::string(text));
    if (value > 65535) return false;
    port = value;
    return true;
}

// "." and ".." segments resolved, as every client does before sending.
std::string withoutDotSegments(std::string_view path) {
    std::string output;
    while (!path.empty()) {
        if (path.rfind("../", 0) == 0) {
            path.remove_prefix(3);
        } else if (path.rfind("./", 0) == 0) {
            path.remove_prefix(2);
        } else if (path.rfind("/./", 0) == 0) {
            path.remove_prefix(2);
        } else if (path == "/.") {
            path = "/";
        } else if (path.rfind("/../", 0) == 0 || path == "/..") {
            path = path.size() == 3 ? std::string_view("/") : path.substr(3);
            const auto last = output.rfind('/');
            output.erase(last == std::string::npos ? 0 : last);
        } else if (path == "." || path == "..") {
            path = {};
        } else {
            const auto next = path.find('/', 1);
            const auto segment = path.substr(0, next);
            output += segment;
            path.remove_prefix(segment.size());
        }
    }
    return output.empty() ? "/" : output;
}

}  // namespace

std::optional<Url> Url::parse(std::string_view text) {
    if (!std::all_of(text.begin(), text.end(), isUrlCharacter)) return std::nullopt;
    // An authority must follow exactly "://".
    const auto separator = text.find("://");
    if (separator == std::string_view::npos) return std::nullopt;
    const auto scheme = text.substr(0, separator);
    if (!isValidScheme(scheme)) return std::nullopt;

    auto rest = text.substr(separator + 3);
    const auto fragment = rest.find('#');
    if (fragment != std::string_view::npos) rest = rest.substr(0, fragment);
    const auto authorityEnd = rest.find_first_of("/?");
    auto authority = rest.substr(0, authorityEnd);
    rest = authorityEnd == std::string_view::npos ? std::string_view() : rest.substr(authorityEnd);
    // User information is not kept: the host follows its last '@'.
    if (const auto at = authority.rfind('@'); at != std::string_view::npos) authority.remove_prefix(at + 1);

    Url result;
    std::string_view host, port;
    if (!authority.empty() && authority.front() == '[') {
        const auto close = authority.find(']');
        if (close == std::string_view::npos) return std::nullopt;
        host = authority.substr(1, close - 1);
        const auto after = authority.substr(close + 1);
        if (!after.empty() && after.front() != ':') return std::nullopt;
        if (!after.empty()) port = after.substr(1);
        if (!isValidIpv6Literal(host)) return std::nullopt;
    } else {
        const auto colon = authority.find(':');
        host = authority.substr(0, colon);
        if (colon != std::string_view::npos) port = authority.substr(colon + 1);
        if (!isValidRegisteredName(host)) return std::nullopt;
    }
    if (!parsePort(port, result.port)) return std::nullopt;

    const auto queryStart = rest.find('?');
    result.path = withoutDotSegments(rest.substr(0, queryStart));
    if (queryStart != std::string_view::npos) result.query = std::string(rest.substr(queryStart + 1));
    result.text = std::string(text);
    result.scheme = std::string(scheme);
    std::transform(result.scheme.begin(), result.scheme.end(), result.scheme.begin(),
                   [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; });
    result.host = std::string(host);
    return result;
}

}  // namespace tavrin::platform
