#include "server.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <stdexcept>
#include <strings.h>
#include <thread>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include "classify.h"
#include "ui_page.h"

namespace tavrin::collector {
namespace {

using Json = nlohmann::ordered_json;

std::int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string isoTime(std::int64_t ms) {
    const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[40];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    char withMs[48];
    std::snprintf(withMs, sizeof withMs, "%s.%03dZ", text, static_cast<int>(ms % 1000));
    return withMs;
}

std::string reason(int status) {
    switch (status) {
        case 400: return "Bad Request";
        case 401: return "Unauthorized";
        case 404: return "Not Found";
        case 405: return "Method Not Allowed";
        case 411: return "Length Required";
        case 413: return "Payload Too Large";
        case 414: return "URI Too Long";
        case 415: return "Unsupported Media Type";
        case 421: return "Misdirected Request";
        default: return "Error";
    }
}

// The most requests one listing returns, and about the most bytes of bodies.
constexpr std::size_t kMaxListed = 1000;
constexpr std::size_t kMaxListedBytes = 16u << 20;

std::string lowercase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// Compares without stopping at the first difference, so the time taken does
// not tell how much of a guess was right.
bool sameSecret(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    unsigned char difference = 0;
    for (std::size_t i = 0; i < a.size(); ++i) difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    return difference == 0;
}

// The host name of a Host header ("name", "name:port", "[v6]:port"), lower case.
std::string hostName(const std::string& header) {
    if (!header.empty() && header.front() == '[') {
        const auto close = header.find(']');
        return close == std::string::npos ? std::string() : lowercase(header.substr(1, close - 1));
    }
    return lowercase(header.substr(0, header.rfind(':')));
}

bool isLoopbackName(const std::string& name) { return name == "127.0.0.1" || name == "localhost" || name == "::1"; }

Json toJson(const StoredRequest& request) {
    Json headers = Json::object();
    for (const auto& [name, value] : request.headers) {
        if (headers.contains(name))
            headers[name] = headers[name].get<std::string>() + ", " + value;
        else
            headers[name] = value;
    }
    // Only bodies the classifier accepted are parsed again (it bounds their depth).
    Json body =
        request.kind == kindName(RequestKind::invalid) ? Json(nullptr) : Json::parse(request.body, nullptr, false);
    const bool isJson = request.kind != kindName(RequestKind::invalid) && !body.is_discarded();
    return Json{{"id", request.id},
                {"time", request.receivedMs},
                {"timeText", isoTime(request.receivedMs)},
                {"method", request.method},
                {"path", request.path},
                {"status", request.status},
                {"kind", request.kind},
                {"problems", request.problems},
                {"headers", std::move(headers)},
                {"bodyIsJson", isJson},
                {"bodyBytes", request.body.size()},
                {"body", isJson ? std::move(body) : Json(request.body)}};
}

void answerJson(httplib::Response& res, int status, const Json& body) {
    res.status = status;
    res.set_content(body.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n", "application/json");
}

// Wakes the event streams when a request was stored. The streams read the new
// rows from the store, so a reconnecting page (Last-Event-ID) misses nothing.
class Signal {
public:
    void notify() {
        {
            std::lock_guard lock(mutex_);
            ++generation_;
        }
        changed_.notify_all();
    }
    void stop() {
        {
            std::lock_guard lock(mutex_);
            stopped_ = true;
        }
        changed_.notify_all();
    }
    // Waits for a notify after `seen` (or the timeout); false once stopped.
    bool wait(std::uint64_t& seen, std::chrono::milliseconds timeout) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, timeout, [&] { return stopped_ || generation_ != seen; });
        seen = generation_;
        return !stopped_;
    }
    std::uint64_t generation() {
        std::lock_guard lock(mutex_);
        return generation_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::uint64_t generation_ = 0;
    bool stopped_ = false;
};

}  // namespace

struct CollectorServer::Impl {
    Options options;
    RequestStore& store;
    std::unique_ptr<httplib::Server> server;
    Signal signal;

    Impl(const Options& o, RequestStore& s) : options(o), store(s) {}

    // The token, as a bearer token or (for the event stream, which a browser
    // opens without headers) as the access_token parameter; true without one.
    bool authorized(const httplib::Request& req) const {
        if (!options.token) return true;
        if (sameSecret(req.get_header_value("Authorization"), "Bearer " + *options.token)) return true;
        return req.has_param("access_token") && sameSecret(req.get_param_value("access_token"), *options.token);
    }

    // Before the body is read: what the collector does not answer at all.
    httplib::Server::HandlerResponse screen(const httplib::Request& req, httplib::Response& res) const {
        const auto refuse = [&](int status, const std::string& why) {
            res.set_header("Connection", "close");  // what is left of the body is not read
            if (status == 401) res.set_header("WWW-Authenticate", "Bearer");
            answerJson(res, status, {{"error", std::to_string(status) + " " + reason(status) + ": " + why}});
            return httplib::Server::HandlerResponse::Handled;
        };
        // A page of another site can make a browser send requests here under
        // its own name (DNS rebinding); only this machine's names are answered.
        const std::string name = hostName(req.get_header_value("Host"));
        if (!isLoopbackName(name) && name != lowercase(options.host))
            return refuse(421, "this collector answers only to 127.0.0.1, localhost and [::1]" +
                                   (isLoopbackName(options.host) ? std::string() : " and " + options.host));
        // Bodies are bounded by their Content-Length, before anything is read
        // or unpacked: chunked and compressed bodies could grow past it.
        if (req.has_header("Transfer-Encoding"))
            return refuse(411, "send the body with a Content-Length; chunked bodies are not accepted");
        if (req.has_header("Content-Encoding") && lowercase(req.get_header_value("Content-Encoding")) != "identity")
            return refuse(415, "send the body without a Content-Encoding");
        if (req.path.rfind("/api/", 0) == 0 && !authorized(req))
            return refuse(401, "the API needs the collector's token (Authorization: Bearer, or access_token=)");
        return httplib::Server::HandlerResponse::Unhandled;
    }

    void submission(const httplib::Request& req, httplib::Response& res) {
        Classification classification = classify(req.path, req.body);
        int status = 200;
        std::string error;
        if (req.path == "/" && options.token) {
            const auto expected = "Bearer " + *options.token;
            if (!req.has_header("Authorization")) {
                status = 401;
                error = "missing Authorization header (expected a bearer token)";
            } else if (!sameSecret(req.get_header_value("Authorization"), expected)) {
                status = 401;
                error = "Authorization is not the expected bearer token";
            }
            if (status == 401) classification.problems.insert(classification.problems.begin(), "/: " + error);
        }
        if (status == 401) {  // not kept: anyone could fill the store otherwise
            res.set_header("WWW-Authenticate", "Bearer");
            answerJson(res, status,
                       {{"kind", std::string(kindName(classification.kind))},
                        {"problems", classification.problems},
                        {"error", error}});
            return;
        }
        if (status == 200 && classification.kind == RequestKind::invalid) {
            status = 400;
            error = classification.problems.empty() ? "bad request" : classification.problems.front();
        }
        const auto contentType = req.get_header_value("Content-Type");
        if (contentType.rfind("application/json", 0) != 0)
            classification.problems.push_back("/: Content-Type is \"" + contentType + "\", application/json expected");
        if (status == 200 && options.failWith) {
            status = *options.failWith;
            error = "failing on purpose (--fail-with " + std::to_string(status) + ")";
        }

        StoredRequest stored;
        stored.receivedMs = nowMs();
        stored.method = req.method;
        stored.path = req.path;
        for (const auto& [name, value] : req.headers) {
            // The server library files the connection's addresses among the headers.
            if (name == "LOCAL_ADDR" || name == "LOCAL_PORT" || name == "REMOTE_ADDR" || name == "REMOTE_PORT")
                continue;
            stored.headers.emplace_back(
                name, strcasecmp(name.c_str(), "Authorization") == 0 ? redactAuthorization(value) : value);
        }
        stored.body = req.body;
        stored.status = status;
        stored.kind = std::string(kindName(classification.kind));
        stored.problems = classification.problems;
        stored = store.add(std::move(stored));
        signal.notify();

        if (options.delayMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(options.delayMs));
        Json answer{{"id", stored.id}, {"kind", stored.kind}, {"problems", stored.problems}};
        if (!error.empty()) answer["error"] = error;
        answerJson(res, status, answer);
    }

    void wrongMethod(const httplib::Request& req, httplib::Response& res) {
        res.set_header("Allow", "POST");
        answerJson(res, 405,
                   {{"error", "method " + req.method + " not allowed on " + req.path +
                                  "; send submissions with POST, the debug view is at /ui/"}});
    }

    void listRequests(const httplib::Request& req, httplib::Response& res) {
        std::size_t limit = 1000;
        std::int64_t after = 0;
        try {
            if (req.has_param("limit")) limit = std::stoul(req.get_param_value("limit"));
            if (req.has_param("after")) after = std::stoll(req.get_param_value("after"));
        } catch (const std::exception&) {
            answerJson(res, 400, {{"error", "limit and after are whole numbers"}});
            return;
        }
        Json list = Json::array();
        std::size_t bytes = 0;
        for (const auto& request : store.list(std::min(limit, kMaxListed), after)) {
            bytes += request.body.size();
            if (bytes > kMaxListedBytes && !list.empty()) break;  // the rest: with `after`, or one by one
            list.push_back(toJson(request));
        }
        answerJson(res, 200, list);
    }

    void oneRequest(const httplib::Request& req, httplib::Response& res) {
        const auto found = store.get(std::stoll(req.matches[1].str()));
        if (!found) {
            answerJson(res, 404, {{"error", "no request " + req.matches[1].str()}});
            return;
        }
        answerJson(res, 200, toJson(*found));
    }

    void events(const httplib::Request& req, httplib::Response& res) {
        // Start after what the page already has: the last event it saw, or
        // everything stored so far when it connects for the first time.
        std::int64_t lastId = 0;
        if (req.has_header("Last-Event-ID")) {
            try {
                lastId = std::stoll(req.get_header_value("Last-Event-ID"));
            } catch (const std::exception&) {
            }
        } else {
            const auto newest = store.list(1);
            if (!newest.empty()) lastId = newest.front().id;
        }
        res.set_header("Cache-Control", "no-cache");
        res.set_header("X-Accel-Buffering", "no");
        auto seen = std::make_shared<std::uint64_t>(signal.generation());
        auto last = std::make_shared<std::int64_t>(lastId);
        auto first = std::make_shared<bool>(true);
        res.set_chunked_content_provider(
            "text/event-stream", [this, seen, last, first](std::size_t, httplib::DataSink& sink) {
                if (*first) {
                    *first = false;
                    const std::string hello = "retry: 1000\n: connected\n\n";
                    return sink.write(hello.data(), hello.size());
                }
                if (!signal.wait(*seen, std::chrono::seconds(10))) {
                    sink.done();
                    return true;
                }
                auto fresh = store.list(1000, *last);
                std::string out;
                for (auto it = fresh.rbegin(); it != fresh.rend(); ++it) {
                    out += "id: " + std::to_string(it->id) + "\nevent: request\ndata: " +
                           toJson(*it).dump(-1, ' ', false, Json::error_handler_t::replace) + "\n\n";
                    *last = it->id;
                }
                if (out.empty()) out = ": keep-alive\n\n";  // also finds pages that went away
                return sink.write(out.data(), out.size());
            });
    }

    void routes() {
        auto& s = *server;
        s.set_payload_max_length(options.maxBodyBytes);
        s.set_pre_routing_handler([this](const httplib::Request& q, httplib::Response& r) { return screen(q, r); });
        // Event streams hold a worker each; leave plenty for submissions.
        s.new_task_queue = [] { return new httplib::ThreadPool(32); };
        s.set_error_handler([](const httplib::Request& req, httplib::Response& res) {
            if (!res.body.empty()) return;
            std::string why = res.status == 404   ? "no route for " + req.method + " " + req.path
                              : res.status == 413 ? "body larger than the collector accepts (--max-body)"
                                                  : "request rejected";
            answerJson(res, res.status,
                       {{"error", std::to_string(res.status) + " " + reason(res.status) + ": " + why}});
        });
        auto submission = [this](const httplib::Request& q, httplib::Response& r) { this->submission(q, r); };
        auto wrong = [this](const httplib::Request& q, httplib::Response& r) { wrongMethod(q, r); };
        for (const char* path : {"/", "/monitor"}) {
            s.Post(path, submission);
            s.Put(path, wrong);
            s.Patch(path, wrong);
            s.Delete(path, wrong);
        }
        s.Get("/monitor", wrong);
        s.Get("/", [](const httplib::Request&, httplib::Response& res) {
            res.set_header("Allow", "POST");
            answerJson(
                res, 405,
                {{"error", "method GET not allowed on /; send submissions with POST, the debug view is at /ui/"}});
        });
        s.Get("/ui", [](const httplib::Request&, httplib::Response& res) { res.set_redirect("/ui/"); });
        s.Get("/ui/", [](const httplib::Request&, httplib::Response& res) {
            res.set_header("Cache-Control", "no-cache");
            res.set_content(kDebugViewPage, "text/html; charset=utf-8");
        });
        s.Get("/api/requests", [this](const httplib::Request& q, httplib::Response& r) { listRequests(q, r); });
        s.Get(R"(/api/requests/(\d{1,18}))",
              [this](const httplib::Request& q, httplib::Response& r) { oneRequest(q, r); });
        s.Get("/api/events", [this](const httplib::Request& q, httplib::Response& r) { events(q, r); });
    }
};

CollectorServer::CollectorServer(const Options& options, RequestStore& store)
    : impl_(std::make_unique<Impl>(options, store)) {
    if (options.tlsCert) {
        auto tls = std::make_unique<httplib::SSLServer>(options.tlsCert->c_str(), options.tlsKey->c_str());
        if (!tls->is_valid())
            throw std::runtime_error("cannot load the TLS certificate " + *options.tlsCert + " and key " +
                                     *options.tlsKey);
        impl_->server = std::move(tls);
    } else {
        impl_->server = std::make_unique<httplib::Server>();
    }
    impl_->routes();
}

CollectorServer::~CollectorServer() = default;

int CollectorServer::bind() {
    auto& s = *impl_->server;
    if (impl_->options.port == 0) return s.bind_to_any_port(impl_->options.host);
    return s.bind_to_port(impl_->options.host, impl_->options.port) ? impl_->options.port : -1;
}

bool CollectorServer::run() { return impl_->server->listen_after_bind(); }

void CollectorServer::stop() {
    impl_->signal.stop();
    impl_->server->stop();
}

}  // namespace tavrin::collector
