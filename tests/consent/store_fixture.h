#pragma once
// Tests of the stores run against the real SQLite store in a fresh directory;
// CountingStore counts what reaches it. Shared with the sdk and tracking tests.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string_view>
#include <thread>

#include "tavrin/platform/internal/system.h"
#include "tavrin/platform/key_value_store.h"
#include "tavrin/sdk/internal/tracking_settings.h"
#include "tavrin/sdk/internal/user_defaults_utility.h"
#include "tavrin/sdk/track_config.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace tavrin::testing {

// Every optional member empty.
inline TrackConfig minimalConfig(double offlineTimeout = 0.25) {
    return TrackConfig{.trackDomain = "d",
                       .container = "c",
                       .environment = TrackConfig::Environment::live,
                       .version = std::nullopt,
                       .debugCode = std::nullopt,
                       .sessionTimeoutInSeconds = std::nullopt,
                       .authorizationToken = "",
                       .customProtocol = std::nullopt,
                       .enableOfflineTracking = false,
                       .offlineTrackingTimeout = offlineTimeout};
}

// Every member set, each to a value no other member has.
inline TrackConfig fullConfig(const std::string& container = "shop-app", double offlineTimeout = 86400) {
    return TrackConfig{.trackDomain = "collect.example.com",
                       .container = container,
                       .environment = TrackConfig::Environment::stage,
                       .version = "3",
                       .debugCode = "dbg-1",
                       .sessionTimeoutInSeconds = 1800.5,
                       .authorizationToken = "token",
                       .customProtocol = "http",
                       .enableOfflineTracking = true,
                       .offlineTrackingTimeout = offlineTimeout};
}

class CountingStore final : public platform::KeyValueStore {
public:
    explicit CountingStore(std::shared_ptr<platform::KeyValueStore> inner) : inner_(std::move(inner)) {}

    bool set(const std::string& key, const Value& value) override {
        ++writes;
        return inner_->set(key, value);
    }
    std::optional<Value> value(const std::string& key) const override {
        ++reads;
        auto found = inner_->value(key);
        if (readPause.count() > 0) std::this_thread::sleep_for(readPause);
        return found;
    }
    bool remove(const std::string& key) override { return inner_->remove(key); }
    bool synchronize() override {
        ++flushes;
        return inner_->synchronize();
    }
    platform::KeyValueStore& inner() { return *inner_; }

    mutable std::atomic<int> reads{0};
    std::atomic<int> writes{0};
    std::atomic<int> flushes{0};
    // How long a read lingers after reaching the store; set before any thread uses it.
    std::chrono::microseconds readPause{0};

private:
    std::shared_ptr<platform::KeyValueStore> inner_;
};

// The error a decoder throws for the text; a test failure if it decodes.
template <class T>
DecodingError decodeFailure(std::string_view text) {
    try {
        decodeJson<T>(text);
    } catch (const DecodingError& e) {
        return e;
    }
    ADD_FAILURE() << text << " decoded";
    return DecodingError(DecodingError::Kind::dataCorrupted, {}, "decoded");
}

// Every test starts with an empty store file, no cached values, no settings.
class StoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        platform::KeyValueStore::setDataDirectory(dir.path().string());
        forgetProcessState();
    }
    void TearDown() override {
        forgetProcessState();
        platform::KeyValueStore::setDataDirectory(std::nullopt);
    }

    // Puts a counting decorator around the real store of this test.
    std::shared_ptr<CountingStore> countReads() {
        auto counting = std::make_shared<CountingStore>(platform::KeyValueStore::standard());
        platform::KeyValueStore::setStandard(counting);
        return counting;
    }

    // A second connection to the same file, as another process would have.
    std::shared_ptr<platform::KeyValueStore> openFile() const { return platform::os::openDefaultStore(dir.path()); }

    // Forgets everything in memory, as a new process would start.
    static void forgetProcessState() {
        UserDefaultsUtility::resetCacheForTesting();
        TrackingSettings::resetForTesting();
        platform::KeyValueStore::setStandard(nullptr);
    }

    TempDir dir;
    LogCapture log;
};

}  // namespace tavrin::testing
