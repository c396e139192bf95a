#pragma once
// The application's durable key-value store: typed values (text, integer,
// bytes) by key, where the SDK keeps its identifiers, consent decisions and
// offline cache. The host application may choose the directory, or install
// its own store, before configuring the SDK.
//
//     using tavrin::platform::KeyValueStore;
//     KeyValueStore::setDataDirectory("/var/lib/shop/tavrin");  // before the store is first used
//     std::shared_ptr<KeyValueStore> store = KeyValueStore::standard();
//     bool durable = store->setString("shop.lastScreen", "checkout");
//     std::optional<std::string> screen = store->string("shop.lastScreen");
//     std::optional<std::int64_t> none = store->integer("shop.lastScreen");  // nothing: it holds text
//     store->apply({{"shop.visits", std::int64_t{3}}, {"shop.lastScreen", std::nullopt}});  // set and remove at once
//
// The standard store is a SQLite database file in the data directory.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "tavrin/platform/api.h"
#include "tavrin/platform/bytes.h"

namespace tavrin::platform {

class TAVRIN_API KeyValueStore {
public:
    using Value = std::variant<std::string, std::int64_t, Bytes>;

    virtual ~KeyValueStore() = default;

    // Durable when it returns true. False when the write failed (logged), or
    // when the store could not be opened on disk and keeps values in memory for
    // this run only (said once, when it opened; the value is still kept).
    virtual bool set(const std::string& key, const Value& value) = 0;
    // Any stored value ("value for key").
    virtual std::optional<Value> value(const std::string& key) const = 0;
    virtual bool remove(const std::string& key) = 0;
    // Flushes whatever is not yet durable; true when everything is.
    virtual bool synchronize() = 0;

    bool setString(const std::string& key, const std::string& v) { return set(key, Value(v)); }
    bool setInteger(const std::string& key, std::int64_t v) { return set(key, Value(v)); }
    bool setData(const std::string& key, const Bytes& v) { return set(key, Value(v)); }
    // Typed reads give nothing when the key holds another type.
    std::optional<std::string> string(const std::string& key) const;
    std::optional<std::int64_t> integer(const std::string& key) const;
    std::optional<Bytes> data(const std::string& key) const;

    // The process-wide standard store, opened on first use in dataDirectory().
    static std::shared_ptr<KeyValueStore> standard();
    // Installs a store as the standard one (nullptr: reopen the default on next use).
    static void setStandard(std::shared_ptr<KeyValueStore> store);

    // Where the default store lives: the directory the host set (before the
    // store is first used), else $XDG_DATA_HOME/<executable name>/, else
    // ~/.local/share/<executable name>/. nullopt returns to the default.
    static void setDataDirectory(std::optional<std::string> directory);
    static std::string dataDirectory();

    // ---- listing by key prefix
    // Every (key, value) whose key starts with `prefix`, in key order (bytewise).
    // Lets a component keep one record per key under a common prefix and read
    // them all back. A store that cannot list gives nothing (the default).
    using Entry = std::pair<std::string, Value>;
    virtual std::vector<Entry> values(std::string_view prefix) const;
    // The keys starting with `prefix` with the size of each value in bytes,
    // in key order, without reading the values (the default reads them).
    using KeySize = std::pair<std::string, std::size_t>;
    virtual std::vector<KeySize> keySizes(std::string_view prefix) const;

    // ---- several changes at once
    // A set (value) or a removal (no value).
    struct Change {
        std::string key;
        std::optional<Value> value;
    };
    // Applies the changes in order, durably when it returns true. A store
    // that can makes them one transaction, all or nothing, so several changes
    // cost one durable write instead of one each (the default applies them
    // one by one and is true when every one was).
    virtual bool apply(const std::vector<Change>& changes);
};

}  // namespace tavrin::platform
