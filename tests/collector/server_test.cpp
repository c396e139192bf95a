// The real tavrin-collector binary, started as a child process on a free port:
// its answers, the token check, durable storage across restarts, TLS, the
// failure options and the live event stream.

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
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
        std::string line;
        char c;
        while (read(out[0], &c, 1) == 1 && c != '\n') line += c;
        close(out[0]);
        firstLine_ = line;
        const auto colon = line.rfind(':');
        if (line.rfind("listening on ", 0) == 0 && colon != std::string::npos) port_ = std::stoi(line.substr(colon + 1));
    }
    ~Collector() {
        if (pid_ > 0 && !exited_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    int port() const { return port_; }
    const std::string& firstLine() const { return firstLine_; }
    // Sends the signal and returns the wait status.
    int stop(int signal) {
        kill(pid_, signal);
        int status = 0;
        waitpid(pid_, &status, 0);
        exited_ = true;
        return status;
    }
    bool running() { return waitpid(pid_, nullptr, WNOHANG) == 0; }

    httplib::Client client() const {
        httplib::Client c("127.0.0.1", port_);
        c.set_read_timeout(10, 0);
        return c;
    }
    Json requests(const std::string& token = "") const {
        httplib::Headers headers;
        if (!token.empty()) headers.emplace("Authorization", "Bearer " + token);
        auto res = client().Get("/api/requests", headers);
        if (!res || res->status != 200) return Json();
        return Json::parse(res->body);
    }

private:
    pid_t pid_ = -1;
    int port_ = -1;
    bool exited_ = false;
    std::string firstLine_;
};

httplib::Result post(httplib::Client& c, const std::string& path, const std::string& body, httplib::Headers headers = {}) {
    return c.Post(path.c_str(), headers, body, "application/json");
}

TEST(CollectorServer, AnswersBadInputWithAClear4xxAndKeepsServing) {
    REQUIRE_COLLECTOR();
    TempDir dir;
    Collector collector({"--port", "0", "--data-dir", dir.path().string(), "--max-body", "300000"});
    ASSERT_GT(collector.port(), 0) << collector.firstLine();
    EXPECT_EQ(collector.firstLine(), "listening on http://127.0.0.1:" + std::to_string(collector.port()));
    auto c = collector.client();

    const struct {
        const char* method;
        const char* path;
        std::string body;
        int status;
        const char* says;
    } cases[] = {
        {"POST", "/", "{\"version\": ", 400, "body is not JSON"},
        {"POST", "/monitor", "[]", 400, "a JSON object expected"},
        {"POST", "/", std::string(400000, ' ') + "{}", 413, "larger than the collector accepts"},
        {"POST", "/", std::string(100000, '[') + std::string(100000, ']'), 400, "nests deeper than 256 levels"},
        {"GET", "/", "", 405, "method GET not allowed on /"},
        {"PUT", "/monitor", "{}", 405, "method PUT not allowed on /monitor"},
        {"DELETE", "/", "", 405, "not allowed"},
        {"GET", "/nowhere", "", 404, "no route for GET /nowhere"},
        {"POST", "/collect", "{}", 404, "no route for POST /collect"},
    };
    for (const auto& k : cases) {
        httplib::Request request;
        request.method = k.method;
        request.path = k.path;
        request.body = k.body;
        request.set_header("Content-Type", "application/json");
        auto res = c.send(request);
        ASSERT_TRUE(res) << k.method << " " << k.path << " (" << k.body.size() << " bytes): " << httplib::to_string(res.error());
        EXPECT_EQ(res->status, k.status) << k.method << " " << k.path;
        EXPECT_THAT(res->body, HasSubstr(k.says)) << k.method << " " << k.path;
    }

    // Still up, and a good document goes through with its problems reported back.
    Json document = dataSubmission();
    document["configuration"]["debugcode"] = nullptr;
    auto res = post(c, "/", document.dump());
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 200);
    EXPECT_THAT(Json::parse(res->body)["problems"].dump(), HasSubstr("/configuration/debugcode: optional member written as null"));
    EXPECT_TRUE(collector.running());

    const Json stored = collector.requests();
    ASSERT_EQ(stored.size(), 4u);  // the three bodies that were not documents, and the submission
    EXPECT_EQ(stored[0]["kind"], "data");
    EXPECT_EQ(stored[0]["body"], document);
    EXPECT_EQ(stored[1]["kind"], "invalid");
    EXPECT_EQ(stored[1]["status"], 400);
    EXPECT_EQ(stored[1]["bodyIsJson"], false);
    EXPECT_EQ(stored[3]["body"], "{\"version\": ");
}

TEST(CollectorServer, ChecksTheBearerTokenOnSubmissionsAndNeverStoresIt) {
    REQUIRE_COLLECTOR();
    TempDir dir;
    Collector collector({"--port", "0", "--data-dir", dir.path().string(), "--token", "s3cret-token"});
    ASSERT_GT(collector.port(), 0) << collector.firstLine();
    auto c = collector.client();
    const std::string body = dataSubmission().dump();

    auto missing = post(c, "/", body);
    auto wrong = post(c, "/", body, {{"Authorization", "Bearer other"}});
    auto right = post(c, "/", body, {{"Authorization", "Bearer s3cret-token"}});
    // The monitor request carries no Authorization header.
    auto monitor = post(c, "/monitor", monitorReport().dump());
    ASSERT_TRUE(missing && wrong && right && monitor);
    EXPECT_EQ(missing->status, 401);
    EXPECT_EQ(missing->get_header_value("WWW-Authenticate"), "Bearer");
    EXPECT_THAT(missing->body, HasSubstr("missing Authorization header"));
    EXPECT_EQ(wrong->status, 401);
    EXPECT_THAT(wrong->body, HasSubstr("not the expected bearer token"));
    EXPECT_EQ(right->status, 200);
    EXPECT_EQ(monitor->status, 200);

    const Json stored = collector.requests("s3cret-token");
    ASSERT_EQ(stored.size(), 2u);  // the refused ones are not kept
    EXPECT_EQ(stored[1]["headers"]["Authorization"], "Bearer [redacted]");
    EXPECT_THAT(stored.dump(), ::testing::Not(HasSubstr("s3cret")));
    collector.stop(SIGTERM);
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(file)), {});
        EXPECT_EQ(bytes.find("s3cret"), std::string::npos) << entry.path();
    }
}

TEST(CollectorServer, KeepsWhatItAnsweredAcrossAKillAndARestart) {
    REQUIRE_COLLECTOR();
    TempDir dir;
    const std::vector<std::string> arguments{"--port", "0", "--data-dir", dir.path().string()};
    const Json sent[] = {dataSubmission(), consentSubmission(), offlineResend()};
    {
        Collector first(arguments);
        ASSERT_GT(first.port(), 0) << first.firstLine();
        auto c = first.client();
        for (const auto& document : sent) ASSERT_EQ(post(c, "/", document.dump())->status, 200);
        ASSERT_EQ(post(c, "/monitor", monitorReport().dump())->status, 200);
        // No clean shutdown: an answered request must already be on disk.
        first.stop(SIGKILL);
    }
    Collector second(arguments);
    ASSERT_GT(second.port(), 0) << second.firstLine();
    auto c = second.client();
    ASSERT_EQ(post(c, "/", dataSubmission().dump())->status, 200);

    const Json stored = second.requests();
    ASSERT_EQ(stored.size(), 5u);
    const char* kinds[] = {"data", "monitor", "offline-resend", "consent", "data"};
    for (std::size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(stored[i]["id"], 5 - i);
        EXPECT_EQ(stored[i]["kind"], kinds[i]);
        EXPECT_TRUE(stored[i]["problems"].empty()) << stored[i]["problems"];
    }
    EXPECT_EQ(stored[3]["body"], sent[1]);
    EXPECT_EQ(stored[3]["headers"]["Content-Type"], "application/json");
    EXPECT_EQ(Json::parse(c.Get("/api/requests/2")->body)["body"], sent[1]);
    EXPECT_EQ(c.Get("/api/requests/99")->status, 404);

    const int status = second.stop(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(CollectorServer, FailsAndDelaysOnRequestYetStoresTheRequest) {
    REQUIRE_COLLECTOR();
    TempDir dir;
    Collector collector({"--port", "0", "--data-dir", dir.path().string(), "--fail-with", "503", "--delay", "300"});
    ASSERT_GT(collector.port(), 0) << collector.firstLine();
    auto c = collector.client();
    const auto start = std::chrono::steady_clock::now();
    auto res = post(c, "/", dataSubmission().dump());
    const auto waited = std::chrono::steady_clock::now() - start;
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 503);
    EXPECT_THAT(res->body, HasSubstr("--fail-with 503"));
    EXPECT_GE(waited, std::chrono::milliseconds(300));
    const Json stored = collector.requests();
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0]["status"], 503);
    EXPECT_EQ(stored[0]["kind"], "data");
}

TEST(CollectorServer, RejectsBadOptionsWithItsUsage) {
    REQUIRE_COLLECTOR();
    for (std::vector<std::string> arguments : {std::vector<std::string>{"--port", "70000"}, {"--fail-with", "x"},
                                                {"--tls-cert", "a.pem"}, {"--what", "1"}}) {
        Collector collector(arguments);
        const int status = collector.stop(0);  // signal 0: only wait for it to end
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << arguments[0];
        EXPECT_EQ(collector.port(), -1);
    }
}

TEST(CollectorServer, ServesHttpsWithTheGivenCertificate) {
    REQUIRE_COLLECTOR();
    TempDir dir;
    const auto certificates = tavrin::testing::makeTestCertificates(dir.path(), {"IP:127.0.0.1"});
    Collector collector({"--port", "0", "--data-dir", (dir.path() / "data").string(), "--tls-cert",
                         certificates.servers[0].certificate.string(), "--tls-key", certificates.servers[0].privateKey.string()});
    ASSERT_GT(collector.port(), 0) << collector.firstLine();
    EXPECT_EQ(collector.firstLine(), "listening on https://127.0.0.1:" + std::to_string(collector.port()));
    httplib::SSLClient c("127.0.0.1", collector.port());
    c.set_ca_cert_path(certificates.authority.c_str());
    c.enable_server_certificate_verification(true);
    auto res = c.Post("/monitor", monitorReport().dump(), "application/json");
    ASSERT_TRUE(res) << httplib::to_string(res.error());
    EXPECT_EQ(res->status, 200);
    EXPECT_EQ(Json::parse(res->body)["kind"], "monitor");
}

TEST(CollectorServer, StreamsEachNewRequestToOpenPages) {
    REQUIRE_COLLECTOR();
    TempDir dir;
    Collector collector({"--port", "0", "--data-dir", dir.path().string()});
    ASSERT_GT(collector.port(), 0) << collector.firstLine();
    auto before = collector.client();
    ASSERT_EQ(post(before, "/", dataSubmission().dump())->status, 200);  // already there: not streamed

    std::string received;
    std::atomic<bool> connected{false}, gotEvent{false};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    std::thread page([&] {
        auto c = collector.client();
        c.set_read_timeout(15, 0);
        c.Get("/api/events", [&](const char* data, std::size_t length) {
            received.append(data, length);
            connected = true;
            gotEvent = received.find("\"kind\":\"consent\"") != std::string::npos;
            return !gotEvent && std::chrono::steady_clock::now() < deadline;
        });
    });
    for (int i = 0; i < 200 && !connected; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_TRUE(connected);
    auto c = collector.client();
    ASSERT_EQ(post(c, "/", consentSubmission().dump())->status, 200);
    page.join();
    EXPECT_TRUE(gotEvent);
    EXPECT_THAT(received, HasSubstr("id: 2\nevent: request\ndata: {\"id\":2,"));
    EXPECT_THAT(received, ::testing::Not(HasSubstr("id: 1\n")));
}

}  // namespace
