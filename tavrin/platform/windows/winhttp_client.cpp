// The default client on Windows: one asynchronous WinHTTP session driven by
// one thread of the client's own.
//
// WinHTTP reports progress on threads of its own. The status callback only
// queues what happened (and, with a CA file of the caller's, checks the
// server's certificate before the request leaves, see below); the client's
// thread takes those events in order, issues each request's next WinHTTP call,
// keeps the deadlines and runs the completions. No WinHTTP call of an
// asynchronous session blocks, so a hung name lookup or a silent server holds
// up only its own request. A request's handle is closed to end it early (its
// deadline, shutdown); its state is freed once WinHTTP reports the handle
// closing, the last callback it makes for that handle.

#include <windows.h>
// After windows.h, which they need.
#include <wincrypt.h>
#include <winhttp.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>
#include <unordered_map>

#include "tavrin/platform/dispatch.h"
#include "tavrin/platform/http_client.h"
#include "tavrin/platform/internal/http_fields.h"
#include "tavrin/platform/internal/log_hook.h"
#include "tavrin/platform/internal/system.h"
#include "tavrin/platform/windows/wide_text.h"
#include "tavrin/platform/windows/winhttp_errors.h"

namespace tavrin::platform {

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr double kDefaultTimeoutSeconds = 60;
// Response header bytes WinHTTP keeps: a server that sends header lines
// without end is stopped like one with an endless body.
constexpr DWORD kMaxHeaderBytes = 256 * 1024;
// Most bytes asked of WinHTTP per read.
constexpr DWORD kReadChunkBytes = 64 * 1024;

std::chrono::milliseconds duration(double seconds) {
    if (!std::isfinite(seconds) || seconds <= 0) seconds = kDefaultTimeoutSeconds;
    const double ms = std::ceil(seconds * 1000.0);
    return std::chrono::milliseconds(ms > 2'000'000'000.0 ? 2'000'000'000LL : static_cast<long long>(ms));
}

using win::toUtf8;
using win::toWide;

std::exception_ptr cancelledError() { return std::make_exception_ptr(UrlError(UrlError::Code::cancelled)); }

std::exception_ptr winHttpError(DWORD error, const std::string& context = {}) {
    return std::make_exception_ptr(detail::urlErrorFromWinHttp(error, context));
}

// Fields of a WINHTTP_QUERY_RAW_HEADERS_CRLF block, in order: the status line
// skipped, folded lines joined to the field they continue.
HttpHeaders parseRawHeaders(std::string_view block) {
    HttpHeaders headers;
    bool statusLine = true;
    while (!block.empty()) {
        const auto end = block.find("\r\n");
        const auto line = block.substr(0, end);
        block = end == std::string_view::npos ? std::string_view() : block.substr(end + 2);
        if (!std::exchange(statusLine, false)) detail::addHeaderLine(headers, line);
    }
    return headers;
}

// The certificates of a PEM file, trusted instead of the system's store.
// WinHTTP takes no CA file: the handshake accepts an unknown root, and the
// server's certificate is checked against these before the request is sent.
class TrustAnchors {
public:
    explicit TrustAnchors(const std::string& file) {
        store_ = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, CERT_STORE_CREATE_NEW_FLAG, nullptr);
        if (!store_) {
            problem_ = "could not create a certificate store";
            return;
        }
        std::ifstream in(std::filesystem::path(toWide(file)), std::ios::binary);
        std::stringstream content;
        content << in.rdbuf();
        if (!in) {
            problem_ = "cannot read the CA file " + file;
            return;
        }
        const std::string pem = content.str();
        static constexpr std::string_view kBegin = "-----BEGIN CERTIFICATE-----", kEnd = "-----END CERTIFICATE-----";
        std::size_t count = 0;
        for (auto begin = pem.find(kBegin); begin != std::string::npos; begin = pem.find(kBegin, begin + 1)) {
            const auto end = pem.find(kEnd, begin);
            if (end == std::string::npos) break;
            const std::string block = pem.substr(begin, end + kEnd.size() - begin);
            DWORD size = 0;
            if (!CryptStringToBinaryA(block.c_str(), static_cast<DWORD>(block.size()), CRYPT_STRING_BASE64HEADER,
                                      nullptr, &size, nullptr, nullptr))
                continue;
            std::vector<BYTE> der(size);
            if (CryptStringToBinaryA(block.c_str(), static_cast<DWORD>(block.size()), CRYPT_STRING_BASE64HEADER,
                                     der.data(), &size, nullptr, nullptr) &&
                CertAddEncodedCertificateToStore(store_, X509_ASN_ENCODING, der.data(), size,
                                                 CERT_STORE_ADD_USE_EXISTING, nullptr))
                ++count;
        }
        if (count == 0) {
            problem_ = "no certificate in the CA file " + file;
            return;
        }
        // An engine whose only roots are these. Where the system cannot make
        // one, the chain's top certificate is still required to be one of
        // them (verify()), so nothing else is ever trusted.
        CERT_CHAIN_ENGINE_CONFIG config{};
        config.cbSize = sizeof config;
        config.hExclusiveRoot = store_;
        if (!CertCreateCertificateChainEngine(&config, &engine_)) engine_ = nullptr;
    }

    ~TrustAnchors() {
        if (engine_) CertFreeCertificateChainEngine(engine_);
        if (store_) CertCloseStore(store_, 0);
    }
    TrustAnchors(const TrustAnchors&) = delete;
    TrustAnchors& operator=(const TrustAnchors&) = delete;

    // Why the file cannot be used, or empty.
    const std::string& problem() const { return problem_; }

    // Whether the server certificate of `request` chains to one of these
    // anchors and names `host`; otherwise why not, in `why`.
    bool verify(HINTERNET request, const std::wstring& host, std::string& why) const {
        if (!problem_.empty()) {
            why = problem_;
            return false;
        }
        PCCERT_CONTEXT certificate = nullptr;
        DWORD size = sizeof certificate;
        if (!WinHttpQueryOption(request, WINHTTP_OPTION_SERVER_CERT_CONTEXT, &certificate, &size) || !certificate) {
            why = "no server certificate to check";
            return false;
        }
        const bool trusted = verifyCertificate(certificate, host, why);
        CertFreeCertificateContext(certificate);
        return trusted;
    }

private:
    bool verifyCertificate(PCCERT_CONTEXT certificate, const std::wstring& host, std::string& why) const {
        // The intermediates the server sent, and the anchors themselves for an
        // engine that could not be limited to them.
        HCERTSTORE candidates = CertOpenStore(CERT_STORE_PROV_COLLECTION, 0, 0, 0, nullptr);
        if (!candidates) {
            why = "could not create a certificate store";
            return false;
        }
        if (certificate->hCertStore) CertAddStoreToCollection(candidates, certificate->hCertStore, 0, 0);
        CertAddStoreToCollection(candidates, store_, 0, 0);

        char serverAuth[] = szOID_PKIX_KP_SERVER_AUTH;
        LPSTR usages[] = {serverAuth};
        CERT_CHAIN_PARA chainPara{};
        chainPara.cbSize = sizeof chainPara;
        chainPara.RequestedUsage.dwType = USAGE_MATCH_TYPE_AND;
        chainPara.RequestedUsage.Usage.cUsageIdentifier = 1;
        chainPara.RequestedUsage.Usage.rgpszUsageIdentifier = usages;
        PCCERT_CHAIN_CONTEXT chain = nullptr;
        // No fetching of missing certificates from the network.
        const BOOL built = CertGetCertificateChain(engine_, certificate, nullptr, candidates, &chainPara,
                                                   CERT_CHAIN_CACHE_ONLY_URL_RETRIEVAL, nullptr, &chain);
        CertCloseStore(candidates, 0);
        if (!built || !chain || chain->cChain == 0 || chain->rgpChain[0]->cElement == 0) {
            if (chain) CertFreeCertificateChain(chain);
            why = "no certificate chain could be built";
            return false;
        }
        const CERT_SIMPLE_CHAIN* simple = chain->rgpChain[0];
        PCCERT_CONTEXT top = simple->rgpElement[simple->cElement - 1]->pCertContext;
        PCCERT_CONTEXT anchor =
            CertFindCertificateInStore(store_, X509_ASN_ENCODING, 0, CERT_FIND_EXISTING, top, nullptr);
        if (!anchor) {
            CertFreeCertificateChain(chain);
            why = "the server's certificate does not chain to the configured CA";
            return false;
        }
        CertFreeCertificateContext(anchor);

        // The chain ends at one of the anchors: an engine that does not hold
        // them as roots reports it untrusted, which is the one thing the
        // anchor check above settles. Everything else (signatures, dates,
        // usage, the host name) must hold.
        SSL_EXTRA_CERT_CHAIN_POLICY_PARA ssl{};
        ssl.cbSize = sizeof ssl;
        ssl.dwAuthType = AUTHTYPE_SERVER;
        ssl.fdwChecks =
            (chain->TrustStatus.dwErrorStatus & CERT_TRUST_IS_UNTRUSTED_ROOT) ? SECURITY_FLAG_IGNORE_UNKNOWN_CA : 0;
        std::wstring serverName = host;
        ssl.pwszServerName = serverName.data();
        CERT_CHAIN_POLICY_PARA policy{};
        policy.cbSize = sizeof policy;
        policy.pvExtraPolicyPara = &ssl;
        CERT_CHAIN_POLICY_STATUS status{};
        status.cbSize = sizeof status;
        const BOOL checked = CertVerifyCertificateChainPolicy(CERT_CHAIN_POLICY_SSL, chain, &policy, &status);
        CertFreeCertificateChain(chain);
        if (!checked || status.dwError != 0) {
            why = "certificate refused: " + detail::winHttpErrorMessage(checked ? status.dwError : GetLastError());
            return false;
        }
        return true;
    }

    HCERTSTORE store_ = nullptr;
    HCERTCHAINENGINE engine_ = nullptr;
    std::string problem_;
};

void logCompletionFailure(const std::string& what) {
    logError([&] { return "HTTP completion handler failed: " + what; });
}

struct Exchange;

struct Event {
    Exchange* exchange;
    DWORD status;
    DWORD error;  // REQUEST_ERROR: the failure
    DWORD value;  // READ_COMPLETE: bytes read; SECURE_FAILURE: its flags
};

// What the status callback reaches of the client.
class EventSink {
public:
    // Queues the event for the client's thread.
    virtual void post(const Event& event) = 0;
    // Checks the server of a request about to be sent; closes it when refused.
    virtual void checkPeer(HINTERNET handle, Exchange& exchange) = 0;

protected:
    ~EventSink() = default;
};

// One request from send() to the closing of its WinHTTP handle.
struct Exchange {
    EventSink* owner = nullptr;
    HttpRequest request;
    HttpClient::Completion completion;
    std::wstring host;
    INTERNET_PORT port = 0;
    std::wstring hostKey;
    bool holdsSlot = false;  // counts against its host's connection limit
    bool secure = false;
    // send() plus the request's timeout: the limit covers waiting for a
    // connection too.
    SteadyClock::time_point deadline;
    // Set when a name lookup starts, cleared once connected.
    std::optional<SteadyClock::time_point> connectDeadline;

    HINTERNET handle = nullptr;
    // Either thread may close the handle (the callback for a refused
    // certificate); only the first does.
    std::atomic<bool> closed{false};
    // Written by the callback before it closes the handle.
    std::atomic<bool> certificateRefused{false};
    // Set by the callback once the server's certificate passed that check.
    std::atomic<bool> peerVerified{false};
    bool bodyAfterCheck = false;
    std::size_t bodySent = 0;
    std::mutex refusalMutex;
    std::string refusal;

    bool finished = false;  // the completion has run
    DWORD secureFailureFlags = 0;
    std::uint64_t responseBytes = 0;  // as WinHTTP reports them received
    bool headersRead = false;
    std::wstring headerBlock;
    HttpResponse response;
    std::size_t maxBodyBytes = 0;
    std::vector<char> buffer;
    // Set when the client's thread ends before WinHTTP lets go of the handle.
    std::shared_ptr<const void> keepOwner;

    void close() {
        if (handle && !closed.exchange(true)) WinHttpCloseHandle(handle);
    }

    void complete(HttpResult result) {
        finished = true;
        // Done with WinHTTP before the caller hears of it: a finished read
        // hands the connection back for reuse.
        close();
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
    void succeed(HttpResponse value) { complete(HttpResult{std::move(value), nullptr}); }
    void fail(std::exception_ptr error) { complete(HttpResult{std::nullopt, std::move(error)}); }
};

void CALLBACK onStatus(HINTERNET handle, DWORD_PTR context, DWORD status, LPVOID info, DWORD infoLength);

}  // namespace

struct SystemHttpClient::Impl final : EventSink, std::enable_shared_from_this<SystemHttpClient::Impl> {
    explicit Impl(const Options& options) : options(options) {
        if (options.caFile) anchors = std::make_unique<TrustAnchors>(*options.caFile);
        const std::wstring agent = options.userAgent ? toWide(*options.userAgent) : std::wstring();
        const wchar_t* agentText = options.userAgent ? agent.c_str() : nullptr;
        if (!options.proxy) {
            session = WinHttpOpen(agentText, WINHTTP_ACCESS_TYPE_AUTOMATIC_PROXY, WINHTTP_NO_PROXY_NAME,
                                  WINHTTP_NO_PROXY_BYPASS, WINHTTP_FLAG_ASYNC);
            // Before Windows 8.1 (and where it is not provided): the
            // configured WinHTTP proxy.
            if (!session)
                session = WinHttpOpen(agentText, WINHTTP_ACCESS_TYPE_DEFAULT_PROXY, WINHTTP_NO_PROXY_NAME,
                                      WINHTTP_NO_PROXY_BYPASS, WINHTTP_FLAG_ASYNC);
        } else if (options.proxy->empty()) {
            session = WinHttpOpen(agentText, WINHTTP_ACCESS_TYPE_NO_PROXY, WINHTTP_NO_PROXY_NAME,
                                  WINHTTP_NO_PROXY_BYPASS, WINHTTP_FLAG_ASYNC);
        } else {
            const std::wstring proxy = toWide(*options.proxy);
            session = WinHttpOpen(agentText, WINHTTP_ACCESS_TYPE_NAMED_PROXY, proxy.c_str(), WINHTTP_NO_PROXY_BYPASS,
                                  WINHTTP_FLAG_ASYNC);
        }
        if (!session) {
            const DWORD error = GetLastError();
            throw UrlError(UrlError::Code::unknown, "WinHttpOpen failed", detail::winHttpErrorMessage(error));
        }
        const DWORD events = WINHTTP_CALLBACK_FLAG_ALL_COMPLETIONS | WINHTTP_CALLBACK_FLAG_SEND_REQUEST |
                             WINHTTP_CALLBACK_FLAG_HANDLES | WINHTTP_CALLBACK_FLAG_RESOLVE_NAME |
                             WINHTTP_CALLBACK_FLAG_CONNECT_TO_SERVER | WINHTTP_CALLBACK_FLAG_SECURE_FAILURE |
                             WINHTTP_CALLBACK_FLAG_RECEIVE_RESPONSE;
        if (WinHttpSetStatusCallback(session, &onStatus, events, 0) == WINHTTP_INVALID_STATUS_CALLBACK) {
            const DWORD error = GetLastError();
            WinHttpCloseHandle(session);
            throw UrlError(UrlError::Code::unknown, "WinHttpSetStatusCallback failed",
                           detail::winHttpErrorMessage(error));
        }
        DWORD connections = static_cast<DWORD>(std::clamp(options.maxConnectionsPerHost, 1L, 1024L));
        setOption(session, WINHTTP_OPTION_MAX_CONNS_PER_SERVER, connections);
        setOption(session, WINHTTP_OPTION_MAX_CONNS_PER_1_0_SERVER, connections);
        // TLS 1.2 at least; TLS 1.3 where the system has it.
        if (!setOption(session, WINHTTP_OPTION_SECURE_PROTOCOLS,
                       WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2 | WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_3))
            setOption(session, WINHTTP_OPTION_SECURE_PROTOCOLS, WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2);
    }

    ~Impl() {
        if (thread.joinable()) {
            if (thread.get_id() == std::this_thread::get_id()) {
                thread.detach();
            } else {
                thread.join();
            }
        }
        for (auto& [key, host] : hosts)
            if (host.connection) WinHttpCloseHandle(host.connection);
        if (session) {
            WinHttpSetStatusCallback(session, nullptr, 0, 0);
            WinHttpCloseHandle(session);
        }
    }

    static bool setOption(HINTERNET handle, DWORD option, DWORD value) {
        return WinHttpSetOption(handle, option, &value, sizeof value) != FALSE;
    }

    void startThread() {
        thread = std::thread([self = shared_from_this()] { self->run(); });
    }

    // From WinHTTP's threads.
    void post(const Event& event) override {
        std::unique_ptr<Exchange> released;
        {
            std::lock_guard lock(mutex);
            if (!orphaned) {
                events.push_back(event);
                wake.notify_one();
                return;
            }
            // The client's thread is gone: a request's state goes with its
            // handle's last callback.
            if (event.status != WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING) return;
            auto found = active.find(event.exchange);
            if (found == active.end()) return;
            released = std::move(found->second);
            active.erase(found);
        }
        // The last one may hold the last reference to this client state.
        released.reset();
    }

    void enqueue(std::unique_ptr<Exchange> exchange) {
        {
            std::lock_guard lock(mutex);
            if (!stopping) incoming.push_back(std::move(exchange));
        }
        if (exchange) {  // still ours: the client is shut down
            exchange->fail(cancelledError());
            return;
        }
        wake.notify_one();
    }

    void stop() {
        {
            std::lock_guard lock(mutex);
            stopping = true;
        }
        wake.notify_one();
        // From a completion the thread ends the requests once it returns.
        if (std::this_thread::get_id() == thread.get_id()) return;
        std::lock_guard joinLock(joinMutex);
        if (thread.joinable()) thread.join();
    }

    void run() {
        setCurrentThreadName("com.tavrin.http");
        for (;;) {
            std::deque<std::unique_ptr<Exchange>> arrived;
            std::deque<Event> happened;
            bool stopRequested = false;
            {
                std::unique_lock lock(mutex);
                wake.wait_until(lock, nextDeadline(), [&] { return stopping || !incoming.empty() || !events.empty(); });
                arrived.swap(incoming);
                happened.swap(events);
                stopRequested = stopping;
            }
            if (stopRequested) {
                for (auto& exchange : arrived) exchange->fail(cancelledError());
                break;
            }
            for (auto& exchange : arrived) admit(std::move(exchange));
            bool stopped = false;
            for (const Event& event : happened) {
                // Once shut down from a completion, the others end cancelled.
                if (!stopped && stopRequestedNow()) stopped = true;
                if (stopped) {
                    if (event.status == WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING) active.erase(event.exchange);
                } else {
                    handle(event);
                }
            }
            if (!stopped) {
                expireOverdue();
                releaseSlots();
            }
        }
        for (auto& [key, host] : hosts)
            for (auto& exchange : std::exchange(host.waiting, {})) exchange->fail(cancelledError());
        for (auto& [raw, exchange] : active)
            if (!exchange->finished) exchange->fail(cancelledError());
        leaveClosingHandles();
    }

    bool stopRequestedNow() {
        std::lock_guard lock(mutex);
        return stopping;
    }

    // Every request handle is closed, but WinHTTP may still be finishing
    // with some (under some WinHTTP versions a read in progress keeps its
    // handle until the socket yields). Shutdown does not wait for them: each
    // keeps this state alive until its last callback frees it (post()).
    void leaveClosingHandles() {
        std::deque<Event> happened;
        std::vector<std::unique_ptr<Exchange>> released;
        std::lock_guard lock(mutex);
        happened.swap(events);
        for (const Event& event : happened) {
            if (event.status != WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING) continue;
            auto found = active.find(event.exchange);
            if (found == active.end()) continue;
            released.push_back(std::move(found->second));
            active.erase(found);
        }
        for (auto& [raw, exchange] : active) exchange->keepOwner = shared_from_this();
        orphaned = true;
    }

    SteadyClock::time_point nextDeadline() const {
        auto next = SteadyClock::time_point::max();
        for (const auto& [raw, exchange] : active) {
            if (exchange->finished) continue;
            next = std::min(next, exchange->deadline);
            if (exchange->connectDeadline) next = std::min(next, *exchange->connectDeadline);
        }
        for (const auto& [key, host] : hosts)
            for (const auto& exchange : host.waiting) next = std::min(next, exchange->deadline);
        return next;
    }

    void expireOverdue() {
        const auto now = SteadyClock::now();
        for (auto& [raw, exchange] : active) {
            if (exchange->finished) continue;
            const bool overall = exchange->deadline <= now;
            if (!overall && !(exchange->connectDeadline && *exchange->connectDeadline <= now)) continue;
            const auto limit =
                overall ? duration(exchange->request.timeoutSeconds) : duration(options.connectTimeoutSeconds);
            exchange->fail(winHttpError(ERROR_WINHTTP_TIMEOUT, std::string(overall ? "request" : "connecting") +
                                                                   " took over " + std::to_string(limit.count()) +
                                                                   " ms"));
        }
        for (auto& [key, host] : hosts) {
            for (auto it = host.waiting.begin(); it != host.waiting.end();) {
                if ((*it)->deadline > now) {
                    ++it;
                    continue;
                }
                auto expired = std::move(*it);
                it = host.waiting.erase(it);
                expired->fail(winHttpError(ERROR_WINHTTP_TIMEOUT,
                                           "request took over " +
                                               std::to_string(duration(expired->request.timeoutSeconds).count()) +
                                               " ms waiting for a connection"));
            }
        }
    }

    // Requests past the per-host limit wait here, not in WinHTTP, so the
    // limit holds where WinHTTP does not enforce it and a waiting request
    // can still be cancelled or expire without a handle.
    void admit(std::unique_ptr<Exchange> owned) {
        owned->owner = this;
        owned->hostKey = owned->host + L"|" + std::to_wstring(owned->port);
        Host& host = hosts[owned->hostKey];
        if (host.running >= static_cast<std::size_t>(std::max(1L, options.maxConnectionsPerHost))) {
            host.waiting.push_back(std::move(owned));
            return;
        }
        ++host.running;
        owned->holdsSlot = true;
        start(std::move(owned));
    }

    // For a request that ended before it had a handle.
    void releaseSlot(Exchange& x) {
        if (!std::exchange(x.holdsSlot, false)) return;
        --hosts[x.hostKey].running;
    }

    // Gives the slots of finished requests to waiting ones.
    void releaseSlots() {
        for (auto& [raw, exchange] : active) {
            if (!exchange->finished || !exchange->holdsSlot) continue;
            exchange->holdsSlot = false;
            --hosts[exchange->hostKey].running;
        }
        const auto limit = static_cast<std::size_t>(std::max(1L, options.maxConnectionsPerHost));
        for (auto& [key, host] : hosts) {
            while (host.running < limit && !host.waiting.empty()) {
                auto next = std::move(host.waiting.front());
                host.waiting.pop_front();
                ++host.running;
                next->holdsSlot = true;
                start(std::move(next));
            }
        }
    }

    void start(std::unique_ptr<Exchange> owned) {
        Exchange& x = *owned;
        if (x.secure && anchors && !anchors->problem().empty()) {
            x.fail(std::make_exception_ptr(
                UrlError(UrlError::Code::secureConnectionFailed, "CA file unusable", anchors->problem())));
            releaseSlot(x);
            return;
        }
        Host& host = hosts[x.hostKey];
        if (!host.connection) host.connection = WinHttpConnect(session, x.host.c_str(), x.port, 0);
        HINTERNET connect = host.connection;
        if (!connect) {
            x.fail(winHttpError(GetLastError(), "WinHttpConnect"));
            releaseSlot(x);
            return;
        }
        const auto url = Url::parse(x.request.url);
        const std::wstring method = toWide(x.request.method);
        const std::wstring object = toWide(url->path + (url->query ? "?" + *url->query : std::string()));
        // The path is sent as the caller wrote it: the parser let nothing
        // through that would need escaping.
        x.handle = WinHttpOpenRequest(
            connect, method.c_str(), object.c_str(), nullptr, WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES,
            WINHTTP_FLAG_ESCAPE_DISABLE | WINHTTP_FLAG_ESCAPE_DISABLE_QUERY | (x.secure ? WINHTTP_FLAG_SECURE : 0));
        if (!x.handle) {
            x.fail(winHttpError(GetLastError(), "WinHttpOpenRequest"));
            releaseSlot(x);
            return;
        }
        active.emplace(&x, std::move(owned));
        DWORD_PTR context = reinterpret_cast<DWORD_PTR>(&x);
        if (!WinHttpSetOption(x.handle, WINHTTP_OPTION_CONTEXT_VALUE, &context, sizeof context)) {
            // Without its context the handle reports nothing back: done here.
            x.fail(winHttpError(GetLastError(), "context"));
            releaseSlot(x);
            active.erase(&x);
            return;
        }
        // A redirect would carry the body (and its credential) to a place the
        // caller did not name: the 3xx itself is the answer. No cookies, no
        // authentication on the caller's behalf, no decompression (WinHTTP
        // decompresses only when asked).
        setOption(x.handle, WINHTTP_OPTION_REDIRECT_POLICY, WINHTTP_OPTION_REDIRECT_POLICY_NEVER);
        setOption(x.handle, WINHTTP_OPTION_DISABLE_FEATURE,
                  WINHTTP_DISABLE_COOKIES | WINHTTP_DISABLE_REDIRECTS | WINHTTP_DISABLE_AUTHENTICATION);
        setOption(x.handle, WINHTTP_OPTION_AUTOLOGON_POLICY, WINHTTP_AUTOLOGON_SECURITY_LEVEL_HIGH);
        setOption(x.handle, WINHTTP_OPTION_MAX_RESPONSE_HEADER_SIZE, kMaxHeaderBytes);
        // The handshake lets an unknown root through only for the check
        // against the caller's CA file, made before anything is sent.
        if (x.secure && anchors) setOption(x.handle, WINHTTP_OPTION_SECURITY_FLAGS, SECURITY_FLAG_IGNORE_UNKNOWN_CA);

        // Each step's own limits; the deadlines bound the whole.
        const auto total = duration(x.request.timeoutSeconds);
        const auto connecting = std::min(total, duration(options.connectTimeoutSeconds));
        WinHttpSetTimeouts(x.handle, static_cast<int>(connecting.count()), static_cast<int>(connecting.count()),
                           static_cast<int>(total.count()), static_cast<int>(total.count()));

        std::wstring headers;
        for (const auto& [name, value] : x.request.headers) headers += toWide(name) + L": " + toWide(value) + L"\r\n";
        if (!headerValue(x.request.headers, "Accept")) headers += L"Accept: */*\r\n";
        const bool carriesBody = !x.request.body.empty() || (x.request.method != "GET" && x.request.method != "HEAD");
        // WinHTTP states no length for an empty body.
        if (carriesBody && x.request.body.empty() && !headerValue(x.request.headers, "Content-Length"))
            headers += L"Content-Length: 0\r\n";
        const auto bodySize = static_cast<DWORD>(x.request.body.size());
        x.maxBodyBytes = options.maxResponseBodyBytes;
        // Checked against the CA file, the body goes out only once the check
        // has passed, whatever WinHTTP does with a request closed just
        // before it is written.
        x.bodyAfterCheck = x.secure && anchors && bodySize > 0;
        const DWORD withRequest = x.bodyAfterCheck ? 0 : bodySize;
        if (!WinHttpSendRequest(x.handle, headers.empty() ? WINHTTP_NO_ADDITIONAL_HEADERS : headers.c_str(),
                                static_cast<DWORD>(headers.size()),
                                withRequest ? x.request.body.data() : WINHTTP_NO_REQUEST_DATA, withRequest, bodySize,
                                context))
            x.fail(winHttpError(GetLastError(), "WinHttpSendRequest"));
    }

    // Request written (and the body, when it went with it): on to the answer.
    void onRequestSent(Exchange& x) {
        if (x.certificateRefused) {
            x.fail(endedEarly(x, ERROR_WINHTTP_SECURE_FAILURE));
            return;
        }
        if (x.secure && anchors && !x.peerVerified) {
            x.fail(std::make_exception_ptr(UrlError(UrlError::Code::secureConnectionFailed, "certificate not checked",
                                                    "WinHTTP gave no chance to check the server certificate")));
            return;
        }
        if (x.bodyAfterCheck && x.bodySent < x.request.body.size()) {
            writeBody(x);
            return;
        }
        if (!WinHttpReceiveResponse(x.handle, nullptr)) x.fail(endedEarly(x, GetLastError()));
    }

    void writeBody(Exchange& x) {
        const auto rest = static_cast<DWORD>(x.request.body.size() - x.bodySent);
        if (!WinHttpWriteData(x.handle, x.request.body.data() + x.bodySent, rest, nullptr))
            x.fail(endedEarly(x, GetLastError()));
    }

    void onBodyWritten(Exchange& x, DWORD bytes) {
        x.bodySent += bytes;
        if (bytes == 0) {
            x.fail(endedEarly(x, ERROR_WINHTTP_CONNECTION_ERROR));
            return;
        }
        onRequestSent(x);
    }

    void handle(const Event& event) {
        auto found = active.find(event.exchange);
        if (found == active.end()) return;
        Exchange& x = *found->second;
        if (event.status == WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING) {
            if (!x.finished) x.fail(endedEarly(x, ERROR_WINHTTP_OPERATION_CANCELLED));
            active.erase(found);
            return;
        }
        if (x.finished) return;
        switch (event.status) {
            case WINHTTP_CALLBACK_STATUS_RESOLVING_NAME:
                if (!x.connectDeadline)
                    x.connectDeadline = SteadyClock::now() + duration(options.connectTimeoutSeconds);
                break;
            case WINHTTP_CALLBACK_STATUS_CONNECTED_TO_SERVER:
            case WINHTTP_CALLBACK_STATUS_SENDING_REQUEST: x.connectDeadline.reset(); break;
            case WINHTTP_CALLBACK_STATUS_SECURE_FAILURE: x.secureFailureFlags |= event.value; break;
            case WINHTTP_CALLBACK_STATUS_RESPONSE_RECEIVED:
                x.responseBytes += event.value;
                // Where WinHTTP does not bound the header block itself.
                if (!x.headersRead && x.responseBytes > kMaxHeaderBytes)
                    x.fail(std::make_exception_ptr(
                        UrlError(UrlError::Code::responseTooLarge, "response header too large",
                                 "header block longer than " + std::to_string(kMaxHeaderBytes) + " bytes")));
                break;
            case WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE: onRequestSent(x); break;
            case WINHTTP_CALLBACK_STATUS_WRITE_COMPLETE: onBodyWritten(x, event.value); break;
            case WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE: onHeaders(x); break;
            case WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE: onDataAvailable(x, event.value); break;
            case WINHTTP_CALLBACK_STATUS_READ_COMPLETE: onRead(x, event.value); break;
            case WINHTTP_CALLBACK_STATUS_REQUEST_ERROR: x.fail(endedEarly(x, event.error)); break;
            default: break;
        }
    }

    // The error of a request WinHTTP ended: a certificate the callback refused
    // (WinHTTP then reports only the cancellation), or WinHTTP's own.
    static std::exception_ptr endedEarly(Exchange& x, DWORD error) {
        if (x.certificateRefused) {
            std::lock_guard lock(x.refusalMutex);
            return std::make_exception_ptr(
                UrlError(UrlError::Code::secureConnectionFailed, "certificate not trusted", x.refusal));
        }
        // WinHTTP reports a server that closed without a word like one that
        // sent garbage: the first lost the connection.
        if (error == ERROR_WINHTTP_INVALID_SERVER_RESPONSE && x.responseBytes == 0)
            error = ERROR_WINHTTP_CONNECTION_ERROR;
        return winHttpError(error, detail::secureFailureText(x.secureFailureFlags));
    }

    void onHeaders(Exchange& x) {
        DWORD status = 0, size = sizeof status;
        if (!WinHttpQueryHeaders(x.handle, WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                                 WINHTTP_HEADER_NAME_BY_INDEX, &status, &size, WINHTTP_NO_HEADER_INDEX)) {
            x.fail(winHttpError(GetLastError(), "status"));
            return;
        }
        size = 0;
        WinHttpQueryHeaders(x.handle, WINHTTP_QUERY_RAW_HEADERS_CRLF, WINHTTP_HEADER_NAME_BY_INDEX, nullptr, &size,
                            WINHTTP_NO_HEADER_INDEX);
        std::wstring raw(size / sizeof(wchar_t) + 1, L'\0');
        size = static_cast<DWORD>(raw.size() * sizeof(wchar_t));
        if (!WinHttpQueryHeaders(x.handle, WINHTTP_QUERY_RAW_HEADERS_CRLF, WINHTTP_HEADER_NAME_BY_INDEX, raw.data(),
                                 &size, WINHTTP_NO_HEADER_INDEX)) {
            x.fail(winHttpError(GetLastError(), "headers"));
            return;
        }
        raw.resize(size / sizeof(wchar_t));
        x.headersRead = true;
        x.response.statusCode = static_cast<int>(status);
        x.response.headers = parseRawHeaders(toUtf8(raw));
        // An interim status WinHTTP took for the answer: the server ended the
        // exchange there, so it stands, with its fields and no body.
        if (status >= 100 && status < 200 && status != 101) {
            x.succeed(std::move(x.response));
            return;
        }
        // A declared length over the limit is refused before any of it is read.
        if (auto length = headerValue(x.response.headers, "Content-Length")) {
            try {
                if (std::stoull(*length) > x.maxBodyBytes) {
                    failTooLarge(x);
                    return;
                }
            } catch (const std::exception&) {
                // Not a number: WinHTTP reads the body as it comes.
            }
        }
        readMore(x);
    }

    // Asks what has arrived, then reads only that: a read for more than is
    // there may wait for the socket in some WinHTTP versions.
    void readMore(Exchange& x) {
        if (!WinHttpQueryDataAvailable(x.handle, nullptr)) x.fail(endedEarly(x, GetLastError()));
    }

    // No more bytes, or more than may be kept: either way the exchange is over.
    static bool bodyEnds(Exchange& x, DWORD bytes) {
        if (bytes == 0) {
            x.buffer = {};
            x.succeed(std::move(x.response));
            return true;
        }
        if (bytes > x.maxBodyBytes - x.response.body.size()) {
            failTooLarge(x);
            return true;
        }
        return false;
    }

    void onDataAvailable(Exchange& x, DWORD bytes) {
        if (bodyEnds(x, bytes)) return;
        x.buffer.resize(std::min(bytes, kReadChunkBytes));
        if (!WinHttpReadData(x.handle, x.buffer.data(), static_cast<DWORD>(x.buffer.size()), nullptr))
            x.fail(endedEarly(x, GetLastError()));
    }

    void onRead(Exchange& x, DWORD bytes) {
        if (bodyEnds(x, bytes)) return;
        x.response.body.insert(x.response.body.end(), x.buffer.begin(), x.buffer.begin() + bytes);
        readMore(x);
    }

    static void failTooLarge(Exchange& x) {
        x.fail(
            std::make_exception_ptr(UrlError(UrlError::Code::responseTooLarge, "response body too large",
                                             "status " + std::to_string(x.response.statusCode) +
                                                 ", answer longer than " + std::to_string(x.maxBodyBytes) + " bytes")));
    }

    // From the status callback, on WinHTTP's thread, before the request is
    // written: the last moment to keep it (headers and body) from a server
    // that is not the one the CA file vouches for. Closing the handle here
    // stops the request on Windows; wine 8 still writes the request head of
    // a handle closed at this point, which is why the body waits for the
    // check's result on the client's thread (bodyAfterCheck).
    void checkPeer(HINTERNET handle, Exchange& x) override {
        if (!x.secure || !anchors) return;
        std::string why;
        if (anchors->verify(handle, x.host, why)) {
            x.peerVerified = true;
            return;
        }
        {
            std::lock_guard lock(x.refusalMutex);
            x.refusal = why;
        }
        x.certificateRefused = true;
        x.close();
    }

    const Options options;
    std::unique_ptr<TrustAnchors> anchors;
    HINTERNET session = nullptr;
    struct Host {
        HINTERNET connection = nullptr;
        std::size_t running = 0;  // requests holding a slot
        std::deque<std::unique_ptr<Exchange>> waiting;
    };
    std::map<std::wstring, Host> hosts;  // by host and port; the client's thread only

    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::unique_ptr<Exchange>> incoming;
    std::deque<Event> events;
    bool stopping = false;
    // The client's thread has ended; the callbacks free what remains.
    bool orphaned = false;
    std::mutex joinMutex;
    std::thread thread;
    // Owned by the client's thread: every request whose handle is not yet
    // reported closed.
    std::unordered_map<Exchange*, std::unique_ptr<Exchange>> active;
};

namespace {

void CALLBACK onStatus(HINTERNET handle, DWORD_PTR context, DWORD status, LPVOID info, DWORD infoLength) {
    auto* exchange = reinterpret_cast<Exchange*>(context);
    if (!exchange) return;  // the session's and connections' own
    Event event{exchange, status, 0, 0};
    switch (status) {
        case WINHTTP_CALLBACK_STATUS_SENDING_REQUEST: exchange->owner->checkPeer(handle, *exchange); break;
        case WINHTTP_CALLBACK_STATUS_REQUEST_ERROR:
            event.error = static_cast<const WINHTTP_ASYNC_RESULT*>(info)->dwError;
            break;
        case WINHTTP_CALLBACK_STATUS_READ_COMPLETE: event.value = infoLength; break;
        case WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE:
        case WINHTTP_CALLBACK_STATUS_WRITE_COMPLETE:
        case WINHTTP_CALLBACK_STATUS_RESPONSE_RECEIVED:
        case WINHTTP_CALLBACK_STATUS_SECURE_FAILURE:
            if (info) event.value = *static_cast<const DWORD*>(info);
            break;
        default: break;
    }
    exchange->owner->post(event);
}

}  // namespace

SystemHttpClient::SystemHttpClient() : SystemHttpClient(Options{}) {}

SystemHttpClient::SystemHttpClient(Options options)
    : options_(std::move(options)), impl_(std::make_shared<Impl>(options_)) {
    impl_->startThread();
}

SystemHttpClient::~SystemHttpClient() { impl_->stop(); }

void SystemHttpClient::shutdown() { impl_->stop(); }

void SystemHttpClient::send(HttpRequest request, Completion completion) {
    auto exchange = std::make_unique<Exchange>();
    exchange->completion = std::move(completion);
    if (!detail::isValidHeaderName(request.method)) {
        exchange->fail(std::make_exception_ptr(std::invalid_argument("invalid HTTP method: " + request.method)));
        return;
    }
    std::optional<Url> url;
    if (auto refusal = detail::refusalOf(request, url)) {
        exchange->fail(std::move(refusal));
        return;
    }
    if (request.body.size() > 0xFFFFFFFFu) {
        exchange->fail(std::make_exception_ptr(
            UrlError(UrlError::Code::unknown, "request body too large", "WinHTTP sends at most 4 GiB - 1 bytes")));
        return;
    }
    exchange->secure = url->scheme == "https";
    exchange->host = toWide(url->host);
    exchange->port = static_cast<INTERNET_PORT>(
        url->port.value_or(exchange->secure ? INTERNET_DEFAULT_HTTPS_PORT : INTERNET_DEFAULT_HTTP_PORT));
    exchange->deadline = SteadyClock::now() + duration(request.timeoutSeconds);
    exchange->request = std::move(request);
    impl_->enqueue(std::move(exchange));
}

namespace os {
std::shared_ptr<HttpClient> makeDefaultHttpClient() { return std::make_shared<WinHttpClient>(); }
}  // namespace os

}  // namespace tavrin::platform
