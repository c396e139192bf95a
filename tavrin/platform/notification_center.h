#pragma once
// In-process notification center: observers by name, delivery on the posting
// thread. The host application posts the lifecycle notifications (the
// session manager hears them once SessionManager::startObservingAppLifecycle()
// has run), since only the host knows when it goes to the background.
//
//     using tavrin::platform::NotificationCenter;
//     NotificationCenter& center = NotificationCenter::defaultCenter();
//     NotificationCenter::Token token = center.addObserver(
//         NotificationCenter::willTerminate, [](const std::string&) { /* save what must survive */ });
//     center.post(NotificationCenter::didEnterBackground);   // host: the window was hidden
//     center.post(NotificationCenter::willEnterForeground);  // host: and shown again
//     center.removeObserver(token);

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tavrin/platform/api.h"

namespace tavrin::platform {

class TAVRIN_API NotificationCenter {
public:
    using Token = std::uint64_t;
    using Handler = std::function<void(const std::string& name)>;

    // Lifecycle names.
    static constexpr const char* didEnterBackground = "UIApplicationDidEnterBackgroundNotification";
    static constexpr const char* willEnterForeground = "UIApplicationWillEnterForegroundNotification";
    static constexpr const char* willTerminate = "UIApplicationWillTerminateNotification";

    static NotificationCenter& defaultCenter();

    // Registers a handler for one name; the token removes it again.
    Token addObserver(const std::string& name, Handler handler);
    // Unknown or already removed tokens are ignored. An observer removed while
    // a post is under way is not called by it if its turn has not come yet; a
    // call already running on another thread is not waited for.
    void removeObserver(Token token);
    // Calls every observer of the name, in registration order, on this thread.
    // Observers may add or remove observers while being called; one added
    // during a post first hears the next post. An exception from an observer
    // reaches the poster and the remaining observers are skipped.
    void post(const std::string& name);

    // Tests: drop every observer.
    void removeAllObservers();

private:
    struct Observer {
        explicit Observer(Handler h) : handler(std::move(h)) {}
        Handler handler;
        std::atomic<bool> removed{false};
    };
    struct Entry {
        Token token;
        std::string name;
        std::shared_ptr<Observer> observer;
    };
    std::mutex mutex_;
    std::vector<Entry> entries_;
    Token next_ = 1;
};

}  // namespace tavrin::platform
