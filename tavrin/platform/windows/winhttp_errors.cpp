#include "tavrin/platform/windows/winhttp_errors.h"
#include "tavrin/platform/windows/wide_text.h"

#include <windows.h>
#include <winhttp.h>

#include <cwchar>

namespace tavrin::platform::detail {

namespace {

struct Known {
    DWORD error;
    const char* name;
    UrlError::Code code;
};

using Code = UrlError::Code;

constexpr Known kKnown[] = {
    {ERROR_WINHTTP_INVALID_URL, "ERROR_WINHTTP_INVALID_URL", Code::badURL},
    {ERROR_WINHTTP_UNRECOGNIZED_SCHEME, "ERROR_WINHTTP_UNRECOGNIZED_SCHEME", Code::unsupportedURL},
    {ERROR_WINHTTP_NAME_NOT_RESOLVED, "ERROR_WINHTTP_NAME_NOT_RESOLVED", Code::cannotFindHost},
    {ERROR_WINHTTP_CANNOT_CONNECT, "ERROR_WINHTTP_CANNOT_CONNECT", Code::cannotConnectToHost},
    {ERROR_WINHTTP_TIMEOUT, "ERROR_WINHTTP_TIMEOUT", Code::timedOut},
    {ERROR_WINHTTP_SECURE_FAILURE, "ERROR_WINHTTP_SECURE_FAILURE", Code::secureConnectionFailed},
    {ERROR_WINHTTP_SECURE_CERT_DATE_INVALID, "ERROR_WINHTTP_SECURE_CERT_DATE_INVALID", Code::secureConnectionFailed},
    {ERROR_WINHTTP_SECURE_CERT_CN_INVALID, "ERROR_WINHTTP_SECURE_CERT_CN_INVALID", Code::secureConnectionFailed},
    {ERROR_WINHTTP_SECURE_INVALID_CA, "ERROR_WINHTTP_SECURE_INVALID_CA", Code::secureConnectionFailed},
    {ERROR_WINHTTP_SECURE_CERT_REV_FAILED, "ERROR_WINHTTP_SECURE_CERT_REV_FAILED", Code::secureConnectionFailed},
    {ERROR_WINHTTP_SECURE_CHANNEL_ERROR, "ERROR_WINHTTP_SECURE_CHANNEL_ERROR", Code::secureConnectionFailed},
    {ERROR_WINHTTP_SECURE_INVALID_CERT, "ERROR_WINHTTP_SECURE_INVALID_CERT", Code::secureConnectionFailed},
    {ERROR_WINHTTP_SECURE_CERT_REVOKED, "ERROR_WINHTTP_SECURE_CERT_REVOKED", Code::secureConnectionFailed},
    {ERROR_WINHTTP_SECURE_CERT_WRONG_USAGE, "ERROR_WINHTTP_SECURE_CERT_WRONG_USAGE", Code::secureConnectionFailed},
    {ERROR_WINHTTP_CLIENT_AUTH_CERT_NEEDED, "ERROR_WINHTTP_CLIENT_AUTH_CERT_NEEDED", Code::secureConnectionFailed},
    {ERROR_WINHTTP_SECURE_FAILURE_PROXY, "ERROR_WINHTTP_SECURE_FAILURE_PROXY", Code::secureConnectionFailed},
    {ERROR_WINHTTP_CONNECTION_ERROR, "ERROR_WINHTTP_CONNECTION_ERROR", Code::networkConnectionLost},
    {ERROR_WINHTTP_INVALID_SERVER_RESPONSE, "ERROR_WINHTTP_INVALID_SERVER_RESPONSE", Code::badServerResponse},
    // Asked of a response: the server sent no status line WinHTTP could read.
    {ERROR_WINHTTP_HEADER_NOT_FOUND, "ERROR_WINHTTP_HEADER_NOT_FOUND", Code::badServerResponse},
    {ERROR_WINHTTP_INVALID_HEADER, "ERROR_WINHTTP_INVALID_HEADER", Code::badServerResponse},
    {ERROR_WINHTTP_REDIRECT_FAILED, "ERROR_WINHTTP_REDIRECT_FAILED", Code::badServerResponse},
    {ERROR_WINHTTP_HTTP_PROTOCOL_MISMATCH, "ERROR_WINHTTP_HTTP_PROTOCOL_MISMATCH", Code::badServerResponse},
    // Header lines without end, like a body without end.
    {ERROR_WINHTTP_HEADER_SIZE_OVERFLOW, "ERROR_WINHTTP_HEADER_SIZE_OVERFLOW", Code::responseTooLarge},
    {ERROR_WINHTTP_HEADER_COUNT_EXCEEDED, "ERROR_WINHTTP_HEADER_COUNT_EXCEEDED", Code::responseTooLarge},
    {ERROR_WINHTTP_CHUNKED_ENCODING_HEADER_SIZE_OVERFLOW, "ERROR_WINHTTP_CHUNKED_ENCODING_HEADER_SIZE_OVERFLOW",
     Code::badServerResponse},
    {ERROR_WINHTTP_OPERATION_CANCELLED, "ERROR_WINHTTP_OPERATION_CANCELLED", Code::cancelled},
    // No route to any network at all.
    {ERROR_NETWORK_UNREACHABLE, "ERROR_NETWORK_UNREACHABLE", Code::notConnectedToInternet},
    {ERROR_WINHTTP_INTERNAL_ERROR, "ERROR_WINHTTP_INTERNAL_ERROR", Code::unknown},
    {ERROR_WINHTTP_OUT_OF_HANDLES, "ERROR_WINHTTP_OUT_OF_HANDLES", Code::unknown},
    {ERROR_WINHTTP_SHUTDOWN, "ERROR_WINHTTP_SHUTDOWN", Code::unknown},
    {ERROR_WINHTTP_INCORRECT_HANDLE_STATE, "ERROR_WINHTTP_INCORRECT_HANDLE_STATE", Code::unknown},
    {ERROR_WINHTTP_AUTO_PROXY_SERVICE_ERROR, "ERROR_WINHTTP_AUTO_PROXY_SERVICE_ERROR", Code::unknown},
    {ERROR_WINHTTP_UNABLE_TO_DOWNLOAD_SCRIPT, "ERROR_WINHTTP_UNABLE_TO_DOWNLOAD_SCRIPT", Code::unknown},
    {ERROR_WINHTTP_BAD_AUTO_PROXY_SCRIPT, "ERROR_WINHTTP_BAD_AUTO_PROXY_SCRIPT", Code::unknown},
    {ERROR_NOT_ENOUGH_MEMORY, "ERROR_NOT_ENOUGH_MEMORY", Code::unknown},
    {ERROR_INVALID_PARAMETER, "ERROR_INVALID_PARAMETER", Code::unknown},
};

const Known* find(DWORD error) {
    for (const auto& known : kKnown)
        if (known.error == error) return &known;
    return nullptr;
}

}  // namespace

UrlError::Code urlErrorCodeFromWinHttp(std::uint32_t error) noexcept {
    const Known* known = find(error);
    return known ? known->code : Code::unknown;
}

std::string winHttpErrorName(std::uint32_t error) {
    const Known* known = find(error);
    return known ? known->name : "error " + std::to_string(error);
}

std::string winHttpErrorMessage(std::uint32_t error) {
    wchar_t* buffer = nullptr;
    const DWORD common = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS;
    // WinHTTP's codes live in its own message table, the others in the system's.
    HMODULE winhttp = GetModuleHandleW(L"winhttp.dll");
    DWORD length = 0;
    if (winhttp && error >= WINHTTP_ERROR_BASE && error <= WINHTTP_ERROR_LAST)
        length = FormatMessageW(common | FORMAT_MESSAGE_FROM_HMODULE, winhttp, error, 0,
                                reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
    if (length == 0)
        length = FormatMessageW(common | FORMAT_MESSAGE_FROM_SYSTEM, nullptr, error, 0,
                                reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
    if (length == 0 || !buffer) return {};
    while (length > 0 && (buffer[length - 1] == L'\r' || buffer[length - 1] == L'\n' || buffer[length - 1] == L' '))
        --length;
    std::string text = win::toUtf8(std::wstring_view(buffer, length));
    LocalFree(buffer);
    return text;
}

std::string secureFailureText(std::uint32_t flags) {
    static constexpr struct {
        DWORD flag;
        const char* text;
    } kFlags[] = {
        {WINHTTP_CALLBACK_STATUS_FLAG_INVALID_CA, "untrusted certificate authority"},
        {WINHTTP_CALLBACK_STATUS_FLAG_CERT_CN_INVALID, "certificate for another host name"},
        {WINHTTP_CALLBACK_STATUS_FLAG_CERT_DATE_INVALID, "certificate expired or not yet valid"},
        {WINHTTP_CALLBACK_STATUS_FLAG_INVALID_CERT, "invalid certificate"},
        {WINHTTP_CALLBACK_STATUS_FLAG_CERT_REVOKED, "certificate revoked"},
        {WINHTTP_CALLBACK_STATUS_FLAG_CERT_REV_FAILED, "revocation check failed"},
        {WINHTTP_CALLBACK_STATUS_FLAG_CERT_WRONG_USAGE, "certificate not meant for servers"},
        {WINHTTP_CALLBACK_STATUS_FLAG_SECURITY_CHANNEL_ERROR, "TLS channel error"},
    };
    std::string text;
    for (const auto& [flag, description] : kFlags) {
        if (!(flags & flag)) continue;
        if (!text.empty()) text += ", ";
        text += description;
    }
    return text;
}

UrlError urlErrorFromWinHttp(std::uint32_t error, const std::string& context) {
    std::string detail = winHttpErrorMessage(error);
    if (detail.empty()) detail = "error " + std::to_string(error);
    if (!context.empty()) detail = detail.empty() ? context : detail + " (" + context + ")";
    return UrlError(urlErrorCodeFromWinHttp(error), winHttpErrorName(error), std::move(detail));
}

}  // namespace tavrin::platform::detail
