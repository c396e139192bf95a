#pragma once
// Blocks run one at a time, in the order they were added, on the shared task
// pool: a block added while another runs waits for it. No thread of its own.

#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace tavrin::detail {

class OrderedBlocks : public std::enable_shared_from_this<OrderedBlocks> {
public:
    // Throws only when the task pool cannot take the block (nothing is kept then).
    void add(std::function<void()> block);

private:
    void drain();

    std::mutex mutex_;
    std::deque<std::function<void()>> blocks_;
    bool draining_ = false;
};

}  // namespace tavrin::detail
