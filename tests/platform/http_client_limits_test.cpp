// What a hostile server cannot make the client do: keep an answer of any
// size in memory, or carry a request somewhere its caller did not name.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <string>
#include <thread>

#include "tavrin/platform/http_client.h"
#include "tavrin/platform/internal/json.h"
#include "tests/support/loopback_server.h"

namespace tavrin::platform {
namespace {

using namespace std::chrono_literals;

// Answers every connection with `head`, then repeats `piece` (body bytes or
// header lines) until the client goes away or a gigabyte has gone out.
class EndlessServer {
public:
    EndlessServer(std::string head, std::string piece) : head_(std::move(head)), piece_(std::move(piece)) {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
        url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
        listen(fd_, 4);
        thread_ = std::thread([this] {
            for (int c; (c = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; close(c)) {
                char buffer[4096];
                for (std::string request; request.find("\r\n\r\n") == std::string::npos;) {
                    const ssize_t n = read(c, buffer, sizeof buffer);
                    if (n <= 0) break;
                    request.append(buffer, static_cast<std::size_t>(n));
                }
                ssize_t n = ::send(c, head_.data(), head_.size(), MSG_NOSIGNAL);
                while (n > 0 && sent_ < (1LL << 30))
                    if ((n = ::send(c, piece_.data(), piece_.size(), MSG_NOSIGNAL)) > 0) sent_ += n;
            }
        });
    }
    ~EndlessServer() {
        shutdown(fd_, SHUT_RDWR);
        thread_.join();
        close(fd_);
    }
    const std::string& url() const { return url_; }
    long long sent() const { return sent_; }

private:
    std::string head_, piece_, url_;
    int fd_ = -1;
    std::atomic<long long> sent_{0};
    std::thread thread_;
};

long residentKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    return -1;
}

TEST(HttpClientLimits, AnAnswerOfAGigabyteStopsTheTransferAndMemoryStaysFlat) {
    SystemHttpClient client;
    const long before = residentKiB();
    const std::string bytes(0x8000, 'x');
    struct Case {
        const char* name;
        std::string head, piece;
    };
    for (const auto& c :
         {Case{"declared length", "HTTP/1.1 200 OK\r\nContent-Length: 1073741824\r\n\r\n", bytes},
          Case{"chunked", "HTTP/1.1 503 Busy\r\nTransfer-Encoding: chunked\r\n\r\n", "8000\r\n" + bytes + "\r\n"},
          Case{"until close", "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n", bytes},
          Case{"header lines", "HTTP/1.1 200 OK\r\n", "X-Filler: " + bytes + "\r\n"}}) {
        EndlessServer server(c.head, c.piece);
        auto answer = client.post(server.url(), {}, toBytes("{}"), 20);
        ASSERT_EQ(answer.wait_for(30s), std::future_status::ready) << c.name;
        try {
            answer.get();
            ADD_FAILURE() << c.name << ": an oversized answer was accepted";
        } catch (const UrlError& error) {
            EXPECT_EQ(error.code(), UrlError::Code::responseTooLarge) << c.name << ": " << error.what();
        }
        EXPECT_LT(server.sent(), 64LL << 20) << c.name << ": the client kept reading";
    }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // there shadow memory dwarfs the heap
    EXPECT_LT(residentKiB() - before, 16 * 1024) << "KiB kept after four answers of a gigabyte";
#else
    (void)before;
#endif

    // Up to the limit an answer is whole; the limit is the client's option.
    testing::LoopbackServer server;
    server.respondWith({200, {}, std::string(64 * 1024, 'y')});
    EXPECT_EQ(client.get(server.baseUrl() + "/").get().body.size(), 64u * 1024);
    server.respondWith({200, {}, std::string(200 * 1024, 'y')});
    EXPECT_THROW(client.get(server.baseUrl() + "/").get(), UrlError);
    HttpClientOptions roomy;
    roomy.maxResponseBodyBytes = 256 * 1024;
    EXPECT_EQ(SystemHttpClient(roomy).get(server.baseUrl() + "/").get().body.size(), 200u * 1024);
}

}  // namespace
}  // namespace tavrin::platform
