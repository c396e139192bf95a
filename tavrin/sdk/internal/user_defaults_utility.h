#pragma once
// The one path to the application's key-value store for identifiers,
// consents and settings, with a process-wide read cache in front of it.
//
// Writes go through to the store and are flushed at once; the first read of a
// key fills the cache, and later reads of it never touch the store again, so
// a value changed behind the SDK's back is not seen once its key is cached.
// A store access and the cache update that goes with it happen under one
// lock, so a read that missed the cache can never put back a value that a
// racing write has already replaced (a cache hit takes only the cache's lock).

#include <any>
#include <cstdint>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>

#include "tavrin/platform/internal/coding.h"
#include "tavrin/platform/internal/json.h"
#include "tavrin/platform/internal/object_cache.h"
#include "tavrin/platform/internal/result.h"

namespace tavrin {

class UserDefaultsUtility {
public:
    // What a key holds: a value, nothing, or an error saying why what it holds
    // cannot be read.
    template <class T>
    using Read = detail::Result<std::optional<T>>;

    UserDefaultsUtility() = delete;

    // Writes, flushes, then caches the value.
    static void setString(const std::string& value, const std::string& key);
    static void setInt(std::int64_t value, const std::string& key);

    // A cached text as is; otherwise the store's value when it is text. The
    // result is cached; a miss removes the key's cache entry.
    static std::optional<std::string> string(const std::string& key) { return orNothing(readString(key)); }
    // The same; when the key holds a value that is not text, the error says
    // so ("is an integer, not text"), so the caller can name what it ignores.
    // These reads stay silent themselves.
    static Read<std::string> readString(const std::string& key);

    // Stores the value's JSON encoding as data under the key, flushes, and
    // caches the value itself. A byte buffer encodes as a JSON string of its
    // base64. An encoding failure is logged and nothing is written.
    template <class T>
    static void save(const T& value, const std::string& key) {
        Bytes encoded;
        try {
            encoded = encodedBytes(encodeJson(value));
        } catch (const std::exception& error) {
            logSaveFailure(key, error.what());
            return;
        }
        writeEncoded(key, encoded, std::any(value));
    }

    // A cached byte buffer as is; otherwise the store's data decoded as the
    // JSON string of a base64 buffer (what save writes for bytes), cached on
    // success. Missing or undecodable data gives nothing, silently.
    static std::optional<Bytes> loadData(const std::string& key);

    // The same, with an error saying why a value the key holds gave nothing.
    static Read<Bytes> readData(const std::string& key) { return read<Bytes>(key); }

    // A cached T as is; otherwise the store's data decoded as a T, cached on
    // success. Missing or undecodable data gives nothing, silently.
    template <class T>
    static std::optional<T> load(const std::string& key) {
        return orNothing(read<T>(key));
    }
    // The same; when the key holds something that is not data or does not
    // decode, the error says what ("could not be decoded (...)").
    template <class T>
    static Read<T> read(const std::string& key) {
        if (auto cached = readCache().objectAs<T>(key)) return cached;
        std::lock_guard lock(storeMutex());
        if (auto cached = readCache().objectAs<T>(key)) return cached;  // a write got in first
        auto data = storedData(key);
        if (!data || !*data) return data ? Read<T>(std::nullopt) : Read<T>(std::move(data).error());
        try {
            T value = decodeJson<T>(platform::toString(**data));
            cache(key, std::any(value));
            return std::optional<T>(std::move(value));
        } catch (const DecodingError& error) {
            return detail::Error{0, decodingFailure(error)};
        }
    }

    // Removes the key from the store and the cache, then flushes.
    static void remove(const std::string& key);

    // Tests: forgets every cached value so the next reads go to the store.
    static void resetCacheForTesting();

    // Compact JSON text of an encoded value as bytes; text that is not valid
    // UTF-8 cannot be written and throws EncodingError.
    static Bytes encodedBytes(const Json& encoded);

    // "could not be decoded (<reason>)" for `unreadable`; the reason is cut
    // short, as it may quote the stored value, which can be any size.
    static std::string decodingFailure(const DecodingError& error);

    // Fork handlers: no store access is halfway through while the process forks.
    static void holdForFork() { storeMutex().lock(); }
    static void releaseAfterFork() { storeMutex().unlock(); }

private:
    static void logSaveFailure(const std::string& key, const std::string& description);
    static void writeEncoded(const std::string& key, const Bytes& encoded, std::any value);
    // The store's data for the key; a value of another type is an error
    // saying so.
    static Read<Bytes> storedData(const std::string& key);
    template <class T>
    static std::optional<T> orNothing(Read<T> read) {
        return read ? std::move(read).value() : std::nullopt;
    }
    // Held across each store access together with its cache update.
    static std::mutex& storeMutex();
    static void cache(const std::string& key, std::any value) { readCache().setObject(key, std::move(value)); }
    // Process-wide; each access is atomic.
    static platform::ObjectCache& readCache();
};

}  // namespace tavrin
