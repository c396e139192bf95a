#pragma once
// In-process notification center: observers by name, delivery on the posting
// thread. The host application posts the lifecycle notifications.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tavrin::platform {

class NotificationCenter {
public:
    using Token = std::uint64_t;
    using Handler = std::function<void(const std::string& name)>;

    // Lifecycle names.
    static constexpr const char* didEnterBackground = "UIApplicationDidEnterBackgroundNotification";
    static constexpr const char* willEnterForeground = "UIApplicationWillEnterForegroundNotification";
    static constexpr const char* willTerminate = "UIApplicationWillTerminateNotification";

    static NotificationCenter& defaultCenter();

    Token addObserver(const std::string& name, Handler handler);
    void removeObserver(Token token);
    // Calls every observer of the name, in registration order, on this thread.
    // Observers may add or remove observers while being called.
    void post(const std::string& name);

    // Tests: drop every observer.
    void removeAllObservers();

private:
    struct Entry {
        Token token;
        std::string name;
        std::shared_ptr<Handler> handler;
    };
    std::mutex mutex_;
    std::vector<Entry> entries_;
    Token next_ = 1;
};

}  // namespace tavrin::platform
