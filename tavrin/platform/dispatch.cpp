#include "tavrin/platform/dispatch.h"

#include <pthread.h>

namespace tavrin::platform {

namespace {
thread_local std::string tCurrentLabel;
// The queue object whose thread this is; lets a queue recognise its own thread
// without reading its std::thread member, which is written after the thread starts.
thread_local const void* tCurrentQueue = nullptr;
}

const std::string& currentQueueLabel() { return tCurrentLabel; }

void setCurrentThreadName(const std::string& name) {
    tCurrentLabel = name;
    const std::string shortName = name.substr(0, 15);
    pthread_setname_np(pthread_self(), shortName.c_str());
}

// ---- SerialQueue

SerialQueue::SerialQueue(std::string label) : label_(std::move(label)) {
    thread_ = std::thread([this] { run(); });
}

SerialQueue::~SerialQueue() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    cv_.notify_all();
    if (thread_.joinable()) {
        if (isCurrent())
            thread_.detach();  // destroyed from one of its own blocks
        else
            thread_.join();
    }
}

bool SerialQueue::isCurrent() const noexcept { return tCurrentQueue == this; }

void SerialQueue::async(std::function<void()> block) { enqueue(std::move(block)); }

void SerialQueue::enqueue(std::function<void()> block) {
    {
        std::lock_guard lock(mutex_);
        blocks_.push_back(std::move(block));
    }
    cv_.notify_one();
}

void SerialQueue::run() {
    setCurrentThreadName(label_);
    tCurrentQueue = this;
    for (;;) {
        std::function<void()> block;
        {
            std::unique_lock lock(mutex_);
            cv_.wait(lock, [this] { return stopping_ || !blocks_.empty(); });
            if (blocks_.empty()) return;
            block = std::move(blocks_.front());
            blocks_.pop_front();
        }
        try {
            block();
        } catch (...) {
            // An async block has nobody to report to; the queue keeps running.
        }
    }
}

// ---- ConcurrentQueue

ConcurrentQueue::ConcurrentQueue(std::string label) : label_(std::move(label)) {
    thread_ = std::thread([this] { run(); });
}

ConcurrentQueue::~ConcurrentQueue() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    cv_.notify_all();
    if (thread_.joinable()) thread_.join();
}

void ConcurrentQueue::asyncBarrier(std::function<void()> write) {
    {
        std::lock_guard lock(mutex_);
        writes_.push_back(std::move(write));
        ++submitted_;
    }
    cv_.notify_one();
}

bool ConcurrentQueue::isWriterThread() const noexcept { return tCurrentQueue == this; }

std::uint64_t ConcurrentQueue::submittedTicket() {
    std::lock_guard lock(mutex_);
    return submitted_;
}

void ConcurrentQueue::waitForWritesBefore(std::uint64_t ticket) {
    if (isWriterThread()) return;
    std::unique_lock lock(mutex_);
    appliedCv_.wait(lock, [&] { return applied_ >= ticket; });
}

void ConcurrentQueue::run() {
    setCurrentThreadName(label_);
    tCurrentQueue = this;
    for (;;) {
        std::function<void()> write;
        {
            std::unique_lock lock(mutex_);
            cv_.wait(lock, [this] { return stopping_ || !writes_.empty(); });
            if (writes_.empty()) return;
            write = std::move(writes_.front());
            writes_.pop_front();
        }
        {
            std::unique_lock exclusive(data_);
            try {
                write();
            } catch (...) {
                // A barrier write has nobody to report to; later writes still apply.
            }
        }
        {
            std::lock_guard lock(mutex_);
            ++applied_;
        }
        appliedCv_.notify_all();
    }
}

// ---- TaskPool

TaskPool::TaskPool(std::size_t threads, std::string label) : label_(std::move(label)) {
    if (threads == 0) threads = 1;
    for (std::size_t i = 0; i < threads; ++i) threads_.emplace_back([this] { run(); });
}

TaskPool::~TaskPool() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    cv_.notify_all();
    for (auto& t : threads_)
        if (t.joinable()) t.join();
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
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(block));
    }
    cv_.notify_one();
}

void TaskPool::run() {
    setCurrentThreadName(label_);
    for (;;) {
        std::function<void()> task;
        {
            std::unique_lock lock(mutex_);
            cv_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
            if (tasks_.empty()) return;
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        task();  // packaged_task stores exceptions in the future
    }
}

std::mutex& processLock() {
    static std::mutex lock;
    return lock;
}

}  // namespace tavrin::platform
