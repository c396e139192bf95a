#include "tavrin/platform/path_monitor.h"

#include <mutex>
#include <unordered_set>
#include <utility>

#include "tavrin/platform/dispatch.h"
#include "tavrin/platform/internal/path_delivery.h"
#include "tavrin/platform/internal/path_evaluation.h"
#include "tavrin/platform/internal/system.h"

namespace tavrin::platform {

const char* pathStatusName(PathStatus status) noexcept {
    return status == PathStatus::satisfied ? "satisfied" : "unsatisfied";
}

namespace detail {

// ---- delivery

void PathDelivery::setHandler(PathMonitor::UpdateHandler handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

bool PathDelivery::start(SerialQueue& queue) {
    std::lock_guard lock(mutex_);
    if (queue_ || cancelled_) return false;
    queue_ = &queue;
    return true;
}

bool PathDelivery::isStarted() const {
    std::lock_guard lock(mutex_);
    return queue_ != nullptr;
}

bool PathDelivery::isCancelled() const {
    std::lock_guard lock(mutex_);
    return cancelled_;
}

void PathDelivery::deliver(PathStatus status) {
    std::lock_guard lock(mutex_);
    if (!queue_ || cancelled_) return;
    queue_->async([self = shared_from_this(), status] { self->run(status); });
}

void PathDelivery::cancel() {
    std::unique_lock lock(mutex_);
    cancelled_ = true;
    // Only the queue's thread runs the handler, so from there nothing is in flight
    // except, possibly, the caller itself.
    if (queue_ && queue_->isCurrent()) return;
    idle_.wait(lock, [this] { return inFlight_ == 0; });
}

void PathDelivery::run(PathStatus status) {
    PathMonitor::UpdateHandler handler;
    {
        std::lock_guard lock(mutex_);
        if (cancelled_ || !handler_) return;
        handler = handler_;
        ++inFlight_;
    }
    struct Done {
        PathDelivery* self;
        ~Done() {
            {
                std::lock_guard lock(self->mutex_);
                --self->inFlight_;
            }
            self->idle_.notify_all();
        }
    } done{this};
    handler(status);
}

// ---- evaluation

bool isUsableLink(const LinkFact& link) noexcept {
    if (link.flags & kLinkLoopback) return false;
    if (!(link.flags & kLinkUp)) return false;
    // "Running" follows the carrier: a veth whose peer is down is up but not running.
    return (link.flags & kLinkRunning) || link.operState == kOperationalUp;
}

PathStatus evaluatePath(const std::vector<LinkFact>& links, const std::vector<DefaultRouteFact>& defaultRoutes) {
    std::unordered_set<int> usable;
    for (const auto& link : links)
        if (isUsableLink(link)) usable.insert(link.index);
    if (usable.empty()) return PathStatus::unsatisfied;
    for (const auto& route : defaultRoutes) {
        // A nexthop object is not resolved to its interfaces; any usable link will do.
        if (route.usesNexthopObject) return PathStatus::satisfied;
        for (int oif : route.outputInterfaces)
            if (usable.contains(oif)) return PathStatus::satisfied;
    }
    return PathStatus::unsatisfied;
}

}  // namespace detail

// ---- factory

namespace {

struct FactoryHolder {
    std::mutex mutex;
    PathMonitor::Factory factory;
};

FactoryHolder& factoryHolder() {
    static auto* holder = new FactoryHolder();
    return *holder;
}

}  // namespace

std::shared_ptr<PathMonitor> PathMonitor::make() {
    PathMonitor::Factory factory;
    {
        std::lock_guard lock(factoryHolder().mutex);
        factory = factoryHolder().factory;
    }
    if (factory) return factory();
    return os::makeDefaultPathMonitor();
}

void PathMonitor::setFactory(Factory factory) {
    std::lock_guard lock(factoryHolder().mutex);
    factoryHolder().factory = std::move(factory);
}

}  // namespace tavrin::platform
