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
        platform::CurlHttpClient::Options options;
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

TEST_F(MonitorServiceTest, WithoutDebugCodeNothingIsSentOrLogged) {
    TagCache::shared().addOrReplace(Tag::makeInfo("AD01", "push", 1, true));
    log.sink->clear();
    MonitorService::shared()->sendMonitorRequest().get();
    EXPECT_TRUE(server->requests().empty());
    EXPECT_TRUE(log.sink->messages().empty());
    EXPECT_EQ(TagCache::shared().tags().size(), 1u);
}

TEST_F(MonitorServiceTest, PostsTheCachedTagsOverHttpsAndClearsThemOnlyOnSuccess) {
    auto monitor = MonitorService::shared();
    monitor->setDebugCode("dbg-1");
    monitor->sendMonitorRequest().get();  // nothing cached: an empty list goes out
    ASSERT_EQ(server->requests().size(), 1u);
    EXPECT_EQ(server->requests()[0].body,
              R"({"debugid":"dbg-1","consent":{},"docs":{},"state":"","eventDocumentId":"","tags":[]})");

    const Tag first = Tag::makeInfo("AI01", "init", 1, true), second = Tag::makeInfo("AD01", "push", 2, true);
    TagCache::shared().addOrReplace(first);
    TagCache::shared().addOrReplace(second);
    server->respondWith(ScriptedResponse{404, {}, ""});
    log.sink->clear();
    monitor->sendMonitorRequest().get();
    EXPECT_EQ(log.sink->messages(platform::LogType::error),
              std::vector<std::string>{std::string("Failed to send /monitor request: ") +
                                       Service::ServiceError(Service::ServiceError::Code::invalidResponse).what()});
    EXPECT_EQ(TagCache::shared().tags(), (std::vector<Tag>{first, second}));

    server->respondWith(ScriptedResponse{200, {}, ""});
    monitor->sendMonitorRequest().get();
    EXPECT_TRUE(log.sink->contains("/monitor request sent successfully. Cache cleared."));
    EXPECT_TRUE(TagCache::shared().tags().empty());
    const auto requests = server->requests();
    ASSERT_EQ(requests.size(), 3u);
    const auto& sent = requests[2];
    EXPECT_EQ(sent.method, "POST");
    EXPECT_EQ(sent.target, "/monitor");
    EXPECT_EQ(sent.header("Content-Type"), "application/json");
    EXPECT_EQ(sent.header("Authorization"), std::nullopt);
    const Json body = Json::parse(sent.body);
    ASSERT_EQ(body["tags"].size(), 2u);
    EXPECT_EQ(body["tags"][0], first.encode());
    EXPECT_EQ(body["tags"][1], second.encode());

    // A transport failure keeps the tags too.
    TagCache::shared().addOrReplace(first);
    RefusingPort refusing;
    configure(trackConfig(hostPort(refusing.port()), "https"));
    monitor->sendMonitorRequest().get();
    EXPECT_EQ(TagCache::shared().tags().size(), 1u);
}

}  // namespace
}  // namespace tavrin::testing
