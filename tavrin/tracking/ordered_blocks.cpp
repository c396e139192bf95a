#include "tavrin/tracking/internal/ordered_blocks.h"

#include <utility>

#include "tavrin/platform/dispatch.h"

namespace tavrin {

void detail::OrderedBlocks::add(std::function<void()> block) {
    {
        std::lock_guard lock(mutex_);
        blocks_.push_back(std::move(block));
        if (draining_) return;
        draining_ = true;
    }
    try {
        platform::TaskPool::shared().detach([self = shared_from_this()] { self->drain(); });
    } catch (...) {
        std::lock_guard lock(mutex_);
        blocks_.pop_back();
        draining_ = false;
        throw;
    }
}

void detail::OrderedBlocks::drain() {
    for (;;) {
        std::function<void()> block;
        {
            std::lock_guard lock(mutex_);
            if (blocks_.empty()) {
                draining_ = false;
                return;
            }
            block = std::move(blocks_.front());
            blocks_.pop_front();
        }
        block();  // each block reports its own failure
    }
}

}  // namespace tavrin
