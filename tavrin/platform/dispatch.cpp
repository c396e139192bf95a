#include "tavrin/platform/dispatch.h"

#include <pthread.h>

namespace tavrin::platform {

namespace {
thread_local std::string tCurrentLabel;
// The state block of the queue or pool whose thread this is; lets a queue
// recognise its own thread without reading its std::thread member, which is
// written after the thread starts.
thread_local const void* tCurrentQueue = nullptr;
// The concurrent queues this thread is reading from, innermost last.
thread_local std::vector<const void*> tReadingQueues;

void becomeQueueThread(const std::string& label, const void* queue) {
    setCurrentThreadName(label);
    tCurrentQueue = queue;
}
}  // namespace

const std::string& currentQueueLabel() { return tCurrentLabel; }

void setCurrentThreadName(const std::string& name) {
    tCurrentLabel = name;
    const std::string shortName = name.substr(0, 15);
    pthread_setname_np(pthread_self(), shortName.c_str());
}

// ---- SerialQueue

SerialQueue::SerialQueue(std::string label) : state_(std::make_shared<State>(std::move(label))) {
    thread_ = std::thread([state = state_] { run(state); });
}

SerialQueue::~SerialQueue() {
    {
        std::lock_guard lock(state_->mutex);
        state_->stopping = true;
    }
    state_->cv.notify_all();
    if (!thread_.joinable()) return;
    if (isCurrent())
        thread_.detach();  // destroyed from one of its own blocks; the thread keeps the state alive
    else
        thread_.join();
}

bool SerialQueue::isCurrent() const noexcept { return tCurrentQueue == state_.get(); }

void SerialQueue::async(std::function<void()> block) { enqueue(std::move(block)); }

void SerialQueue::enqueue(std::function<void()> block) {
    {
        std::lock_guard lock(state_->mutex);
        state_->blocks.push_back(std::move(block));
    }
    state_->cv.notify_one();
}

void SerialQueue::run(const std::shared_ptr<State>& state) {
    becomeQueueThread(state->label, state.get());
    for (;;) {
        std::function<void()> block;
        {
            std::unique_lock lock(state->mutex);
            state->cv.wait(lock, [&] { return state->stopping || !state->blocks.empty(); });
            if (state->blocks.empty()) return;
            block = std::move(state->blocks.front());
            state->blocks.pop_front();
        }
        try {
            block();
        } catch (...) {
            // An async block has nobody to report to; the queue keeps running.
        }
    }
}

// ---- ConcurrentQueue

ConcurrentQueue::ReadScope::ReadScope(const void* queue) { tReadingQueues.push_back(queue); }
ConcurrentQueue::ReadScope::~ReadScope() { tReadingQueues.pop_back(); }

ConcurrentQueue::ConcurrentQueue(std::string label) : state_(std::make_shared<State>(std::move(label))) {
    thread_ = std::thread([state = state_] { run(state); });
}

ConcurrentQueue::~ConcurrentQueue() {
    {
        std::lock_guard lock(state_->mutex);
        state_->stopping = true;
    }
    state_->cv.notify_all();
    if (!thread_.joinable()) return;
    if (isWriterThread())
        thread_.detach();
    else
        thread_.join();
}

void ConcurrentQueue::asyncBarrier(std::function<void()> write) {
    {
        std::lock_guard lock(state_->mutex);
        state_->writes.push_back(std::move(write));
        ++state_->submitted;
    }
    state_->cv.notify_one();
}

bool ConcurrentQueue::isWriterThread() const noexcept { return tCurrentQueue == state_.get(); }

bool ConcurrentQueue::isReadingThread() const noexcept {
    for (const void* q : tReadingQueues)
        if (q == state_.get()) return true;
    return false;
}

std::uint64_t ConcurrentQueue::submittedTicket() {
    std::lock_guard lock(state_->mutex);
    return state_->submitted;
}

void ConcurrentQueue::waitForWritesBefore(std::uint64_t ticket) {
    if (isWriterThread() || isReadingThread()) return;
    std::unique_lock lock(state_->mutex);
    state_->appliedCv.wait(lock, [&] { return state_->applied >= ticket; });
}

void ConcurrentQueue::run(const std::shared_ptr<State>& state) {
    becomeQueueThread(state->label, state.get());
    for (;;) {
        std::function<void()> write;
        {
            std::unique_lock lock(state->mutex);
            state->cv.wait(lock, [&] { return state->stopping || !state->writes.empty(); });
            if (state->writes.empty()) return;
            write = std::move(state->writes.front());
            state->writes.pop_front();
        }
        {
            std::unique_lock exclusive(state->data);
            try {
                write();
            } catch (...) {
                // A barrier write has nobody to report to; later writes still apply.
            }
        }
        // Released before the count moves on, so a block holding the last
        // reference to something is gone before a waiting reader resumes.
        write = nullptr;
        {
            std::lock_guard lock(state->mutex);
            ++state->applied;
        }
        state->appliedCv.notify_all();
    }
}

// ---- TaskPool

TaskPool::TaskPool(std::size_t threads, std::string label) : state_(std::make_shared<State>(std::move(label))) {
    if (threads == 0) threads = 1;
    for (std::size_t i = 0; i < threads; ++i) threads_.emplace_back([state = state_] { run(state); });
}

TaskPool::~TaskPool() {
    {
        std::lock_guard lock(state_->mutex);
        state_->stopping = true;
    }
    state_->cv.notify_all();
    const bool fromOwnTask = tCurrentQueue == state_.get();
    for (auto& t : threads_) {
        if (!t.joinable()) continue;
        if (fromOwnTask)
            t.detach();
        else
            t.join();
    }
}

TaskPool& TaskPool::shared() {
    // Never destroyed: detached tasks may still be running while static
    // destructors run at exit.
    static auto* pool = new TaskPool(2);
    return *pool;
}

void TaskPool::detach(std::function<void()> fn) {
    enqueue([fn = std::move(fn)] {
        try {
            fn();
        } catch (...) {
        }
    });
}

void TaskPool::enqueue(std::function<void()> block) {
    {
        std::lock_guard lock(state_->mutex);
        state_->tasks.push_back(std::move(block));
    }
    state_->cv.notify_one();
}

void TaskPool::run(const std::shared_ptr<State>& state) {
    becomeQueueThread(state->label, state.get());
    for (;;) {
        std::function<void()> task;
        {
            std::unique_lock lock(state->mutex);
            state->cv.wait(lock, [&] { return state->stopping || !state->tasks.empty(); });
            if (state->tasks.empty()) return;
            task = std::move(state->tasks.front());
            state->tasks.pop_front();
        }
        task();  // packaged_task stores exceptions in the future; detach catches its own
    }
}

std::mutex& processLock() {
    static std::mutex lock;
    return lock;
}

}  // namespace tavrin::platform
