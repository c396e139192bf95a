#pragma once
// Text helpers for HTTP header fields, shared by the request model and the
// libcurl client.

#include <string_view>

namespace tavrin::platform::detail {

// ASCII case-insensitive comparison, as field names compare.
bool equalsIgnoringCase(std::string_view a, std::string_view b);

// RFC 9110 token characters only.
bool isValidHeaderName(std::string_view name);

// Any byte but CR, LF and NUL (which would end or split the field).
bool isValidHeaderValue(std::string_view value);

// Without leading and trailing spaces, tabs, CR and LF.
std::string_view trimmedField(std::string_view text);

}  // namespace tavrin::platform::detail
