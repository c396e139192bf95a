// The loopback servers over Winsock, plain HTTP only. Every socket is
// non-blocking and every wait is a short select() that rechecks whether the
// server is stopping, so a destructor ends connections a client keeps open
// (or a handler's peer never reads) within one wait.
//
// RawTcpServer keeps its sockets in the header's int members: Windows
// guarantees a kernel handle survives truncation to 32 bits and sign
// extension back.

#include "tests/support/loopback_server.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdint>
#include <stdexcept>
#include <utility>

namespace tavrin::testing {

namespace {

using namespace std::chrono_literals;

constexpr timeval kWaitSlice{0, 50'000};  // how late a stop can be seen
constexpr std::size_t kMaxHead = 64 * 1024;

[[noreturn]] void fail(const std::string& what, int error = WSAGetLastError()) {
    throw std::runtime_error(what + ": Winsock error " + std::to_string(error));
}

// Winsock counts its users: each server holds it for its own lifetime.
struct WinsockUser {
    WinsockUser() {
        WSADATA data;
        if (const int error = WSAStartup(MAKEWORD(2, 2), &data); error != 0) fail("WSAStartup", error);
    }
    ~WinsockUser() { WSACleanup(); }
    WinsockUser(const WinsockUser&) = delete;
    WinsockUser& operator=(const WinsockUser&) = delete;
};

int toInt(SOCKET s) { return static_cast<int>(static_cast<std::intptr_t>(s)); }
SOCKET toSocket(int fd) { return static_cast<SOCKET>(static_cast<std::intptr_t>(fd)); }

void makeNonBlocking(SOCKET s) {
    u_long on = 1;
    if (ioctlsocket(s, FIONBIO, &on) != 0) fail("ioctlsocket");
}

// A TCP socket bound to `host` (IPv4) on an ephemeral port that no other
// socket can take over; gives the port too. Not inherited by child processes.
SOCKET boundSocket(const std::string& host, int& port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1)
        throw std::runtime_error("loopback server: not an IPv4 address: " + host);
    const SOCKET s = WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_NO_HANDLE_INHERIT);
    if (s == INVALID_SOCKET) fail("socket");
    BOOL exclusive = TRUE;
    int length = sizeof address;
    if (setsockopt(s, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&exclusive), sizeof exclusive) !=
            0 ||
        bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        getsockname(s, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        const int error = WSAGetLastError();
        closesocket(s);
        fail("bind " + host, error);
    }
    port = ntohs(address.sin_port);
    return s;
}

SOCKET listeningSocket(const std::string& host, int& port) {
    const SOCKET s = boundSocket(host, port);
    if (listen(s, SOMAXCONN) != 0) {
        const int error = WSAGetLastError();
        closesocket(s);
        fail("listen", error);
    }
    makeNonBlocking(s);
    return s;
}

// Waits until `s` is readable (or writable) or `stopping` says so; false
// when stopping.
template <typename Stopping>
bool waitFor(SOCKET s, bool write, const Stopping& stopping) {
    while (!stopping()) {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(s, &set);
        fd_set failed = set;
        timeval slice = kWaitSlice;
        const int ready = select(0, write ? nullptr : &set, write ? &set : nullptr, &failed, &slice);
        if (ready != 0) return ready > 0;
    }
    return false;
}

// One accepted connection, non-blocking, with the peer's port.
SOCKET acceptOne(SOCKET listener, int* remotePort) {
    sockaddr_in peer{};
    int length = sizeof peer;
    const SOCKET s = accept(listener, reinterpret_cast<sockaddr*>(&peer), &length);
    if (s == INVALID_SOCKET) return s;
    SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
    makeNonBlocking(s);
    if (remotePort) *remotePort = ntohs(peer.sin_port);
    return s;
}

// Bytes from `s` appended to `into`; false at the end of the stream, on an
// error, or when stopping.
template <typename Stopping>
bool receiveSome(SOCKET s, std::string& into, const Stopping& stopping) {
    char buffer[16 * 1024];
    for (;;) {
        const int n = recv(s, buffer, sizeof buffer, 0);
        if (n > 0) {
            into.append(buffer, static_cast<std::size_t>(n));
            return true;
        }
        if (n == 0 || WSAGetLastError() != WSAEWOULDBLOCK || !waitFor(s, false, stopping)) return false;
    }
}

template <typename Stopping>
bool sendAll(SOCKET s, std::string_view bytes, const Stopping& stopping) {
    while (!bytes.empty()) {
        const int n = send(s, bytes.data(), static_cast<int>(std::min<std::size_t>(bytes.size(), 1 << 20)), 0);
        if (n > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(n));
        } else if (WSAGetLastError() != WSAEWOULDBLOCK || !waitFor(s, true, stopping)) {
            return false;
        }
    }
    return true;
}

bool sameName(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

bool nameBefore(const std::string& a, const std::string& b) {
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](unsigned char x, unsigned char y) {
        return std::tolower(x) < std::tolower(y);
    });
}

std::string_view trimmed(std::string_view text) {
    const auto blank = [](char c) { return c == ' ' || c == '\t'; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    return text;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The path with its %XX escapes decoded, as handlers compare it.
std::string decodedPath(std::string_view path) {
    std::string out;
    for (std::size_t i = 0; i < path.size(); ++i) {
        if (path[i] == '%' && i + 2 < path.size() && hexDigit(path[i + 1]) >= 0 && hexDigit(path[i + 2]) >= 0) {
            out += static_cast<char>(hexDigit(path[i + 1]) * 16 + hexDigit(path[i + 2]));
            i += 2;
        } else {
            out += path[i];
        }
    }
    return out;
}

const char* reason(int status) {
    switch (status) {
        case 200: return "OK";
        case 201: return "Created";
        case 204: return "No Content";
        case 301: return "Moved Permanently";
        case 302: return "Found";
        case 303: return "See Other";
        case 307: return "Temporary Redirect";
        case 308: return "Permanent Redirect";
        case 400: return "Bad Request";
        case 404: return "Not Found";
        case 429: return "Too Many Requests";
        case 500: return "Internal Server Error";
        case 503: return "Service Unavailable";
        default: return "Status";
    }
}

}  // namespace

std::optional<std::string> RecordedRequest::header(const std::string& name) const {
    for (const auto& [key, value] : headers)
        if (sameName(key, name)) return value;
    return std::nullopt;
}

// ---- LoopbackServer

struct LoopbackServer::Impl {
    WinsockUser winsock;
    SOCKET listener = INVALID_SOCKET;
    std::atomic<bool> stopping{false};
    std::thread acceptor;
    mutable std::mutex mutex;
    std::vector<std::thread> connections;  // one per accepted connection
    std::vector<RecordedRequest> requests;
    Handler handler = [](const RecordedRequest&) { return ScriptedResponse{}; };

    bool stopped() const { return stopping.load(); }

    void acceptLoop() {
        const auto stop = [this] { return stopped(); };
        while (waitFor(listener, false, stop)) {
            int remotePort = -1;
            const SOCKET s = acceptOne(listener, &remotePort);
            if (s == INVALID_SOCKET) continue;  // the peer gave up before it was accepted
            std::lock_guard lock(mutex);
            connections.emplace_back([this, s, remotePort] {
                serve(s, remotePort);
                closesocket(s);
            });
        }
    }

    // Requests one after another on one kept-alive connection until the
    // client closes it, asks for its close, or sends what is not HTTP.
    void serve(SOCKET s, int remotePort) {
        const auto stop = [this] { return stopped(); };
        std::string buffer;
        for (;;) {
            std::size_t headEnd;
            while ((headEnd = buffer.find("\r\n\r\n")) == std::string::npos)
                if (buffer.size() > kMaxHead || !receiveSome(s, buffer, stop)) return;
            RecordedRequest record;
            record.remotePort = remotePort;
            bool keepAlive = true, chunked = false, expectContinue = false;
            std::optional<std::size_t> contentLength;
            if (!parseHead(std::string_view(buffer).substr(0, headEnd), record, keepAlive, chunked, expectContinue,
                           contentLength))
                return (void)sendAll(s, "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n",
                                     stop);
            buffer.erase(0, headEnd + 4);
            if (expectContinue && !sendAll(s, "HTTP/1.1 100 Continue\r\n\r\n", stop)) return;
            if (chunked) {
                if (!readChunked(s, buffer, record.body, stop)) return;
            } else if (contentLength) {
                while (buffer.size() < *contentLength)
                    if (!receiveSome(s, buffer, stop)) return;
                record.body = buffer.substr(0, *contentLength);
                buffer.erase(0, *contentLength);
            }
            if (!sendAll(s, answer(record, keepAlive), stop) || !keepAlive) return;
        }
    }

    static bool parseHead(std::string_view head, RecordedRequest& record, bool& keepAlive, bool& chunked,
                          bool& expectContinue, std::optional<std::size_t>& contentLength) {
        auto lineEnd = head.find("\r\n");
        const std::string_view requestLine = head.substr(0, lineEnd);
        const auto firstSpace = requestLine.find(' '), lastSpace = requestLine.rfind(' ');
        if (firstSpace == std::string_view::npos || lastSpace <= firstSpace) return false;
        const std::string_view version = requestLine.substr(lastSpace + 1);
        if (version.rfind("HTTP/1.", 0) != 0) return false;
        keepAlive = version != "HTTP/1.0";
        record.method = requestLine.substr(0, firstSpace);
        record.target = requestLine.substr(firstSpace + 1, lastSpace - firstSpace - 1);
        record.path = decodedPath(std::string_view(record.target).substr(0, record.target.find('?')));
        while (lineEnd != std::string_view::npos) {
            head.remove_prefix(lineEnd + 2);
            lineEnd = head.find("\r\n");
            const std::string_view line = head.substr(0, lineEnd);
            const auto colon = line.find(':');
            if (colon == std::string_view::npos || colon == 0) return false;
            const std::string name(line.substr(0, colon));
            const std::string value(trimmed(line.substr(colon + 1)));
            if (sameName(name, "Connection")) {
                if (sameName(value, "close")) keepAlive = false;
                if (sameName(value, "keep-alive")) keepAlive = true;
            } else if (sameName(name, "Transfer-Encoding")) {
                chunked = value.size() >= 7 && sameName(std::string_view(value).substr(value.size() - 7), "chunked");
            } else if (sameName(name, "Expect")) {
                expectContinue = sameName(value, "100-continue");
            } else if (sameName(name, "Content-Length")) {
                if (value.empty() || value.find_first_not_of("0123456789") != std::string::npos || value.size() > 12)
                    return false;
                contentLength = std::stoull(value);
            }
            if (!value.empty()) record.headers.emplace_back(name, value);
        }
        std::stable_sort(record.headers.begin(), record.headers.end(),
                         [](const auto& a, const auto& b) { return nameBefore(a.first, b.first); });
        return true;
    }

    // A chunked body appended to `body`, its trailer dropped.
    template <typename Stopping>
    static bool readChunked(SOCKET s, std::string& buffer, std::string& body, const Stopping& stop) {
        for (;;) {
            std::size_t lineEnd;
            while ((lineEnd = buffer.find("\r\n")) == std::string::npos)
                if (buffer.size() > kMaxHead || !receiveSome(s, buffer, stop)) return false;
            std::size_t size = 0, digits = 0;
            for (; digits < lineEnd && hexDigit(buffer[digits]) >= 0 && digits < 15; ++digits)
                size = size * 16 + static_cast<std::size_t>(hexDigit(buffer[digits]));
            if (digits == 0) return false;
            buffer.erase(0, lineEnd + 2);
            if (size == 0) break;
            while (buffer.size() < size + 2)
                if (!receiveSome(s, buffer, stop)) return false;
            if (buffer.compare(size, 2, "\r\n") != 0) return false;
            body.append(buffer, 0, size);
            buffer.erase(0, size + 2);
        }
        for (;;) {  // trailer fields up to an empty line
            std::size_t lineEnd;
            while ((lineEnd = buffer.find("\r\n")) == std::string::npos)
                if (buffer.size() > kMaxHead || !receiveSome(s, buffer, stop)) return false;
            buffer.erase(0, lineEnd + 2);
            if (lineEnd == 0) return true;
        }
    }

    // The handler's answer as bytes on the wire; the request is recorded once
    // the handler returned. A handler that throws gets a 500 naming why.
    std::string answer(RecordedRequest record, bool& keepAlive) {
        Handler compute;
        {
            std::lock_guard lock(mutex);
            compute = handler;
        }
        ScriptedResponse response;
        try {
            response = compute(record);
            std::lock_guard lock(mutex);
            requests.push_back(record);
        } catch (const std::exception& e) {
            response = {500, {}, std::string("handler threw: ") + e.what()};
        }
        std::string out = "HTTP/1.1 " + std::to_string(response.status) + " " + reason(response.status) + "\r\n";
        bool typed = false, sized = false;
        for (const auto& [name, value] : response.headers) {
            typed = typed || sameName(name, "Content-Type");
            sized = sized || sameName(name, "Content-Length");
            if (sameName(name, "Connection") && sameName(value, "close")) keepAlive = false;
            out += name + ": " + value + "\r\n";
        }
        if (!typed && !response.body.empty()) out += "Content-Type: application/octet-stream\r\n";
        if (!sized) out += "Content-Length: " + std::to_string(response.body.size()) + "\r\n";
        if (!keepAlive) out += "Connection: close\r\n";
        out += "\r\n";
        if (record.method != "HEAD") out += response.body;
        return out;
    }
};

LoopbackServer::LoopbackServer(const std::optional<TlsFiles>& tls, std::string host)
    : host_(std::move(host)), tls_(tls.has_value()) {
    if (tls) throw std::runtime_error("HTTPS loopback server not available on Windows");
    impl_ = std::make_unique<Impl>();
    impl_->listener = listeningSocket(host_, port_);
    impl_->acceptor = std::thread([impl = impl_.get()] { impl->acceptLoop(); });
}

LoopbackServer::~LoopbackServer() {
    impl_->stopping = true;
    impl_->acceptor.join();
    for (auto& connection : impl_->connections) connection.join();  // the acceptor adds no more
    closesocket(impl_->listener);
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
// listenFd_ turns -1 when the destructor begins: the threads' signal to end.

namespace {
// Winsock for the servers that have no Impl to hold it: taken in the
// constructor, given back in the destructor.
void startWinsock() {
    WSADATA data;
    if (const int error = WSAStartup(MAKEWORD(2, 2), &data); error != 0) fail("WSAStartup", error);
}
}  // namespace

RawTcpServer::RawTcpServer(std::optional<std::string> reply) : reply_(std::move(reply)) {
    startWinsock();
    SOCKET listener;
    try {
        listener = listeningSocket("127.0.0.1", port_);
    } catch (...) {
        WSACleanup();
        throw;
    }
    listenFd_ = toInt(listener);
    thread_ = std::thread([this, listener] {
        const auto stop = [this] {
            std::lock_guard lock(mutex_);
            return listenFd_ == -1;
        };
        while (waitFor(listener, false, stop)) {
            const SOCKET s = acceptOne(listener, nullptr);
            if (s == INVALID_SOCKET) continue;
            std::lock_guard lock(mutex_);
            connections_.push_back(toInt(s));
            received_.emplace_back();
            workers_.emplace_back([this, fd = toInt(s), index = received_.size() - 1] { serve(fd, index); });
            cv_.notify_all();
        }
    });
}

void RawTcpServer::serve(int fd, std::size_t index) {
    const SOCKET s = toSocket(fd);
    const auto stop = [this] {
        std::lock_guard lock(mutex_);
        return listenFd_ == -1;
    };
    bool replied = false;
    for (std::string bytes; receiveSome(s, bytes, stop); bytes.clear()) {
        {
            std::lock_guard lock(mutex_);
            received_[index] += bytes;
            if (!reply_ || replied || received_[index].find("\r\n\r\n") == std::string::npos) continue;
        }
        replied = true;
        // Ends the stream after the reply. Whatever the client sends later is
        // still read: closing with unread bytes would reset the connection,
        // which can destroy the reply in flight.
        if (sendAll(s, *reply_, stop)) shutdown(s, SD_SEND);
    }
}

RawTcpServer::~RawTcpServer() {
    int listener;
    {
        std::lock_guard lock(mutex_);
        listener = std::exchange(listenFd_, -1);
    }
    thread_.join();
    for (auto& worker : workers_) worker.join();  // the acceptor adds no more
    for (int fd : connections_) closesocket(toSocket(fd));
    closesocket(toSocket(listener));
    WSACleanup();
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
// Bound and never listening: Windows refuses connections to it (after its
// own connect retries, about two seconds, where the client does not stop sooner).

RefusingPort::RefusingPort() {
    startWinsock();
    try {
        fd_ = toInt(boundSocket("127.0.0.1", port_));
    } catch (...) {
        WSACleanup();
        throw;
    }
}

RefusingPort::~RefusingPort() {
    closesocket(toSocket(fd_));
    WSACleanup();
}

}  // namespace tavrin::testing
