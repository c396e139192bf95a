#include "loopback_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <httplib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <stdexcept>
#include <strings.h>

#if defined(__SANITIZE_THREAD__)
// libstdc++ counts references to a std::exception_ptr with atomics that
// ThreadSanitizer cannot see (the library is not instrumented). An exception
// that crosses threads through a std::promise, caught on one thread and freed
// by the other's last release, is then reported as a race although the count
// orders the two. Linked into every test that talks to these servers.
extern "C" const char* __tsan_default_suppressions() {
    return "race:std::__exception_ptr::exception_ptr::_M_release\n";
}
#endif

namespace tavrin::testing {

namespace {

std::runtime_error systemError(const std::string& what) {
    return std::runtime_error(what + ": " + std::strerror(errno));
}

sockaddr_in loopbackAddress(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int boundPort(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) throw systemError("getsockname");
    return ntohs(address.sin_port);
}

// A TCP socket bound to 127.0.0.1 on an ephemeral port.
int boundLoopbackSocket() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw systemError("socket");
    sockaddr_in address = loopbackAddress(0);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        throw systemError("bind");
    }
    return fd;
}

}  // namespace

std::optional<std::string> RecordedRequest::header(const std::string& name) const {
    for (const auto& [key, value] : headers)
        if (strcasecmp(key.c_str(), name.c_str()) == 0) return value;
    return std::nullopt;
}

// ---- LoopbackServer

struct LoopbackServer::Impl {
    std::unique_ptr<httplib::Server> server;
    std::thread thread;

    mutable std::mutex mutex;
    mutable std::condition_variable recorded;
    std::vector<RecordedRequest> requests;
    std::deque<ScriptedResponse> queued;
    std::function<ScriptedResponse(const RecordedRequest&)> handler;
    ScriptedResponse fallback;

    void handle(const httplib::Request& req, httplib::Response& res) {
        RecordedRequest record;
        record.method = req.method;
        record.path = req.path;
        record.target = req.target;
        for (const auto& [name, value] : req.headers) {
            // Bookkeeping the server library adds itself, not sent by the client.
            if (name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT")
                continue;
            record.headers.emplace_back(name, value);
        }
        record.body = req.body;
        record.remotePort = req.remote_port;

        ScriptedResponse answer;
        std::function<ScriptedResponse(const RecordedRequest&)> compute;
        {
            std::lock_guard lock(mutex);
            if (!queued.empty()) {
                answer = std::move(queued.front());
                queued.pop_front();
            } else if (handler) {
                compute = handler;
            } else {
                answer = fallback;
            }
        }
        if (compute) answer = compute(record);
        {
            std::lock_guard lock(mutex);
            requests.push_back(std::move(record));
        }
        recorded.notify_all();

        res.status = answer.status;
        std::optional<std::string> contentType;
        for (const auto& [name, value] : answer.headers) {
            if (strcasecmp(name.c_str(), "Content-Type") == 0)
                contentType = value;
            else
                res.headers.emplace(name, value);
        }
        if (contentType || !answer.body.empty())
            res.set_content(answer.body, contentType.value_or("application/octet-stream"));
    }
};

LoopbackServer::LoopbackServer() : impl_(std::make_unique<Impl>()) {
    impl_->server = std::make_unique<httplib::Server>();
    start();
}

LoopbackServer::LoopbackServer(const TlsFiles& tls) : impl_(std::make_unique<Impl>()), tls_(true) {
    auto server = std::make_unique<httplib::SSLServer>(tls.certificate.c_str(), tls.privateKey.c_str());
    if (!server->is_valid()) throw std::runtime_error("TLS server rejected its certificate or key");
    impl_->server = std::move(server);
    start();
}

void LoopbackServer::start() {
    auto& server = *impl_->server;
    // Enough workers for a client's pool of kept-alive connections, and a short
    // keep-alive so stopping does not wait long on idle connections.
    server.new_task_queue = [] { return new httplib::ThreadPool(16); };
    server.set_keep_alive_timeout(1);
    server.set_keep_alive_max_count(1000);
    Impl* impl = impl_.get();
    auto route = [impl](const httplib::Request& req, httplib::Response& res) { impl->handle(req, res); };
    server.Get(".*", route);
    server.Post(".*", route);
    server.Put(".*", route);
    server.Patch(".*", route);
    server.Delete(".*", route);
    server.Options(".*", route);
    port_ = server.bind_to_any_port("127.0.0.1");
    if (port_ <= 0) throw std::runtime_error("loopback server could not bind");
    // The socket is listening already; connections queue until the loop accepts them.
    impl_->thread = std::thread([&server] { server.listen_after_bind(); });
}

LoopbackServer::~LoopbackServer() { stop(); }

void LoopbackServer::stop() {
    if (!impl_->thread.joinable()) return;
    impl_->server->stop();
    impl_->thread.join();
}

std::string LoopbackServer::baseUrl() const {
    return std::string(tls_ ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_);
}

void LoopbackServer::respondWith(ScriptedResponse response) {
    std::lock_guard lock(impl_->mutex);
    impl_->fallback = std::move(response);
}

void LoopbackServer::enqueueResponse(ScriptedResponse response) {
    std::lock_guard lock(impl_->mutex);
    impl_->queued.push_back(std::move(response));
}

void LoopbackServer::setHandler(std::function<ScriptedResponse(const RecordedRequest&)> handler) {
    std::lock_guard lock(impl_->mutex);
    impl_->handler = std::move(handler);
}

std::vector<RecordedRequest> LoopbackServer::requests() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->requests;
}

std::size_t LoopbackServer::requestCount() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->requests.size();
}

bool LoopbackServer::waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(impl_->mutex);
    return impl_->recorded.wait_for(lock, timeout, [&] { return impl_->requests.size() >= count; });
}

void LoopbackServer::clearRequests() {
    std::lock_guard lock(impl_->mutex);
    impl_->requests.clear();
}

// ---- RawTcpServer

RawTcpServer::RawTcpServer(std::optional<std::string> reply) : reply_(std::move(reply)) {
    listenFd_ = boundLoopbackSocket();
    if (listen(listenFd_, 128) != 0) {
        close(listenFd_);
        throw systemError("listen");
    }
    port_ = boundPort(listenFd_);
    if (pipe2(wakeFds_, O_CLOEXEC) != 0) {
        close(listenFd_);
        throw systemError("pipe2");
    }
    thread_ = std::thread([this] { run(); });
}

RawTcpServer::~RawTcpServer() {
    const char stop = 1;
    (void)!write(wakeFds_[1], &stop, 1);
    thread_.join();
    for (int fd : connections_) close(fd);
    close(listenFd_);
    close(wakeFds_[0]);
    close(wakeFds_[1]);
}

std::string RawTcpServer::baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }

std::size_t RawTcpServer::acceptedConnections() const {
    std::lock_guard lock(mutex_);
    return accepted_;
}

bool RawTcpServer::waitForConnections(std::size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, timeout, [&] { return accepted_ >= count; });
}

std::vector<std::string> RawTcpServer::received() const {
    std::lock_guard lock(mutex_);
    return received_;
}

void RawTcpServer::run() {
    std::map<int, std::size_t> open;  // connection -> its index in received_
    for (;;) {
        std::vector<pollfd> fds{{wakeFds_[0], POLLIN, 0}, {listenFd_, POLLIN, 0}};
        for (const auto& [fd, index] : open) fds.push_back({fd, POLLIN, 0});
        if (poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[0].revents) return;
        if (fds[1].revents & POLLIN) {
            const int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                {
                    std::lock_guard lock(mutex_);
                    ++accepted_;
                    connections_.push_back(fd);
                    open.emplace(fd, received_.size());
                    received_.emplace_back();
                }
                cv_.notify_all();
            }
        }
        for (std::size_t i = 2; i < fds.size(); ++i) {
            if (!fds[i].revents) continue;
            const int fd = fds[i].fd;
            char buffer[4096];
            const ssize_t n = read(fd, buffer, sizeof buffer);
            bool headComplete = false;
            {
                std::lock_guard lock(mutex_);
                auto& data = received_[open[fd]];
                if (n > 0) data.append(buffer, static_cast<std::size_t>(n));
                headComplete = data.find("\r\n\r\n") != std::string::npos;
            }
            if (n <= 0 || (reply_ && headComplete)) {
                if (n > 0 && reply_) (void)!send(fd, reply_->data(), reply_->size(), MSG_NOSIGNAL);
                shutdown(fd, SHUT_RDWR);
                open.erase(fd);
            }
        }
    }
}

// ---- RefusingPort

RefusingPort::RefusingPort() : fd_(boundLoopbackSocket()), port_(boundPort(fd_)) {}

RefusingPort::~RefusingPort() { close(fd_); }

std::string RefusingPort::baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }

}  // namespace tavrin::testing
