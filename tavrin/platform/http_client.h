#pragma once
// The platform HTTP client: asynchronous requests that end in a completion
// callback (or a std::future). The SDK sends everything through
// HttpClient::shared(); an embedder that needs its own trust store, proxy or
// user agent installs a configured client before configuring the SDK.
//
//     using namespace tavrin::platform;
//     HttpClient::setShared(std::make_shared<SystemHttpClient>(
//         HttpClientOptions{.caFile = "/etc/shop/ca.pem", .userAgent = "shop/2.3"}));
//     tavrin::Bytes body{'{', '}'};
//     std::future<HttpResponse> sent =
//         HttpClient::shared()->post("https://collect.example.com/", {{"Content-Type", "application/json"}}, body);
//     try {
//         HttpResponse response = sent.get();  // any status is a response, 500 included
//         std::optional<std::string> wait = response.header("retry-after");
//     } catch (const UrlError& error) { /* no answer at all: error.code() says why */ }
//
// The default client (libcurl on Linux, WinHTTP on Windows) runs on one
// background thread of its own, reuses
// connections and always verifies TLS peers and host names; a name lookup that
// hangs holds up only its own request. Transport failures (no connection,
// timeout, TLS, cancellation) are UrlError exceptions; an HTTP status of any
// value is a response, not an error.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tavrin/platform/api.h"
#include "tavrin/platform/bytes.h"

namespace tavrin::platform {

// Header fields in the order they are sent or were received. Names compare
// without regard to case; a name may occur more than once.
using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

// The first value of the named header field, compared without regard to case.
TAVRIN_API std::optional<std::string> headerValue(const HttpHeaders& headers, std::string_view name);

struct TAVRIN_API HttpRequest {
    std::string method = "GET";
    std::string url;
    HttpHeaders headers;
    Bytes body;
    // Whole-exchange limit (name lookup, connecting, sending, waiting and
    // reading): past it the request fails with UrlError timedOut, a lookup
    // that never ends included. Zero or less means the default of 60 seconds.
    double timeoutSeconds = 60;

    // Replaces every field of that name (any case) by one field with this
    // value, keeping the first one's position; appends it when absent.
    void setHeader(std::string name, std::string value);
};

struct TAVRIN_API HttpResponse {
    int statusCode = 0;
    HttpHeaders headers;
    Bytes body;

    std::optional<std::string> header(std::string_view name) const { return headerValue(headers, name); }
};

// The outcome of one request: a response (any status), or the error that
// kept it from producing one.
struct TAVRIN_API HttpResult {
    std::optional<HttpResponse> response;
    std::exception_ptr error;

    // The response, or the error rethrown.
    HttpResponse get() &&;
};

// A request that did not produce an HTTP response.
class TAVRIN_API UrlError : public std::runtime_error {
public:
    enum class Code {
        badURL,
        unsupportedURL,
        cannotFindHost,
        cannotConnectToHost,
        timedOut,
        secureConnectionFailed,
        networkConnectionLost,
        notConnectedToInternet,
        badServerResponse,
        // The answer's body was larger than the client keeps; the transfer
        // was stopped.
        responseTooLarge,
        cancelled,
        unknown,
    };

    // reason: the transport's own short reason, shown in parentheses after
    // the description; detail: its longer message, if any.
    UrlError(Code code, std::string reason = {}, std::string detail = {});

    Code code() const noexcept { return code_; }
    // The transport's short reason ("Couldn't connect to server"), or empty.
    const std::string& reason() const noexcept { return reason_; }
    // The transport's specific message ("Failed to connect to 127.0.0.1 port
    // 9 ..."), or empty.
    const std::string& detail() const noexcept { return detail_; }

    // The description of a code: "Could not connect to the server." ...
    static const char* description(Code code) noexcept;
    // The case name: "cannotConnectToHost" ...
    static const char* name(Code code) noexcept;

private:
    Code code_;
    std::string reason_;
    std::string detail_;
};

// A URL as the transport understands it; only text with a scheme and a host
// parses.
struct TAVRIN_API Url {
    std::string text;         // the text as given
    std::string scheme;       // lower case
    std::string host;         // without the brackets of an IPv6 literal
    std::optional<int> port;  // only when the text names one
    std::string path;         // "/" when the text has none
    std::optional<std::string> query;

    static std::optional<Url> parse(std::string_view text);
};

class TAVRIN_API HttpClient {
public:
    using Completion = std::function<void(HttpResult result)>;

    virtual ~HttpClient() = default;

    // Starts the request. The completion runs exactly once with the response
    // (any status) or the error: UrlError (`unknown` when the transport
    // itself cannot set the transfer up), or std::invalid_argument for a
    // header that cannot be sent. It runs on the client's own thread (or on
    // the caller's, before send returns, when the request cannot start), so
    // it must not block; an exception it throws is logged and dropped.
    // Interim 1xx answers are skipped, but a server that ends the exchange
    // after one (closing, or sending no valid final status line) has that
    // 1xx reported as its status, with its fields and no body.
    virtual void send(HttpRequest request, Completion completion) = 0;
    // The same, as a future that gives the response or throws the error.
    std::future<HttpResponse> send(HttpRequest request);

    std::future<HttpResponse> post(std::string url, HttpHeaders headers, Bytes body, double timeoutSeconds = 60);
    std::future<HttpResponse> get(std::string url, HttpHeaders headers = {}, double timeoutSeconds = 60);

    // The process-wide client, a SystemHttpClient with default options
    // created on first use.
    static std::shared_ptr<HttpClient> shared();
    // Installs the process-wide client (nullptr: create the default again on
    // next use).
    static void setShared(std::shared_ptr<HttpClient> client);
};

// What the system's default client is configured with.
struct TAVRIN_API HttpClientOptions {
    // PEM file of the certificate authorities to trust instead of the
    // system store.
    std::optional<std::string> caFile = std::nullopt;
    // Sent as User-Agent unless a request sets its own; none when absent.
    std::optional<std::string> userAgent = std::nullopt;
    // Limit of name lookup plus connecting, within each request's own
    // timeout; past it the request fails with UrlError timedOut.
    double connectTimeoutSeconds = 30;
    // Connections kept open to one host at a time; further requests wait
    // for a free one.
    long maxConnectionsPerHost = 6;
    // Largest response body kept; a longer one stops the transfer, which
    // fails with UrlError responseTooLarge, so memory stays flat whatever
    // a server sends.
    std::size_t maxResponseBodyBytes = 64 * 1024;
    // Proxy URL; empty text means no proxy; absent means the system's (the
    // environment's http_proxy, https_proxy and no_proxy on Linux, the
    // WinHTTP or automatic proxy settings on Windows).
    std::optional<std::string> proxy = std::nullopt;
};

// The system's client: libcurl's multi interface on Linux, an asynchronous
// WinHTTP session on Windows, each driven by one thread of the client's own.
// Connections are kept and reused. A redirect is never followed: a 3xx is the
// answer, so a body is never sent anywhere but the URL its caller named. TLS
// peers are verified against the system store, or against caFile alone when
// it is set.
class TAVRIN_API SystemHttpClient final : public HttpClient {
public:
    using Options = HttpClientOptions;

    SystemHttpClient();
    explicit SystemHttpClient(Options options);
    // Shuts down (see shutdown()).
    ~SystemHttpClient() override;
    SystemHttpClient(const SystemHttpClient&) = delete;
    SystemHttpClient& operator=(const SystemHttpClient&) = delete;

    using HttpClient::send;
    void send(HttpRequest request, Completion completion) override;

    // Fails every waiting and running request with UrlError cancelled and
    // joins the client's thread. Later requests fail at once with cancelled.
    // Idempotent. From the client's own thread (a completion) it does not
    // wait: the requests are ended once that completion returns.
    void shutdown();

    const Options& options() const noexcept { return options_; }

private:
    struct Impl;
    Options options_;
    std::shared_ptr<Impl> impl_;
};

// The same client by the name of what drives it.
#if defined(_WIN32)
using WinHttpClient = SystemHttpClient;
#else
using CurlHttpClient = SystemHttpClient;
#endif

}  // namespace tavrin::platform
