#include "tavrin/platform/dispatch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/support/log_capture.h"

namespace tavrin::platform {
namespace {

using namespace std::chrono_literals;

// A count-down latch on a mutex: mingw-w64's std::latch (GCC 12) can lose a
// wake-up and leave its waiter asleep for good.
class Latch {
public:
    explicit Latch(int count) : count_(count) {}
    void count_down() {
        std::lock_guard lock(mutex_);
        if (--count_ == 0) zero_.notify_all();
    }
    void wait() {
        std::unique_lock lock(mutex_);
        zero_.wait(lock, [&] { return count_ <= 0; });
    }
    void arrive_and_wait() {
        count_down();
        wait();
    }

private:
    std::mutex mutex_;
    std::condition_variable zero_;
    int count_;
};

// A one-shot signal, awaited with a bound reached only when something hangs.
struct Gate {
    std::promise<void> opened;
    std::shared_future<void> future = opened.get_future().share();
    void open() { opened.set_value(); }
    bool wait() const { return future.wait_for(10s) == std::future_status::ready; }
};

template <class T>
bool ready(std::future<T>& future) {
    return future.wait_for(10s) == std::future_status::ready;
}

// Opens the gate a little later, from another thread.
std::thread openSoon(Gate& gate) {
    return std::thread([&gate] {
        std::this_thread::sleep_for(20ms);
        gate.open();
    });
}

TEST(SerialQueueTest, RunsBlocksOneAtATimeInEachProducersOrder) {
    SerialQueue queue("com.tavrin.test.serial");
    std::vector<std::pair<int, int>> ran;  // touched only on the queue
    std::atomic<int> inFlight{0};
    std::atomic<bool> overlapped{false};
    std::vector<std::thread> producers;
    for (int p = 0; p < 4; ++p)
        producers.emplace_back([&, p] {
            for (int i = 0; i < 500; ++i)
                queue.async([&, p, i] {
                    if (inFlight.fetch_add(1) != 0) overlapped = true;
                    ran.emplace_back(p, i);
                    inFlight.fetch_sub(1);
                });
        });
    for (auto& t : producers) t.join();
    const auto result = queue.sync([&] { return ran; });
    ASSERT_EQ(result.size(), 2000u);
    std::vector<int> next(4, 0);
    for (const auto& [p, i] : result) ASSERT_EQ(i, next[p]++) << "producer " << p;
    EXPECT_FALSE(overlapped);
}

TEST(SerialQueueTest, SyncWaitsForEarlierBlocks) {
    SerialQueue queue("com.tavrin.test.sync");
    int value = 0;  // touched only on the queue
    Gate release;
    queue.async([&] {
        release.wait();
        value = 41;
    });
    queue.async([&] { ++value; });
    auto opener = openSoon(release);
    EXPECT_EQ(queue.sync([&] { return value; }), 42);
    opener.join();
    EXPECT_THROW(queue.sync([]() -> int { throw std::runtime_error("boom"); }), std::runtime_error);
}

TEST(SerialQueueTest, SyncFromTheQueuesOwnThreadRunsInline) {
    SerialQueue queue("com.tavrin.test.inline");
    std::promise<int> result;
    queue.async([&] { result.set_value(queue.sync([&] { return queue.sync([] { return 5; }) + 1; })); });
    auto future = result.get_future();
    ASSERT_TRUE(ready(future)) << "deadlocked";
    EXPECT_EQ(future.get(), 6);
}

// Queues are orderings over one small pool: twenty of them add no threads.
TEST(SerialQueueTest, ManyQueuesShareThePoolsThreads) {
    std::mutex mutex;
    std::set<std::thread::id> threads;
    Latch done(20 * 50);
    std::vector<std::unique_ptr<SerialQueue>> queues;  // destroyed first: their blocks use the above
    for (int q = 0; q < 20; ++q) queues.push_back(std::make_unique<SerialQueue>("com.tavrin.test.many"));
    for (int i = 0; i < 50; ++i)
        for (auto& queue : queues)
            queue->async([&] {
                {
                    std::lock_guard lock(mutex);
                    threads.insert(std::this_thread::get_id());
                }
                done.count_down();
            });
    done.wait();
    EXPECT_LE(threads.size(), 2u);
    EXPECT_FALSE(threads.count(std::this_thread::get_id()));
}

// Both pool threads wait inside a block for another queue: the waiting
// threads run those queues' blocks themselves instead of waiting for a free
// pool thread that never comes.
TEST(SerialQueueTest, WaitsBetweenQueuesNeverNeedAFreePoolThread) {
    Latch bothRunning(2);
    std::promise<int> fromA, fromB;  // outlive the queues, whose blocks set them
    SerialQueue a("com.tavrin.test.a"), b("com.tavrin.test.b"), c("com.tavrin.test.c"), d("com.tavrin.test.d");
    a.async([&] {
        bothRunning.arrive_and_wait();
        fromA.set_value(c.sync([&] { return c.isCurrent() && !a.isCurrent() ? 1 : -1; }));
    });
    b.async([&] {
        bothRunning.arrive_and_wait();
        fromB.set_value(d.sync([] { return 2; }));
    });
    auto futureA = fromA.get_future(), futureB = fromB.get_future();
    ASSERT_TRUE(ready(futureA) && ready(futureB)) << "deadlocked";
    EXPECT_EQ(futureA.get(), 1);
    EXPECT_EQ(futureB.get(), 2);
}

// The host's threads wait for a queue but never run its blocks, even while
// the pool is busy: a host submitting in a loop must not outrun the SDK.
TEST(SerialQueueTest, AHostThreadWaitingForAQueueNeverRunsItsBlocks) {
    Latch bothBusy(2);
    Gate release;  // outlives the queues, whose blocks wait on it
    SerialQueue busyA("com.tavrin.test.busy"), busyB("com.tavrin.test.busy"), queue("com.tavrin.test.q");
    busyA.async([&] {
        bothBusy.count_down();
        release.wait();
    });
    busyB.async([&] {
        bothBusy.count_down();
        release.wait();
    });
    bothBusy.wait();
    std::atomic<bool> ranOnHost{false};
    const auto host = std::this_thread::get_id();
    for (int i = 0; i < 10; ++i) queue.async([&] { ranOnHost = ranOnHost || std::this_thread::get_id() == host; });
    auto opener = openSoon(release);
    queue.sync([] {});
    opener.join();
    EXPECT_FALSE(ranOnHost);
}

TEST(ConcurrentQueueTest, ReadSeesEveryWriteSubmittedBeforeItInOrder) {
    ConcurrentQueue queue("com.tavrin.test.cache");
    std::vector<int> applied;
    Gate release;
    queue.asyncBarrier([&] { release.wait(); });
    for (int i = 0; i < 1000; ++i) queue.asyncBarrier([&, i] { applied.push_back(i); });
    auto opener = openSoon(release);
    // Submitted while the writes are held back: the read must wait for all of them.
    const auto snapshot = queue.sync([&] { return applied; });
    opener.join();
    ASSERT_EQ(snapshot.size(), 1000u);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(snapshot[static_cast<std::size_t>(i)], i);
}

// Nobody is there to catch it: it is logged at error level and the queue runs
// what comes after. Exceptions that reach a caller (sync, submit) are not logged.
TEST(DispatchTest, ExceptionEscapingAnAsynchronousBlockIsLoggedAndTheQueueGoesOn) {
    testing::LogCapture log(LogLevel::error);
    std::atomic<int> ran{0};
    SerialQueue serial("com.tavrin.test.serial");
    serial.async([] { throw std::runtime_error("serial failed"); });
    serial.async([] { throw 42; });
    serial.async([&] { ++ran; });
    EXPECT_THROW(serial.sync([]() -> int { throw std::runtime_error("to the caller"); }), std::runtime_error);
    ConcurrentQueue concurrent("com.tavrin.test.cq");
    concurrent.asyncBarrier([] { throw std::runtime_error("write failed"); });
    concurrent.asyncBarrier([&] { ++ran; });
    concurrent.drain();
    TaskPool pool(1, "com.tavrin.test.pool");  // one thread: the tasks run in order
    pool.detach([] { throw std::runtime_error("task failed"); });
    pool.detach([&] { ++ran; });
    EXPECT_THROW(pool.submit([]() -> int { throw std::runtime_error("to the future"); }).get(), std::runtime_error);
    EXPECT_EQ(pool.submit([&] { return ran.load(); }).get(), 3);
    const std::string escaped = "Exception escaped an asynchronous block on com.tavrin.test.";
    EXPECT_EQ(log.sink->messages(platform::LogType::error),
              (std::vector<std::string>{escaped + "serial: serial failed", escaped + "serial: unknown exception",
                                        escaped + "cq: write failed", escaped + "pool: task failed"}));
}

TEST(DispatchTest, DestructionRunsEverythingSubmitted) {
    std::atomic<int> serial{0}, pool{0};
    std::vector<int> writes;
    Gate release;  // outlives the queues, whose blocks wait on it
    {
        SerialQueue queue("com.tavrin.test.drain");
        ConcurrentQueue concurrent("com.tavrin.test.drain");
        TaskPool tasks(2);
        queue.async([&] { release.wait(); });
        concurrent.asyncBarrier([&] { release.wait(); });
        for (int i = 0; i < 100; ++i) {
            queue.async([&] { ++serial; });
            concurrent.asyncBarrier([&, i] { writes.push_back(i); });
            tasks.detach([&] { ++pool; });
        }
        release.open();
    }
    EXPECT_EQ(serial.load(), 100);
    EXPECT_EQ(writes.size(), 100u);
    EXPECT_EQ(pool.load(), 100);
}

}  // namespace
}  // namespace tavrin::platform
