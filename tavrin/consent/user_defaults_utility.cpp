#include "tavrin/consent/internal/user_defaults_utility.h"

#include "tavrin/platform/key_value_store.h"
#include "tavrin/sdk/internal/logger_utility.h"

namespace tavrin {

namespace {
// Looked up on every access, so a store the host (or a test) installs later
// is followed; the lookup is a guarded pointer copy.
std::shared_ptr<platform::KeyValueStore> store() { return platform::KeyValueStore::standard(); }
}  // namespace

platform::ObjectCache& UserDefaultsUtility::readCache() {
    static platform::ObjectCache cache;
    return cache;
}

std::mutex& UserDefaultsUtility::storeMutex() {
    static std::mutex mutex;
    return mutex;
}

void UserDefaultsUtility::setString(const std::string& value, const std::string& key) {
    std::lock_guard lock(storeMutex());
    auto s = store();
    s->setString(key, value);
    s->synchronize();
    cache(key, std::any(value));
}

void UserDefaultsUtility::setInt(std::int64_t value, const std::string& key) {
    std::lock_guard lock(storeMutex());
    auto s = store();
    s->setInteger(key, value);
    s->synchronize();
    cache(key, std::any(value));
}

std::optional<std::string> UserDefaultsUtility::string(const std::string& key) {
    if (auto cached = readCache().objectAs<std::string>(key)) return cached;
    std::lock_guard lock(storeMutex());
    if (auto cached = readCache().objectAs<std::string>(key)) return cached;  // a write got in first
    auto stored = store()->string(key);
    if (stored)
        cache(key, std::any(*stored));
    else
        readCache().removeObject(key);
    return stored;
}

std::optional<Bytes> UserDefaultsUtility::loadData(const std::string& key) { return load<Bytes>(key); }

void UserDefaultsUtility::remove(const std::string& key) {
    std::lock_guard lock(storeMutex());
    auto s = store();
    s->remove(key);
    readCache().removeObject(key);
    s->synchronize();
}

void UserDefaultsUtility::resetCacheForTesting() {
    std::lock_guard lock(storeMutex());
    readCache().removeAllObjects();
}

Bytes UserDefaultsUtility::encodedBytes(const Json& encoded) {
    std::string text;
    try {
        // Strict: a string that is not valid UTF-8 is refused rather than altered.
        text = encoded.dump();
    } catch (const Json::exception& error) {
        throw EncodingError({}, std::string("Invalid string value: ") + error.what());
    }
    return platform::toBytes(text);
}

void UserDefaultsUtility::logSaveFailure(const std::string& key, const std::string& description) {
    LoggerUtility::shared().info([&] {
        return "❌ UserDefaultsUtility: Failed to encode and save data for key " + key + " - " + description;
    });
}

void UserDefaultsUtility::writeEncoded(const std::string& key, const Bytes& encoded, std::any value) {
    std::lock_guard lock(storeMutex());
    auto s = store();
    s->setData(key, encoded);
    s->synchronize();
    cache(key, std::move(value));
}

std::optional<Bytes> UserDefaultsUtility::storedData(const std::string& key) { return store()->data(key); }

}  // namespace tavrin
