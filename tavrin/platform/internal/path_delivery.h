#pragma once
// Delivers path reports on a queue and keeps the cancel promise of
// PathMonitor; monitors share it with their queued blocks, so a pending block
// never touches a destroyed monitor.

#include <condition_variable>
#include <memory>
#include <mutex>

#include "tavrin/platform/path_monitor.h"

namespace tavrin::platform::detail {

class PathDelivery : public std::enable_shared_from_this<PathDelivery> {
public:
    void setHandler(PathMonitor::UpdateHandler handler);
    // False when already started or cancelled.
    bool start(SerialQueue& queue);
    bool isStarted() const;
    bool isCancelled() const;
    // Queues a report; nothing before start or after cancel.
    void deliver(PathStatus status);
    // Drops queued reports and waits for one in progress (unless called from
    // the queue, where only the caller itself can be in progress).
    void cancel();

private:
    void run(PathStatus status);

    mutable std::mutex mutex_;
    std::condition_variable idle_;
    PathMonitor::UpdateHandler handler_;
    SerialQueue* queue_ = nullptr;
    bool cancelled_ = false;
    int inFlight_ = 0;
};

}  // namespace tavrin::platform::detail
