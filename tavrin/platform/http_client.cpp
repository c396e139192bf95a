#include "tavrin/platform/http_client.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "tavrin/platform/dispatch.h"
#include "tavrin/platform/system_log.h"

namespace tavrin::platform {

namespace {

constexpr double kDefaultTimeoutSeconds = 60;
constexpr long kMaxRedirects = 16;
// Upper bound of one wait for socket activity; new requests and timers wake
// the thread earlier.
constexpr int kPollIntervalMs = 1000;

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; };
               return lower(x) == lower(y);
           });
}

void ensureCurlGlobalInit() {
    static std::once_flag once;
    static CURLcode result = CURLE_OK;
    std::call_once(once, [] { result = curl_global_init(CURL_GLOBAL_DEFAULT); });
    if (result != CURLE_OK) throw std::runtime_error(std::string("curl_global_init failed: ") + curl_easy_strerror(result));
}

long milliseconds(double seconds) {
    if (!std::isfinite(seconds) || seconds <= 0) seconds = kDefaultTimeoutSeconds;
    const double ms = std::ceil(seconds * 1000.0);
    return ms > 2'000'000'000.0 ? 2'000'000'000L : static_cast<long>(ms);
}

// RFC 9110 token characters.
bool isValidHeaderName(std::string_view name) {
    if (name.empty()) return false;
    static constexpr std::string_view kSeparators = "!#$%&'*+-.^_`|~";
    return std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               kSeparators.find(c) != std::string_view::npos;
    });
}

// Any byte but CR, LF and NUL (which would end or split the field).
bool isValidHeaderValue(std::string_view value) {
    return value.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    const auto last = text.find_last_not_of(" \t\r\n");
    return text.substr(first, last - first + 1);
}

UrlError urlErrorFromCurl(CURLcode result, long osErrno, const char* errorBuffer) {
    using Code = UrlError::Code;
    Code code = Code::unknown;
    switch (result) {
        case CURLE_URL_MALFORMAT:
            code = Code::badURL;
            break;
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            code = Code::cannotFindHost;
            break;
        case CURLE_COULDNT_CONNECT:
            // No route at all means no usable network, not a refusing server.
            code = (osErrno == ENETUNREACH || osErrno == ENETDOWN) ? Code::notConnectedToInternet
                                                                  : Code::cannotConnectToHost;
            break;
        case CURLE_OPERATION_TIMEDOUT:
            code = Code::timedOut;
            break;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ENGINE_NOTFOUND:
        case CURLE_SSL_ENGINE_SETFAILED:
        case CURLE_SSL_ENGINE_INITFAILED:
        case CURLE_SSL_SHUTDOWN_FAILED:
        case CURLE_SSL_CRL_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_SSL_INVALIDCERTSTATUS:
        case CURLE_SSL_CLIENTCERT:
        case CURLE_USE_SSL_FAILED:
            code = Code::secureConnectionFailed;
            break;
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
            code = Code::networkConnectionLost;
            break;
        // Schemes are checked before a transfer starts, so this is an HTTP/0.9
        // reply or a redirect to a scheme we do not speak.
        case CURLE_UNSUPPORTED_PROTOCOL:
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
        case CURLE_HTTP3:
        case CURLE_BAD_CONTENT_ENCODING:
        case CURLE_TOO_MANY_REDIRECTS:
        case CURLE_FILESIZE_EXCEEDED:
            code = Code::badServerResponse;
            break;
        case CURLE_ABORTED_BY_CALLBACK:
            code = Code::cancelled;
            break;
        default:
            break;
    }
    return UrlError(code, curl_easy_strerror(result), errorBuffer ? std::string(errorBuffer) : std::string());
}

std::exception_ptr cancelledError() { return std::make_exception_ptr(UrlError(UrlError::Code::cancelled)); }

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

// ---- headers, request

std::optional<std::string> headerValue(const HttpHeaders& headers, std::string_view name) {
    for (const auto& [key, value] : headers)
        if (equalsIgnoringCase(key, name)) return value;
    return std::nullopt;
}

void HttpRequest::setHeader(std::string name, std::string value) {
    auto first = std::find_if(headers.begin(), headers.end(),
                              [&](const auto& field) { return equalsIgnoringCase(field.first, name); });
    if (first == headers.end()) {
        headers.emplace_back(std::move(name), std::move(value));
        return;
    }
    first->second = std::move(value);
    headers.erase(std::remove_if(std::next(first), headers.end(),
                                 [&](const auto& field) { return equalsIgnoringCase(field.first, name); }),
                  headers.end());
}

// ---- UrlError

namespace {
std::string errorMessage(UrlError::Code code, const std::string& reason) {
    std::string text = UrlError::description(code);
    if (!reason.empty()) text += " (curl: " + reason + ")";
    return text;
}
}  // namespace

UrlError::UrlError(Code code, std::string reason, std::string detail)
    : std::runtime_error(errorMessage(code, reason)), code_(code), reason_(std::move(reason)), detail_(std::move(detail)) {}

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
        case Code::cancelled: return "cancelled";
        case Code::unknown: break;
    }
    return "unknown";
}

// ---- Url

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

// ---- HttpClient

HttpResponse HttpResult::get() && {
    if (error) std::rethrow_exception(error);
    return std::move(*response);
}

std::future<HttpResponse> HttpClient::send(HttpRequest request) {
    auto promise = std::make_shared<std::promise<HttpResponse>>();
    auto future = promise->get_future();
    send(std::move(request), [promise](HttpResult result) {
        if (result.error) {
            promise->set_exception(result.error);
        } else {
            promise->set_value(std::move(*result.response));
        }
    });
    return future;
}

std::future<HttpResponse> HttpClient::post(std::string url, HttpHeaders headers, Bytes body, double timeoutSeconds) {
    HttpRequest request;
    request.method = "POST";
    request.url = std::move(url);
    request.headers = std::move(headers);
    request.body = std::move(body);
    request.timeoutSeconds = timeoutSeconds;
    return send(std::move(request));
}

std::future<HttpResponse> HttpClient::get(std::string url, HttpHeaders headers, double timeoutSeconds) {
    HttpRequest request;
    request.url = std::move(url);
    request.headers = std::move(headers);
    request.timeoutSeconds = timeoutSeconds;
    return send(std::move(request));
}

namespace {
std::mutex gSharedMutex;
std::shared_ptr<HttpClient> gShared;
}  // namespace

std::shared_ptr<HttpClient> HttpClient::shared() {
    std::lock_guard lock(gSharedMutex);
    if (!gShared) gShared = std::make_shared<CurlHttpClient>();
    return gShared;
}

void HttpClient::setShared(std::shared_ptr<HttpClient> client) {
    std::shared_ptr<HttpClient> previous;
    {
        std::lock_guard lock(gSharedMutex);
        previous = std::exchange(gShared, std::move(client));
    }
    // The previous client (and its thread) goes away outside the lock.
}

// ---- CurlHttpClient

namespace {

void logCompletionFailure(const std::string& what) {
    SystemLog("com.tavrin.TavrinSDK", "http").log(LogType::error, "HTTP completion handler failed: " + what);
}

// One request from send() to its completion.
struct Transfer {
    HttpRequest request;
    HttpClient::Completion completion;
    CURL* easy = nullptr;
    curl_slist* headerList = nullptr;
    char errorBuffer[CURL_ERROR_SIZE] = {};

    // The header block being read; a new status line (redirect, interim 1xx)
    // starts a new one, so only the final response's fields remain.
    int blockStatus = 0;
    HttpHeaders blockHeaders;
    bool finalBlockStarted = false;
    // The last interim (1xx) block that was read completely.
    int interimStatus = 0;
    HttpHeaders interimHeaders;

    HttpResponse response;

    ~Transfer() {
        if (easy) curl_easy_cleanup(easy);
        curl_slist_free_all(headerList);
    }

    void succeed(HttpResponse value) { complete(HttpResult{std::move(value), nullptr}); }
    void fail(std::exception_ptr error) { complete(HttpResult{std::nullopt, std::move(error)}); }

    void complete(HttpResult result) {
        auto done = std::move(completion);
        completion = nullptr;
        if (!done) return;
        try {
            done(std::move(result));
        } catch (const std::exception& error) {
            logCompletionFailure(error.what());
        } catch (...) {
            logCompletionFailure("unknown exception");
        }
    }

    void onHeaderLine(std::string_view line) {
        if (line.rfind("HTTP/", 0) == 0) {
            blockHeaders.clear();
            blockStatus = 0;
            const auto space = line.find(' ');
            if (space != std::string_view::npos) {
                const auto code = trimmed(line.substr(space + 1)).substr(0, 3);
                if (code.size() == 3 && std::all_of(code.begin(), code.end(), [](char c) { return c >= '0' && c <= '9'; }))
                    blockStatus = std::stoi(std::string(code));
            }
            if (blockStatus < 100 || blockStatus >= 200) finalBlockStarted = true;
            // A body seen so far belonged to a response that was followed.
            response.body.clear();
            return;
        }
        if (trimmed(line).empty()) {
            if (blockStatus >= 100 && blockStatus < 200) {
                interimStatus = blockStatus;
                interimHeaders = blockHeaders;
            } else {
                response.headers = blockHeaders;
            }
            return;
        }
        if (line.front() == ' ' || line.front() == '\t') {
            // Obsolete line folding continues the previous field.
            if (!blockHeaders.empty()) {
                auto& value = blockHeaders.back().second;
                if (!value.empty()) value += ' ';
                value += trimmed(line);
            }
            return;
        }
        const auto colon = line.find(':');
        if (colon == std::string_view::npos) return;  // e.g. the line ending a CONNECT reply
        blockHeaders.emplace_back(std::string(line.substr(0, colon)), std::string(trimmed(line.substr(colon + 1))));
    }
};

size_t writeBody(char* data, size_t size, size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    const size_t bytes = size * count;
    transfer->response.body.insert(transfer->response.body.end(), reinterpret_cast<std::uint8_t*>(data),
                                   reinterpret_cast<std::uint8_t*>(data) + bytes);
    return bytes;
}

size_t writeHeader(char* data, size_t size, size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    const size_t bytes = size * count;
    transfer->onHeaderLine(std::string_view(data, bytes));
    return bytes;
}

// Failures after which a server's last word, an interim 1xx status, stands as
// its answer: HTTP has no final 1xx status, so libcurl waits for one, and the
// connection ending (or something unparsable following) ends the wait.
bool endsAfterInterimResponse(CURLcode result) {
    return result == CURLE_GOT_NOTHING || result == CURLE_UNSUPPORTED_PROTOCOL || result == CURLE_WEIRD_SERVER_REPLY ||
           result == CURLE_RECV_ERROR || result == CURLE_PARTIAL_FILE;
}

}  // namespace

struct CurlHttpClient::Impl {
    explicit Impl(const Options& options) : options(options) {
        ensureCurlGlobalInit();
        multi = curl_multi_init();
        share = curl_share_init();
        if (!multi || !share) {
            if (multi) curl_multi_cleanup(multi);
            if (share) curl_share_cleanup(share);
            throw std::runtime_error("libcurl could not create its handles");
        }
        // The multi handle keeps one connection cache and DNS cache for all
        // transfers; the share adds TLS session resumption across them.
        curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
        curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, options.maxConnectionsPerHost);
        curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, std::max(8L, options.maxConnectionsPerHost * 4));
        try {
            thread = std::thread([this] { run(); });
        } catch (...) {
            curl_multi_cleanup(multi);
            curl_share_cleanup(share);
            throw;
        }
    }

    ~Impl() {
        stop();
        for (auto& [easy, transfer] : active) curl_multi_remove_handle(multi, easy);
        active.clear();
        curl_multi_cleanup(multi);
        curl_share_cleanup(share);
    }

    void enqueue(std::unique_ptr<Transfer> transfer) {
        {
            std::lock_guard lock(mutex);
            if (!stopping) incoming.push_back(std::move(transfer));
        }
        if (transfer) {  // still ours: the client is shut down
            transfer->fail(cancelledError());
            return;
        }
        curl_multi_wakeup(multi);
    }

    void stop() {
        {
            std::lock_guard lock(mutex);
            stopping = true;
        }
        curl_multi_wakeup(multi);
        std::lock_guard joinLock(joinMutex);
        if (thread.joinable()) thread.join();
    }

    void run() {
        setCurrentThreadName("com.tavrin.http");
        for (;;) {
            std::deque<std::unique_ptr<Transfer>> arrived;
            bool stopRequested;
            {
                std::lock_guard lock(mutex);
                arrived.swap(incoming);
                stopRequested = stopping;
            }
            if (stopRequested) {
                for (auto& transfer : arrived) transfer->fail(cancelledError());
                break;
            }
            for (auto& transfer : arrived) start(std::move(transfer));
            int running = 0;
            curl_multi_perform(multi, &running);
            collectFinished();
            curl_multi_poll(multi, nullptr, 0, kPollIntervalMs, nullptr);
        }
        for (auto& [easy, transfer] : active) {
            curl_multi_remove_handle(multi, easy);
            transfer->fail(cancelledError());
        }
        active.clear();
    }

    void start(std::unique_ptr<Transfer> transfer) {
        try {
            transfer->easy = curl_easy_init();
            if (!transfer->easy) throw std::runtime_error("libcurl could not create a transfer");
            configure(*transfer);
        } catch (...) {
            transfer->fail(std::current_exception());
            return;
        }
        CURL* easy = transfer->easy;
        Transfer* raw = transfer.get();
        active.emplace(easy, std::move(transfer));
        if (curl_multi_add_handle(multi, easy) != CURLM_OK) {
            raw->fail(std::make_exception_ptr(std::runtime_error("libcurl could not start a transfer")));
            active.erase(easy);
        }
    }

    void configure(Transfer& t) {
        CURL* easy = t.easy;
        const HttpRequest& request = t.request;
        curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
        curl_easy_setopt(easy, CURLOPT_PRIVATE, &t);
        curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, t.errorBuffer);
        curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &writeBody);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, &t);
        curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &writeHeader);
        curl_easy_setopt(easy, CURLOPT_HEADERDATA, &t);
        curl_easy_setopt(easy, CURLOPT_SHARE, share);
        curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, options.followRedirects ? 1L : 0L);
        curl_easy_setopt(easy, CURLOPT_MAXREDIRS, kMaxRedirects);
        curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);

        const long timeoutMs = milliseconds(request.timeoutSeconds);
        curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, timeoutMs);
        curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, std::min(timeoutMs, milliseconds(options.connectTimeoutSeconds)));

        // Peer and host verification are never switched off.
        curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
        curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
        curl_easy_setopt(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
        if (options.caFile) {
            curl_easy_setopt(easy, CURLOPT_CAINFO, options.caFile->c_str());
            curl_easy_setopt(easy, CURLOPT_CAPATH, static_cast<const char*>(nullptr));
        }
        if (options.userAgent) curl_easy_setopt(easy, CURLOPT_USERAGENT, options.userAgent->c_str());
        if (options.proxy) curl_easy_setopt(easy, CURLOPT_PROXY, options.proxy->c_str());

        const std::string& method = request.method;
        const bool carriesBody = !request.body.empty() || (method != "GET" && method != "HEAD");
        if (method == "GET" && request.body.empty()) {
            curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
        } else if (method == "HEAD" && request.body.empty()) {
            curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
        } else {
            curl_easy_setopt(easy, CURLOPT_POST, 1L);
            curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
            curl_easy_setopt(easy, CURLOPT_POSTFIELDS,
                             request.body.empty() ? "" : reinterpret_cast<const char*>(request.body.data()));
            if (method != "POST") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
        }

        auto append = [&](const std::string& line) {
            curl_slist* list = curl_slist_append(t.headerList, line.c_str());
            if (!list) throw std::bad_alloc();
            t.headerList = list;
        };
        for (const auto& [name, value] : request.headers) {
            // libcurl drops "Name:" lines; "Name;" is its spelling of an empty value.
            append(value.empty() ? name + ";" : name + ": " + value);
        }
        // No "Expect: 100-continue" round trip before large bodies, and no
        // form content type the caller did not ask for.
        if (!headerValue(request.headers, "Expect")) append("Expect:");
        if (carriesBody && !headerValue(request.headers, "Content-Type")) append("Content-Type:");
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, t.headerList);
    }

    void collectFinished() {
        int queued = 0;
        while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
            if (message->msg != CURLMSG_DONE) continue;
            CURL* easy = message->easy_handle;
            const CURLcode result = message->data.result;
            auto found = active.find(easy);
            curl_multi_remove_handle(multi, easy);
            if (found == active.end()) continue;
            std::unique_ptr<Transfer> transfer = std::move(found->second);
            active.erase(found);
            finish(*transfer, result);
        }
    }

    static void finish(Transfer& t, CURLcode result) {
        if (result == CURLE_OK) {
            long status = 0;
            curl_easy_getinfo(t.easy, CURLINFO_RESPONSE_CODE, &status);
            t.response.statusCode = static_cast<int>(status);
            t.succeed(std::move(t.response));
            return;
        }
        if (t.interimStatus != 0 && !t.finalBlockStarted && endsAfterInterimResponse(result)) {
            HttpResponse response;
            response.statusCode = t.interimStatus;
            response.headers = std::move(t.interimHeaders);
            t.succeed(std::move(response));
            return;
        }
        long osErrno = 0;
        curl_easy_getinfo(t.easy, CURLINFO_OS_ERRNO, &osErrno);
        t.fail(std::make_exception_ptr(urlErrorFromCurl(result, osErrno, t.errorBuffer)));
    }

    const Options& options;
    CURLM* multi = nullptr;
    CURLSH* share = nullptr;
    std::mutex mutex;
    std::deque<std::unique_ptr<Transfer>> incoming;
    bool stopping = false;
    std::mutex joinMutex;
    std::thread thread;
    // Owned by the client's thread.
    std::unordered_map<CURL*, std::unique_ptr<Transfer>> active;
};

CurlHttpClient::CurlHttpClient() : CurlHttpClient(Options{}) {}

CurlHttpClient::CurlHttpClient(Options options)
    : options_(std::move(options)), impl_(std::make_unique<Impl>(options_)) {}

CurlHttpClient::~CurlHttpClient() = default;

void CurlHttpClient::shutdown() { impl_->stop(); }

void CurlHttpClient::send(HttpRequest request, Completion completion) {
    auto transfer = std::make_unique<Transfer>();
    transfer->completion = std::move(completion);
    for (const auto& [name, value] : request.headers) {
        if (!isValidHeaderName(name) || !isValidHeaderValue(value)) {
            transfer->fail(std::make_exception_ptr(std::invalid_argument("invalid HTTP header field: " + name)));
            return;
        }
    }
    const auto url = Url::parse(request.url);
    if (!url) {
        transfer->fail(std::make_exception_ptr(UrlError(UrlError::Code::badURL)));
        return;
    }
    if (url->scheme != "http" && url->scheme != "https") {
        transfer->fail(std::make_exception_ptr(UrlError(UrlError::Code::unsupportedURL)));
        return;
    }
    transfer->request = std::move(request);
    impl_->enqueue(std::move(transfer));
}

}  // namespace tavrin::platform
