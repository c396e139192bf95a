#include "tavrin/platform/notification_center.h"

#include <algorithm>
#include <memory>

namespace tavrin::platform {

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter center;
    return center;
}

NotificationCenter::Token NotificationCenter::addObserver(const std::string& name, Handler handler) {
    std::lock_guard lock(mutex_);
    const Token token = next_++;
    entries_.push_back({token, name, std::make_shared<Handler>(std::move(handler))});
    return token;
}

void NotificationCenter::removeObserver(Token token) {
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [token](const Entry& e) { return e.token == token; });
}

void NotificationCenter::post(const std::string& name) {
    // Copy the matching handlers so they run without the lock held.
    std::vector<std::shared_ptr<Handler>> handlers;
    {
        std::lock_guard lock(mutex_);
        for (const auto& e : entries_)
            if (e.name == name) handlers.push_back(e.handler);
    }
    for (const auto& h : handlers) (*h)(name);
}

void NotificationCenter::removeAllObservers() {
    std::lock_guard lock(mutex_);
    entries_.clear();
}

}  // namespace tavrin::platform
