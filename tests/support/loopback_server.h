#pragma once
// Servers on 127.0.0.1 with an ephemeral port for tests that go over real sockets:
// - LoopbackServer: an HTTP or HTTPS server (cpp-httplib) that records every
//   request and answers through a handler (200 with an empty body by default);
// - RawTcpServer: either never answers or writes fixed bytes, for what a
//   well-behaved server never does (silence, interim-only replies);
// - RefusingPort: bound but not listening, so connections are refused.

#include <chrono>
#include <condition_variable>
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
    HeaderList headers;  // sorted by name; the server library drops fields with an empty value
    std::string body;
    int remotePort = -1;  // equal ports mean a reused connection

    // First value of a header, name compared without regard to case.
    std::optional<std::string> header(const std::string& name) const;
};

struct ScriptedResponse {
    int status = 200;
    HeaderList headers;  // a Content-Type here sets the body's type
    std::string body;
};

struct TlsFiles {
    std::filesystem::path certificate, privateKey;  // PEM
};

class LoopbackServer {
public:
    using Handler = std::function<ScriptedResponse(const RecordedRequest&)>;
    // Plain HTTP, or HTTPS with the given certificate and key. `host` is the
    // address to listen on: another one than loopback serves clients in a
    // neighbouring network namespace.
    explicit LoopbackServer(const std::optional<TlsFiles>& tls = std::nullopt, std::string host = "127.0.0.1");
    ~LoopbackServer();

    int port() const noexcept { return port_; }
    std::string baseUrl() const;       // "http://<host>:<port>" (https for TLS)
    void setHandler(Handler handler);  // runs on a server thread
    void respondWith(ScriptedResponse response) {
        setHandler([response](const RecordedRequest&) { return response; });
    }
    std::vector<RecordedRequest> requests() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
    std::string host_;
    int port_ = 0;
    bool tls_ = false;
};

class RawTcpServer {
public:
    // reply: written once the request head has arrived, then the connection
    // is closed; absent: read forever and never answer.
    explicit RawTcpServer(std::optional<std::string> reply = std::nullopt);
    ~RawTcpServer();

    std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }
    // The bytes received on each connection so far, in order of acceptance.
    std::vector<std::string> received() const;
    bool waitForConnections(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

private:
    void serve(int fd, std::size_t index);

    std::optional<std::string> reply_;
    int listenFd_ = -1;
    int port_ = 0;
    mutable std::mutex mutex_;
    mutable std::condition_variable cv_;
    std::vector<int> connections_;
    std::vector<std::string> received_;
    std::vector<std::thread> workers_;  // one per connection
    std::thread thread_;
};

class RefusingPort {
public:
    RefusingPort();
    ~RefusingPort();
    int port() const noexcept { return port_; }
    std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }

private:
    int fd_ = -1;
    int port_ = 0;
};

}  // namespace tavrin::testing
