// Requests in flight are bounded and overlap: a walk keeps a window of resends
// out (consent reports go alone, in order), the transport hands the HTTP client
// at most six requests at a time, and what arrives together is written to the
// store in one transaction.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>

#include "tavrin/transport/internal/request_window.h"
#include "tests/support/transport_fixture.h"

namespace tavrin::testing {
namespace {

using namespace std::chrono_literals;
using Type = OfflineCache::RequestType;

std::string markOf(const std::string& body) {
    const Json json = Json::parse(body);
    return json["data"].contains("variables") ? json["data"]["variables"]["mark"].get<std::string>()
                                              : json["data"]["consent"]["vendors"].begin().key();
}

// Passes requests to a real client, counting how many it holds at once.
class CountingClient final : public platform::HttpClient {
public:
    explicit CountingClient(std::shared_ptr<platform::HttpClient> inner) : inner_(std::move(inner)) {}
    using HttpClient::send;
    void send(platform::HttpRequest request, Completion completion) override {
        const int now = ++held;
        for (int seen = peak.load(); now > seen && !peak.compare_exchange_weak(seen, now);) {
        }
        inner_->send(std::move(request), [this, completion = std::move(completion)](platform::HttpResult result) {
            --held;
            completion(std::move(result));
        });
    }
    std::atomic<int> held{0}, peak{0};

private:
    std::shared_ptr<platform::HttpClient> inner_;
};

// When each request arrived and when its answer was given, in order.
struct Timeline {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> events;
    void add(std::string event) {
        std::lock_guard lock(mutex);
        events.push_back(std::move(event));
        changed.notify_all();
    }
    long at(const std::string& event) {
        std::lock_guard lock(mutex);
        return std::find(events.begin(), events.end(), event) - events.begin();
    }
};

class ResendWindowTest : public TransportTest {
protected:
    void cache(Type type, const std::string& body) {
        std::promise<void> done;
        OfflineCacheManager::shared()->cacheRequest(type, platform::toBytes(body), [&] { done.set_value(); });
        done.get_future().get();
    }
    std::string consentFor(const std::string& vendor) {
        auto consent = sampleConsent();
        consent.data.consent.vendors = {{vendor, VendorValue::boolean(true)}};
        return encodeJsonText(consent);
    }
};

TEST_F(ResendWindowTest, DataResendsOverlapAndAConsentReportGoesAloneInItsPlace) {
    LoopbackServer server;
    Timeline timeline;
    server.setHandler([&](const RecordedRequest& request) {
        const std::string mark = markOf(request.body);
        timeline.add("start " + mark);
        // d1 is answered only once d2 is out too: a walk that awaited each
        // answer would never send it. (d0 first: a walk starts with one
        // request out and widens as answers succeed.)
        if (mark == "d1") {
            std::unique_lock lock(timeline.mutex);
            timeline.changed.wait_for(
                lock, 10s, [&] { return std::count(timeline.events.begin(), timeline.events.end(), "start d2") > 0; });
        }
        std::this_thread::sleep_for(5ms);
        timeline.add("end " + mark);
        return ScriptedResponse{};
    });
    configure(trackConfig(hostPort(server.port())));
    const std::vector<std::pair<Type, std::string>> order{{Type::dataSubmission, "d0"}, {Type::dataSubmission, "d1"},
                                                          {Type::dataSubmission, "d2"}, {Type::consentSubmission, "c1"},
                                                          {Type::dataSubmission, "d3"}, {Type::consentSubmission, "c2"},
                                                          {Type::dataSubmission, "d4"}};
    for (const auto& [type, mark] : order)
        cache(type, type == Type::dataSubmission ? encodeJsonText(sampleSubmission(mark)) : consentFor(mark));
    OfflineCacheManager::shared()->resendCachedRequests().get();

    EXPECT_LT(timeline.at("start d2"), timeline.at("end d1")) << "the walk awaited each answer";
    // A consent report goes alone, between what was cached before and after it.
    for (const auto& [before, after] : std::vector<std::pair<std::string, std::string>>{
             {"d1", "c1"}, {"d2", "c1"}, {"c1", "d3"}, {"d3", "c2"}, {"c2", "d4"}})
        EXPECT_LT(timeline.at("end " + before), timeline.at("start " + after)) << before << " / " << after;
    EXPECT_EQ(server.requests().size(), order.size()) << "each sent once";
    EXPECT_TRUE(cached().empty());
    EXPECT_EQ(log.sink->count("dataSubmission request sent and removed from cache."), 5u);
    EXPECT_EQ(log.sink->count("consentSubmission request sent and removed from cache."), 2u);
}

TEST_F(ResendWindowTest, TheClientHoldsAtMostSixRequestsLiveAndResendsTogether) {
    LoopbackServer server;
    server.setHandler([](const RecordedRequest&) {
        std::this_thread::sleep_for(10ms);
        return ScriptedResponse{};
    });
    auto counting = std::make_shared<CountingClient>(client);
    monitorPath(platform::PathStatus::satisfied);
    configure(trackConfig(hostPort(server.port())));
    Service::shared()->setSession(counting);
    for (int i = 0; i < 20; ++i)
        cache(Type::dataSubmission, encodeJsonText(sampleSubmission("cached" + std::to_string(i))));
    auto walk = OfflineCacheManager::shared()->resendCachedRequests();
    std::vector<std::future<void>> live;
    for (int i = 0; i < 60; ++i)
        live.push_back(Service::shared()->sendDataSubmission(sampleSubmission(std::to_string(i))));
    for (auto& sent : live) sent.get();
    walk.get();
    EXPECT_LE(counting->peak, 6);
    EXPECT_EQ(server.requests().size(), 80u);
    EXPECT_TRUE(cached().empty());
}

TEST_F(ResendWindowTest, ARequestWhoseTimeRunsOutWhileWaitingFailsUnsent) {
    RawTcpServer silent;
    auto window = std::make_shared<detail::RequestWindow>(1);
    auto send = [&](double timeout) {
        platform::HttpRequest request;
        request.method = "POST";
        request.url = silent.baseUrl() + "/";
        request.timeoutSeconds = timeout;
        auto outcome = std::make_shared<std::promise<platform::HttpResult>>();
        window->send(client, request, std::make_shared<const Bytes>(platform::toBytes("{}")),
                     [outcome](platform::HttpResult result) { outcome->set_value(std::move(result)); });
        return outcome->get_future();
    };
    auto first = send(0.5);
    auto second = send(0.2);
    for (auto* outcome : {&first, &second}) {
        ASSERT_EQ(outcome->wait_for(20s), std::future_status::ready);
        EXPECT_THROW(std::move(*outcome).get().get(), platform::UrlError);
    }
    EXPECT_EQ(silent.received().size(), 1u) << "the second request was sent after its time";

    // Many waiting requests end without recursion when the client shuts down.
    std::vector<std::future<platform::HttpResult>> waiting;
    for (int i = 0; i < 5000; ++i) waiting.push_back(send(30));
    client->shutdown();
    for (auto& outcome : waiting) ASSERT_EQ(outcome.wait_for(20s), std::future_status::ready);
    EXPECT_EQ(window->inFlight() + window->waiting(), 0u);
}

// A real store whose first write is held until released.
struct HeldStore final : platform::KeyValueStore {
    explicit HeldStore(std::shared_ptr<platform::KeyValueStore> inner) : inner(std::move(inner)) {}
    bool set(const std::string& k, const Value& v) override { return inner->set(k, v); }
    std::optional<Value> value(const std::string& k) const override { return inner->value(k); }
    bool remove(const std::string& k) override { return inner->remove(k); }
    bool synchronize() override { return inner->synchronize(); }
    std::vector<KeySize> keySizes(std::string_view prefix) const override { return inner->keySizes(prefix); }
    bool apply(const std::vector<Change>& changes) override {
        if (writes++ == 0) released.wait();
        return inner->apply(changes);
    }
    std::shared_ptr<platform::KeyValueStore> inner;
    std::atomic<int> writes{0};
    std::shared_future<void> released;
};

TEST_F(ResendWindowTest, RequestsArrivingTogetherAreWrittenInOneTransaction) {
    std::promise<void> release;
    auto store = std::make_shared<HeldStore>(platform::os::openDefaultStore(dir.path()));
    store->released = release.get_future().share();
    OfflineCache cache(store);
    std::atomic<int> durable{0};
    auto add = [&](int i) {
        cache.add(OfflineCache::Request{Type::dataSubmission, platform::toBytes(std::to_string(i)), double(i), 0},
                  [&] { ++durable; });
    };
    add(0);
    ASSERT_TRUE(waitUntil([&] { return store->writes == 1; }));  // the first write is held
    for (int i = 1; i < 100; ++i) add(i);
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(durable, 0) << "told durable before the write";
    release.set_value();
    cache.drain();
    EXPECT_EQ(durable, 100);
    EXPECT_EQ(store->writes, 2) << "the 99 waiting additions were not written together";
    std::vector<std::uint64_t> all;
    for (const auto& entry : cache.entries()) all.push_back(entry.sequence);
    cache.removeEntries(all);
    cache.drain();
    EXPECT_EQ(store->writes, 3);
    EXPECT_TRUE(store->keySizes("com.tavrin.OfflineCache/").empty());
}

}  // namespace
}  // namespace tavrin::testing
