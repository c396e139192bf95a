// The default client: one libcurl multi handle driven by one thread.

#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "tavrin/platform/dispatch.h"
#include "tavrin/platform/http_client.h"
#include "tavrin/platform/internal/http_fields.h"
#include "tavrin/platform/internal/log_hook.h"
#include "tavrin/platform/linux/curl_errors.h"

namespace tavrin::platform {

namespace {

using detail::trimmedField;

constexpr double kDefaultTimeoutSeconds = 60;
// Header lines kept per response, whatever the body limit: a server that
// sends header lines without end is stopped like one with an endless body.
constexpr std::size_t kMaxHeaderBytes = 256 * 1024;
// Upper bound of one wait for socket activity; new requests and timers wake
// the thread earlier.
constexpr int kPollIntervalMs = 1000;

void ensureCurlGlobalInit() {
    static std::once_flag once;
    static CURLcode result = CURLE_OK;
    std::call_once(once, [] { result = curl_global_init(CURL_GLOBAL_DEFAULT); });
    if (result != CURLE_OK)
        throw UrlError(UrlError::Code::unknown, "curl_global_init failed", curl_easy_strerror(result));
}

long milliseconds(double seconds) {
    if (!std::isfinite(seconds) || seconds <= 0) seconds = kDefaultTimeoutSeconds;
    const double ms = std::ceil(seconds * 1000.0);
    return ms > 2'000'000'000.0 ? 2'000'000'000L : static_cast<long>(ms);
}

std::exception_ptr cancelledError() { return std::make_exception_ptr(UrlError(UrlError::Code::cancelled)); }

void logCompletionFailure(const std::string& what) {
    logError([&] { return "HTTP completion handler failed: " + what; });
}

using SteadyClock = std::chrono::steady_clock;

// One request from send() to its completion.
struct Transfer {
    HttpRequest request;
    HttpClient::Completion completion;
    // send() plus the request's timeout: the limit covers the wait for a
    // connection too.
    SteadyClock::time_point deadline;
    CURL* easy = nullptr;
    curl_slist* headerList = nullptr;
    char errorBuffer[CURL_ERROR_SIZE] = {};

    // The header block being read; a new status line (interim 1xx) starts a
    // new one, so only the final response's fields remain.
    int blockStatus = 0;
    HttpHeaders blockHeaders;
    bool finalBlockStarted = false;
    // The last interim (1xx) block that was read completely.
    int interimStatus = 0;
    HttpHeaders interimHeaders;

    HttpResponse response;
    std::size_t maxBodyBytes = 0;
    std::size_t headerBytes = 0;
    bool tooLarge = false;

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
                const auto code = trimmedField(line.substr(space + 1)).substr(0, 3);
                if (code.size() == 3 &&
                    std::all_of(code.begin(), code.end(), [](char c) { return c >= '0' && c <= '9'; }))
                    blockStatus = std::stoi(std::string(code));
            }
            if (blockStatus < 100 || blockStatus >= 200) finalBlockStarted = true;
            return;
        }
        if (trimmedField(line).empty()) {
            if (blockStatus >= 100 && blockStatus < 200) {
                interimStatus = blockStatus;
                interimHeaders = blockHeaders;
            } else {
                response.headers = blockHeaders;
            }
            return;
        }
        detail::addHeaderLine(blockHeaders, line);
    }
};

size_t writeBody(char* data, size_t size, size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    const size_t bytes = size * count;
    if (bytes > transfer->maxBodyBytes - transfer->response.body.size()) {
        // Returning less than was given stops the transfer (CURLE_WRITE_ERROR).
        transfer->tooLarge = true;
        return 0;
    }
    transfer->response.body.insert(transfer->response.body.end(), reinterpret_cast<std::uint8_t*>(data),
                                   reinterpret_cast<std::uint8_t*>(data) + bytes);
    return bytes;
}

size_t writeHeader(char* data, size_t size, size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    const size_t bytes = size * count;
    transfer->headerBytes += bytes;
    if (transfer->headerBytes > kMaxHeaderBytes) {
        transfer->tooLarge = true;
        return 0;
    }
    transfer->onHeaderLine(std::string_view(data, bytes));
    return bytes;
}

}  // namespace

// Shared by the client and its thread: the thread keeps it alive until it
// ends, so a client dropped or shut down from one of its own completions lets
// the thread finish by itself instead of joining itself.
struct SystemHttpClient::Impl : std::enable_shared_from_this<Impl> {
    explicit Impl(Options opts) : options(std::move(opts)) {
        ensureCurlGlobalInit();
        multi = curl_multi_init();
        share = curl_share_init();
        if (!multi || !share) {
            if (multi) curl_multi_cleanup(multi);
            if (share) curl_share_cleanup(share);
            throw UrlError(UrlError::Code::unknown, "libcurl could not create its handles");
        }
        // The multi handle keeps one connection cache and DNS cache for all
        // transfers; the share adds TLS session resumption across them.
        curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
        curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, options.maxConnectionsPerHost);
        curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, std::max(8L, options.maxConnectionsPerHost * 4));
    }

    void startThread() {
        thread = std::thread([self = shared_from_this()] { self->run(); });
    }

    ~Impl() {
        // Only the thread itself can hold the last reference while it runs.
        if (thread.joinable()) {
            if (thread.get_id() == std::this_thread::get_id()) {
                thread.detach();
            } else {
                thread.join();
            }
        }
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
        // From a completion the thread ends the requests once it returns.
        if (std::this_thread::get_id() == thread.get_id()) return;
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
            curl_multi_poll(multi, nullptr, 0, expireOverdue(), nullptr);
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
            if (!transfer->easy) throw UrlError(UrlError::Code::unknown, "libcurl could not create a transfer");
            configure(*transfer);
        } catch (...) {
            transfer->fail(std::current_exception());
            return;
        }
        CURL* easy = transfer->easy;
        Transfer* raw = transfer.get();
        active.emplace(easy, std::move(transfer));
        if (curl_multi_add_handle(multi, easy) != CURLM_OK) {
            raw->fail(std::make_exception_ptr(UrlError(UrlError::Code::unknown, "libcurl could not start a transfer")));
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
        // A redirect would carry the body (and its credential) to a place the
        // caller did not name, or turn a POST into a bodiless GET that reports
        // success: the 3xx itself is the answer.
        curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
        t.maxBodyBytes = options.maxResponseBodyBytes;
        // A declared length over the limit is refused before any of it is read.
        curl_easy_setopt(
            easy, CURLOPT_MAXFILESIZE_LARGE,
            static_cast<curl_off_t>(std::min<std::size_t>(t.maxBodyBytes, static_cast<std::size_t>(INT64_MAX))));
        curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
        // Name lookups run on libcurl's resolver threads. Ending a transfer
        // whose lookup still hangs (its timeout, a shutdown) would otherwise
        // join that thread here, stalling every other transfer and shutdown
        // until the system resolver gives up (10 s and more with a silent name
        // server). With this the thread is detached and frees its own state
        // when getaddrinfo returns; the transfer fails at its own timeout.
        curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);

        const long timeoutMs = milliseconds(request.timeoutSeconds);
        curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, timeoutMs);
        curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS,
                         std::min(timeoutMs, milliseconds(options.connectTimeoutSeconds)));

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

    // libcurl starts a request's timeout only once the request has a
    // connection, so one queued behind the per-host connection limit (all
    // connections held by a server that does not answer) would get its whole
    // timeout again after waiting: twice the limit its caller was promised.
    // Fails the requests past their deadline; returns how long the thread may
    // wait for socket activity before the next deadline.
    int expireOverdue() {
        const auto now = SteadyClock::now();
        auto wait = std::chrono::milliseconds(kPollIntervalMs);
        for (auto it = active.begin(); it != active.end();) {
            Transfer& transfer = *it->second;
            if (transfer.deadline > now) {
                wait = std::min(wait, std::chrono::ceil<std::chrono::milliseconds>(transfer.deadline - now));
                ++it;
                continue;
            }
            curl_multi_remove_handle(multi, it->first);
            std::unique_ptr<Transfer> expired = std::move(it->second);
            it = active.erase(it);
            std::snprintf(expired->errorBuffer, sizeof expired->errorBuffer,
                          "Operation timed out after %ld milliseconds", milliseconds(expired->request.timeoutSeconds));
            expired->fail(
                std::make_exception_ptr(detail::urlErrorFromCurl(CURLE_OPERATION_TIMEDOUT, 0, expired->errorBuffer)));
        }
        return static_cast<int>(wait.count());
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
        if (t.interimStatus != 0 && !t.finalBlockStarted && detail::endsAfterInterimResponse(result)) {
            HttpResponse response;
            response.statusCode = t.interimStatus;
            response.headers = std::move(t.interimHeaders);
            t.succeed(std::move(response));
            return;
        }
        if ((result == CURLE_WRITE_ERROR && t.tooLarge) || result == CURLE_FILESIZE_EXCEEDED) {
            long status = 0;
            curl_easy_getinfo(t.easy, CURLINFO_RESPONSE_CODE, &status);
            t.fail(std::make_exception_ptr(UrlError(UrlError::Code::responseTooLarge, curl_easy_strerror(result),
                                                    "status " + std::to_string(status) + ", answer longer than " +
                                                        std::to_string(t.maxBodyBytes) + " bytes")));
            return;
        }
        long osErrno = 0;
        curl_easy_getinfo(t.easy, CURLINFO_OS_ERRNO, &osErrno);
        t.fail(std::make_exception_ptr(detail::urlErrorFromCurl(result, osErrno, t.errorBuffer)));
    }

    const Options options;
    const std::uint32_t generation = forkGeneration();
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

SystemHttpClient::SystemHttpClient() : SystemHttpClient(Options{}) {}

SystemHttpClient::SystemHttpClient(Options options)
    : options_(std::move(options)), impl_(std::make_shared<Impl>(options_)) {
    impl_->startThread();
}

SystemHttpClient::~SystemHttpClient() {
    // A forked child's copy: the thread and the connections are the parent's.
    if (impl_->generation != forkGeneration()) {
        keepForever(std::move(impl_));
        return;
    }
    impl_->stop();
}

void SystemHttpClient::shutdown() {
    if (impl_->generation == forkGeneration()) impl_->stop();
}

void SystemHttpClient::send(HttpRequest request, Completion completion) {
    auto transfer = std::make_unique<Transfer>();
    transfer->completion = std::move(completion);
    std::optional<Url> url;
    if (auto refusal = detail::refusalOf(request, url)) {
        transfer->fail(std::move(refusal));
        return;
    }
    transfer->deadline = SteadyClock::now() + std::chrono::milliseconds(milliseconds(request.timeoutSeconds));
    transfer->request = std::move(request);
    impl_->enqueue(std::move(transfer));
}

}  // namespace tavrin::platform
