#pragma once
// Records what a path monitor reports, and on which queue; a test waits for
// reports with a deadline instead of sleeping.

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "tavrin/platform/dispatch.h"
#include "tavrin/platform/path_monitor.h"

namespace tavrin::testing {

struct PathRecorder {
    std::mutex mutex;
    std::condition_variable reported;
    std::vector<platform::PathStatus> reports;
    std::set<std::string> queues;

    platform::PathMonitor::UpdateHandler handler() {
        return [this](platform::PathStatus status) {
            std::lock_guard lock(mutex);
            reports.push_back(status);
            queues.insert(platform::currentQueueLabel());
            reported.notify_all();
        };
    }
    // All reports, once there are `count` of them or five seconds have passed.
    std::vector<platform::PathStatus> await(std::size_t count) {
        std::unique_lock lock(mutex);
        reported.wait_for(lock, std::chrono::seconds(5), [&] { return reports.size() >= count; });
        return reports;
    }
};

}  // namespace tavrin::testing
