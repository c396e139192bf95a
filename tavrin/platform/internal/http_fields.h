#pragma once
// Text helpers for HTTP header fields, shared by the request model and the
// system clients, and the checks a request passes before any client takes it.

#include <exception>
#include <optional>
#include <string_view>

#include "tavrin/platform/http_client.h"

namespace tavrin::platform::detail {

// ASCII case-insensitive comparison, as field names compare.
bool equalsIgnoringCase(std::string_view a, std::string_view b);

// RFC 9110 token characters only.
bool isValidHeaderName(std::string_view name);

// Any byte but CR, LF and NUL (which would end or split the field).
bool isValidHeaderValue(std::string_view value);

// Without leading and trailing spaces, tabs, CR and LF.
std::string_view trimmedField(std::string_view text);

// Adds one line of a received header block to `fields`: "Name: value", or a
// folded line (leading space or tab) continuing the last field. A line of
// neither kind (the one ending a CONNECT reply) is left out.
void addHeaderLine(HttpHeaders& fields, std::string_view line);

// What keeps a request from starting: a header field that cannot be sent
// (std::invalid_argument), a URL that does not parse (UrlError badURL) or
// names another scheme than http or https (unsupportedURL). Null when the
// request may start; `url` then holds its parsed URL.
std::exception_ptr refusalOf(const HttpRequest& request, std::optional<Url>& url);

}  // namespace tavrin::platform::detail
