#pragma once
// Ground shared by the fault scenarios: their scale, and FutureWatch, which watches the futures of
// host calls from one thread and notes when and how each one ended.

#include <atomic>
#include <cstdio>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "tests/support/wait_until.h"

namespace tavrin::testing {

using FaultClock = std::chrono::steady_clock;

// Rounds and counts of the fault scenarios are multiplied by
// TAVRIN_RELIABILITY_SCALE (a positive whole number, default 1) for longer runs.
inline int reliabilityScale() {
    const char* text = std::getenv("TAVRIN_RELIABILITY_SCALE");
    return std::max(1, text ? std::atoi(text) : 1);
}
inline int scaled(int base) { return base * reliabilityScale(); }

// A call's failure is kept as its exception_ptr while the watch lives. The exception object of a
// failed send is shared with the HTTP client's thread and counted in the uninstrumented C++ runtime:
// let go of here, that thread could free it after a read here, in an order ThreadSanitizer cannot
// see. Held, it is freed by the watch's owner, after the watching thread has been joined.
class FutureWatch {
public:
    struct Call {
        std::string id{}, phase{};  // up to 15 characters: kept inside the strings
        bool live = false;          // made by the host's own loop, not by the driver
        FaultClock::time_point started{};
        std::chrono::milliseconds took{-1};  // until the future was ready; -1 while it is not
        std::exception_ptr error{};
    };

    explicit FutureWatch(std::size_t capacity, std::function<void(const Call&)> done = {}) : done_(std::move(done)) {
        calls_.resize(capacity);  // touched now, so watching adds no memory later
        calls_.clear();
        thread_ = std::thread([this] {
            for (; !stopping_; std::this_thread::sleep_for(std::chrono::milliseconds(2))) {
                std::lock_guard lock(mutex_);
                std::erase_if(pending_, [&](auto& p) {
                    return std::visit([&](auto& f) { return ended(p.first, f); }, p.second);
                });
            }
        });
    }
    ~FutureWatch() {
        stopping_ = true;
        thread_.join();
    }

    template <class T>
    void add(Call call, std::future<T> future) {
        std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
        pending_.emplace_back(calls_.size() - 1, std::move(future));
    }
    std::size_t outstanding() const {
        std::lock_guard lock(mutex_);
        return pending_.size();
    }
    bool waitAllDone(std::chrono::milliseconds timeout) const {
        return waitUntil([&] { return outstanding() == 0; }, timeout);
    }
    std::vector<Call> calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    template <class T>
    bool ended(std::size_t index, std::future<T>& future) {
        if (future.wait_for(std::chrono::seconds(0)) != std::future_status::ready) return false;
        Call& call = calls_[index];
        call.took = std::chrono::duration_cast<std::chrono::milliseconds>(FaultClock::now() - call.started);
        try {
            future.get();
        } catch (...) {
            call.error = std::current_exception();
        }
        if (done_) done_(call);
        return true;
    }

    std::function<void(const Call&)> done_;
    mutable std::mutex mutex_;
    std::vector<Call> calls_;
    std::vector<std::pair<std::size_t, std::variant<std::future<void>, std::future<bool>>>> pending_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

inline void printFigure(const std::string& text) {
    std::printf("FIGURE %s\n", text.c_str());
    std::fflush(stdout);
}

}  // namespace tavrin::testing
