#pragma once
// Dispatch: serial queues, concurrent queues with barrier writes, a shared
// pool for background tasks, and the process-wide lock. The SDK orders its
// work with them; a platform implementation reports on the queue it is given.
//
//     tavrin::platform::SerialQueue queue("com.example.work");
//     queue.async([] { /* runs after every block submitted before it */ });
//     int answer = queue.sync([] { return 42; });  // waits; an exception reaches the caller
//     std::uint64_t retry = queue.asyncAfter(std::chrono::seconds(5), [] { /* later, in order */ });
//     queue.cancel(retry);                         // true: it had not started, and never will
//     std::future<int> one = tavrin::platform::TaskPool::shared().submit([] { return 1; });
//
//     std::vector<std::string> names;  // declared first, so it outlives the writes queued on `table`
//     tavrin::platform::ConcurrentQueue table("com.example.names");
//     table.asyncBarrier([&] { names.push_back("a"); });
//     std::size_t count = table.sync([&] { return names.size(); });  // 1: a read waits for earlier writes
//
// A queue is an ordering of work, not a thread: every serial and concurrent
// queue is a strand over the one shared pool (two threads named
// "com.tavrin.pool"), so the SDK's threads do not grow with its queues. A
// pool thread that waits for a queue (sync, a read, drain) whose blocks are
// not running anywhere runs them itself, up to its own, so waits between
// queues never need a free pool thread. A queue's state is shared with the work
// posted to it, so a queue may be destroyed from one of its own blocks (the
// last owner of an object dropped on its own queue): the blocks already
// submitted still run. An exception escaping an asynchronous block is logged
// at error level; the queue goes on.

#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "tavrin/platform/api.h"

namespace tavrin::platform {

// The label of the queue running on this thread, or empty.
TAVRIN_API const std::string& currentQueueLabel();

// How many fork() calls separate this process from the one that loaded the
// library: 0 there, one more in each child. A forked child has none of its
// parent's threads, so what owns threads or shared descriptors remembers the
// generation it started in: a child never joins, signals or shuts down what
// belongs to the parent, and queues start threads of their own when the child
// first uses them (blocks queued in the parent stay the parent's).
TAVRIN_API std::uint32_t forkGeneration() noexcept;

// Keeps `object` until the process ends without ever destroying it: where a
// forked child sets aside its copy of something that belongs to the parent.
TAVRIN_API void keepForever(std::shared_ptr<const void> object);

// Names the calling thread (Linux keeps 15 characters).
TAVRIN_API void setCurrentThreadName(const std::string& name);

namespace detail {
// Threads taking blocks from one FIFO (defined in dispatch.cpp).
class WorkerCore;
// Blocks run one at a time, in order, on whichever thread is free.
class Strand;
}  // namespace detail

// Blocks run one at a time in submission order, on the shared pool; while one
// runs, currentQueueLabel() is the queue's label.
class TAVRIN_API SerialQueue {
public:
    explicit SerialQueue(std::string label);
    // Waits until every block already submitted has run (called from one of
    // its own blocks: lets them run on after it returns). Timed blocks not
    // yet due never run.
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& label() const noexcept;

    void async(std::function<void()> block);
    // Runs the block on the queue once `delay` has passed (in order with the
    // other blocks from then on). Blocks not yet due when the queue is
    // destroyed never run. The returned token cancels it.
    std::uint64_t asyncAfter(std::chrono::milliseconds delay, std::function<void()> block);
    // True when the block had not started yet; it will not run.
    bool cancel(std::uint64_t token);

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
        waitUntilRun(enqueue([task] { (*task)(); }));
        return future.get();
    }

    bool isCurrent() const noexcept;

private:
    // Returns the block's ticket.
    std::uint64_t enqueue(std::function<void()> block);
    // Waits for the blocks up to `ticket` (a pool thread runs them itself
    // while no thread runs them).
    void waitUntilRun(std::uint64_t ticket);

    std::shared_ptr<detail::Strand> core_;
};

// Reads run synchronously on the caller's thread and may overlap; writes are
// asynchronous barrier blocks applied one at a time in submission order, and a
// read waits for every write submitted before it.
class TAVRIN_API ConcurrentQueue {
public:
    explicit ConcurrentQueue(std::string label);
    // Applies every pending write (called from a write: lets them be applied
    // after it returns).
    ~ConcurrentQueue();
    ConcurrentQueue(const ConcurrentQueue&) = delete;
    ConcurrentQueue& operator=(const ConcurrentQueue&) = delete;

    const std::string& label() const noexcept;

    template <class F>
    auto sync(F&& read) -> std::invoke_result_t<F> {
        // Inside a write the data is already held exclusively; inside a read
        // it is already held shared, and waiting for a newer write would
        // wait on ourselves.
        if (isWriterThread() || isReadingThread()) return read();
        ReadScope scope(*this);
        return read();
    }

    void asyncBarrier(std::function<void()> write);

    // Applies the write at once on the calling thread, holding the data
    // exclusively, after every write submitted before it: no hand-off to the
    // pool, which costs a wake-up per write on hot paths. Inside a
    // read of this queue, where waiting for exclusivity would wait on
    // ourselves, the write is queued as an asyncBarrier instead.
    void barrier(std::function<void()> write);

    // Blocks until every write submitted so far has been applied.
    void drain();

    // Fork handlers: holds the data exclusively from the calling thread, so no
    // read or write is halfway through while the process forks, until
    // releaseAfterFork (in the parent and in the child).
    void holdForFork();
    void releaseAfterFork();

    bool isWriterThread() const noexcept;

private:
    // Waits for the writes submitted before it, then holds the data shared
    // and marks the calling thread as reading this queue, for the scope's life.
    class ReadScope {
    public:
        explicit ReadScope(const ConcurrentQueue& queue);
        // The same for a write on the calling thread: holds the data exclusively.
        ReadScope(const ConcurrentQueue& queue, std::unique_lock<std::shared_mutex> exclusive);
        ~ReadScope();
        ReadScope(const ReadScope&) = delete;
        ReadScope& operator=(const ReadScope&) = delete;

    private:
        const void* queue_;
        std::shared_lock<std::shared_mutex> lock_;
        std::unique_lock<std::shared_mutex> exclusive_;
    };

    bool isReadingThread() const noexcept;
    // In a forked child, replaces the parent's core and lock on first use.
    void revive() const;

    mutable std::shared_ptr<detail::Strand> core_;
    // Shared with the queued writes, which may outlive the queue object.
    mutable std::shared_ptr<std::shared_mutex> data_;
};

// A small fixed pool of threads for background tasks, which run side by side.
class TAVRIN_API TaskPool {
public:
    explicit TaskPool(std::size_t threads, std::string label = "com.tavrin.pool");
    // Runs the tasks already submitted, then joins (from one of its own
    // tasks: lets the threads finish on their own).
    ~TaskPool();
    TaskPool(const TaskPool&) = delete;
    TaskPool& operator=(const TaskPool&) = delete;

    // The process-wide pool (two threads), created on first use: the one the
    // queues run on.
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

    // Fire and forget; an exception it throws is logged, never thrown on.
    void detach(std::function<void()> fn);

private:
    struct Shared {};
    explicit TaskPool(Shared);
    void enqueue(std::function<void()> block);

    std::shared_ptr<detail::WorkerCore> core_;
    const bool shared_ = false;
};

// The one process-wide mutual-exclusion lock (start-up serialisation).
TAVRIN_API std::mutex& processLock();

}  // namespace tavrin::platform
