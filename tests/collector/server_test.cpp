// The real tavrin-collector binary, started as a child process on a free port:
// its answers, the token check, durable storage across restarts, TLS, the
// failure options and the live event stream.

#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include "sample_documents.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_certificates.h"

namespace {

using namespace tavrin::testing::samples;
using tavrin::testing::TempDir;
using ::testing::HasSubstr;

#ifdef TAVRIN_COLLECTOR_BIN
#define REQUIRE_COLLECTOR() (void)0
#else
#define TAVRIN_COLLECTOR_BIN ""
#define REQUIRE_COLLECTOR() GTEST_SKIP() << "tavrin-collector was not built (cpp-httplib or OpenSSL missing)"
#endif

class Collector {
public:
    explicit Collector(std::vector<std::string> arguments) {
        int out[2];
        if (pipe(out) != 0) throw std::runtime_error("pipe");
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out[1], STDOUT_FILENO);
            close(out[0]);
            close(out[1]);
            std::vector<char*> argv{const_cast<char*>(TAVRIN_COLLECTOR_BIN)};
            for (auto& a : arguments) argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(out[1]);
        // The first line names the address: "listening on http://127.0.0.1:PORT".
        for (char c; read(out[0], &c, 1) == 1 && c != '\n';) firstLine += c;
        close(out[0]);
        if (firstLine.starts_with("listening on ")) port = std::stoi(firstLine.substr(firstLine.rfind(':') + 1));
    }
    ~Collector() {
        if (pid_ > 0 && status < 0) stop(SIGKILL);
    }
    // Sends the signal (0: none) and returns the wait status.
    int stop(int signal) {
        if (pid_ <= 0) return status;
        if (signal) kill(pid_, signal);
        waitpid(pid_, &status, 0);
        return status;
    }
    httplib::Client client() const {
        httplib::Client c("127.0.0.1", port);
        c.set_read_timeout(15, 0);
        return c;
    }
    Json requests() const {
        auto res = client().Get("/api/requests");
        return res ? Json::parse(res->body) : Json();
    }

    int port = -1, status = -1;
    std::string firstLine;

private:
    pid_t pid_ = -1;
};

httplib::Result post(httplib::Client& c, const std::string& path, const Json& body, httplib::Headers headers = {}) {
    return c.Post(path, headers, body.dump(), "application/json");
}

TEST(CollectorServerTest, AnswersBadInputWithAClear4xxAndKeepsServing) {
    REQUIRE_COLLECTOR();
    TempDir dir;
    Collector collector({"--port", "0", "--data-dir", dir.path().string(), "--max-body", "300000"});
    ASSERT_EQ(collector.firstLine, "listening on http://127.0.0.1:" + std::to_string(collector.port));
    auto c = collector.client();
    const struct {
        const char *method, *path;
        std::string body;
        int status;
        const char* says;
    } cases[] = {
        {"POST", "/", "{\"version\": ", 400, "body is not JSON"},
        {"POST", "/monitor", "[]", 400, "a JSON object expected"},
        {"POST", "/", std::string(400000, ' ') + "{}", 413, "larger than the collector accepts"},
        {"POST", "/", std::string(100000, '[') + std::string(100000, ']'), 400, "nests deeper than 256 levels"},
        {"PUT", "/monitor", "{}", 405, "method PUT not allowed on /monitor"},
        {"POST", "/collect", "{}", 404, "no route for POST /collect"},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(std::string(k.method) + " " + k.path);
        httplib::Request request;
        request.method = k.method;
        request.path = k.path;
        request.body = k.body;
        auto res = c.send(request);
        ASSERT_TRUE(res) << httplib::to_string(res.error());
        EXPECT_EQ(res->status, k.status);
        EXPECT_THAT(res->body, HasSubstr(k.says));
    }
    // A document with problems is still taken, and they are reported back.
    Json document = dataSubmission();
    document["configuration"]["debugcode"] = nullptr;
    auto res = post(c, "/", document);
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 200);
    EXPECT_THAT(res->body, HasSubstr("/configuration/debugcode: optional member written as null"));
    const Json stored = collector.requests();
    ASSERT_EQ(stored.size(), 4u);  // the three bodies that were not documents, and the submission
    EXPECT_EQ(stored[0]["body"], document);
    EXPECT_EQ(stored[3]["kind"], "invalid");
    EXPECT_EQ(stored[3]["body"], "{\"version\": ");
}

TEST(CollectorServerTest, RefusesSubmissionsWithoutTheTokenAndNeverStoresIt) {
    REQUIRE_COLLECTOR();
    TempDir dir;
    Collector collector({"--port", "0", "--data-dir", dir.path().string(), "--token", "s3cret-token"});
    auto c = collector.client();
    EXPECT_EQ(post(c, "/", dataSubmission())->status, 401);
    EXPECT_EQ(post(c, "/", dataSubmission(), {{"Authorization", "Bearer other"}})->status, 401);
    EXPECT_EQ(post(c, "/", dataSubmission(), {{"Authorization", "Bearer s3cret-token"}})->status, 200);
    EXPECT_EQ(post(c, "/monitor", monitorReport())->status, 200);  // the monitor sends no token
    const Json stored = collector.requests();
    ASSERT_EQ(stored.size(), 4u);
    EXPECT_EQ(stored[1]["headers"]["Authorization"], "Bearer [redacted]");
    collector.stop(SIGTERM);
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
        std::ifstream file(entry.path(), std::ios::binary);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}).find("s3cret"), std::string::npos) << entry.path();
    }
}

TEST(CollectorServerTest, KeepsWhatItAnsweredAcrossAKill) {
    REQUIRE_COLLECTOR();
    TempDir dir;
    const std::vector<std::string> arguments{"--port", "0", "--data-dir", dir.path().string()};
    {
        Collector first(arguments);
        auto c = first.client();
        for (const auto& document : {dataSubmission(), consentSubmission(), offlineResend()})
            ASSERT_EQ(post(c, "/", document)->status, 200);
        first.stop(SIGKILL);  // no clean shutdown: an answered request must already be on disk
    }
    Collector second(arguments);
    auto c = second.client();
    ASSERT_EQ(post(c, "/monitor", monitorReport())->status, 200);
    const Json stored = second.requests();
    ASSERT_EQ(stored.size(), 4u);
    const char* kinds[] = {"monitor", "offline-resend", "consent", "data"};
    for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(stored[i]["kind"], kinds[i]);
    EXPECT_EQ(Json::parse(c.Get("/api/requests/2")->body)["body"], consentSubmission());
    EXPECT_EQ(c.Get("/api/requests/99")->status, 404);
    const int status = second.stop(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(CollectorServerTest, FailsAndDelaysOnRequestYetStoresTheRequest) {
    REQUIRE_COLLECTOR();
    TempDir dir;
    Collector collector({"--port", "0", "--data-dir", dir.path().string(), "--fail-with", "503", "--delay", "300"});
    auto c = collector.client();
    const auto start = std::chrono::steady_clock::now();
    auto res = post(c, "/", dataSubmission());
    ASSERT_TRUE(res);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
    EXPECT_EQ(res->status, 503);
    EXPECT_EQ(collector.requests().at(0)["status"], 503);
}

TEST(CollectorServerTest, RejectsBadOptionsWithExitCode2) {
    REQUIRE_COLLECTOR();
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"--port", "70000"}, {"--fail-with", "x"},
                                                      {"--tls-cert", "a.pem"}, {"--what", "1"}}) {
        Collector collector(arguments);
        const int status = collector.stop(0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << arguments[0];
    }
}

TEST(CollectorServerTest, ServesHttpsWithTheGivenCertificate) {
    REQUIRE_COLLECTOR();
    TempDir dir;
    const auto certificates = tavrin::testing::makeTestCertificates(dir.path(), {"IP:127.0.0.1"});
    Collector collector({"--port", "0", "--data-dir", (dir.path() / "data").string(), "--tls-cert",
                         certificates.servers[0].certificate.string(), "--tls-key", certificates.servers[0].privateKey.string()});
    EXPECT_EQ(collector.firstLine, "listening on https://127.0.0.1:" + std::to_string(collector.port));
    httplib::SSLClient c("127.0.0.1", collector.port);
    c.set_ca_cert_path(certificates.authority.c_str());
    c.enable_server_certificate_verification(true);
    auto res = c.Post("/monitor", monitorReport().dump(), "application/json");
    ASSERT_TRUE(res) << httplib::to_string(res.error());
    EXPECT_EQ(res->status, 200);
}

TEST(CollectorServerTest, StreamsEachNewRequestToOpenPages) {
    REQUIRE_COLLECTOR();
    TempDir dir;
    Collector collector({"--port", "0", "--data-dir", dir.path().string()});
    auto before = collector.client();
    ASSERT_EQ(post(before, "/", dataSubmission())->status, 200);  // already there: not streamed
    std::string received;
    std::atomic<bool> connected{false};
    std::thread page([&] {
        collector.client().Get("/api/events", [&](const char* data, std::size_t length) {
            received.append(data, length);
            connected = true;
            return received.find("\"kind\":\"consent\"") == std::string::npos;
        });
    });
    for (int i = 0; i < 1000 && !connected; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_EQ(post(before, "/", consentSubmission())->status, 200);
    page.join();
    EXPECT_THAT(received, HasSubstr("id: 2\nevent: request\ndata: {\"id\":2,"));
    EXPECT_THAT(received, ::testing::Not(HasSubstr("id: 1\n")));
}

}  // namespace
