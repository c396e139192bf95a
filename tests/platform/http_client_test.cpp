#include "tavrin/platform/http_client.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/loopback_server.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_certificates.h"

namespace tavrin::platform {
namespace {

using namespace std::chrono_literals;
using testing::LoopbackServer;
using testing::RawTcpServer;
using testing::ScriptedResponse;

constexpr auto kWait = 20s;

HttpResponse await(std::future<HttpResponse>& future) {
    if (future.wait_for(kWait) != std::future_status::ready) throw std::runtime_error("request did not complete");
    return future.get();
}

HttpResponse await(std::future<HttpResponse>&& future) { return await(future); }

// The UrlError the request failed with; fails the test when it succeeded.
UrlError awaitError(std::future<HttpResponse> future) {
    try {
        auto response = await(future);
        ADD_FAILURE() << "expected a UrlError, got status " << response.statusCode;
    } catch (const UrlError& error) {
        return error;
    }
    return UrlError(UrlError::Code::unknown, "no error");
}

HttpRequest postRequest(std::string url, std::string body, HttpHeaders headers = {}) {
    HttpRequest request;
    request.method = "POST";
    request.url = std::move(url);
    request.body = toBytes(body);
    request.headers = std::move(headers);
    return request;
}

// ---- statuses

TEST(CurlHttpClientStatus, ReportsFinalStatusesExactly) {
    LoopbackServer server;
    CurlHttpClient client;
    for (int status : {200, 299, 300, 404, 500}) {
        server.enqueueResponse({status, {{"X-Status", std::to_string(status)}}, "body " + std::to_string(status)});
        auto response = await(client.post(server.baseUrl() + "/", {}, toBytes("x")));
        EXPECT_EQ(response.statusCode, status);
        EXPECT_EQ(response.header("x-status"), std::to_string(status));
        EXPECT_EQ(toString(response.body), "body " + std::to_string(status));
    }
}

// HTTP has no final 1xx status: a 199 is interim and the client waits for the
// real answer. A server whose last word is 199 gets its 199 reported.
TEST(CurlHttpClientStatus, ReportsInterimStatusTheServerStopsAt) {
    {
        // The loopback server keeps the connection open and sends its body
        // bytes where a final status line should be.
        LoopbackServer server;
        server.enqueueResponse({199, {{"X-Odd", "yes"}}, "odd"});
        CurlHttpClient client;
        auto response = await(client.post(server.baseUrl() + "/", {}, toBytes("x"), 10));
        EXPECT_EQ(response.statusCode, 199);
        EXPECT_EQ(response.header("X-Odd"), "yes");
        EXPECT_TRUE(response.body.empty());
    }
    {
        RawTcpServer server("HTTP/1.1 199 Odd\r\nX-Interim: 1\r\n\r\n");  // then closes
        CurlHttpClient client;
        auto response = await(client.get(server.baseUrl() + "/", {}, 10));
        EXPECT_EQ(response.statusCode, 199);
        EXPECT_EQ(response.headers, (HttpHeaders{{"X-Interim", "1"}}));
    }
    {
        // A final status after the interim one is the answer, with its own fields only.
        RawTcpServer server(
            "HTTP/1.1 199 Odd\r\nX-Interim: 1\r\n\r\n"
            "HTTP/1.1 200 OK\r\nX-Final: 2\r\nContent-Length: 2\r\n\r\nok");
        CurlHttpClient client;
        auto response = await(client.get(server.baseUrl() + "/", {}, 10));
        EXPECT_EQ(response.statusCode, 200);
        EXPECT_EQ(response.headers, (HttpHeaders{{"X-Final", "2"}, {"Content-Length", "2"}}));
        EXPECT_EQ(toString(response.body), "ok");
    }
}

// ---- what goes over the wire

TEST(CurlHttpClientWire, RequestHeadersAndBodyArriveExactly) {
    LoopbackServer server;
    CurlHttpClient client;
    const std::string body("{\"a\":1}\0\x01\xff\xfe\xc3\x28 end", 17);
    auto response = await(client.send(postRequest(server.baseUrl() + "/collect?x=1&y=%20", body,
                                                  {{"Content-Type", "application/json"},
                                                   {"Authorization", "Bearer abc"},
                                                   {"X-Latin", "caf\xe9"}})));
    EXPECT_EQ(response.statusCode, 200);

    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    const auto& received = requests[0];
    EXPECT_EQ(received.method, "POST");
    EXPECT_EQ(received.path, "/collect");
    EXPECT_EQ(received.target, "/collect?x=1&y=%20");
    EXPECT_EQ(received.body, body);
    EXPECT_EQ(received.body.size(), 17u);
    EXPECT_EQ(received.header("Content-Type"), "application/json");
    EXPECT_EQ(received.header("Authorization"), "Bearer abc");
    EXPECT_EQ(received.header("X-Latin"), "caf\xe9");
    EXPECT_EQ(received.header("Content-Length"), "17");
    // Nothing the caller did not ask for that would change how the server reads it.
    EXPECT_FALSE(received.header("Expect"));
    EXPECT_FALSE(received.header("User-Agent"));
}

TEST(CurlHttpClientWire, HeaderFieldsOnTheWire) {
    RawTcpServer server("HTTP/1.1 204 No Content\r\n\r\n");
    CurlHttpClient client;
    auto response = await(client.get(server.baseUrl() + "/", {{"X-Empty", ""}, {"x-lower", "Keep Case"}}));
    EXPECT_EQ(response.statusCode, 204);
    auto received = server.received();
    ASSERT_EQ(received.size(), 1u);
    EXPECT_NE(received[0].find("\r\nX-Empty:\r\n"), std::string::npos) << received[0];
    EXPECT_NE(received[0].find("\r\nx-lower: Keep Case\r\n"), std::string::npos) << received[0];
}

TEST(CurlHttpClientWire, MethodsAndDefaultHeaders) {
    LoopbackServer server;
    CurlHttpClient::Options options;
    options.userAgent = "TestAgent/1.0";
    CurlHttpClient client(options);

    HttpRequest put = postRequest(server.baseUrl() + "/item", "payload");
    put.method = "PUT";
    await(client.send(put));
    await(client.get(server.baseUrl() + "/item", {{"User-Agent", "Own/2"}}));
    await(client.post(server.baseUrl() + "/empty", {}, {}));

    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].method, "PUT");
    EXPECT_EQ(requests[0].body, "payload");
    EXPECT_FALSE(requests[0].header("Content-Type")) << "no form content type made up by the client";
    EXPECT_EQ(requests[0].header("User-Agent"), "TestAgent/1.0");
    EXPECT_EQ(requests[1].method, "GET");
    EXPECT_EQ(requests[1].body, "");
    EXPECT_EQ(requests[1].header("User-Agent"), "Own/2");
    EXPECT_EQ(requests[2].method, "POST");
    EXPECT_EQ(requests[2].header("Content-Length"), "0");
}

TEST(CurlHttpClientWire, ResponseHeadersAndBodyComeBackExactly) {
    LoopbackServer server;
    const std::string body("\x00\x01binary\xff\x80 tail", 14);
    server.enqueueResponse({201,
                            {{"Content-Type", "application/octet-stream"},
                             {"X-Request-Id", "  r-42\t"},
                             {"Set-Cookie", "a=1"},
                             {"Set-Cookie", "b=2"}},
                            body});
    CurlHttpClient client;
    auto response = await(client.get(server.baseUrl() + "/"));
    EXPECT_EQ(response.statusCode, 201);
    EXPECT_EQ(toString(response.body), body);
    EXPECT_EQ(response.header("content-type"), "application/octet-stream");
    EXPECT_EQ(response.header("Content-Length"), "14");
    EXPECT_EQ(response.header("X-Request-Id"), "r-42");
    std::vector<std::string> cookies;
    for (const auto& [name, value] : response.headers)
        if (name == "Set-Cookie") cookies.push_back(value);
    EXPECT_EQ(cookies, (std::vector<std::string>{"a=1", "b=2"}));
}

TEST(CurlHttpClientWire, RedirectsAreFollowedUnlessSwitchedOff) {
    LoopbackServer server;
    server.setHandler([](const testing::RecordedRequest& request) {
        if (request.path == "/old") return ScriptedResponse{302, {{"Location", "/new"}, {"X-Hop", "1"}}, "moved"};
        return ScriptedResponse{200, {}, "arrived at " + request.path};
    });
    {
        CurlHttpClient client;
        auto response = await(client.get(server.baseUrl() + "/old"));
        EXPECT_EQ(response.statusCode, 200);
        EXPECT_EQ(toString(response.body), "arrived at /new");
        EXPECT_FALSE(response.header("X-Hop")) << "fields of the redirect are not the answer's";
    }
    {
        CurlHttpClient::Options options;
        options.followRedirects = false;
        CurlHttpClient client(options);
        auto response = await(client.get(server.baseUrl() + "/old"));
        EXPECT_EQ(response.statusCode, 302);
        EXPECT_EQ(response.header("Location"), "/new");
        EXPECT_EQ(toString(response.body), "moved");
    }
}

TEST(CurlHttpClientWire, ConnectionsAreReused) {
    LoopbackServer server;
    CurlHttpClient client;
    for (int i = 0; i < 3; ++i) await(client.get(server.baseUrl() + "/" + std::to_string(i)));
    auto requests = server.requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].remotePort, requests[1].remotePort);
    EXPECT_EQ(requests[1].remotePort, requests[2].remotePort);
}

// ---- transport failures

TEST(CurlHttpClientErrors, RefusedConnection) {
    testing::RefusingPort port;
    CurlHttpClient client;
    auto error = awaitError(client.get(port.baseUrl() + "/"));
    EXPECT_EQ(error.code(), UrlError::Code::cannotConnectToHost);
    EXPECT_STREQ(error.what(), "Could not connect to the server. (curl: Couldn't connect to server)");
    EXPECT_NE(error.detail().find(std::to_string(port.port())), std::string::npos) << error.detail();
}

TEST(CurlHttpClientErrors, SilentServerTimesOut) {
    RawTcpServer silent;
    CurlHttpClient client;
    const auto started = std::chrono::steady_clock::now();
    auto error = awaitError(client.post(silent.baseUrl() + "/", {}, toBytes("x"), 0.3));
    const auto elapsed = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(error.code(), UrlError::Code::timedOut);
    EXPECT_EQ(std::string(error.what()).rfind("The request timed out.", 0), 0u) << error.what();
    EXPECT_GE(elapsed, 290ms);
    EXPECT_LT(elapsed, 10s) << "the request's own timeout, not a default, ends the wait";
    EXPECT_EQ(silent.acceptedConnections(), 1u);
}

TEST(CurlHttpClientErrors, BrokenServerReplies) {
    {
        RawTcpServer hangsUp("");  // closes without a byte
        CurlHttpClient client;
        EXPECT_EQ(awaitError(client.get(hangsUp.baseUrl() + "/")).code(), UrlError::Code::networkConnectionLost);
    }
    {
        RawTcpServer garbage("this is not http\r\n\r\n");
        CurlHttpClient client;
        EXPECT_EQ(awaitError(client.get(garbage.baseUrl() + "/")).code(), UrlError::Code::badServerResponse);
    }
}

TEST(CurlHttpClientErrors, RejectedBeforeSending) {
    CurlHttpClient client;
    EXPECT_EQ(awaitError(client.get("https://bad host/")).code(), UrlError::Code::badURL);
    EXPECT_EQ(awaitError(client.get("127.0.0.1/no-scheme")).code(), UrlError::Code::badURL);
    EXPECT_EQ(awaitError(client.get("ftp://127.0.0.1/file")).code(), UrlError::Code::unsupportedURL);
    EXPECT_EQ(awaitError(client.get("myproto://collect.example.com")).code(), UrlError::Code::unsupportedURL);

    // A field that would end or split the header block is never sent.
    auto injected = client.get("http://127.0.0.1:9/", {{"X-A", "v\r\nX-Injected: 1"}});
    ASSERT_EQ(injected.wait_for(0s), std::future_status::ready);
    EXPECT_THROW(injected.get(), std::invalid_argument);
    auto badName = client.get("http://127.0.0.1:9/", {{"Bad Name", "v"}});
    EXPECT_THROW(badName.get(), std::invalid_argument);
}

// ---- concurrency and shutdown

TEST(CurlHttpClientConcurrency, HundredConcurrentRequestsAllComplete) {
    LoopbackServer server;
    server.setHandler([](const testing::RecordedRequest& request) {
        return ScriptedResponse{200, {}, request.method + " " + request.target + " " + request.body};
    });
    CurlHttpClient client;
    constexpr int kThreads = 4;
    constexpr int kPerThread = 25;
    std::vector<std::vector<std::future<HttpResponse>>> futures(kThreads);
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                const std::string id = std::to_string(t * kPerThread + i);
                futures[t].push_back(client.post(server.baseUrl() + "/r/" + id, {}, toBytes("body-" + id)));
            }
        });
    }
    for (auto& sender : senders) sender.join();

    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kPerThread; ++i) {
            const std::string id = std::to_string(t * kPerThread + i);
            auto response = await(futures[t][i]);
            EXPECT_EQ(response.statusCode, 200);
            EXPECT_EQ(toString(response.body), "POST /r/" + id + " body-" + id);
        }
    }
    EXPECT_EQ(server.requestCount(), 100u);
}

TEST(CurlHttpClientShutdown, FailsWaitingAndRunningRequestsWithCancelled) {
    RawTcpServer silent;
    CurlHttpClient::Options options;
    options.maxConnectionsPerHost = 4;  // 4 requests on the wire, 6 waiting for a connection
    CurlHttpClient client(options);
    std::vector<std::future<HttpResponse>> futures;
    for (int i = 0; i < 10; ++i) futures.push_back(client.get(silent.baseUrl() + "/" + std::to_string(i)));
    ASSERT_TRUE(silent.waitForConnections(4));

    client.shutdown();
    for (auto& future : futures) {
        ASSERT_EQ(future.wait_for(0s), std::future_status::ready) << "completed before shutdown returns";
        try {
            future.get();
            ADD_FAILURE() << "a request survived shutdown";
        } catch (const UrlError& error) {
            EXPECT_EQ(error.code(), UrlError::Code::cancelled);
            EXPECT_STREQ(error.what(), "The request was cancelled.");
        }
    }
    auto late = client.get(silent.baseUrl() + "/late");
    EXPECT_EQ(awaitError(std::move(late)).code(), UrlError::Code::cancelled);
    client.shutdown();  // again: nothing left to do
}

TEST(CurlHttpClientShutdown, DestructorCancelsInFlightRequests) {
    RawTcpServer silent;
    std::future<HttpResponse> inFlight;
    {
        CurlHttpClient client;
        inFlight = client.get(silent.baseUrl() + "/");
        ASSERT_TRUE(silent.waitForConnections(1));
    }
    ASSERT_EQ(inFlight.wait_for(0s), std::future_status::ready);
    EXPECT_EQ(awaitError(std::move(inFlight)).code(), UrlError::Code::cancelled);
}

// ---- TLS

class CurlHttpClientTls : public ::testing::Test {
protected:
    testing::TempDir dir;
    testing::TestCertificateAuthority authority{dir.path()};
};

TEST_F(CurlHttpClientTls, TrustsTheConfiguredAuthorityOnly) {
    LoopbackServer server(authority.issueLoopbackCertificate());
    {
        CurlHttpClient::Options options;
        options.caFile = authority.certificateFile().string();
        CurlHttpClient client(options);
        auto response = await(client.post(server.baseUrl() + "/secure", {{"Content-Type", "application/json"}},
                                          toBytes("{\"tls\":true}")));
        EXPECT_EQ(response.statusCode, 200);
        auto byName = await(client.get("https://localhost:" + std::to_string(server.port()) + "/by-name"));
        EXPECT_EQ(byName.statusCode, 200);
        auto requests = server.requests();
        ASSERT_EQ(requests.size(), 2u);
        EXPECT_EQ(requests[0].body, "{\"tls\":true}");
    }
    {
        CurlHttpClient client;  // the system's authorities do not know the test CA
        auto error = awaitError(client.get(server.baseUrl() + "/"));
        EXPECT_EQ(error.code(), UrlError::Code::secureConnectionFailed) << error.what();
    }
    EXPECT_EQ(server.requestCount(), 2u);
}

TEST_F(CurlHttpClientTls, RejectsACertificateForAnotherHost) {
    LoopbackServer server(authority.issueServerCertificate("other", {"DNS:other.test"}));
    CurlHttpClient::Options options;
    options.caFile = authority.certificateFile().string();
    CurlHttpClient client(options);
    auto error = awaitError(client.get(server.baseUrl() + "/"));
    EXPECT_EQ(error.code(), UrlError::Code::secureConnectionFailed) << error.what();
    EXPECT_EQ(server.requestCount(), 0u);
}

// ---- URL parsing

TEST(UrlParse, AcceptsUrlsWithSchemeAndHost) {
    auto url = Url::parse("http://127.0.0.1:8080/path/to?q=1&r=2");
    ASSERT_TRUE(url);
    EXPECT_EQ(url->text, "http://127.0.0.1:8080/path/to?q=1&r=2");
    EXPECT_EQ(url->scheme, "http");
    EXPECT_EQ(url->host, "127.0.0.1");
    EXPECT_EQ(url->port, 8080);
    EXPECT_EQ(url->path, "/path/to");
    EXPECT_EQ(url->query, "q=1&r=2");

    auto bare = Url::parse("https://collect.example.com");
    ASSERT_TRUE(bare);
    EXPECT_EQ(bare->text, "https://collect.example.com");
    EXPECT_EQ(bare->host, "collect.example.com");
    EXPECT_FALSE(bare->port);
    EXPECT_EQ(bare->path, "/");
    EXPECT_FALSE(bare->query);

    auto custom = Url::parse("HTTP://collect.example.com/sub/");  // any scheme, kept as a path too
    ASSERT_TRUE(custom);
    EXPECT_EQ(custom->scheme, "http");
    EXPECT_EQ(custom->path, "/sub/");
    EXPECT_TRUE(Url::parse("myproto://collect.example.com"));

    auto v6 = Url::parse("https://[::1]:8443/x");
    ASSERT_TRUE(v6);
    EXPECT_EQ(v6->host, "::1");
    EXPECT_EQ(v6->port, 8443);
}

TEST(UrlParse, RejectsTextThatIsNotAUrl) {
    for (const char* text : {"", "https://bad host/", "https://exa mple.com", "https://example.com/a b",
                             "collect.example.com", "https://", "https:///path", "https:/example.com", "https://example.com:99999/",
                             "https://example.com:port/", "://example.com", "https://ex\tample.com"}) {
        EXPECT_FALSE(Url::parse(text)) << "'" << text << "'";
    }
    EXPECT_FALSE(Url::parse(std::string_view("https://a.com/\0x", 16)));
}

// ---- headers and the shared client

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

class RecordingClient : public HttpClient {
public:
    std::future<HttpResponse> send(HttpRequest request) override {
        sent.push_back(request);
        std::promise<HttpResponse> promise;
        promise.set_value(HttpResponse{204, {}, {}});
        return promise.get_future();
    }
    std::vector<HttpRequest> sent;
};

TEST(HttpClientShared, HostCanReplaceTheDefaultClient) {
    auto original = HttpClient::shared();
    ASSERT_NE(dynamic_cast<CurlHttpClient*>(original.get()), nullptr);
    EXPECT_EQ(HttpClient::shared(), original);

    auto recording = std::make_shared<RecordingClient>();
    HttpClient::setShared(recording);
    EXPECT_EQ(HttpClient::shared()->post("https://x.test/", {{"A", "b"}}, toBytes("hi"), 30).get().statusCode, 204);
    ASSERT_EQ(recording->sent.size(), 1u);
    EXPECT_EQ(recording->sent[0].method, "POST");
    EXPECT_EQ(recording->sent[0].url, "https://x.test/");
    EXPECT_EQ(recording->sent[0].headers, (HttpHeaders{{"A", "b"}}));
    EXPECT_EQ(toString(recording->sent[0].body), "hi");
    EXPECT_EQ(recording->sent[0].timeoutSeconds, 30);

    HttpClient::setShared(nullptr);
    auto fresh = HttpClient::shared();
    EXPECT_NE(fresh, original);
    EXPECT_NE(dynamic_cast<CurlHttpClient*>(fresh.get()), nullptr);
    HttpClient::setShared(nullptr);
}

}  // namespace
}  // namespace tavrin::platform
