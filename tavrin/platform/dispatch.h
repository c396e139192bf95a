#pragma once
// Dispatch: serial queues, concurrent queues with barrier writes, a shared
// pool for background tasks, and the process-wide lock.
//
// Each queue keeps its working state in a block shared with its thread, so a
// queue may be destroyed from one of its own blocks (the last owner of an
// object dropped on its own queue): the thread then finishes the blocks
// already submitted and ends by itself.

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
    // Runs every block already submitted, then joins the thread (or, when
    // called from one of its own blocks, lets the thread finish on its own).
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& label() const noexcept { return state_->label; }

    void async(std::function<void()> block);

    // Runs the block on the queue after everything submitted before it and
    // waits for its result; exceptions reach the caller. Called from the
    // queue's own thread, it runs inline instead of deadlocking.
    template <class F>
    auto sync(F&& block) -> std::invoke_result_t<F> {
        using R = std::invoke_result_t<F>;
        if (isCurrent()) return block();
        // Shared with the queued block: the caller may wake and return while
        // the queue thread is still leaving the task.
        auto task = std::make_shared<std::packaged_task<R()>>(std::forward<F>(block));
        auto future = task->get_future();
        enqueue([task] { (*task)(); });
        return future.get();
    }

    bool isCurrent() const noexcept;

private:
    struct State {
        explicit State(std::string l) : label(std::move(l)) {}
        const std::string label;
        std::mutex mutex;
        std::condition_variable cv;
        std::deque<std::function<void()>> blocks;
        bool stopping = false;
    };

    void enqueue(std::function<void()> block);
    static void run(const std::shared_ptr<State>& state);

    std::shared_ptr<State> state_;
    std::thread thread_;
};

// Reads run synchronously on the caller's thread and may overlap; writes are
// asynchronous barrier blocks applied one at a time in submission order, and a
// read waits for every write submitted before it.
class ConcurrentQueue {
public:
    explicit ConcurrentQueue(std::string label);
    // Applies every pending write, then joins the writer thread (or, when
    // called from a write, lets the thread finish on its own).
    ~ConcurrentQueue();
    ConcurrentQueue(const ConcurrentQueue&) = delete;
    ConcurrentQueue& operator=(const ConcurrentQueue&) = delete;

    const std::string& label() const noexcept { return state_->label; }

    template <class F>
    auto sync(F&& read) -> std::invoke_result_t<F> {
        // Inside a write the data is already held exclusively; inside a read
        // it is already held shared, and waiting for a newer write would
        // wait on ourselves.
        if (isWriterThread() || isReadingThread()) return read();
        waitForWritesBefore(submittedTicket());
        std::shared_lock lock(state_->data);
        ReadScope scope(state_.get());
        return read();
    }

    void asyncBarrier(std::function<void()> write);

    // Blocks until every write submitted so far has been applied.
    void drain() { waitForWritesBefore(submittedTicket()); }

    bool isWriterThread() const noexcept;

private:
    struct State {
        explicit State(std::string l) : label(std::move(l)) {}
        const std::string label;
        std::shared_mutex data;
        std::mutex mutex;
        std::condition_variable cv;
        std::condition_variable appliedCv;
        std::deque<std::function<void()>> writes;
        std::uint64_t submitted = 0;
        std::uint64_t applied = 0;
        bool stopping = false;
    };

    // Marks the calling thread as reading this queue for the scope's life.
    class ReadScope {
    public:
        explicit ReadScope(const void* queue);
        ~ReadScope();
        ReadScope(const ReadScope&) = delete;
        ReadScope& operator=(const ReadScope&) = delete;
    };

    bool isReadingThread() const noexcept;
    std::uint64_t submittedTicket();
    void waitForWritesBefore(std::uint64_t ticket);
    static void run(const std::shared_ptr<State>& state);

    std::shared_ptr<State> state_;
    std::thread thread_;
};

// A small fixed pool for background tasks.
class TaskPool {
public:
    explicit TaskPool(std::size_t threads, std::string label = "com.tavrin.task");
    // Runs the tasks already submitted, then joins (from one of its own
    // tasks: lets the threads finish on their own).
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
    struct State {
        explicit State(std::string l) : label(std::move(l)) {}
        const std::string label;
        std::mutex mutex;
        std::condition_variable cv;
        std::deque<std::function<void()>> tasks;
        bool stopping = false;
    };

    void enqueue(std::function<void()> block);
    static void run(const std::shared_ptr<State>& state);

    std::shared_ptr<State> state_;
    std::vector<std::thread> threads_;
};

// The one process-wide mutual-exclusion lock (start-up serialisation).
std::mutex& processLock();

}  // namespace tavrin::platform
