#pragma once
// Thread-safe keyed store of values of any type (the in-memory object cache).

#include <any>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace tavrin::platform {

class ObjectCache {
public:
    void setObject(const std::string& key, std::any value) {
        std::lock_guard lock(mutex_);
        objects_[key] = std::move(value);
    }

    // The stored value, or an empty std::any when the key holds nothing.
    std::any object(const std::string& key) const {
        std::lock_guard lock(mutex_);
        auto it = objects_.find(key);
        return it == objects_.end() ? std::any{} : it->second;
    }

    // The stored value when it holds a T, otherwise nothing.
    template <class T>
    std::optional<T> objectAs(const std::string& key) const {
        std::lock_guard lock(mutex_);
        auto it = objects_.find(key);
        if (it == objects_.end()) return std::nullopt;
        if (const T* v = std::any_cast<T>(&it->second)) return *v;
        return std::nullopt;
    }

    void removeObject(const std::string& key) {
        std::lock_guard lock(mutex_);
        objects_.erase(key);
    }

    void removeAllObjects() {
        std::lock_guard lock(mutex_);
        objects_.clear();
    }

private:
    mutable std::mutex mutex_;
    std::unordered_map<std::string, std::any> objects_;
};

}  // namespace tavrin::platform
