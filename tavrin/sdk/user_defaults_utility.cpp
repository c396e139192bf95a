#include "tavrin/sdk/internal/user_defaults_utility.h"

#include "tavrin/platform/key_value_store.h"
#include "tavrin/sdk/internal/logger_utility.h"

namespace tavrin {

namespace {
// Looked up on every access, so a store the host (or a test) installs later
// is followed; the lookup is a guarded pointer copy.
std::shared_ptr<platform::KeyValueStore> store() { return platform::KeyValueStore::standard(); }
}  // namespace

platform::ObjectCache& UserDefaultsUtility::readCache() {
    static auto* cache = new platform::ObjectCache();
    return *cache;
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

namespace {
const char* kindOf(const platform::KeyValueStore::Value& value) {
    if (std::holds_alternative<std::string>(value)) return "text";
    if (std::holds_alternative<std::int64_t>(value)) return "an integer";
    return "data";
}
}  // namespace

UserDefaultsUtility::Read<std::string> UserDefaultsUtility::readString(const std::string& key) {
    if (auto cached = readCache().objectAs<std::string>(key)) return cached;
    std::lock_guard lock(storeMutex());
    if (auto cached = readCache().objectAs<std::string>(key)) return cached;  // a write got in first
    std::optional<std::string> stored;
    std::optional<detail::Error> unreadable;
    if (auto value = store()->value(key)) {
        if (auto* text = std::get_if<std::string>(&*value))
            stored = std::move(*text);
        else
            unreadable = detail::Error{0, std::string("is ") + kindOf(*value) + ", not text"};
    }
    if (stored)
        cache(key, std::any(*stored));
    else
        readCache().removeObject(key);
    if (unreadable) return std::move(*unreadable);
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
    LoggerUtility::shared().info(
        [&] { return "❌ UserDefaultsUtility: Failed to encode and save data for key " + key + " - " + description; });
}

void UserDefaultsUtility::writeEncoded(const std::string& key, const Bytes& encoded, std::any value) {
    std::lock_guard lock(storeMutex());
    auto s = store();
    s->setData(key, encoded);
    s->synchronize();
    cache(key, std::move(value));
}

UserDefaultsUtility::Read<Bytes> UserDefaultsUtility::storedData(const std::string& key) {
    auto value = store()->value(key);
    if (!value) return std::optional<Bytes>();
    if (auto* bytes = std::get_if<Bytes>(&*value)) return std::optional<Bytes>(std::move(*bytes));
    return detail::Error{0, std::string("is ") + kindOf(*value) + ", not data"};
}

std::string UserDefaultsUtility::decodingFailure(const DecodingError& error) {
    constexpr std::size_t kLimit = 200;
    std::string reason = error.what();
    if (reason.size() > kLimit) reason = reason.substr(0, kLimit) + "...";
    return "could not be decoded (" + reason + ")";
}

}  // namespace tavrin
