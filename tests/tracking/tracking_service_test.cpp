// Tests of the tracking service start from a configured SDK on a fresh store
// directory, with fixed device facts, an empty memory cache and no service.
// The concurrent push test runs under ThreadSanitizer as well.
#include "tavrin/tracking/tracking_service.h"

#include <gtest/gtest.h>
#include <set>

#include <atomic>
#include <chrono>
#include <cmath>
#include <future>
#include <limits>
#include <set>
#include <thread>

#include "tavrin/monitor/internal/device_info_utility.h"
#include "tavrin/monitor/internal/memory_cache_utility.h"
#include "tavrin/monitor/internal/tag_cache.h"
#include "tavrin/platform/internal/json.h"
#include "tavrin/tracking/internal/product_data.h"
#include "tavrin/tracking/internal/tracking_service_internals.h"
#include "tests/consent/store_fixture.h"
#include "tests/support/recording_service.h"

namespace tavrin {
namespace {

using Internals = detail::TrackingServiceInternals;
using Lines = std::vector<std::string>;
using Properties = std::map<std::string, CodableValue>;
using Enrichments = std::map<std::string, Enrichment>;

constexpr const char* kNotInitialized =
    "TrackingService is not initialized. Call TavrinService.configure(with:) first.";

CodableValue str(const char* text) { return CodableValue::string(text); }

// Push limits for one test (they are the process's), the defaults again after it.
struct PushLimitsFor {
    explicit PushLimitsFor(PushLimits limits) { TrackingService::setPushLimits(limits); }
    ~PushLimitsFor() { TrackingService::setPushLimits({}); }
};

DeviceFactsSource fixedDeviceFacts() {
    const auto text = [](const char* value) { return [value] { return std::optional<std::string>(value); }; };
    DeviceFactsSource source{.model = text("Test Model"),
                             .systemName = text("Linux"),
                             .systemVersion = text("12.5"),
                             .machine = text("x86_64")};
    source.infoDictionaryString = [](std::string_view key) -> std::optional<std::string> {
        if (key == "CFBundleName") return "Shop";
        if (key == "CFBundleShortVersionString") return "2.1";
        if (key == "CFBundleVersion") return "77";
        return std::nullopt;
    };
    source.currentLocale = [] { return platform::LocaleCodes{"de", "AT"}; };
    source.screenBounds = [] { return std::optional<platform::ScreenBounds>({390.7, 844.2}); };
    return source;
}

// The device keys as the fixed facts give them (the random device id aside).
const Properties kDevice{{"app_device_brand", str("Apple")},
                         {"app_device_model", str("Test Model")},
                         {"app_device_os", str("Linux")},
                         {"app_device_os_version", str("12.5")},
                         {"app_device_language", str("de")},
                         {"app_device_region", str("AT")},
                         {"app_device_width", str("390")},
                         {"app_device_height", str("844")},
                         {"app_device_carrier", str("Unknown")},
                         {"app_device_network_type", str("Unknown")},
                         {"app_application_name", str("Shop")},
                         {"app_application_version", str("2.1")},
                         {"app_application_build_number", str("77")}};

Properties withDevice(Properties pushed) {
    for (const auto& [key, value] : kDevice) pushed.insert_or_assign(key, value);
    return pushed;
}

// The stored properties without the device id, which must be a UUID.
Properties withoutDeviceId(Properties properties) {
    EXPECT_EQ(properties.at("app_device_id").asString().size(), 36u);
    properties.erase("app_device_id");
    return properties;
}

class TrackingServiceTest : public testing::StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        DeviceInfoUtility::setFactsSource(fixedDeviceFacts());
        MemoryCacheUtility::resetShared();
        TrackingSettings::configure(testing::fullConfig("shop-app"));
        log.sink->clear();
    }
    void TearDown() override {
        TrackingService::resetInstance();
        MemoryCacheUtility::resetShared();
        DeviceInfoUtility::reset();
        StoreTest::TearDown();
    }

    std::shared_ptr<TrackingService> start() { return detail::TrackingServiceInternals::initialize(transport); }

    // Pushes already made have been processed and their writes applied.
    static void settle(const TrackingService& service) {
        Internals::waitForPendingPushes(service);
        MemoryCacheUtility::shared().drain();
    }

    // A push whose track is no text and whose device key loses to the device,
    // then one with track, type and a dictionary the properties leave out.
    void pushTwo(TrackingService& service) {
        service.push({{"track", 5}, {"price", 9.99}, {"app_device_model", "Mine"}, {"app_device_brand", 1}});
        service.push({{"track", "pageview"},
                      {"type", "view"},
                      {"qty", 3},
                      {"nested", AnyValue::Dictionary{{"b", 1}, {"a", nullptr}}}});
        settle(service);
    }

    std::shared_ptr<testing::RecordingService> transport = std::make_shared<testing::RecordingService>();
};

TEST_F(TrackingServiceTest, SharedAfterAResetFailsWithNotInitialized) {
    const auto service = start();
    EXPECT_EQ(TrackingService::shared(), service);
    TrackingService::resetInstance();
    log.sink->clear();
    try {
        TrackingService::shared();
        ADD_FAILURE() << "no error";
    } catch (const TrackingServiceError& e) {
        EXPECT_EQ(e.code(), TrackingServiceError::Code::notInitialized);
        EXPECT_STREQ(e.what(), kNotInitialized);
    }
    EXPECT_EQ(log.sink->messages(platform::LogType::error), Lines{kNotInitialized});
}

TEST_F(TrackingServiceTest, PushStoresItsConvertedPropertiesUnderTheDeviceFacts) {
    pushTwo(*start());
    const auto payloads = MemoryCacheUtility::shared().getPushPayloads();
    ASSERT_EQ(payloads.size(), 2u);
    EXPECT_EQ(payloads[0].track, "defaultTrackCommand");
    EXPECT_EQ(payloads[0].type, "defaultDependencyType");
    EXPECT_EQ(withoutDeviceId(payloads[0].properties()), withDevice({{"price", CodableValue::decimalNumber(9.99)}}));
    EXPECT_EQ(payloads[1].track, "pageview");
    EXPECT_EQ(payloads[1].type, "view");
    EXPECT_EQ(withoutDeviceId(payloads[1].properties()), withDevice({{"qty", CodableValue::integer(3)}}));
    for (const auto& p : payloads) EXPECT_EQ(p.id.find_first_of("abcdef"), std::string::npos) << p.id;
    EXPECT_NE(payloads[0].id, payloads[1].id);
}

TEST_F(TrackingServiceTest, PushAddsATagShowingTheDictionaryAsPushed) {
    pushTwo(*start());
    // Keys sorted, and the command only when the pushed track is text.
    const auto tags = TagCache::shared().tags();
    ASSERT_EQ(tags.size(), 2u);
    EXPECT_EQ(tags[0].name,
              "T-SDK: [TAVRIN DL] - [AD01] Received SDK.push() - Command:  | Data: "
              R"({"app_device_brand":1,"app_device_model":"Mine","price":9.99,"track":5})");
    EXPECT_EQ(tags[1].name,
              "T-SDK: [TAVRIN DL] - [AD01] Received SDK.push() - Command: pageview | Data: "
              R"({"nested":{"a":null,"b":1},"qty":3,"track":"pageview","type":"view"})");
    EXPECT_EQ(log.sink->count("Added or replaced tag with id: " + tags[1].name), 1u);
    const Json tag = tags[1].encode();
    EXPECT_EQ(std::tuple(tag["id"], tag["source"], tag["type"], tag["trigger"]["executed"]),
              std::tuple("AD01", "frontend", "info", true));
    EXPECT_GT(tags[0].timestamp, 1'600'000'000'000);
}

TEST_F(TrackingServiceTest, ProductPushesGoIntoParallelArraysInsteadOfTheirPayload) {
    const auto service = start();
    service->push({{"track", "product"}, {"type", "addtocart"}, {"sku", "A"}, {"price", 1.5}});
    service->push({{"track", "product"}, {"sku", "B"}, {"qty", 2}});
    settle(*service);

    EXPECT_EQ(MemoryCacheUtility::shared().get<ProductData>(kProductDataKey),
              (ProductData{{"product_track", {str("product"), str("product")}},
                           {"product_type", {str("addtocart"), str("defaultDependencyType")}},
                           {"sku", {str("A"), str("B")}},
                           {"price", {CodableValue::decimalNumber(1.5)}},
                           {"qty", {CodableValue::integer(2)}}}));
    const auto payloads = MemoryCacheUtility::shared().getPushPayloads();
    ASSERT_EQ(payloads.size(), 2u);
    for (const auto& p : payloads) EXPECT_EQ(withoutDeviceId(p.properties()), kDevice);
}

TEST_F(TrackingServiceTest, PushWithoutAJsonFormIsStoredWithoutATag) {
    const auto service = start();
    service->push({{"track", "odd"}, {"value", std::chrono::system_clock::now()}, {"n", 1}});
    settle(*service);
    EXPECT_EQ(MemoryCacheUtility::shared().getPushPayloads().size(), 1u);
    EXPECT_TRUE(TagCache::shared().tags().empty());
    EXPECT_EQ(log.sink->messages(platform::LogType::error), Lines{"Failed to stringify push data"});
}

TEST_F(TrackingServiceTest, OrderCountsThePushesOfTheProcessAcrossResets) {
    // Each test runs in its own process, so these are the process's first pushes.
    start()->push({{"track", "a"}});
    settle(*TrackingService::shared());
    TrackingService::resetInstance();
    const auto second = start();
    second->push({{"track", "b"}});
    settle(*second);
    const auto payloads = MemoryCacheUtility::shared().getPushPayloads();
    ASSERT_EQ(payloads.size(), 2u);
    EXPECT_EQ(payloads[0].order, 1);
    EXPECT_EQ(payloads[1].order, 2);
}

TEST_F(TrackingServiceTest, PushesStillQueuedWhenTheServiceIsDroppedAreDiscarded) {
    // The first push stops inside its device snapshot until released.
    std::atomic<int> snapshots{0};
    std::promise<void> entered, release;
    const std::shared_future<void> released = release.get_future().share();
    auto facts = fixedDeviceFacts();
    facts.currentLocale = [&] {
        if (++snapshots == 1) entered.set_value();
        released.wait();
        return platform::LocaleCodes{"de", "AT"};
    };
    DeviceInfoUtility::setFactsSource(facts);
    auto service = start();
    service->push({{"track", "first"}});
    service->push({{"track", "second"}});
    entered.get_future().wait();
    service.reset();
    TrackingService::resetInstance();
    release.set_value();

    // The push under way completes; the waiting one finds its service gone.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (MemoryCacheUtility::shared().getPushPayloads().empty() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const auto payloads = MemoryCacheUtility::shared().getPushPayloads();
    ASSERT_EQ(payloads.size(), 1u);
    EXPECT_EQ(payloads[0].track, "first");
    EXPECT_EQ(snapshots, 1);
}

TEST_F(TrackingServiceTest, ConcurrentPushesAreEachStoredOnceInGaplessOrder) {
    LoggerUtility::shared().setLogLevel(LogLevel::warning);  // 10,000 pushes' worth of lines would only slow it
    PushLimitsFor limits({.maxPushes = 10'000, .maxBytes = 64u << 20});  // all of them are kept
    const auto service = start();
    constexpr int kThreads = 4, kPerThread = 2500;
    // The monitor empties the tag list now and then, as after each submission.
    std::atomic<bool> pushing{true};
    std::thread monitor([&] {
        for (; pushing.load(); std::this_thread::sleep_for(std::chrono::milliseconds(1)))
            MemoryCacheUtility::shared().remove(TagCache::shared().userDefaultsKey);
    });
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (++ready; ready.load() < kThreads;) std::this_thread::yield();
            for (int i = 0; i < kPerThread; ++i) service->push({{"track", "t" + std::to_string(t)}, {"i", i}});
        });
    }
    for (auto& thread : threads) thread.join();
    settle(*service);
    pushing = false;
    monitor.join();

    // Stored in the order they were numbered, each thread's in its call order:
    // with the count, nothing is lost and nothing stored twice.
    const auto payloads = MemoryCacheUtility::shared().getPushPayloads();
    ASSERT_EQ(payloads.size(), std::size_t{kThreads * kPerThread});
    std::vector<std::int64_t> lastOfThread(kThreads, -1);
    for (std::size_t n = 0; n < payloads.size(); ++n) {
        const auto& p = payloads[n];
        EXPECT_EQ(p.order, static_cast<std::int64_t>(n) + 1);
        const auto i = p.customProperties.at("i").asInteger();
        EXPECT_GT(i, std::exchange(lastOfThread.at(p.track[1] - '0'), i)) << p.track;
    }
    EXPECT_EQ(lastOfThread, std::vector<std::int64_t>(kThreads, kPerThread - 1));
}

TEST_F(TrackingServiceTest, DeviceFactsChangingBetweenPushesReachTheNextPushAndTheSubmissionSendsTheFirst) {
    auto width = std::make_shared<std::atomic<double>>(390);
    auto source = fixedDeviceFacts();
    source.screenBounds = [width] { return std::optional<platform::ScreenBounds>({width->load(), 844}); };
    DeviceInfoUtility::setFactsSource(source);
    const auto service = start();
    service->push({{"a", 1}, {"app_device_width", "mine"}});
    settle(*service);
    width->store(1024);
    service->push({{"b", 2}, {"app_device_width", "mine"}});
    service->push({{"c", 3}});
    settle(*service);

    const auto payloads = MemoryCacheUtility::shared().getPushPayloads();
    ASSERT_EQ(payloads.size(), 3u);
    EXPECT_EQ(payloads[0].property("app_device_width")->asString(), "390");
    EXPECT_EQ(payloads[1].property("app_device_width")->asString(), "1024");
    EXPECT_EQ(payloads[2].property("app_device_width")->asString(), "1024");
    std::set<std::string> deviceIds;
    for (const auto& payload : payloads) deviceIds.insert(payload.property("app_device_id")->asString());
    EXPECT_EQ(deviceIds.size(), 3u);
    // Enrichments read the latest push.
    service->addEnrichment("screen", {{"width", "app_device_width"}}, {});
    EXPECT_EQ(Internals::enrichmentsForSubmission(*service)->at("screen").arguments.at("width"), str("1024"));

    service->submit().get();
    const auto submissions = transport->submissions();
    ASSERT_EQ(submissions.size(), 1u);
    auto sent = submissions[0].data.variables.customProperties;
    EXPECT_EQ(sent.at("app_device_id"), *payloads[0].property("app_device_id"));
    EXPECT_EQ(withoutDeviceId(sent),
              withDevice(
                  {{"a", CodableValue::integer(1)}, {"b", CodableValue::integer(2)}, {"c", CodableValue::integer(3)}}));
}

TEST_F(TrackingServiceTest, EnrichmentArgumentsResolveLatestPushThenProductDataThenText) {
    const auto service = start();
    // Not awaited: addEnrichment waits for the pushes made before it.
    service->push({{"productId", "A"}, {"shared", "from push"}});
    service->push({{"track", "product"}, {"items", 1}, {"shared", "from product"}, {"productId", "P"}});
    service->push({{"productId", "B"}, {"flags", AnyValue::Array{true}}});
    service->addEnrichment("geo",
                           {{"sku", "productId"},
                            {"items", "items"},
                            {"both", "shared"},
                            {"list", "flags"},
                            {"literal", "nothing holds this"},
                            {"n", 3},
                            {"ratio", 2.5},
                            {"flag", true},
                            {"names", AnyValue::Array{"a", "b"}},
                            // Dropped: not a text-only array, no JSON form, no case for it.
                            {"mixed", AnyValue::Array{"a", 1}},
                            {"when", std::chrono::system_clock::now()},
                            {"inf", std::numeric_limits<double>::infinity()},
                            {"nan", std::nan("")},
                            {"dict", AnyValue::Dictionary{{"a", 1}}},
                            {"none", nullptr}},
                           {"region"});

    const Enrichment expected{{{"sku", str("B")},
                               {"items", CodableValue::array({CodableValue::integer(1)})},
                               {"both", str("from push")},
                               {"list", CodableValue::array({CodableValue::boolean(true)})},
                               {"literal", str("nothing holds this")},
                               {"n", CodableValue::decimalNumber(3.0)},
                               {"ratio", CodableValue::decimalNumber(2.5)},
                               {"flag", CodableValue::boolean(true)},
                               {"names", CodableValue::array({str("a"), str("b")})}},
                              {"region"}};
    EXPECT_EQ(Internals::enrichmentsForSubmission(*service), (Enrichments{{"geo", expected}}));
}

TEST_F(TrackingServiceTest, EnrichmentWithoutPluginIdIsRefusedWithAnError) {
    const auto service = start();
    service->addEnrichment(std::nullopt, {{"a", "b"}}, {"x"});
    EXPECT_EQ(log.sink->messages(platform::LogType::error), Lines{"Plugin ID is missing. Cannot add enrichment."});
    EXPECT_EQ(Internals::enrichmentsForSubmission(*service), std::nullopt);
}

TEST_F(TrackingServiceTest, EnrichmentReplacesAnEarlierOneOfTheSamePlugin) {
    const auto service = start();
    service->addEnrichment("geo", {{"a", 1}}, {"x"});
    service->addCustomEnrichment("geo", {{"b", CodableValue::boolean(true)}}, {"y"});
    service->addEnrichment("plug", {}, {});
    EXPECT_EQ(Internals::enrichmentsForSubmission(*service),
              (Enrichments{{"geo", Enrichment{{{"b", CodableValue::boolean(true)}}, {"y"}}}, {"plug", Enrichment{}}}));
}

TEST_F(TrackingServiceTest, CustomEnrichmentKeepsItsArgumentsUnderTheContainerByDefault) {
    const auto service = start();
    // Not resolved: the integer stays an integer, the text is no property name.
    service->push({{"k", "pushed"}});
    settle(*service);
    service->addCustomEnrichment(std::nullopt, {{"k", CodableValue::integer(1)}, {"t", str("k")}}, {"v"});
    EXPECT_EQ(Internals::enrichmentsForSubmission(*service),
              (Enrichments{{"shop-app", Enrichment{{{"k", CodableValue::integer(1)}, {"t", str("k")}}, {"v"}}}}));
}

// `levels` arrays (or dictionaries under "in") around the text "bottom",
// built without recursion.
AnyValue nested(int levels, bool dictionaries) {
    AnyValue value = "bottom";
    for (int i = 0; i < levels; ++i) {
        if (dictionaries) {
            AnyValue::Dictionary outer;
            outer.emplace("in", std::move(value));
            value = AnyValue(std::move(outer));
        } else {
            AnyValue::Array outer;
            outer.push_back(std::move(value));
            value = AnyValue(std::move(outer));
        }
    }
    return value;
}

CodableValue nestedArrays(int levels) {
    CodableValue value = CodableValue::string("bottom");
    for (int i = 0; i < levels; ++i) {
        CodableValue::Array outer;
        outer.push_back(std::move(value));
        value = CodableValue::array(std::move(outer));
    }
    return value;
}

// Levels of single-element arrays or objects from `value` down, and what is at the bottom.
std::pair<int, Json> unwrap(Json value) {
    int levels = 0;
    for (;; ++levels) {
        Json inner;
        if (value.is_array() && value.size() == 1)
            inner = value[0];
        else if (value.is_object() && value.contains("in"))
            inner = value["in"];
        else
            return {levels, value};
        value = std::move(inner);
    }
}

TEST_F(TrackingServiceTest, ValuesNestedPastTheJsonLimitAreDroppedAndTheHostRunsOn) {
    PushLimitsFor limits({.maxBytes = 256u << 20});  // 100,000 levels take megabytes
    auto service = start();
    AnyValue::Dictionary push{{"track", "deep"}, {"kept", 1}};
    push.emplace("arrays", nested(100'000, false));
    push.emplace("dictionaries", nested(100'000, true));
    push.emplace("fits", nested(511, false));  // with the push itself 512 levels, the most JSON carries
    service->push(std::move(push));
    // Moved in, not copied from an initializer list: a copy of 100,000 levels is the test's own deep recursion.
    std::map<std::string, CodableValue> deepArguments;
    deepArguments.emplace("deep", nestedArrays(100'000));
    deepArguments.emplace("flat", CodableValue::string("x"));
    service->addCustomEnrichment("plugin", std::move(deepArguments), {});
    AnyValue::Dictionary product{{"sku", "A1"}};
    product.emplace("deep", nested(100'000, true));
    service->addToCart(std::move(product)).get();

    const auto submissions = transport->submissions();
    ASSERT_EQ(submissions.size(), 1u);
    const auto& sent = submissions[0].data;
    // Arrays keep their scalar elements only, so the nested ones are gone; a
    // dictionary is no property at all.
    const auto& properties = sent.variables.customProperties;
    EXPECT_EQ(properties.at("kept"), CodableValue::integer(1));
    EXPECT_EQ(properties.at("arrays"), CodableValue::array({}));
    EXPECT_FALSE(properties.contains("dictionaries"));
    EXPECT_EQ(properties.at("sku"), CodableValue::array({CodableValue::string("A1")}));
    const auto& arguments = sent.enrichment.value().at("plugin").arguments;
    EXPECT_EQ(arguments.at("flat"), CodableValue::string("x"));
    EXPECT_EQ(unwrap(encodeJson(arguments.at("deep"))), std::make_pair(510, Json::array()));

    // The push's debug tag shows everything up to the limit, and JSON can read it back.
    std::optional<Json> shown;
    for (const auto& tag : TagCache::shared().tags()) {
        const auto at = tag.name.find("Command: deep | Data: ");
        if (tag.id == "AD01" && at != std::string::npos) shown = platform::parseJson(tag.name.substr(at + 22));
    }
    ASSERT_TRUE(shown);
    EXPECT_EQ(unwrap((*shown)["arrays"]), std::make_pair(510, Json::array()));
    EXPECT_EQ(unwrap((*shown)["dictionaries"]), std::make_pair(510, Json::object()));
    EXPECT_EQ(unwrap((*shown)["fits"]), std::make_pair(511, Json("bottom")));
    for (const char* entry : {"custom property arrays.", "custom property dictionaries.", "custom property deep.",
                              "enrichment argument deep."})
        EXPECT_EQ(log.sink->count(std::string("Warning: Values nested deeper than 512 levels dropped from ") + entry),
                  1u)
            << entry;
    EXPECT_EQ(log.sink->count("Warning: Values nested deeper than 512 levels dropped from custom property fits."), 0u);
}

// A host pushing without submitting keeps the newest pushes within the limits
// (waiting or processed alike); the rest are counted, with one warning until a
// submit. Over-long texts are left out of their push.
TEST_F(TrackingServiceTest, PushesPastTheLimitsDropTheOldestWithACountAndOneWarningPerEpisode) {
    PushLimitsFor limits({.maxPushes = 5, .maxBytes = 1u << 20, .maxTextBytes = 16});
    const auto service = start();
    const auto warnings = [&] {
        std::size_t n = 0;
        for (const auto& line : log.sink->messages(platform::LogType::error))
            n += line.find("the oldest are dropped until the next submit") != std::string::npos;
        return n;
    };
    const auto kept = [&] {
        settle(*service);
        std::vector<std::int64_t> numbers;
        for (const auto& p : MemoryCacheUtility::shared().getPushPayloads())
            numbers.push_back(p.customProperties.contains("n") ? p.customProperties.at("n").asInteger() : -1);
        return numbers;
    };
    const auto dropped = TrackingService::droppedPushCount();

    for (int n = 0; n < 20; ++n) service->push({{"n", n}, {"note", std::string(n == 19 ? 17 : 16, 'x')}});
    EXPECT_EQ(kept(), (std::vector<std::int64_t>{15, 16, 17, 18, 19}));
    EXPECT_EQ(TrackingService::droppedPushCount() - dropped, 15u);
    EXPECT_EQ(warnings(), 1u);
    const auto last = MemoryCacheUtility::shared().getPushPayloads().back().properties();
    EXPECT_FALSE(last.contains("note"));
    EXPECT_EQ(log.sink->count("Warning: Text longer than 16 bytes dropped from custom property note."), 1u);

    // By bytes: 20 pushes of 1,000-byte texts within 10,000 bytes keep the newest few.
    service->submit().get();
    EXPECT_EQ(transport->submissions().size(), 1u);
    TrackingService::setPushLimits({.maxPushes = 1000, .maxBytes = 10'000, .maxTextBytes = 1000});
    for (int n = 0; n < 20; ++n) service->push({{"n", n}, {"note", std::string(1000, 'y')}});
    const auto newest = kept();
    ASSERT_FALSE(newest.empty());
    EXPECT_LT(newest.size(), 10u);
    EXPECT_EQ(newest.back(), 19);
    EXPECT_EQ(newest.front(), 20 - static_cast<std::int64_t>(newest.size()));
    EXPECT_EQ(TrackingService::droppedPushCount() - dropped, 15u + 20u - newest.size());
    EXPECT_EQ(warnings(), 2u);  // a new episode after the submit
}
}  // namespace
}  // namespace tavrin
