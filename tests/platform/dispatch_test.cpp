#include "tavrin/platform/dispatch.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/log_capture.h"

namespace tavrin::platform {
namespace {

using namespace std::chrono_literals;

// Generous bound for "this must happen": reached only when something hangs.
constexpr auto kHang = 10s;

std::string currentThreadName() {
    char name[32] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

// A one-shot signal that can be awaited with a bound.
struct Gate {
    std::promise<void> opened;
    std::shared_future<void> future = opened.get_future().share();
    void open() { opened.set_value(); }
    bool wait() const { return future.wait_for(kHang) == std::future_status::ready; }
};

// meet() returns true once two callers are inside at the same time; false if that never happens.
struct Meeting {
    std::mutex m;
    std::condition_variable cv;
    int arrived = 0;
    bool meet() {
        std::unique_lock lock(m);
        ++arrived;
        cv.notify_all();
        return cv.wait_for(lock, kHang, [&] { return arrived >= 2; });
    }
};

struct QueueError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The first block holds the last reference, so the queue is destroyed on its own thread;
// a block submitted before that still runs afterwards.
template <class Q>
void expectDestroyedByItsOwnBlock(Q* raw, void (Q::*submit)(std::function<void()>)) {
    std::promise<void> destroyed;
    auto queue = std::shared_ptr<Q>(raw, [&](Q* q) {
        delete q;
        destroyed.set_value();
    });
    std::atomic<int> after{0};
    Gate release;
    ((*queue).*submit)([keep = queue, &release] { release.wait(); });
    ((*queue).*submit)([&] { ++after; });
    queue.reset();
    release.open();
    ASSERT_EQ(destroyed.get_future().wait_for(kHang), std::future_status::ready) << "deadlocked";
    for (int i = 0; i < 1000 && after.load() == 0; ++i) std::this_thread::sleep_for(1ms);
    EXPECT_EQ(after.load(), 1);
}

TEST(SerialQueue, KeepsSubmissionOrderPerProducerAndNeverOverlaps) {
    SerialQueue queue("com.tavrin.test.serial");
    std::vector<std::pair<int, int>> ran;  // touched only on the queue
    std::atomic<int> inFlight{0};
    std::atomic<bool> overlapped{false};
    constexpr int kProducers = 4, kPerProducer = 500;
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p)
        producers.emplace_back([&, p] {
            for (int i = 0; i < kPerProducer; ++i)
                queue.async([&, p, i] {
                    if (inFlight.fetch_add(1) != 0) overlapped = true;
                    ran.emplace_back(p, i);
                    inFlight.fetch_sub(1);
                });
        });
    for (auto& t : producers) t.join();
    const auto result = queue.sync([&] { return ran; });
    ASSERT_EQ(result.size(), std::size_t{kProducers * kPerProducer});
    std::vector<int> next(kProducers, 0);
    for (const auto& [p, i] : result) ASSERT_EQ(i, next[p]++) << "producer " << p;
    EXPECT_FALSE(overlapped);
}

TEST(SerialQueue, SyncWaitsForEarlierBlocksRethrowsAndRunsInlineOnTheQueue) {
    SerialQueue queue("com.tavrin.test.sync");
    int value = 0;  // touched only on the queue
    Gate release;
    queue.async([&] {
        release.wait();
        value = 41;
    });
    queue.async([&] { ++value; });
    std::thread opener([&] {
        std::this_thread::sleep_for(20ms);
        release.open();
    });
    EXPECT_EQ(queue.sync([&] { return value; }), 42);
    opener.join();

    EXPECT_THROW(queue.sync([]() -> int { throw QueueError("boom"); }), QueueError);
    // Called from the queue's own thread, sync runs inline instead of deadlocking.
    std::promise<int> result;
    queue.async([&] { result.set_value(queue.sync([&] { return queue.sync([] { return 5; }) + 1; })); });
    auto future = result.get_future();
    ASSERT_EQ(future.wait_for(kHang), std::future_status::ready) << "deadlocked";
    EXPECT_EQ(future.get(), 6);
    EXPECT_TRUE(queue.sync([&] { return queue.isCurrent(); }));
    EXPECT_FALSE(queue.isCurrent());
}

TEST(ConcurrentQueue, ReadSeesEveryWriteSubmittedBeforeItInOrder) {
    ConcurrentQueue queue("com.tavrin.test.cache");
    std::vector<int> applied;
    Gate release;
    queue.asyncBarrier([&] {
        release.wait();
        applied.push_back(0);
    });
    for (int i = 1; i < 1000; ++i) queue.asyncBarrier([&, i] { applied.push_back(i); });
    std::thread opener([&] {
        std::this_thread::sleep_for(30ms);
        release.open();
    });
    // Submitted while the writes are held back: the read must wait for all of them.
    const auto snapshot = queue.sync([&] { return applied; });
    opener.join();
    ASSERT_EQ(snapshot.size(), 1000u);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(snapshot[static_cast<std::size_t>(i)], i);
    for (int i = 0; i < 300; ++i) {
        queue.asyncBarrier([&, i] { applied.push_back(i); });
        ASSERT_EQ(queue.sync([&] { return applied.back(); }), i);
    }
    // A throwing read reaches its caller.
    EXPECT_THROW(queue.sync([]() -> int { throw QueueError("read failed"); }), QueueError);
}

TEST(ConcurrentQueue, NestedReadsAndReadsInsideWritesDoNotDeadlock) {
    ConcurrentQueue queue("com.tavrin.test.nested");
    int value = 0;
    Gate inRead, writeSubmitted;
    // A read that, while a write is waiting for it, reads again.
    auto reader = std::async(std::launch::async, [&] {
        return queue.sync([&] {
            inRead.open();
            writeSubmitted.wait();
            return queue.sync([&] { return value; });
        });
    });
    ASSERT_TRUE(inRead.wait());
    queue.asyncBarrier([&] { value = 9; });
    writeSubmitted.open();
    ASSERT_EQ(reader.wait_for(kHang), std::future_status::ready) << "deadlocked";
    EXPECT_EQ(reader.get(), 0);  // the outer read started before the write
    EXPECT_EQ(queue.sync([&] { return value; }), 9);

    std::promise<int> fromWrite;
    queue.asyncBarrier([&] { fromWrite.set_value(queue.sync([&] { return value + 1; })); });
    auto f = fromWrite.get_future();
    ASSERT_EQ(f.wait_for(kHang), std::future_status::ready) << "deadlocked";
    EXPECT_EQ(f.get(), 10);
}

TEST(TaskPool, FuturesCarryValuesAndExceptions) {
    TaskPool pool(1, "com.tavrin.test.pool");
    auto value = pool.submit([] { return std::string("done"); });
    auto failure = pool.submit([]() -> int { throw QueueError("task failed"); });
    EXPECT_EQ(value.get(), "done");
    EXPECT_THROW(failure.get(), QueueError);
    EXPECT_EQ(TaskPool::shared().submit([] { return 3; }).get(), 3);
}

// An exception escaping an asynchronous block has nobody to reach: it is
// logged at error level and the queue runs what comes after. Exceptions that
// reach a caller (sync, submit) are not logged.
TEST(Queues, ExceptionsEscapingAsynchronousBlocksAreLoggedAndTheQueueGoesOn) {
    testing::LogCapture log(LogLevel::error);
    std::atomic<int> ran{0};
    auto prefix = [](const std::string& label) { return "Exception escaped an asynchronous block on " + label + ": "; };

    SerialQueue serial("com.tavrin.test.serial");
    serial.async([] { throw QueueError("serial failed"); });
    serial.async([] { throw 42; });
    serial.async([&] { ++ran; });
    EXPECT_THROW(serial.sync([]() -> int { throw QueueError("reaches the caller"); }), QueueError);
    EXPECT_EQ(serial.sync([&] { return ran.load(); }), 1);

    ConcurrentQueue concurrent("com.tavrin.test.cq");
    concurrent.asyncBarrier([] { throw QueueError("write failed"); });
    concurrent.asyncBarrier([&] { ++ran; });
    concurrent.drain();
    EXPECT_THROW(concurrent.sync([]() -> int { throw QueueError("read failed"); }), QueueError);
    EXPECT_EQ(concurrent.sync([&] { return ran.load(); }), 2);

    TaskPool pool(1, "com.tavrin.test.pool");  // one thread: the tasks run in order
    pool.detach([] { throw QueueError("task failed"); });
    pool.detach([&] { ++ran; });
    EXPECT_THROW(pool.submit([]() -> int { throw QueueError("reaches the future"); }).get(), QueueError);
    EXPECT_EQ(pool.submit([&] { return ran.load(); }).get(), 3);

    EXPECT_EQ(log.sink->messages(platform::LogType::error),
              (std::vector<std::string>{prefix("com.tavrin.test.serial") + "serial failed",
                                        prefix("com.tavrin.test.serial") + "unknown exception",
                                        prefix("com.tavrin.test.cq") + "write failed",
                                        prefix("com.tavrin.test.pool") + "task failed"}));
}

TEST(Queues, ReadsAndPoolTasksRunConcurrently) {
    ConcurrentQueue queue("com.tavrin.test.readers");
    TaskPool pool(2);
    Meeting readers, tasks;  // exclusive reads, or tasks run one at a time, would time out
    auto read = [&] { return queue.sync([&] { return readers.meet(); }); };
    auto a = std::async(std::launch::async, read), b = std::async(std::launch::async, read);
    auto c = pool.submit([&] { return tasks.meet(); }), d = pool.submit([&] { return tasks.meet(); });
    EXPECT_TRUE(a.get());
    EXPECT_TRUE(b.get());
    EXPECT_TRUE(c.get());
    EXPECT_TRUE(d.get());
}

TEST(Queues, ThreadsCarryTheQueueLabel) {
    SerialQueue serial("com.tavrin.OfflineCacheMonitorQueue");
    EXPECT_EQ(serial.label(), "com.tavrin.OfflineCacheMonitorQueue");
    const auto [label, name] = serial.sync([] { return std::make_pair(currentQueueLabel(), currentThreadName()); });
    EXPECT_EQ(label, "com.tavrin.OfflineCacheMonitorQueue");
    EXPECT_EQ(name, "com.tavrin.Offl");  // Linux keeps 15 characters
    EXPECT_EQ(currentQueueLabel(), "");
    EXPECT_EQ(SerialQueue("short").sync([] { return currentThreadName(); }), "short");
    EXPECT_EQ(TaskPool(1, "com.tavrin.test.pool").submit([] { return currentQueueLabel(); }).get(),
              "com.tavrin.test.pool");
}

TEST(Queues, DestructionRunsEverythingSubmitted) {
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

TEST(Queues, MayBeDestroyedByTheirOwnBlock) {
    expectDestroyedByItsOwnBlock(new SerialQueue("com.tavrin.test.self"), &SerialQueue::async);
    expectDestroyedByItsOwnBlock(new ConcurrentQueue("com.tavrin.test.selfcq"), &ConcurrentQueue::asyncBarrier);
    expectDestroyedByItsOwnBlock(new TaskPool(2), &TaskPool::detach);
    EXPECT_EQ(&processLock(), &processLock());
}

}  // namespace
}  // namespace tavrin::platform
