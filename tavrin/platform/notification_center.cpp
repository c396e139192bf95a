#include "tavrin/platform/notification_center.h"

#include <algorithm>
#include <memory>

namespace tavrin::platform {

NotificationCenter& NotificationCenter::defaultCenter() {
    static auto* center = new NotificationCenter();
    return *center;
}

NotificationCenter::Token NotificationCenter::addObserver(const std::string& name, Handler handler) {
    std::lock_guard lock(mutex_);
    const Token token = next_++;
    entries_.push_back({token, name, std::make_shared<Observer>(std::move(handler))});
    return token;
}

void NotificationCenter::removeObserver(Token token) {
    std::lock_guard lock(mutex_);
    std::erase_if(entries_, [token](const Entry& e) {
        if (e.token != token) return false;
        e.observer->removed.store(true);
        return true;
    });
}

void NotificationCenter::post(const std::string& name) {
    // Handlers run without the lock held so they can add and remove observers.
    std::vector<std::shared_ptr<Observer>> observers;
    {
        std::lock_guard lock(mutex_);
        for (const auto& e : entries_)
            if (e.name == name) observers.push_back(e.observer);
    }
    for (const auto& o : observers)
        if (!o->removed.load()) o->handler(name);
}

void NotificationCenter::removeAllObservers() {
    std::lock_guard lock(mutex_);
    for (const auto& e : entries_) e.observer->removed.store(true);
    entries_.clear();
}

}  // namespace tavrin::platform
