#pragma once
// Servers on 127.0.0.1 with an ephemeral port for tests that go over real
// sockets:
// - LoopbackServer: an HTTP or HTTPS server (cpp-httplib) that records every
//   request it receives and answers with scripted responses;
// - RawTcpServer: accepts connections and either never answers or writes
//   fixed bytes, for what a well-behaved server never does (silence,
//   interim-only replies).

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace tavrin::testing {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

struct RecordedRequest {
    std::string method;
    std::string path;    // without the query
    std::string target;  // path and query as sent
    HeaderList headers;  // names as sent; order as the server library keeps it (sorted by name)
    std::string body;    // raw bytes
    // Note: the server library drops header fields with an empty value; check
    // those on the wire with RawTcpServer.
    int remotePort = -1;  // the client's port: equal ports mean a reused connection

    // First value of a header, name compared without regard to case.
    std::optional<std::string> header(const std::string& name) const;
};

struct ScriptedResponse {
    int status = 200;
    HeaderList headers;  // a Content-Type here sets the body's type
    std::string body;
};

// Certificate and key (PEM files) for a TLS server.
struct TlsFiles {
    std::filesystem::path certificate;
    std::filesystem::path privateKey;
};

class LoopbackServer {
public:
    // Plain HTTP.
    LoopbackServer();
    // HTTPS with the given certificate and key.
    explicit LoopbackServer(const TlsFiles& tls);
    ~LoopbackServer();
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    int port() const noexcept { return port_; }
    // "http://127.0.0.1:<port>" (https for a TLS server), no trailing slash.
    std::string baseUrl() const;

    // Answer for requests with no queued response and no handler (initially 200, empty body).
    void respondWith(ScriptedResponse response);
    // One-shot answers, used in order before the handler or the default.
    void enqueueResponse(ScriptedResponse response);
    // Computes answers (runs on a server thread); nullptr removes it.
    void setHandler(std::function<ScriptedResponse(const RecordedRequest&)> handler);

    std::vector<RecordedRequest> requests() const;
    std::size_t requestCount() const;
    // Waits until at least `count` requests were recorded; false on timeout.
    bool waitForRequests(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    void clearRequests();

    // Stops listening and joins the server threads (also done by the destructor).
    void stop();

private:
    struct Impl;
    void start();

    std::unique_ptr<Impl> impl_;
    int port_ = 0;
    bool tls_ = false;
};

class RawTcpServer {
public:
    // reply: bytes written once the request head (up to the blank line) has
    // arrived, after which the connection is closed; absent: read forever and
    // never answer.
    explicit RawTcpServer(std::optional<std::string> reply = std::nullopt);
    ~RawTcpServer();
    RawTcpServer(const RawTcpServer&) = delete;
    RawTcpServer& operator=(const RawTcpServer&) = delete;

    int port() const noexcept { return port_; }
    std::string baseUrl() const;

    std::size_t acceptedConnections() const;
    // The bytes received on each connection so far, in order of acceptance.
    std::vector<std::string> received() const;
    bool waitForConnections(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

private:
    void run();

    std::optional<std::string> reply_;
    int listenFd_ = -1;
    int wakeFds_[2] = {-1, -1};
    int port_ = 0;
    mutable std::mutex mutex_;
    mutable std::condition_variable cv_;
    std::size_t accepted_ = 0;
    std::vector<int> connections_;
    std::vector<std::string> received_;
    std::thread thread_;
};

// A port on 127.0.0.1 that refuses connections: bound (so nothing else takes
// it while the object lives) but not listening.
class RefusingPort {
public:
    RefusingPort();
    ~RefusingPort();
    RefusingPort(const RefusingPort&) = delete;
    RefusingPort& operator=(const RefusingPort&) = delete;

    int port() const noexcept { return port_; }
    std::string baseUrl() const;

private:
    int fd_ = -1;
    int port_ = 0;
};

}  // namespace tavrin::testing
