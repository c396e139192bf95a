#include "tavrin/platform/http_client.h"
#include "tavrin/platform/internal/json.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>

#include "tests/support/loopback_server.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wine.h"
#if !defined(_WIN32)
#include "tests/support/test_certificates.h"
#endif

namespace tavrin::platform {
namespace {

using namespace std::chrono_literals;
using testing::LoopbackServer;
using testing::RawTcpServer;
using Clock = std::chrono::steady_clock;

HttpResponse await(std::future<HttpResponse>&& future) {
    if (future.wait_for(20s) != std::future_status::ready) throw std::runtime_error("request did not complete");
    return future.get();
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

HttpClientOptions withConnectionsPerHost(long connections) {
    HttpClientOptions options;
    options.maxConnectionsPerHost = connections;
    return options;
}

// 199 is interim: the client waits for a final status and, finding the body
// bytes where one should be, reports the 199 with its fields and no body.
TEST(SystemHttpClientTest, ReportsTheFinalStatusWithItsOwnFields) {
    LoopbackServer server;
    SystemHttpClient client;
    for (int status : {199, 200, 299, 300, 404, 500}) {
        const std::string text = std::to_string(status);
        server.respondWith({status, {{"X-Status", text}}, "body " + text});
        auto response = await(client.post(server.baseUrl() + "/", {}, toBytes("x")));
        EXPECT_EQ(response.statusCode, status);
        EXPECT_EQ(response.header("x-status"), text) << status;
        EXPECT_EQ(toString(response.body), status == 199 ? "" : "body " + text);
    }
    const std::string interim = "HTTP/1.1 199 Odd\r\nX-Interim: 1\r\n\r\n";
    RawTcpServer stopsAtInterim(interim),
        goesOn(interim + "HTTP/1.1 200 OK\r\nX-Final: 2\r\nContent-Length: 2\r\n\r\nok");
    auto stopped = await(client.get(stopsAtInterim.baseUrl() + "/"));
    EXPECT_EQ(stopped.statusCode, 199);
    EXPECT_EQ(stopped.headers, (HttpHeaders{{"X-Interim", "1"}}));
    if (testing::runningUnderWine()) GTEST_SKIP() << "wine's WinHTTP takes the interim status line for the final one";
    auto answered = await(client.get(goesOn.baseUrl() + "/"));
    EXPECT_EQ(answered.statusCode, 200);
    EXPECT_EQ(answered.headers, (HttpHeaders{{"X-Final", "2"}, {"Content-Length", "2"}}));
}

// Not taken for an answer that ended after its interim status.
TEST(SystemHttpClientTest, FinalAnswerCutShortAfterAnInterimStatusIsAFailure) {
    if (testing::runningUnderWine()) GTEST_SKIP() << "wine's WinHTTP takes the interim status line for the final one";
    RawTcpServer cutShort("HTTP/1.1 199 Odd\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nok");
    EXPECT_EQ(awaitError(SystemHttpClient().get(cutShort.baseUrl() + "/")).code(),
              UrlError::Code::networkConnectionLost);
}

TEST(SystemHttpClientTest, HeadersAndBodyBytesTravelExactly) {
    LoopbackServer server;
    const std::string answer("\x00\x01binary\xff\x80 tail", 14);
    server.respondWith({201, {{"X-Request-Id", "  r-42\t"}, {"Set-Cookie", "a=1"}, {"Set-Cookie", "b=2"}}, answer});
    HttpClientOptions options;
    options.userAgent = "TestAgent/1.0";
    SystemHttpClient client(options);
    const std::string body("{\"a\":1}\0\x01\xff\xfe\xc3\x28 end", 17);
    HttpRequest put{"PUT", server.baseUrl() + "/collect?x=1&y=%20", {{"Authorization", "Bearer abc"}}, toBytes(body)};
    auto response = await(client.send(put));
    EXPECT_EQ(toString(response.body), answer);
    EXPECT_EQ(response.header("x-request-id"), "r-42");
    const HttpHeaders::value_type secondCookie{"Set-Cookie", "b=2"};
    EXPECT_EQ(std::count(response.headers.begin(), response.headers.end(), secondCookie), 1);
    await(client.post(server.baseUrl() + "/empty", {}, {}));

    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2u);
    const std::string host = "127.0.0.1:" + std::to_string(server.port());
    EXPECT_EQ(requests[0].method + " " + requests[0].target, "PUT /collect?x=1&y=%20");
    EXPECT_EQ(requests[0].body, body);
    // No form content type made up by the client; WinHTTP names its
    // keep-alive in every request.
    testing::HeaderList transportFields;
#if defined(_WIN32)
    transportFields = {{"Connection", "Keep-Alive"}};
#endif
    auto expected = [&](testing::HeaderList fields) {
        fields.insert(fields.end(), transportFields.begin(), transportFields.end());
        std::sort(fields.begin(), fields.end());
        return fields;
    };
    EXPECT_EQ(requests[0].headers, expected({{"Accept", "*/*"},
                                             {"Authorization", "Bearer abc"},
                                             {"Content-Length", "17"},
                                             {"Host", host},
                                             {"User-Agent", "TestAgent/1.0"}}));
    EXPECT_EQ(requests[1].headers,
              expected({{"Accept", "*/*"}, {"Content-Length", "0"}, {"Host", host}, {"User-Agent", "TestAgent/1.0"}}));
    EXPECT_EQ(requests[0].remotePort, requests[1].remotePort) << "connection not reused";
}

// A silent server cannot answer before the request's own timeout.
TEST(SystemHttpClientTest, RequestEndsAtItsOwnTimeout) {
    RawTcpServer silent;
    const auto started = Clock::now();
    auto timedOut = awaitError(SystemHttpClient().post(silent.baseUrl() + "/", {}, toBytes("x"), 0.3));
    EXPECT_EQ(timedOut.code(), UrlError::Code::timedOut);
    EXPECT_EQ(std::string(timedOut.what()).rfind("The request timed out.", 0), 0u) << timedOut.what();
    EXPECT_GE(Clock::now() - started, 290ms);
    EXPECT_LT(Clock::now() - started, 10s) << "a default, not the request's own timeout, ended the wait";
}

// A request waiting for one of the host's two connections, both held by a
// server that never answers, still ends at its own timeout counted from send():
// with the whole timeout again once connected, the last pair would end after 4 s.
TEST(SystemHttpClientTest, RequestQueuedForAConnectionKeepsItsTimeout) {
    RawTcpServer silent;
    SystemHttpClient client(withConnectionsPerHost(2));
    std::vector<std::future<HttpResponse>> sent;
    const auto started = Clock::now();
    for (int i = 0; i < 8; ++i) sent.push_back(client.post(silent.baseUrl() + "/" + std::to_string(i), {}, {}, 1));
    for (auto& future : sent) {
        EXPECT_EQ(awaitError(std::move(future)).code(), UrlError::Code::timedOut);
        EXPECT_LT(Clock::now() - started, 2500ms) << "a queued request got its whole timeout again once connected";
    }
}

TEST(SystemHttpClientTest, TransportFailuresAreUrlErrors) {
    SystemHttpClient client;
    testing::RefusingPort refusing;
    auto refused = awaitError(client.get(refusing.baseUrl() + "/"));
    EXPECT_EQ(refused.code(), UrlError::Code::cannotConnectToHost);
#if defined(_WIN32)
    EXPECT_STREQ(refused.what(), "Could not connect to the server. (WinHTTP: ERROR_WINHTTP_CANNOT_CONNECT)");
#else
    EXPECT_STREQ(refused.what(), "Could not connect to the server. (curl: Couldn't connect to server)");
#endif
    RawTcpServer hangsUp(""), garbage("this is not http\r\n\r\n");
    EXPECT_EQ(awaitError(client.get(hangsUp.baseUrl() + "/")).code(), UrlError::Code::networkConnectionLost);
    EXPECT_EQ(awaitError(client.get(garbage.baseUrl() + "/")).code(), UrlError::Code::badServerResponse);
    for (auto [url, code] : {std::pair{"https://bad host/", UrlError::Code::badURL},
                             {"127.0.0.1/no-scheme", UrlError::Code::badURL},
                             {"ftp://127.0.0.1/file", UrlError::Code::unsupportedURL}})
        EXPECT_EQ(awaitError(client.get(url)).code(), code) << url;
}

// A field that would end or split the header block is never sent.
TEST(SystemHttpClientTest, RefusesFieldsThatWouldSplitTheHeaderBlock) {
    SystemHttpClient client;
    auto injected = client.get("http://127.0.0.1:9/", {{"X-A", "v\r\nX-Injected: 1"}});
    ASSERT_EQ(injected.wait_for(0s), std::future_status::ready);
    EXPECT_THROW(injected.get(), std::invalid_argument);
    EXPECT_THROW(client.get("http://127.0.0.1:9/", {{"Bad Name", "v"}}).get(), std::invalid_argument);
}

TEST(SystemHttpClientTest, ShutdownCancelsWaitingAndRunningRequests) {
    RawTcpServer silent;
    SystemHttpClient client(withConnectionsPerHost(4));  // 4 on the wire, 6 waiting
    std::vector<std::future<HttpResponse>> futures;
    for (int i = 0; i < 10; ++i) futures.push_back(client.get(silent.baseUrl() + "/" + std::to_string(i)));
    ASSERT_TRUE(silent.waitForConnections(4));
    client.shutdown();
    futures.push_back(client.get(silent.baseUrl() + "/late"));
    for (auto& future : futures) {
        ASSERT_EQ(future.wait_for(0s), std::future_status::ready) << "not completed when shutdown returned";
        auto error = awaitError(std::move(future));
        EXPECT_EQ(error.code(), UrlError::Code::cancelled);
        EXPECT_STREQ(error.what(), "The request was cancelled.");
    }
}

// Windows has no HTTPS loopback server (making its certificates needs OpenSSL).
#if !defined(_WIN32)
TEST(SystemHttpClientTest, HttpsTrustsOnlyTheConfiguredAuthorityForTheRightHost) {
    testing::TempDir dir;
    const auto certificates =
        testing::makeTestCertificates(dir.path(), {"IP:127.0.0.1,DNS:localhost", "DNS:other.test"});
    LoopbackServer server(certificates.servers[0]), otherHost(certificates.servers[1]);
    HttpClientOptions options;
    options.caFile = certificates.authority.string();
    SystemHttpClient trusting(options);
    EXPECT_EQ(await(trusting.post(server.baseUrl() + "/secure", {}, toBytes("{}"))).statusCode, 200);
    EXPECT_EQ(await(trusting.get("https://localhost:" + std::to_string(server.port()) + "/")).statusCode, 200);
    auto wrongHost = awaitError(trusting.get(otherHost.baseUrl() + "/"));
    EXPECT_EQ(wrongHost.code(), UrlError::Code::secureConnectionFailed) << wrongHost.what();
    // The system's authorities do not know the test CA.
    auto untrusted = awaitError(SystemHttpClient().get(server.baseUrl() + "/"));
    EXPECT_EQ(untrusted.code(), UrlError::Code::secureConnectionFailed) << untrusted.what();
    EXPECT_EQ(server.requests().size(), 2u);
    EXPECT_TRUE(otherHost.requests().empty());
}
#endif

TEST(UrlTest, ParseNeedsASchemeAndAHost) {
    auto url = Url::parse("HTTPS://[::1]:8443/path/to?q=1&r=2");
    ASSERT_TRUE(url);
    EXPECT_EQ(std::tie(url->scheme, url->host, url->port, url->path, url->query),
              std::make_tuple("https", "::1", 8443, "/path/to", "q=1&r=2"));
    EXPECT_EQ(Url::parse("http://collect.example.com")->path, "/");
    for (const char* text :
         {"", "https://exa mple.com", "https://example.com/a b", "collect.example.com", "https://", "https:///path",
          "https://example.com:99999/", "https://example.com:port/", "://example.com"})
        EXPECT_FALSE(Url::parse(text)) << "'" << text << "'";
    EXPECT_FALSE(Url::parse(std::string_view("https://a.com/\0x", 16)));
}

}  // namespace
}  // namespace tavrin::platform
