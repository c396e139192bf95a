#pragma once
// How WinHTTP's error codes become the transport's errors.

#include <cstdint>
#include <string>

#include "tavrin/platform/http_client.h"

namespace tavrin::platform::detail {

// The kind of failure a WinHTTP (or system) error code stands for.
UrlError::Code urlErrorCodeFromWinHttp(std::uint32_t error) noexcept;

// The code's short name ("ERROR_WINHTTP_CANNOT_CONNECT"), or its number for
// codes without one here.
std::string winHttpErrorName(std::uint32_t error);

// The system's own text for the code (WinHTTP's message table first), without
// the trailing line break; empty when there is none.
std::string winHttpErrorMessage(std::uint32_t error);

// The reasons a TLS handshake's certificate was refused, from the flags of
// WINHTTP_CALLBACK_STATUS_SECURE_FAILURE ("untrusted authority, wrong host
// name"); empty for no flags.
std::string secureFailureText(std::uint32_t flags);

// The UrlError for a failed request: its code, the short name as reason and
// the system's message (or the number, where the system has none) plus
// `context`, when given, as detail.
UrlError urlErrorFromWinHttp(std::uint32_t error, const std::string& context = {});

}  // namespace tavrin::platform::detail
