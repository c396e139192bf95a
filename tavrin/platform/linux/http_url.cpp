// URL parsing through libcurl's URL API, so the client and the parser agree
// on what a URL is.

#include <curl/curl.h>

#include <algorithm>
#include <cctype>

#include "tavrin/platform/http_client.h"

namespace tavrin::platform {

namespace {

struct CurlUrlHandle {
    CURLU* handle = curl_url();
    ~CurlUrlHandle() { curl_url_cleanup(handle); }
    std::optional<std::string> part(CURLUPart what) const {
        char* value = nullptr;
        if (curl_url_get(handle, what, &value, 0) != CURLUE_OK || !value) return std::nullopt;
        std::string result(value);
        curl_free(value);
        return result;
    }
};

}  // namespace

std::optional<Url> Url::parse(std::string_view text) {
    if (text.find('\0') != std::string_view::npos) return std::nullopt;
    // libcurl forgives "https:/host" and "https:///host"; an authority must
    // follow exactly "://".
    const auto separator = text.find("://");
    if (separator == std::string_view::npos || separator == 0 || text.substr(separator + 3, 1) == "/")
        return std::nullopt;
    CurlUrlHandle url;
    if (!url.handle) return std::nullopt;
    const std::string input(text);
    // Any scheme parses (the transport decides later which it speaks); no
    // scheme is guessed and nothing is percent-encoded on the caller's behalf,
    // so text with spaces or other characters a URL cannot hold is rejected.
    if (curl_url_set(url.handle, CURLUPART_URL, input.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK)
        return std::nullopt;
    auto scheme = url.part(CURLUPART_SCHEME);
    auto host = url.part(CURLUPART_HOST);
    if (!scheme || scheme->empty() || !host || host->empty()) return std::nullopt;

    Url result;
    result.text = input;
    result.scheme = std::move(*scheme);
    std::transform(result.scheme.begin(), result.scheme.end(), result.scheme.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    result.host = std::move(*host);
    if (result.host.size() >= 2 && result.host.front() == '[' && result.host.back() == ']')
        result.host = result.host.substr(1, result.host.size() - 2);
    if (auto port = url.part(CURLUPART_PORT)) result.port = std::stoi(*port);
    result.path = url.part(CURLUPART_PATH).value_or("/");
    result.query = url.part(CURLUPART_QUERY);
    return result;
}

}  // namespace tavrin::platform
