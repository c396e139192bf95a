#include "tavrin/tracking/tracking_service.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <thread>

#include "tavrin/tracking/internal/product_data.h"
#include "tests/tracking/tracking_service_fixture.h"

namespace tavrin {
namespace {

using testing::TrackingServiceTest;
using Internals = detail::TrackingServiceInternals;
using Lines = std::vector<std::string>;
using Properties = std::map<std::string, CodableValue>;

CodableValue str(const char* text) { return CodableValue::string(text); }

// The fourteen device keys as the fixture's facts give them (the id aside).
Properties deviceProperties(const PushPayload& payload) {
    Properties device = payload.customProperties;
    EXPECT_EQ(device.at("app_device_id").asString().size(), 36u);
    device.erase("app_device_id");
    return device;
}

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

Properties with(Properties base, const Properties& extra) {
    for (const auto& [k, v] : extra) base.insert_or_assign(k, v);
    return base;
}

TEST_F(TrackingServiceTest, SharedSlotInitializeAndReset) {
    const char* notInitialized = "TrackingService is not initialized. Call TavrinService.configure(with:) first.";
    const auto expectNotInitialized = [&] {
        log.sink->clear();
        try {
            TrackingService::shared();
            ADD_FAILURE() << "no error";
        } catch (const TrackingServiceError& e) {
            EXPECT_EQ(e.code(), TrackingServiceError::Code::notInitialized);
            EXPECT_STREQ(e.what(), notInitialized);
        }
        EXPECT_EQ(log.sink->messages(platform::LogType::error), Lines{notInitialized});
    };
    expectNotInitialized();

    const auto service = start();
    EXPECT_EQ(TrackingService::shared(), service);
    EXPECT_TRUE(log.sink->contains("TrackingService initialized successfully with container: shop-app"));
    EXPECT_EQ(Internals::service(*service), transport);
    EXPECT_EQ(Internals::userAgent(*service).substr(0, 15), "iOS; iPhone OS ");
    EXPECT_TRUE(Internals::userAgent(*service).ends_with("[TavrinSDK/v.1.0.18]"));

    // A second initialisation replaces the instance.
    const auto second = start();
    EXPECT_NE(second, service);
    EXPECT_EQ(TrackingService::shared(), second);

    log.sink->clear();
    TrackingService::resetInstance();
    EXPECT_EQ(log.sink->messages(platform::LogType::info), Lines{"TrackingService instance has been reset."});
    expectNotInitialized();

    const auto failed = TrackingServiceError::submissionFailed("timed out");
    EXPECT_EQ(failed.code(), TrackingServiceError::Code::submissionFailed);
    EXPECT_STREQ(failed.what(), "Data submission failed: timed out");
    EXPECT_EQ(failed.cause(), "timed out");
    EXPECT_STREQ(TrackingServiceError::configurationFailed().what(),
                 "Failed to configure TrackingService. Check the provided configuration.");
    EXPECT_EQ(TrackingServiceError::configurationFailed().code(), TrackingServiceError::Code::configurationFailed);
}

TEST_F(TrackingServiceTest, PushStoresConvertedPropertiesDeviceFactsAndATag) {
    const auto service = start();
    // A number under "track" is no track; pushed device keys lose to the device.
    service->push({{"track", 5}, {"price", 9.99}, {"app_device_model", "Mine"}, {"app_device_brand", 1}});
    service->push({{"track", "pageview"}, {"type", "view"}, {"qty", 3}, {"nested", AnyValue::Dictionary{{"b", 1}, {"a", nullptr}}}});
    settle(*service);

    const auto payloads = MemoryCacheUtility::shared().getPushPayloads();
    ASSERT_EQ(payloads.size(), 2u);
    EXPECT_EQ(payloads[0].track, "defaultTrackCommand");
    EXPECT_EQ(payloads[0].type, "defaultDependencyType");
    EXPECT_EQ(deviceProperties(payloads[0]), with(kDevice, {{"price", CodableValue::decimalNumber(9.99)}}));
    EXPECT_EQ(payloads[1].track, "pageview");
    EXPECT_EQ(payloads[1].type, "view");
    // Reserved keys and the dictionary are left out.
    EXPECT_EQ(deviceProperties(payloads[1]), with(kDevice, {{"qty", CodableValue::integer(3)}}));
    EXPECT_EQ(payloads[1].order, payloads[0].order + 1);
    for (const auto& p : payloads) {
        EXPECT_EQ(p.id.size(), 36u);
        EXPECT_EQ(p.id.find_first_of("abcdef"), std::string::npos) << p.id;
    }
    EXPECT_NE(payloads[0].id, payloads[1].id);
    EXPECT_NE(payloads[0].customProperties.at("app_device_id"), payloads[1].customProperties.at("app_device_id"));

    // The tag shows the dictionary as pushed, keys sorted, and only a text track.
    const auto tags = TagCache::shared().tags();
    ASSERT_EQ(tags.size(), 2u);
    EXPECT_EQ(tags[0].name, "T-SDK: [TAVRIN DL] - [AD01] Received SDK.push() - Command:  | Data: "
                            R"({"app_device_brand":1,"app_device_model":"Mine","price":9.99,"track":5})");
    EXPECT_EQ(tags[1].name, "T-SDK: [TAVRIN DL] - [AD01] Received SDK.push() - Command: pageview | Data: "
                            R"({"nested":{"a":null,"b":1},"qty":3,"track":"pageview","type":"view"})");
    EXPECT_EQ(tags[1].encode(), Tag::makeInfo("AD01", tags[1].name, tags[1].timestamp, true).encode());
    EXPECT_GT(tags[0].timestamp, 1'600'000'000'000);

    EXPECT_EQ(log.sink->count("Pushing data with track: defaultTrackCommand"), 1u);
    EXPECT_EQ(log.sink->count("Pushing data with track: pageview"), 1u);
    EXPECT_EQ(log.sink->count("AD01 push tag added to TagCache."), 2u);
    EXPECT_TRUE(log.sink->contains(R"({"nested":{"a":null,"b":1},"qty":3,"track":"pageview","type":"view"})"));
    EXPECT_TRUE(log.sink->messages(platform::LogType::error).empty());
}

TEST_F(TrackingServiceTest, ProductPushesBuildParallelArraysAndKeepOnlyDeviceFacts) {
    const auto service = start();
    service->push({{"track", "product"}, {"type", "addtocart"}, {"sku", "A"}, {"price", 1.5}});
    service->push({{"track", "product"}, {"sku", "B"}, {"qty", 2}});
    settle(*service);

    const auto product = MemoryCacheUtility::shared().get<ProductData>(kProductDataKey);
    ASSERT_TRUE(product.has_value());
    EXPECT_EQ(*product, (ProductData{{"product_track", {str("product"), str("product")}},
                                     {"product_type", {str("addtocart"), str("defaultDependencyType")}},
                                     {"sku", {str("A"), str("B")}},
                                     {"price", {CodableValue::decimalNumber(1.5)}},
                                     {"qty", {CodableValue::integer(2)}}}));
    const auto payloads = MemoryCacheUtility::shared().getPushPayloads();
    ASSERT_EQ(payloads.size(), 2u);
    for (const auto& p : payloads) {
        EXPECT_EQ(p.track, "product");
        EXPECT_EQ(deviceProperties(p), kDevice);
    }
    EXPECT_EQ(TagCache::shared().tags().size(), 2u);
}

TEST_F(TrackingServiceTest, PushWithoutJsonFormIsStoredWithoutATag) {
    const auto service = start();
    const AnyValue unserialisable[] = {AnyValue(std::chrono::system_clock::now()),
                                       AnyValue(std::numeric_limits<double>::quiet_NaN())};
    for (const auto& value : unserialisable) service->push({{"track", "odd"}, {"value", value}, {"n", 1}});
    settle(*service);

    const auto payloads = MemoryCacheUtility::shared().getPushPayloads();
    ASSERT_EQ(payloads.size(), 2u);
    EXPECT_EQ(deviceProperties(payloads[0]), with(kDevice, {{"n", CodableValue::integer(1)}}));
    EXPECT_TRUE(TagCache::shared().tags().empty());
    EXPECT_EQ(log.sink->messages(platform::LogType::error),
              (Lines{"Failed to stringify push data", "Failed to stringify push data"}));
    EXPECT_FALSE(log.sink->contains("AD01 push tag added to TagCache."));
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

TEST_F(TrackingServiceTest, PushesWaitingWhenTheServiceIsDroppedAreDiscarded) {
    // The first push stops inside its device snapshot until the gate opens.
    std::mutex mutex;
    std::condition_variable cv;
    bool open = false;
    int snapshots = 0;
    auto facts = testing::fixedDeviceFacts();
    facts.currentLocale = [&] {
        std::unique_lock lock(mutex);
        ++snapshots;
        cv.notify_all();
        cv.wait(lock, [&] { return open; });
        return platform::LocaleCodes{"de", "AT"};
    };
    DeviceInfoUtility::setFactsSource(facts);

    auto service = start();
    service->push({{"track", "first"}});
    service->push({{"track", "second"}});
    {
        std::unique_lock lock(mutex);
        cv.wait(lock, [&] { return snapshots == 1; });
    }
    service.reset();
    TrackingService::resetInstance();
    {
        std::lock_guard lock(mutex);
        open = true;
    }
    cv.notify_all();

    // The push under way completes; the waiting one finds its service gone.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (MemoryCacheUtility::shared().getPushPayloads().empty() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const auto payloads = MemoryCacheUtility::shared().getPushPayloads();
    ASSERT_EQ(payloads.size(), 1u);
    EXPECT_EQ(payloads[0].track, "first");
    std::lock_guard lock(mutex);
    EXPECT_EQ(snapshots, 1);
}

using TrackingServiceDeathTest = TrackingServiceTest;

TEST_F(TrackingServiceDeathTest, OrderOverflowStopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            const auto service = start();
            Internals::setLastPushOrderForTesting(std::numeric_limits<std::int64_t>::max() - 1);
            service->push({});
            service->push({});
            settle(*service);
        },
        "Push order overflow");
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
                            {"mixed", AnyValue::Array{"a", 1}},
                            {"when", std::chrono::system_clock::now()},
                            {"inf", std::numeric_limits<double>::infinity()},
                            {"nan", std::nan("")},
                            {"dict", AnyValue::Dictionary{{"a", 1}}},
                            {"none", nullptr}},
                           {"region"});

    const auto table = Internals::enrichmentsForSubmission(*service);
    ASSERT_TRUE(table.has_value());
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
    EXPECT_EQ(*table, (std::map<std::string, Enrichment>{{"geo", expected}}));
    EXPECT_TRUE(log.sink->contains("Resolved argument 'sku': string(\"B\")"));
    EXPECT_TRUE(log.sink->contains("Resolved argument 'n': decimalNumber(3.0)"));
    EXPECT_TRUE(log.sink->contains("Resolved argument 'when': string(\"\")"));
    EXPECT_TRUE(log.sink->contains("Successfully added enrichment for pluginId: geo with resolved arguments: "
                                   "[\"both\": string(\"from push\"), \"flag\": bool(true), "
                                   "\"items\": array([integer(1)]), \"list\": array([bool(true)]), "
                                   "\"literal\": string(\"nothing holds this\"), \"n\": decimalNumber(3.0), "
                                   "\"names\": array([string(\"a\"), string(\"b\")]), "
                                   "\"ratio\": decimalNumber(2.5), \"sku\": string(\"B\")]"));
}

TEST_F(TrackingServiceTest, EnrichmentTableReplacesByIdDefaultsToTheContainerAndResets) {
    const auto service = start();
    service->addEnrichment(std::nullopt, {{"a", "b"}}, {"x"});
    EXPECT_EQ(log.sink->messages(platform::LogType::error), Lines{"Plugin ID is missing. Cannot add enrichment."});
    EXPECT_TRUE(log.sink->contains("Resolved argument 'a': string(\"b\")"));
    EXPECT_EQ(Internals::enrichmentsForSubmission(*service), std::nullopt);

    service->addEnrichment("geo", {{"a", 1}}, {"x"});
    service->addEnrichment("geo", {{"b", true}}, {"y"});
    // Custom arguments go as given: the integer stays an integer.
    service->addCustomEnrichment(std::nullopt, {{"k", CodableValue::integer(1)}}, {"v"});
    EXPECT_TRUE(log.sink->contains("Added custom enrichment with pluginId: shop-app"));
    service->addCustomEnrichment("plug", {}, {});
    service->addCustomEnrichment("plug", {{"z", str("z")}}, {"w"});
    EXPECT_EQ(Internals::enrichmentsForSubmission(*service),
              (std::map<std::string, Enrichment>{
                  {"geo", Enrichment{{{"b", CodableValue::boolean(true)}}, {"y"}}},
                  {"plug", Enrichment{{{"z", str("z")}}, {"w"}}},
                  {"shop-app", Enrichment{{{"k", CodableValue::integer(1)}}, {"v"}}}}));

    log.sink->clear();
    Internals::resetEnrichments(*service);
    EXPECT_EQ(log.sink->messages(platform::LogType::info), Lines{"Enrichments have been reset"});
    EXPECT_EQ(Internals::enrichmentsForSubmission(*service), std::nullopt);

    // A new service starts with an empty table.
    service->addEnrichment("geo", {}, {});
    EXPECT_EQ(Internals::enrichmentsForSubmission(*start()), std::nullopt);
}

}  // namespace
}  // namespace tavrin
