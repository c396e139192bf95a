#pragma once
// Dispatch: serial queues, concurrent queues with barrier writes, a shared
// pool for background tasks, and the process-wide lock.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace tavrin::platform {

// The label of the queue running on this thread, or empty.
const std::string& currentQueueLabel();

// Names the calling thread (Linux keeps 15 characters).
void setCurrentThreadName(const std::string& name);

// One named thread running blocks one at a time in submission order.
class SerialQueue {
public:
    explicit SerialQueue(std::string label);
    // Runs every block already submitted, then joins the thread.
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& label() const noexcept { return label_; }

    void async(std::function<void()> block);

    // Runs the block on the queue after everything submitted before it and
    // waits for its result; exceptions reach the caller. Called from the
    // queue's own thread, it runs inline instead of deadlocking.
    template <class F>
    auto sync(F&& block) -> std::invoke_result_t<F> {
        using R = std::invoke_result_t<F>;
        if (isCurrent()) return block();
        std::packaged_task<R()> task(std::forward<F>(block));
        auto future = task.get_future();
        enqueue([&task] { task(); });
        return future.get();
    }

    bool isCurrent() const noexcept;

private:
    void enqueue(std::function<void()> block);
    void run();

    std::string label_;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<std::function<void()>> blocks_;
    bool stopping_ = false;
    std::thread thread_;
};

// Reads run synchronously on the caller's thread and may overlap; writes are
// asynchronous barrier blocks applied one at a time in submission order, and a
// read waits for every write submitted before it.
class ConcurrentQueue {
public:
    explicit ConcurrentQueue(std::string label);
    // Applies every pending write, then joins the writer thread.
    ~ConcurrentQueue();
    ConcurrentQueue(const ConcurrentQueue&) = delete;
    ConcurrentQueue& operator=(const ConcurrentQueue&) = delete;

    const std::string& label() const noexcept { return label_; }

    template <class F>
    auto sync(F&& read) -> std::invoke_result_t<F> {
        if (isWriterThread()) return read();  // a read made by a write already holds the data
        waitForWritesBefore(submittedTicket());
        std::shared_lock lock(data_);
        return read();
    }

    void asyncBarrier(std::function<void()> write);

    // Blocks until every write submitted so far has been applied.
    void drain() { waitForWritesBefore(submittedTicket()); }

    bool isWriterThread() const noexcept;

private:
    std::uint64_t submittedTicket();
    void waitForWritesBefore(std::uint64_t ticket);
    void run();

    std::string label_;
    std::shared_mutex data_;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::condition_variable appliedCv_;
    std::deque<std::function<void()>> writes_;
    std::uint64_t submitted_ = 0;
    std::uint64_t applied_ = 0;
    bool stopping_ = false;
    std::thread thread_;
};

// A small fixed pool for background tasks.
class TaskPool {
public:
    explicit TaskPool(std::size_t threads, std::string label = "com.tavrin.task");
    // Runs the tasks already submitted, then joins.
    ~TaskPool();
    TaskPool(const TaskPool&) = delete;
    TaskPool& operator=(const TaskPool&) = delete;

    // The process-wide pool (two threads), created on first use.
    static TaskPool& shared();

    // Runs the callable on a pool thread; the future carries its result or exception.
    template <class F>
    auto submit(F&& fn) -> std::future<std::invoke_result_t<F>> {
        using R = std::invoke_result_t<F>;
        auto task = std::make_shared<std::packaged_task<R()>>(std::forward<F>(fn));
        auto future = task->get_future();
        enqueue([task] { (*task)(); });
        return future;
    }

    // Fire and forget; exceptions are swallowed so a detached task cannot end the process.
    void detach(std::function<void()> fn);

private:
    void enqueue(std::function<void()> block);
    void run();

    std::string label_;
    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<std::function<void()>> tasks_;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

// The one process-wide mutual-exclusion lock (start-up serialisation).
std::mutex& processLock();

}  // namespace tavrin::platform
