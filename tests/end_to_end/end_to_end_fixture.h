#pragma once
// The SDK as an application uses it: configured through TavrinService against
// a loopback collector that records every request, with the real SQLite store
// in a temporary directory and a network path that reports "online".

#include <gtest/gtest.h>

#include "tavrin/platform/internal/json.h"
#include "tavrin/sdk/tavrin_service.h"
#include "tavrin/tracking/tracking_service.h"
#include "tests/support/reliability_child_process.h"
#include "tests/support/transport_fixture.h"

namespace tavrin::testing {

using PlainJson = Json;

class EndToEndTest : public ::testing::Test {
protected:
    void SetUp() override {
        platform::KeyValueStore::setDataDirectory(dir.path().string());
        platform::KeyValueStore::setStandard(nullptr);
        UserDefaultsUtility::resetCacheForTesting();
        // A fresh monitor per manager: a monitor keeps the queue it started on.
        platform::PathMonitor::setFactory([]() -> std::shared_ptr<platform::PathMonitor> {
            return std::make_shared<ScriptedPathMonitor>(platform::PathStatus::satisfied);
        });
    }
    void TearDown() override {
        TavrinService::shutdown(5s);
        platform::PathMonitor::setFactory({});
        platform::KeyValueStore::setStandard(nullptr);
        platform::KeyValueStore::setDataDirectory(std::nullopt);
    }

    std::shared_ptr<TrackingService> start(const TrackConfig& config) {
        TavrinService::configure(config);
        return TrackingService::shared();
    }
    std::shared_ptr<TrackingService> start() { return start(trackConfig(hostPort(server.port()))); }

    // The bodies that reached the collector, oldest first; consent reports
    // are told apart by their "consent" member under "data".
    std::vector<PlainJson> bodies(bool consents) const {
        std::vector<PlainJson> out;
        for (const auto& request : server.requests()) {
            if (request.path == "/monitor") continue;
            auto body = PlainJson::parse(request.body);
            if (body["data"].contains("consent") == consents) out.push_back(std::move(body));
        }
        return out;
    }
    std::vector<PlainJson> submissions() const { return bodies(false); }
    std::vector<PlainJson> consentReports() const { return bodies(true); }

    TempDir dir;
    LogCapture logs;
    LoopbackServer server;
};

}  // namespace tavrin::testing
