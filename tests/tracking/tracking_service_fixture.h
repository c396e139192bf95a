#pragma once
// Tests of the tracking service start from a configured SDK on a fresh store
// directory, with fixed device facts, an empty memory cache and no service.

#include <gtest/gtest.h>

#include <memory>

#include "tavrin/monitor/internal/device_info_utility.h"
#include "tavrin/monitor/internal/memory_cache_utility.h"
#include "tavrin/monitor/internal/tag_cache.h"
#include "tavrin/sdk/internal/tracking_settings.h"
#include "tavrin/tracking/internal/tracking_service_internals.h"
#include "tavrin/tracking/tracking_service.h"
#include "tests/consent/store_fixture.h"
#include "tests/support/recording_service.h"

namespace tavrin::testing {

inline DeviceFactsSource fixedDeviceFacts() {
    DeviceFactsSource source;
    source.model = [] { return std::optional<std::string>("Test Model"); };
    source.systemName = [] { return std::optional<std::string>("Linux"); };
    source.systemVersion = [] { return std::optional<std::string>("12.5"); };
    source.machine = [] { return std::optional<std::string>("x86_64"); };
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

class TrackingServiceTest : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        DeviceInfoUtility::setFactsSource(fixedDeviceFacts());
        MemoryCacheUtility::resetShared();
        TrackingSettings::configure(fullConfig("shop-app"));
        log.sink->clear();
    }
    void TearDown() override {
        TrackingService::resetInstance();
        MemoryCacheUtility::resetShared();
        DeviceInfoUtility::reset();
        StoreTest::TearDown();
    }

    std::shared_ptr<TrackingService> start() { return TrackingService::initialize(transport); }

    // Pushes already made have been processed and their writes applied.
    static void settle(const TrackingService& service) {
        detail::TrackingServiceInternals::waitForPendingPushes(service);
        MemoryCacheUtility::shared().drain();
    }

    std::shared_ptr<RecordingService> transport = std::make_shared<RecordingService>();
};

}  // namespace tavrin::testing
