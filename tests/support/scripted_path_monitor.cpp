#include "tests/support/scripted_path_monitor.h"

#include <utility>

namespace tavrin::testing {

using platform::PathStatus;

ScriptedPathMonitor::ScriptedPathMonitor(PathStatus initial)
    : delivery_(std::make_shared<platform::detail::PathDelivery>()), status_(initial) {}

ScriptedPathMonitor::~ScriptedPathMonitor() { cancel(); }

void ScriptedPathMonitor::setUpdateHandler(UpdateHandler handler) { delivery_->setHandler(std::move(handler)); }

void ScriptedPathMonitor::start(platform::SerialQueue& queue) {
    std::lock_guard lock(mutex_);  // orders the first report before any later setStatus
    if (delivery_->start(queue)) delivery_->deliver(status_);
}

void ScriptedPathMonitor::cancel() { delivery_->cancel(); }

void ScriptedPathMonitor::setStatus(PathStatus status) {
    std::lock_guard lock(mutex_);
    status_ = status;
    delivery_->deliver(status);
}

PathStatus ScriptedPathMonitor::status() const {
    std::lock_guard lock(mutex_);
    return status_;
}

bool ScriptedPathMonitor::isStarted() const { return delivery_->isStarted(); }

bool ScriptedPathMonitor::isCancelled() const { return delivery_->isCancelled(); }

}  // namespace tavrin::testing
