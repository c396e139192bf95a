#pragma once
// Common ground of the transport tests: a store in a temporary directory, a
// real HTTP client, sample records, settings pointing at a loopback server,
// and waiting with a deadline instead of sleeping.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "tavrin/consent/internal/consent_model.h"
#include "tavrin/model/internal/data_submission_model.h"
#include "tavrin/monitor/internal/monitor_service.h"
#include "tavrin/platform/clock.h"
#include "tavrin/platform/http_client.h"
#include "tavrin/platform/internal/system.h"
#include "tavrin/platform/path_monitor.h"
#include "tavrin/sdk/internal/tracking_settings.h"
#include "tavrin/sdk/internal/user_defaults_utility.h"
#include "tavrin/transport/internal/offline_cache_manager.h"
#include "tavrin/transport/internal/service.h"
#include "tests/support/log_capture.h"
#include "tests/support/loopback_server.h"
#include "tests/support/scripted_path_monitor.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait_until.h"

namespace tavrin::testing {

inline DataSubmissionModel sampleSubmission(const std::string& mark = "m1") {
    DataSubmissionModel model;
    model.version = "3";
    model.system = {.type = "sdk-ios",
                    .timestamp = 1731667200123,
                    .navigatorUserAgent = "Agent/1.0",
                    .initiator = "tvr_push_submit"};
    model.consent = {{"vendorA", {CodableValue::boolean(true)}}};
    model.configuration = {.container = "shop-app", .environment = "live", .version = "7", .debugcode = std::nullopt};
    model.data.identifier = {.user = {.id = "4821", .action = "update"}, .session = {.id = "77", .action = "new"}};
    model.data.variables.documentLocationHref = "app://shop";
    model.data.variables.tvrpushedcommands = {"pageview"};
    model.data.variables.customProperties = {{"mark", CodableValue::string(mark)}};
    return model;
}

inline ConsentModel sampleConsent() {
    ConsentModel model;
    model.version = "3";
    model.system = {
        .type = "sdk-ios", .timestamp = 1731667200123, .navigatorUserAgent = "Agent/1.0", .initiator = "tvr_consent"};
    model.configuration = {
        .container = "shop-app", .environment = "live", .version = std::nullopt, .debugcode = std::nullopt};
    model.data.identifier = {.user = {.id = "4821", .action = "update"}, .consent = {.id = "c-1", .action = "new"}};
    model.data.consent.lastupdate = 1731667200124;
    model.data.consent.vendors = {{"vendorA", VendorValue::boolean(true)}};
    return model;
}

inline TrackConfig trackConfig(std::string domain, std::optional<std::string> customProtocol = "http",
                               bool offline = true, std::string token = "tok-123") {
    return TrackConfig{.trackDomain = std::move(domain),
                       .container = "shop-app",
                       .environment = TrackConfig::Environment::live,
                       .version = std::nullopt,
                       .debugCode = std::nullopt,
                       .sessionTimeoutInSeconds = std::nullopt,
                       .authorizationToken = std::move(token),
                       .customProtocol = std::move(customProtocol),
                       .enableOfflineTracking = offline,
                       .offlineTrackingTimeout = 86400};
}

inline std::string hostPort(int port) { return "127.0.0.1:" + std::to_string(port); }

// Every test: an empty store file of its own, a fresh HTTP client, no shared
// transport objects, captured logs.
class TransportTest : public ::testing::Test {
protected:
    void SetUp() override {
        platform::KeyValueStore::setDataDirectory(dir.path().string());
        platform::KeyValueStore::setStandard(nullptr);
        UserDefaultsUtility::resetCacheForTesting();
        TrackingSettings::resetForTesting();
        useHttpClient({});
    }
    void TearDown() override {
        OfflineCacheManager::resetShared();
        Service::resetShared();
        MonitorService::resetShared();
        platform::HttpClient::setShared(nullptr);
        if (client) client->shutdown();
        platform::PathMonitor::setFactory({});
        platform::Clock::reset();
        TrackingSettings::resetForTesting();
        UserDefaultsUtility::resetCacheForTesting();
        platform::KeyValueStore::setStandard(nullptr);
        platform::KeyValueStore::setDataDirectory(std::nullopt);
    }

    void useHttpClient(platform::HttpClientOptions options) {
        if (client) client->shutdown();
        client = std::make_shared<platform::SystemHttpClient>(std::move(options));
        platform::HttpClient::setShared(client);
    }

    // The shared manager with a scripted path reporting `status`, monitoring.
    std::shared_ptr<testing::ScriptedPathMonitor> monitorPath(platform::PathStatus status) {
        auto scripted = std::make_shared<testing::ScriptedPathMonitor>(status);
        platform::PathMonitor::setFactory([scripted]() -> std::shared_ptr<platform::PathMonitor> { return scripted; });
        auto manager = OfflineCacheManager::shared();
        manager->startNetworkMonitoring();
        const bool offline = status != platform::PathStatus::satisfied;
        EXPECT_TRUE(waitUntil([&] { return manager->isCurrentlyOffline() == offline; }));
        return scripted;
    }

    void configure(const TrackConfig& config) {
        TrackingSettings::configure(config);
        OfflineCacheManager::shared()->configure(config.enableOfflineTracking, config.offlineTrackingTimeout);
        Service::shared()->setTrackConfig(TrackingSettings::shared());
    }

    std::vector<OfflineCache::Request> cached() {
        return OfflineCacheManager::shared()->offlineCache().getCachedRequests();
    }

    TempDir dir;
    LogCapture log;
    std::shared_ptr<platform::SystemHttpClient> client;
};

}  // namespace tavrin::testing
