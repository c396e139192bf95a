#include "tavrin/platform/clock.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>

namespace tavrin::platform {

namespace {

struct State {
    std::mutex mutex;
    std::shared_ptr<const Clock::Source> source;
    bool fixed = false;
    double fixedValue = 0;
    // Fast path: while false, now() reads the system clock without locking.
    std::atomic<bool> custom{false};
};

State& state() {
    static auto* s = new State();
    return *s;
}

double systemNow() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

}  // namespace

double Clock::now() {
    auto& s = state();
    if (!s.custom.load(std::memory_order_acquire)) return systemNow();
    std::shared_ptr<const Source> source;
    {
        std::lock_guard lock(s.mutex);
        if (s.fixed) return s.fixedValue;
        source = s.source;
    }
    // Called outside the lock so a source may itself read the clock.
    return source ? (*source)() : systemNow();
}

void Clock::setSource(Source source) {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    s.fixed = false;
    s.custom.store(static_cast<bool>(source), std::memory_order_release);
    s.source = source ? std::make_shared<const Source>(std::move(source)) : nullptr;
}

void Clock::setFixed(double secondsSince1970) {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    s.fixed = true;
    s.fixedValue = secondsSince1970;
    s.source = nullptr;
    s.custom.store(true, std::memory_order_release);
}

void Clock::advance(double seconds) {
    auto& s = state();
    std::unique_lock lock(s.mutex);
    if (!s.fixed) {
        // Freeze at the current reading first, then move from there.
        auto source = s.source;
        lock.unlock();
        const double start = source ? (*source)() : systemNow();
        lock.lock();
        if (!s.fixed) {
            s.fixedValue = start;
            s.fixed = true;
            s.source = nullptr;
            s.custom.store(true, std::memory_order_release);
        }
    }
    s.fixedValue += seconds;
}

}  // namespace tavrin::platform
