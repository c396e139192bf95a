#include "loopback_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <httplib.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#if defined(__SANITIZE_THREAD__)
// libstdc++ counts references to a std::exception_ptr with atomics that
// ThreadSanitizer cannot see, so an exception handed across threads through a
// std::promise is reported as a race although the count orders the two.
extern "C" const char* __tsan_default_suppressions() {
    return "race:std::__exception_ptr::exception_ptr::_M_release\n";
}
#endif

namespace tavrin::testing {

namespace {

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

// A TCP socket bound to 127.0.0.1 on an ephemeral port; gives the port too.
int boundLoopbackSocket(int& port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        fail("loopback socket");
    port = ntohs(address.sin_port);
    return fd;
}

bool sameName(const std::string& a, const char* b) { return strcasecmp(a.c_str(), b) == 0; }

}  // namespace

std::optional<std::string> RecordedRequest::header(const std::string& name) const {
    for (const auto& [key, value] : headers)
        if (sameName(key, name.c_str())) return value;
    return std::nullopt;
}

// ---- LoopbackServer

struct LoopbackServer::Impl {
    std::unique_ptr<httplib::Server> server;
    std::thread thread;
    mutable std::mutex mutex;
    std::vector<RecordedRequest> requests;
    Handler handler = [](const RecordedRequest&) { return ScriptedResponse{}; };

    void handle(const httplib::Request& req, httplib::Response& res) {
        RecordedRequest record{req.method, req.path, req.target, {}, req.body, req.remote_port};
        for (const auto& [name, value] : req.headers)
            if (name.rfind("REMOTE_", 0) != 0 && name.rfind("LOCAL_", 0) != 0)  // the server library's own
                record.headers.emplace_back(name, value);
        Handler compute;
        {
            std::lock_guard lock(mutex);
            compute = handler;
        }
        const ScriptedResponse answer = compute(record);
        {
            std::lock_guard lock(mutex);
            requests.push_back(std::move(record));
        }
        res.status = answer.status;
        std::optional<std::string> contentType;
        for (const auto& [name, value] : answer.headers) {
            if (sameName(name, "Content-Type"))
                contentType = value;
            else
                res.headers.emplace(name, value);
        }
        if (contentType || !answer.body.empty())
            res.set_content(answer.body, contentType.value_or("application/octet-stream"));
    }
};

LoopbackServer::LoopbackServer(const std::optional<TlsFiles>& tls, std::string host)
    : impl_(std::make_unique<Impl>()), host_(std::move(host)), tls_(tls.has_value()) {
    if (tls) {
        auto server = std::make_unique<httplib::SSLServer>(tls->certificate.c_str(), tls->privateKey.c_str());
        if (!server->is_valid()) throw std::runtime_error("TLS server rejected its certificate or key");
        impl_->server = std::move(server);
    } else {
        impl_->server = std::make_unique<httplib::Server>();
    }
    auto& server = *impl_->server;
    // Enough workers for a client's pool of kept-alive connections, and a short
    // keep-alive so stopping does not wait long on idle connections.
    server.new_task_queue = [] { return new httplib::ThreadPool(16); };
    server.set_keep_alive_timeout(1);
    server.set_keep_alive_max_count(1000);
    auto route = [impl = impl_.get()](const httplib::Request& req, httplib::Response& res) { impl->handle(req, res); };
    server.Get(".*", route).Post(".*", route).Put(".*", route);
    port_ = server.bind_to_any_port(host_);
    if (port_ <= 0) throw std::runtime_error("loopback server could not bind");
    impl_->thread = std::thread([&server] { server.listen_after_bind(); });
    // A stop() that comes before the accept loop runs is lost, and the loop
    // then never ends: a test that sends nothing destroyed its server so.
    for (int i = 0; i < 10000 && !server.is_running(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

LoopbackServer::~LoopbackServer() {
    impl_->server->stop();
    impl_->thread.join();
}

std::string LoopbackServer::baseUrl() const {
    return std::string(tls_ ? "https" : "http") + "://" + host_ + ":" + std::to_string(port_);
}

void LoopbackServer::setHandler(Handler handler) {
    std::lock_guard lock(impl_->mutex);
    impl_->handler = std::move(handler);
}

std::vector<RecordedRequest> LoopbackServer::requests() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->requests;
}

// ---- RawTcpServer

RawTcpServer::RawTcpServer(std::optional<std::string> reply) : reply_(std::move(reply)) {
    listenFd_ = boundLoopbackSocket(port_);
    if (listen(listenFd_, 128) != 0) fail("listen");
    thread_ = std::thread([this] {
        // Ends when the destructor shuts the listening socket down.
        for (int fd; (fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            std::lock_guard lock(mutex_);
            connections_.push_back(fd);
            received_.emplace_back();
            workers_.emplace_back([this, fd, index = received_.size() - 1] { serve(fd, index); });
            cv_.notify_all();
        }
    });
}

void RawTcpServer::serve(int fd, std::size_t index) {
    char buffer[4096];
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) {
        std::lock_guard lock(mutex_);
        received_[index].append(buffer, static_cast<std::size_t>(n));
        if (reply_ && received_[index].find("\r\n\r\n") != std::string::npos) {
            (void)!send(fd, reply_->data(), reply_->size(), MSG_NOSIGNAL);
            shutdown(fd, SHUT_RDWR);
        }
    }
}

RawTcpServer::~RawTcpServer() {
    shutdown(listenFd_, SHUT_RDWR);
    thread_.join();
    for (int fd : connections_) shutdown(fd, SHUT_RDWR);
    for (auto& worker : workers_) worker.join();
    for (int fd : connections_) close(fd);
    close(listenFd_);
}

bool RawTcpServer::waitForConnections(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, timeout, [&] { return received_.size() >= count; });
}

std::vector<std::string> RawTcpServer::received() const {
    std::lock_guard lock(mutex_);
    return received_;
}

// ---- RefusingPort

RefusingPort::RefusingPort() { fd_ = boundLoopbackSocket(port_); }

RefusingPort::~RefusingPort() { close(fd_); }

}  // namespace tavrin::testing
