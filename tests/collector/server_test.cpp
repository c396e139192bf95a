// The real tavrin-collector binary, started as a child process on a free port:
// its answers to bad input, the token check and durable storage across a
// kill. TLS and the live event stream are exercised by browser_test.py.

#include <csignal>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include "sample_documents.h"
#include "tests/support/temp_dir.h"

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

// The collector on a free port of its choosing, read from its first line:
// "listening on http://127.0.0.1:PORT".
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
        for (char c; read(out[0], &c, 1) == 1 && c != '\n';) firstLine += c;
        close(out[0]);
        if (firstLine.starts_with("listening on ")) port = std::stoi(firstLine.substr(firstLine.rfind(':') + 1));
    }
    ~Collector() { stop(SIGKILL); }
    // Sends the signal and returns the wait status.
    int stop(int signal) {
        if (pid_ > 0 && status < 0) {
            kill(pid_, signal);
            waitpid(pid_, &status, 0);
        }
        return status;
    }
    httplib::Result post(const std::string& path, const std::string& body, httplib::Headers headers = {}) const {
        httplib::Client c("127.0.0.1", port);
        return c.Post(path, headers, body, "application/json");
    }
    Json requests() const {
        auto res = httplib::Client("127.0.0.1", port).Get("/api/requests");
        return res ? Json::parse(res->body) : Json();
    }

    int port = -1, status = -1;
    std::string firstLine;

private:
    pid_t pid_ = -1;
};

TEST(CollectorServerTest, AnswersBadInputWithAClear4xx) {
    REQUIRE_COLLECTOR();
    TempDir dir;
    Collector collector({"--port", "0", "--data-dir", dir.path().string(), "--max-body", "300000"});
    ASSERT_EQ(collector.firstLine, "listening on http://127.0.0.1:" + std::to_string(collector.port));
    for (const auto& [path, body, status, says] : std::vector<std::tuple<std::string, std::string, int, std::string>>{
             {"/", "{\"version\": ", 400, "body is not JSON"},
             {"/monitor", "[]", 400, "a JSON object expected"},
             {"/", std::string(400000, ' ') + "{}", 413, "larger than the collector accepts"},
             {"/", std::string(100000, '[') + std::string(100000, ']'), 400, "nests deeper than 256 levels"},
             {"/collect", "{}", 404, "no route for POST /collect"}}) {
        auto res = collector.post(path, body);
        ASSERT_TRUE(res) << path << ": " << httplib::to_string(res.error());
        EXPECT_EQ(res->status, status) << says;
        EXPECT_THAT(res->body, HasSubstr(says));
    }
    // A document with problems is still taken, and they are reported back.
    Json document = dataSubmission();
    document["configuration"]["debugcode"] = nullptr;
    auto res = collector.post("/", document.dump());
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 200);
    EXPECT_THAT(res->body, HasSubstr("/configuration/debugcode: optional member written as null"));
    const Json stored = collector.requests();
    ASSERT_EQ(stored.size(), 4u);  // the three bodies that were not documents, and the submission
    EXPECT_EQ(stored[0]["body"], document);
    EXPECT_EQ(stored[3]["kind"], "invalid");
    EXPECT_EQ(stored[3]["body"], "{\"version\": ");
}

TEST(CollectorServerTest, ChecksTheBearerTokenWithoutStoringIt) {
    REQUIRE_COLLECTOR();
    TempDir dir;
    Collector collector({"--port", "0", "--data-dir", dir.path().string(), "--token", "s3cret-token"});
    const std::string body = dataSubmission().dump();
    EXPECT_EQ(collector.post("/", body)->status, 401);
    EXPECT_EQ(collector.post("/", body, {{"Authorization", "Bearer other"}})->status, 401);
    EXPECT_EQ(collector.post("/", body, {{"Authorization", "Bearer s3cret-token"}})->status, 200);
    EXPECT_EQ(collector.post("/monitor", monitorReport().dump())->status, 200);  // the monitor sends no token
    collector.stop(SIGTERM);
    for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
        std::ifstream file(entry.path(), std::ios::binary);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}).find("s3cret"), std::string::npos)
            << entry.path();
    }
}

// Each kind the SDK sends is recognised, passes the shape check and is on disk once answered.
TEST(CollectorServerTest, KeepsWhatItAnsweredAcrossAKill) {
    REQUIRE_COLLECTOR();
    TempDir dir;
    const std::vector<std::string> arguments{"--port", "0", "--data-dir", dir.path().string()};
    {
        Collector first(arguments);
        for (const auto& document : {dataSubmission(), consentSubmission(), offlineResend()})
            ASSERT_EQ(first.post("/", document.dump())->status, 200);
        first.stop(SIGKILL);
    }
    Collector second(arguments);
    ASSERT_EQ(second.post("/monitor", monitorReport().dump())->status, 200);
    const Json stored = second.requests();
    ASSERT_EQ(stored.size(), 4u);
    const char* kinds[] = {"monitor", "offline-resend", "consent", "data"};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(stored[i]["kind"], kinds[i]);
        EXPECT_TRUE(stored[i]["problems"].empty()) << stored[i]["problems"];
    }
    EXPECT_EQ(stored[2]["body"], consentSubmission());
    const int status = second.stop(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
