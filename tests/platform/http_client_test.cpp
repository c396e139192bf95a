#include "tavrin/platform/http_client.h"
#include "tavrin/platform/internal/json.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/loopback_server.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_certificates.h"
#include "tests/support/wait_until.h"

namespace tavrin::platform {
namespace {

using namespace std::chrono_literals;
using testing::LoopbackServer;
using testing::RawTcpServer;
using testing::ScriptedResponse;

HttpResponse await(std::future<HttpResponse>&& future) {
    if (future.wait_for(20s) != std::future_status::ready) throw std::runtime_error("request did not complete");
    return future.get();
}

template <class Change>
CurlHttpClient::Options options(Change change) {
    CurlHttpClient::Options options;
    change(options);
    return options;
}

// The UrlError the request failed with; fails the test when it succeeded.
UrlError awaitError(std::future<HttpResponse>&& future) {
    try {
        ADD_FAILURE() << "expected a UrlError, got status " << await(std::move(future)).statusCode;
    } catch (const UrlError& error) {
        return error;
    }
    return UrlError(UrlError::Code::unknown, "no error");
}

TEST(CurlHttpClient, ReportsStatusesExactly) {
    LoopbackServer server;
    CurlHttpClient client;
    // 199 is interim: the client waits for a final status, finds the body bytes
    // where one should be, and reports the 199 with its fields and no body.
    for (int status : {199, 200, 299, 300, 404, 500}) {
        const std::string text = std::to_string(status);
        server.respondWith({status, {{"X-Status", text}}, "body " + text});
        auto response = await(client.post(server.baseUrl() + "/", {}, toBytes("x")));
        EXPECT_EQ(response.statusCode, status);
        EXPECT_EQ(response.header("x-status"), text);
        EXPECT_EQ(toString(response.body), status == 199 ? "" : "body " + text);
    }
    // A server that closes after an interim status has it reported; a final
    // status after it is the answer, with its own fields only.
    const std::string interim = "HTTP/1.1 199 Odd\r\nX-Interim: 1\r\n\r\n";
    RawTcpServer stopsAtInterim(interim), goesOn(interim + "HTTP/1.1 200 OK\r\nX-Final: 2\r\nContent-Length: 2\r\n\r\nok");
    auto stopped = await(client.get(stopsAtInterim.baseUrl() + "/"));
    EXPECT_EQ(stopped.statusCode, 199);
    EXPECT_EQ(stopped.headers, (HttpHeaders{{"X-Interim", "1"}}));
    auto answered = await(client.get(goesOn.baseUrl() + "/"));
    EXPECT_EQ(answered.statusCode, 200);
    EXPECT_EQ(answered.headers, (HttpHeaders{{"X-Final", "2"}, {"Content-Length", "2"}}));
    EXPECT_EQ(toString(answered.body), "ok");
}

TEST(CurlHttpClient, HeadersAndBodyBytesGoAndComeBackExactly) {
    LoopbackServer server;
    const std::string answer("\x00\x01binary\xff\x80 tail", 14);
    server.respondWith({201,
                        {{"Content-Type", "application/octet-stream"},
                         {"X-Request-Id", "  r-42\t"},
                         {"Set-Cookie", "a=1"},
                         {"Set-Cookie", "b=2"}},
                        answer});
    CurlHttpClient client(options([](auto& o) { o.userAgent = "TestAgent/1.0"; }));
    const std::string body("{\"a\":1}\0\x01\xff\xfe\xc3\x28 end", 17);
    HttpRequest put{"PUT", server.baseUrl() + "/collect?x=1&y=%20", {}, toBytes(body)};
    put.headers = {{"Content-Type", "application/json"}, {"Authorization", "Bearer abc"}, {"X-Latin", "caf\xe9"}};
    auto response = await(client.send(put));
    EXPECT_EQ(response.statusCode, 201);
    EXPECT_EQ(toString(response.body), answer);
    EXPECT_EQ(response.header("content-type"), "application/octet-stream");
    EXPECT_EQ(response.header("Content-Length"), "14");
    EXPECT_EQ(response.header("X-Request-Id"), "r-42");
    std::vector<std::string> cookies;
    for (const auto& [name, value] : response.headers)
        if (name == "Set-Cookie") cookies.push_back(value);
    EXPECT_EQ(cookies, (std::vector<std::string>{"a=1", "b=2"}));
    await(client.get(server.baseUrl() + "/item", {{"User-Agent", "Own/2"}}));
    await(client.post(server.baseUrl() + "/empty", {}, {}));

    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 3u);
    const std::string host = "127.0.0.1:" + std::to_string(server.port());
    const auto& first = requests[0];
    EXPECT_EQ(first.method, "PUT");
    EXPECT_EQ(first.path, "/collect");
    EXPECT_EQ(first.target, "/collect?x=1&y=%20");
    EXPECT_EQ(first.body, body);
    EXPECT_EQ(first.headers, (testing::HeaderList{{"Accept", "*/*"}, {"Authorization", "Bearer abc"}, {"Content-Length", "17"},
                                                 {"Content-Type", "application/json"}, {"Host", host},
                                                 {"User-Agent", "TestAgent/1.0"}, {"X-Latin", "caf\xe9"}}));
    EXPECT_EQ(requests[1].method, "GET");
    EXPECT_EQ(requests[1].body, "");
    EXPECT_EQ(requests[1].headers, (testing::HeaderList{{"Accept", "*/*"}, {"Host", host}, {"User-Agent", "Own/2"}}));
    EXPECT_EQ(requests[2].method, "POST");
    // No form content type made up by the client.
    EXPECT_EQ(requests[2].headers, (testing::HeaderList{{"Accept", "*/*"}, {"Content-Length", "0"}, {"Host", host},
                                                       {"User-Agent", "TestAgent/1.0"}}));
    EXPECT_EQ(requests[0].remotePort, requests[1].remotePort) << "connection reused";
    EXPECT_EQ(requests[1].remotePort, requests[2].remotePort) << "connection reused";

    // Fields with an empty value and the caller's case, as seen on the wire; no default User-Agent.
    RawTcpServer raw("HTTP/1.1 204 No Content\r\n\r\n");
    EXPECT_EQ(await(CurlHttpClient().get(raw.baseUrl() + "/", {{"X-Empty", ""}, {"x-lower", "Keep Case"}})).statusCode,
              204);
    const std::string wire = raw.received().at(0);
    EXPECT_NE(wire.find("\r\nX-Empty:\r\n"), std::string::npos) << wire;
    EXPECT_NE(wire.find("\r\nx-lower: Keep Case\r\n"), std::string::npos) << wire;
    EXPECT_EQ(wire.find("User-Agent"), std::string::npos) << wire;
}

TEST(CurlHttpClient, RedirectsAreNeverFollowed) {
    LoopbackServer server;
    server.setHandler([](const testing::RecordedRequest& request) {
        if (request.path == "/old") return ScriptedResponse{302, {{"Location", "/new"}, {"X-Hop", "1"}}, "moved"};
        return ScriptedResponse{200, {}, "arrived at " + request.path};
    });
    auto kept = await(CurlHttpClient().get(server.baseUrl() + "/old"));
    EXPECT_EQ(kept.statusCode, 302);
    EXPECT_EQ(kept.header("Location"), "/new");
    EXPECT_EQ(toString(kept.body), "moved");
    EXPECT_EQ(server.requests().size(), 1u);
}

TEST(CurlHttpClient, TransportFailuresAreUrlErrors) {
    CurlHttpClient client;
    testing::RefusingPort refusing;
    auto refused = awaitError(client.get(refusing.baseUrl() + "/"));
    EXPECT_EQ(refused.code(), UrlError::Code::cannotConnectToHost);
    EXPECT_STREQ(refused.what(), "Could not connect to the server. (curl: Couldn't connect to server)");
    EXPECT_NE(refused.detail().find(std::to_string(refusing.port())), std::string::npos) << refused.detail();

    RawTcpServer silent;
    const auto started = std::chrono::steady_clock::now();
    auto timedOut = awaitError(client.post(silent.baseUrl() + "/", {}, toBytes("x"), 0.3));
    const auto elapsed = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(timedOut.code(), UrlError::Code::timedOut);
    EXPECT_EQ(std::string(timedOut.what()).rfind("The request timed out.", 0), 0u) << timedOut.what();
    EXPECT_GE(elapsed, 290ms);
    EXPECT_LT(elapsed, 10s) << "the request's own timeout, not a default, ends the wait";

    RawTcpServer hangsUp(""), garbage("this is not http\r\n\r\n");
    EXPECT_EQ(awaitError(client.get(hangsUp.baseUrl() + "/")).code(), UrlError::Code::networkConnectionLost);
    EXPECT_EQ(awaitError(client.get(garbage.baseUrl() + "/")).code(), UrlError::Code::badServerResponse);
    for (auto [url, code] : {std::pair{"https://bad host/", UrlError::Code::badURL},
                             {"127.0.0.1/no-scheme", UrlError::Code::badURL},
                             {"ftp://127.0.0.1/file", UrlError::Code::unsupportedURL},
                             {"myproto://collect.example.com", UrlError::Code::unsupportedURL}})
        EXPECT_EQ(awaitError(client.get(url)).code(), code) << url;

    // A field that would end or split the header block is never sent.
    auto injected = client.get("http://127.0.0.1:9/", {{"X-A", "v\r\nX-Injected: 1"}});
    ASSERT_EQ(injected.wait_for(0s), std::future_status::ready);
    EXPECT_THROW(injected.get(), std::invalid_argument);
    EXPECT_THROW(client.get("http://127.0.0.1:9/", {{"Bad Name", "v"}}).get(), std::invalid_argument);
}

TEST(CurlHttpClient, HundredConcurrentRequestsAllComplete) {
    LoopbackServer server;
    server.setHandler([](const testing::RecordedRequest& request) {
        return ScriptedResponse{200, {}, request.method + " " + request.target + " " + request.body};
    });
    CurlHttpClient client;
    std::vector<std::future<HttpResponse>> futures(100);
    std::vector<std::thread> senders;
    for (int t = 0; t < 4; ++t)
        senders.emplace_back([&, t] {
            for (int id = t; id < 100; id += 4)
                futures[id] = client.post(server.baseUrl() + "/r/" + std::to_string(id), {}, toBytes("b" + std::to_string(id)));
        });
    for (auto& sender : senders) sender.join();
    for (int id = 0; id < 100; ++id) {
        auto response = await(std::move(futures[id]));
        EXPECT_EQ(response.statusCode, 200);
        EXPECT_EQ(toString(response.body), "POST /r/" + std::to_string(id) + " b" + std::to_string(id));
    }
    EXPECT_EQ(server.requests().size(), 100u);
}

TEST(CurlHttpClient, ShutdownAndDestructorCancelWaitingAndRunningRequests) {
    RawTcpServer silent;
    CurlHttpClient client(options([](auto& o) { o.maxConnectionsPerHost = 4; }));  // 4 on the wire, 6 waiting
    std::vector<std::future<HttpResponse>> futures;
    for (int i = 0; i < 10; ++i) futures.push_back(client.get(silent.baseUrl() + "/" + std::to_string(i)));
    ASSERT_TRUE(silent.waitForConnections(4));
    client.shutdown();
    for (auto& future : futures) {
        ASSERT_EQ(future.wait_for(0s), std::future_status::ready) << "completed before shutdown returns";
        auto error = awaitError(std::move(future));
        EXPECT_EQ(error.code(), UrlError::Code::cancelled);
        EXPECT_STREQ(error.what(), "The request was cancelled.");
    }
    EXPECT_EQ(awaitError(client.get(silent.baseUrl() + "/late")).code(), UrlError::Code::cancelled);
    client.shutdown();  // again: nothing left to do

    RawTcpServer alsoSilent;
    std::future<HttpResponse> inFlight;
    {
        CurlHttpClient doomed;
        inFlight = doomed.get(alsoSilent.baseUrl() + "/");
        ASSERT_TRUE(alsoSilent.waitForConnections(1));
    }
    ASSERT_EQ(inFlight.wait_for(0s), std::future_status::ready);
    EXPECT_EQ(awaitError(std::move(inFlight)).code(), UrlError::Code::cancelled);
}

// A request waiting for one of the host's connections (both held by a server
// that never answers) still ends at its own timeout, counted from send(),
// also when a connection frees up shortly before that.
TEST(CurlHttpClient, RequestsQueuedForAConnectionKeepTheirTimeout) {
    RawTcpServer silent;
    CurlHttpClient client(options([](auto& o) { o.maxConnectionsPerHost = 2; }));
    using Clock = std::chrono::steady_clock;
    std::vector<std::pair<Clock::time_point, std::future<HttpResponse>>> sent;
    for (int i = 0; i < 6; ++i) {
        if (i == 2) std::this_thread::sleep_for(400ms);  // the first two hold both connections
        sent.emplace_back(Clock::now(), client.post(silent.baseUrl() + "/" + std::to_string(i), {}, toBytes("x"), 1));
    }
    for (auto& [at, future] : sent) {
        EXPECT_EQ(awaitError(std::move(future)).code(), UrlError::Code::timedOut);
        EXPECT_LT(Clock::now() - at, 1300ms) << "a queued request got its whole timeout again once connected";
    }
}

TEST(CurlHttpClient, ACompletionThatThrowsIsLoggedAndTheClientGoesOn) {
    testing::LogCapture log;
    LoopbackServer server;
    CurlHttpClient client;
    HttpRequest request;
    request.url = server.baseUrl() + "/";
    client.send(request, [](HttpResult) { throw std::runtime_error("handler broke"); });
    EXPECT_EQ(await(client.get(server.baseUrl() + "/after")).statusCode, 200) << "the client's thread survived";
    // The two transfers run side by side: the second may finish first.
    EXPECT_TRUE(testing::waitUntil([&] { return !log.sink->messages(LogType::error).empty(); }));
    EXPECT_EQ(log.sink->messages(LogType::error),
              std::vector<std::string>{"HTTP completion handler failed: handler broke"});
}

TEST(CurlHttpClient, HttpsTrustsTheConfiguredAuthorityAndChecksTheHost) {
    testing::TempDir dir;
    const auto certificates = testing::makeTestCertificates(dir.path(), {"IP:127.0.0.1,DNS:localhost", "DNS:other.test"});
    LoopbackServer server(certificates.servers[0]), otherHost(certificates.servers[1]);
    CurlHttpClient trusting(options([&](auto& o) { o.caFile = certificates.authority.string(); }));
    auto response = await(trusting.post(server.baseUrl() + "/secure", {}, toBytes("{\"tls\":true}")));
    EXPECT_EQ(response.statusCode, 200);
    EXPECT_EQ(await(trusting.get("https://localhost:" + std::to_string(server.port()) + "/")).statusCode, 200);
    auto wrongHost = awaitError(trusting.get(otherHost.baseUrl() + "/"));
    EXPECT_EQ(wrongHost.code(), UrlError::Code::secureConnectionFailed) << wrongHost.what();
    // The system's authorities do not know the test CA.
    auto untrusted = awaitError(CurlHttpClient().get(server.baseUrl() + "/"));
    EXPECT_EQ(untrusted.code(), UrlError::Code::secureConnectionFailed) << untrusted.what();
    ASSERT_EQ(server.requests().size(), 2u);
    EXPECT_EQ(server.requests()[0].body, "{\"tls\":true}");
    EXPECT_TRUE(otherHost.requests().empty());
}

// ---- name lookups against a name server that never answers (needs root or CAP_SYS_ADMIN)

// Runs the scenario on a thread moved into new network and mount namespaces
// where /etc/resolv.conf reads `resolvConf`; the threads and commands it
// starts are in those namespaces too.
void runWithOwnResolver(const std::string& resolvConf, const std::function<void()>& scenario) {
    // Host names must go to the name servers of resolv.conf, not to a local
    // resolver daemon or a cache.
    std::ifstream nsswitch("/etc/nsswitch.conf");
    for (std::string line; std::getline(nsswitch, line);)
        if (line.rfind("hosts:", 0) == 0 &&
            (line.find(" dns") == std::string::npos || line.find("resolve") != std::string::npos))
            GTEST_SKIP() << "host names are not looked up through resolv.conf here: " << line;
    testing::TempDir dir;
    const auto file = dir / "resolv.conf";
    std::ofstream(file) << resolvConf;
    std::string skip;
    std::thread([&] {
        auto failed = [&](const char* what) { skip = std::string(what) + ": " + std::strerror(errno); };
        if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0)
            return failed("unshare(CLONE_NEWNET | CLONE_NEWNS) (needs root or CAP_SYS_ADMIN)");
        // Private first, so the bind mount never reaches the host's namespace.
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return failed("mount --make-rprivate /");
        if (mount(file.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0) return failed("bind /etc/resolv.conf");
        scenario();
    }).join();
    if (!skip.empty()) GTEST_SKIP() << skip;
}

// A request sent through the completion form, with the time it completed.
struct TimedRequest {
    std::chrono::steady_clock::time_point sent = std::chrono::steady_clock::now();
    std::promise<std::pair<HttpResult, std::chrono::steady_clock::time_point>> done;

    static std::shared_ptr<TimedRequest> send(HttpClient& client, std::string url, double timeoutSeconds) {
        auto timed = std::make_shared<TimedRequest>();
        HttpRequest request;
        request.url = std::move(url);
        request.timeoutSeconds = timeoutSeconds;
        client.send(std::move(request), [timed](HttpResult result) {
            timed->done.set_value({std::move(result), std::chrono::steady_clock::now()});
        });
        return timed;
    }
    // The result and the time from send to completion.
    std::pair<HttpResult, std::chrono::milliseconds> await() {
        auto future = done.get_future();
        if (future.wait_for(30s) != std::future_status::ready) throw std::runtime_error("request did not complete");
        auto [result, at] = future.get();
        return {std::move(result), std::chrono::duration_cast<std::chrono::milliseconds>(at - sent)};
    }
};

UrlError::Code errorCode(const HttpResult& result) {
    try {
        if (result.error) std::rethrow_exception(result.error);
    } catch (const UrlError& error) {
        return error.code();
    } catch (...) {
    }
    ADD_FAILURE() << "expected a UrlError";
    return UrlError::Code::unknown;
}

TEST(CurlHttpClientNamespace, SilentNameServerHoldsUpOnlyItsOwnLookups) {
    runWithOwnResolver("nameserver 127.0.0.1\n", [] {
        ASSERT_EQ(std::system("ip link set lo up"), 0);
        // A name server that takes every query and answers none.
        const int silentDns = socket(AF_INET, SOCK_DGRAM, 0);
        ASSERT_GE(silentDns, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(53);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(bind(silentDns, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << std::strerror(errno);

        LoopbackServer server;
        auto client = std::make_unique<CurlHttpClient>();
        std::vector<std::shared_ptr<TimedRequest>> lookups;
        for (int i = 0; i < 3; ++i)
            lookups.push_back(TimedRequest::send(*client, "http://collect.tavrin.test/" + std::to_string(i), 2));
        // One loopback request while the lookups wait, one after their timeout passed.
        for (auto at : {300ms, 2300ms}) {
            std::this_thread::sleep_until(lookups.front()->sent + at);
            auto [meanwhile, took] = TimedRequest::send(*client, server.baseUrl() + "/meanwhile", 5)->await();
            ASSERT_TRUE(meanwhile.response) << "loopback request failed";
            EXPECT_EQ(meanwhile.response->statusCode, 200);
            EXPECT_LT(took, 500ms) << "a loopback request sent at " << at.count() << " ms waited for the name lookups";
            std::cout << "loopback request sent at " << at.count() << " ms took " << took.count() << " ms\n";
        }

        for (auto& lookup : lookups) {
            auto [result, took] = lookup->await();
            EXPECT_EQ(errorCode(result), UrlError::Code::timedOut);
            EXPECT_GE(took, 1900ms);
            EXPECT_LT(took, 2400ms) << "the lookup ends at the request's own timeout";
            std::cout << "hanging lookup with a 2 s timeout failed after " << took.count() << " ms\n";
        }

        auto pending = TimedRequest::send(*client, "https://late.tavrin.test/", 30);
        std::this_thread::sleep_for(300ms);
        const auto shutdownStarted = std::chrono::steady_clock::now();
        client->shutdown();
        const auto shutdownTook =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - shutdownStarted);
        EXPECT_LT(shutdownTook, 400ms) << "shutdown waited for a name lookup";
        std::cout << "shutdown during a lookup: " << shutdownTook.count() << " ms\n";
        EXPECT_EQ(errorCode(pending->await().first), UrlError::Code::cancelled);
        client.reset();
        close(silentDns);
    });
}

TEST(UrlParse, NeedsASchemeAndAHost) {
    struct Case {
        const char* text;
        const char* scheme;
        const char* host;
        std::optional<int> port;
        const char* path;
        std::optional<std::string> query;
    };
    for (const auto& c : {Case{"http://127.0.0.1:8080/path/to?q=1&r=2", "http", "127.0.0.1", 8080, "/path/to", "q=1&r=2"},
                          Case{"https://collect.example.com", "https", "collect.example.com", {}, "/", {}},
                          Case{"HTTP://collect.example.com/sub/", "http", "collect.example.com", {}, "/sub/", {}},
                          Case{"myproto://collect.example.com", "myproto", "collect.example.com", {}, "/", {}},
                          Case{"https://[::1]:8443/x", "https", "::1", 8443, "/x", {}}}) {
        auto url = Url::parse(c.text);
        ASSERT_TRUE(url) << c.text;
        EXPECT_EQ(url->text, c.text);
        EXPECT_EQ(url->scheme, c.scheme) << c.text;
        EXPECT_EQ(url->host, c.host) << c.text;
        EXPECT_EQ(url->port, c.port) << c.text;
        EXPECT_EQ(url->path, c.path) << c.text;
        EXPECT_EQ(url->query, c.query) << c.text;
    }
    for (const char* text : {"", "https://bad host/", "https://exa mple.com", "https://example.com/a b",
                             "collect.example.com", "https://", "https:///path", "https:/example.com",
                             "https://example.com:99999/", "https://example.com:port/", "://example.com",
                             "https://ex\tample.com"})
        EXPECT_FALSE(Url::parse(text)) << "'" << text << "'";
    EXPECT_FALSE(Url::parse(std::string_view("https://a.com/\0x", 16)));
}

TEST(HttpRequestHeaders, SetHeaderReplacesWithoutRegardToCase) {
    HttpRequest request;
    request.headers = {{"Accept", "a"}, {"content-type", "text/plain"}, {"X", "1"}, {"Content-Type", "x"}};
    request.setHeader("Content-Type", "application/json");
    request.setHeader("Authorization", "Bearer t");
    EXPECT_EQ(request.headers, (HttpHeaders{{"Accept", "a"},
                                            {"content-type", "application/json"},
                                            {"X", "1"},
                                            {"Authorization", "Bearer t"}}));
    EXPECT_EQ(headerValue(request.headers, "CONTENT-TYPE"), "application/json");
    EXPECT_FALSE(headerValue(request.headers, "Missing"));
}

TEST(HttpClientShared, HostCanReplaceTheDefaultClient) {
    auto original = HttpClient::shared();
    ASSERT_NE(dynamic_cast<CurlHttpClient*>(original.get()), nullptr);
    EXPECT_EQ(HttpClient::shared(), original);
    auto replacement = std::make_shared<CurlHttpClient>();
    HttpClient::setShared(replacement);
    EXPECT_EQ(HttpClient::shared(), replacement);
    HttpClient::setShared(nullptr);  // a new default on next use
    auto fresh = HttpClient::shared();
    EXPECT_NE(fresh, original);
    EXPECT_NE(fresh, replacement);
    EXPECT_NE(dynamic_cast<CurlHttpClient*>(fresh.get()), nullptr);
    HttpClient::setShared(nullptr);
}

}  // namespace
}  // namespace tavrin::platform
