#pragma once
// The process-wide instance of a shared component: created on first use,
// dropped by tests so each starts clean. A forked child does not use (or
// destroy) the parent's instance: it makes its own on first use.

#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "tavrin/platform/dispatch.h"

namespace tavrin::detail {

template <class T>
class SharedInstance {
public:
    SharedInstance() = default;
    SharedInstance(const SharedInstance&) = delete;
    SharedInstance& operator=(const SharedInstance&) = delete;
    ~SharedInstance() {
        if (generation_ != platform::forkGeneration()) platform::keepForever(std::move(instance_));
    }

    template <class Make>
    std::shared_ptr<T> get(Make&& make) {
        std::lock_guard lock(mutex_);
        if (instance_ && generation_ != platform::forkGeneration())
            platform::keepForever(std::exchange(instance_, nullptr));
        if (!instance_) {
            instance_ = make();
            generation_ = platform::forkGeneration();
        }
        return instance_;
    }

    // Empties the slot and hands back what it held (released by the caller,
    // outside the lock, in case its destructor asks for the instance).
    std::shared_ptr<T> take() {
        std::lock_guard lock(mutex_);
        return std::exchange(instance_, nullptr);
    }
    void reset() { take(); }

private:
    std::mutex mutex_;
    std::shared_ptr<T> instance_;
    std::uint32_t generation_ = platform::forkGeneration();  // where instance_ was made
};

// The readable description of an error carried by an exception_ptr.
inline std::string describe(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown error";
    }
}

}  // namespace tavrin::detail
