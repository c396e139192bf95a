#pragma once
// Tests of the stores run against the real SQLite store in a fresh directory.
// CountingStore wraps it to count the reads and writes that reach it.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>

#include "tavrin/consent/user_defaults_utility.h"
#include "tavrin/platform/key_value_store.h"
#include "tavrin/platform/sqlite_key_value_store.h"
#include "tavrin/sdk/tracking_settings.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace tavrin::testing {

class CountingStore final : public platform::KeyValueStore {
public:
    explicit CountingStore(std::shared_ptr<platform::KeyValueStore> inner) : inner_(std::move(inner)) {}

    bool set(const std::string& key, const Value& value) override {
        ++writes;
        return inner_->set(key, value);
    }
    std::optional<Value> value(const std::string& key) const override {
        ++reads;
        return inner_->value(key);
    }
    bool remove(const std::string& key) override {
        ++removals;
        return inner_->remove(key);
    }
    bool synchronize() override {
        ++flushes;
        return inner_->synchronize();
    }

    platform::KeyValueStore& inner() { return *inner_; }

    mutable std::atomic<int> reads{0};
    std::atomic<int> writes{0};
    std::atomic<int> removals{0};
    std::atomic<int> flushes{0};

private:
    std::shared_ptr<platform::KeyValueStore> inner_;
};

// Every test starts with an empty store file, no cached values, no settings.
class StoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        platform::KeyValueStore::setDataDirectory(dir.path());
        platform::KeyValueStore::setStandard(nullptr);
        UserDefaultsUtility::resetCacheForTesting();
        TrackingSettings::resetForTesting();
    }
    void TearDown() override {
        TrackingSettings::resetForTesting();
        UserDefaultsUtility::resetCacheForTesting();
        platform::KeyValueStore::setStandard(nullptr);
        platform::KeyValueStore::setDataDirectory(std::nullopt);
    }

    // Puts a counting decorator around the real store of this test.
    std::shared_ptr<CountingStore> countReads() {
        auto counting = std::make_shared<CountingStore>(platform::KeyValueStore::standard());
        platform::KeyValueStore::setStandard(counting);
        return counting;
    }

    // A second connection to the same file, as another process would have.
    std::unique_ptr<platform::SqliteKeyValueStore> openFile() const {
        return std::make_unique<platform::SqliteKeyValueStore>(dir / platform::SqliteKeyValueStore::kFileName);
    }

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
