#include "tavrin/monitor/internal/monitor_service.h"

#include <gtest/gtest.h>

#include "tavrin/monitor/internal/tag_cache.h"
#include "tests/support/test_certificates.h"
#include "tests/support/transport_fixture.h"

namespace tavrin::testing {
namespace {

class MonitorServiceTest : public TransportTest {
protected:
    void SetUp() override {
        TransportTest::SetUp();
        MemoryCacheUtility::resetShared();
        const auto certificates = makeTestCertificates(dir.path(), {"IP:127.0.0.1"});
        server = std::make_unique<LoopbackServer>(certificates.servers[0]);
        platform::HttpClientOptions options;
        options.caFile = certificates.authority.string();
        useHttpClient(options);
        // customProtocol "http" is not consulted: the monitor always uses https.
        configure(trackConfig(hostPort(server->port()), "http", true, "tok-monitor"));
    }
    void TearDown() override {
        server.reset();
        MemoryCacheUtility::resetShared();
        TransportTest::TearDown();
    }
    std::unique_ptr<LoopbackServer> server;
};

TEST_F(MonitorServiceTest, WithoutDebugCodeNothingIsSent) {
    TagCache::shared().addOrReplace(Tag::makeInfo("AD01", "push", 1, true));
    MonitorService::shared()->sendMonitorRequest().get();
    EXPECT_TRUE(server->requests().empty());
    EXPECT_EQ(TagCache::shared().tags().size(), 1u);
}

TEST_F(MonitorServiceTest, PostsTheCachedTagsOverHttpsWithoutTheToken) {
    const Tag first = Tag::makeInfo("AI01", "init", 1, true), second = Tag::makeInfo("AD01", "push", 2, true);
    TagCache::shared().addOrReplace(first);
    TagCache::shared().addOrReplace(second);
    MonitorService::shared()->setDebugCode("dbg-1");
    MonitorService::shared()->sendMonitorRequest().get();
    const auto requests = server->requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].target, "/monitor");
    EXPECT_EQ(requests[0].header("Content-Type"), "application/json");
    EXPECT_EQ(requests[0].header("Authorization"), std::nullopt);
    EXPECT_EQ(requests[0].body,
              R"({"debugid":"dbg-1","consent":{},"docs":{},"state":"","eventDocumentId":"","tags":[)" +
                  encodeJsonText(first) + "," + encodeJsonText(second) + "]}");
    EXPECT_TRUE(TagCache::shared().tags().empty());
}

// The tags wait for the next report when the server refuses this one or cannot be reached.
TEST_F(MonitorServiceTest, FailedReportKeepsTheTags) {
    RefusingPort refusing;
    MonitorService::shared()->setDebugCode("dbg-1");
    for (int status : {404, 302, 0}) {
        SCOPED_TRACE(status);
        if (status == 0) configure(trackConfig(hostPort(refusing.port())));
        server->respondWith(ScriptedResponse{status, {}, ""});
        TagCache::shared().addOrReplace(Tag::makeInfo("AD01", "push", status, true));
        log.sink->clear();
        MonitorService::shared()->sendMonitorRequest().get();
        EXPECT_EQ(TagCache::shared().tags().size(), status == 404 ? 1u : status == 302 ? 2u : 3u);
        EXPECT_TRUE(
            log.sink->messages(platform::LogType::error).at(0).starts_with("Failed to send /monitor request: "));
    }
}

}  // namespace
}  // namespace tavrin::testing
