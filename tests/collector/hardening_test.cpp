// The collector listens on a port: a body is bounded however it is encoded, a
// request that fails the token check is not kept, the API wants the token
// too, only this machine's names are answered, and its data is private.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sqlite3.h>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace {

#ifndef TAVRIN_COLLECTOR_BIN
#define TAVRIN_COLLECTOR_BIN ""
#endif

// The real binary on a free port, its token given in the environment.
class Collector {
public:
    Collector(const std::string& dataDir, const std::string& token) {
        int out[2];
        if (::pipe(out) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(out[1], STDOUT_FILENO);
            ::setenv("TAVRIN_COLLECTOR_TOKEN", token.c_str(), 1);
            ::execl(TAVRIN_COLLECTOR_BIN, TAVRIN_COLLECTOR_BIN, "--port", "0", "--data-dir", dataDir.c_str(),
                    "--max-body", "1000", static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(out[1]);
        std::string line;
        for (char c; ::read(out[0], &c, 1) == 1 && c != '\n';) line += c;
        ::close(out[0]);
        if (line.rfind("listening on ", 0) == 0) port_ = std::stoi(line.substr(line.rfind(':') + 1));
    }
    ~Collector() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
    }
    int port() const { return port_; }

    // Sends `head` (the request line and headers, without the blank line) and
    // `body` on a connection of its own; gives back the status and the body.
    std::pair<int, std::string> send(const std::string& head, const std::string& body = "") const {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port_));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        std::string answer;
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
            const std::string request = head + "\r\nConnection: close\r\n\r\n" + body;
            (void)!::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
            char buffer[4096];
            for (pollfd p{fd, POLLIN, 0}; ::poll(&p, 1, 10000) > 0;) {
                const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
                if (n <= 0) break;
                answer.append(buffer, static_cast<std::size_t>(n));
            }
        }
        ::close(fd);
        if (answer.size() < 12) return {0, answer};
        const auto bodyAt = answer.find("\r\n\r\n");
        return {std::stoi(answer.substr(9, 3)), bodyAt == std::string::npos ? "" : answer.substr(bodyAt + 4)};
    }

private:
    pid_t pid_ = -1;
    int port_ = -1;
};

unsigned modeOf(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? info.st_mode & 0777 : 0;
}

TEST(CollectorHardeningTest, RefusesWhatItCannotBoundOrTrustAndKeepsItsDataPrivate) {
    if (std::string(TAVRIN_COLLECTOR_BIN).empty()) GTEST_SKIP() << "tavrin-collector was not built";
    tavrin::testing::TempDir dir;
    const std::string data = (dir / "data").string();
    Collector collector(data, "s3cret");
    ASSERT_GT(collector.port(), 0);
    const std::string host = "Host: 127.0.0.1:" + std::to_string(collector.port());
    const std::string document = R"({"version":"3","kept":true})";
    const auto post = [&](const std::string& extra, const std::string& body) {
        return "POST / HTTP/1.1\r\n" + host + "\r\nContent-Type: application/json\r\n" + extra +
               "Content-Length: " + std::to_string(body.size());
    };
    const struct {
        const char* what;
        std::string head, body;
        int status;
    } cases[] = {
        {"chunked body", "POST /monitor HTTP/1.1\r\n" + host + "\r\nTransfer-Encoding: chunked",
         "3e8\r\n" + std::string(1000, ' ') + "\r\n3e8\r\n" + std::string(1000, ' ') + "\r\n0\r\n\r\n", 411},
        {"compressed body", post("Content-Encoding: gzip\r\n", std::string(20, 'z')), std::string(20, 'z'), 415},
        {"another host's name",
         "GET /api/requests HTTP/1.1\r\nHost: rebound.example:" + std::to_string(collector.port()) +
             "\r\nAuthorization: Bearer s3cret",
         "", 421},
        {"wrong token", post("Authorization: Bearer guess\r\n", document), document, 401},
        {"API without the token", "GET /api/requests?limit=1 HTTP/1.1\r\n" + host, "", 401},
        {"event stream with another token", "GET /api/events?access_token=guess HTTP/1.1\r\n" + host, "", 401},
        {"the right token", post("Authorization: Bearer s3cret\r\n", document), document, 200},
        {"localhost by name",
         "GET /api/requests?limit=99999999999 HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer s3cret", "", 200},
    };
    for (const auto& c : cases) EXPECT_EQ(collector.send(c.head, c.body).first, c.status) << c.what;

    // Only the accepted submission was kept.
    const std::string list =
        "GET /api/requests?limit=99999999999 HTTP/1.1\r\n" + host + "\r\nAuthorization: Bearer s3cret";
    const auto [status, listed] = collector.send(list);
    ASSERT_EQ(status, 200);
    const auto stored = nlohmann::json::parse(listed);
    ASSERT_EQ(stored.size(), 1u) << listed;
    EXPECT_EQ(stored[0]["body"]["kept"], true);
    EXPECT_EQ(modeOf(data), 0700u);
    EXPECT_EQ(modeOf(data + "/collector.sqlite3"), 0600u);

    // 1,500 stored requests: a listing asked for any number gives 1,000.
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open((data + "/collector.sqlite3").c_str(), &db), SQLITE_OK);
    sqlite3_busy_timeout(db, 10000);
    EXPECT_EQ(sqlite3_exec(db,
                           "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1499)"
                           " INSERT INTO requests (received_ms, method, path, headers, body, status, kind, problems)"
                           " SELECT received_ms, method, path, headers, body, status, kind, problems FROM requests, n",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);
    EXPECT_EQ(nlohmann::json::parse(collector.send(list).second).size(), 1000u);
}

TEST(CollectorHardeningTest, RefusesADataDirectoryOthersCanOpen) {
    if (std::string(TAVRIN_COLLECTOR_BIN).empty()) GTEST_SKIP() << "tavrin-collector was not built";
    tavrin::testing::TempDir dir;
    const auto shared = dir / "shared";
    std::filesystem::create_directory(shared);
    std::filesystem::permissions(shared, std::filesystem::perms::all);
    EXPECT_LE(Collector(shared.string(), "t").port(), 0);
    EXPECT_EQ(modeOf(shared.string()), 0777u);  // left as it was
    EXPECT_FALSE(std::filesystem::exists(shared / "collector.sqlite3"));
}

}  // namespace
