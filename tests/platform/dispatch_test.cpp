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
class Gate {
public:
    void open() {
        {
            std::lock_guard lock(mutex_);
            open_ = true;
        }
        cv_.notify_all();
    }
    bool wait(std::chrono::milliseconds bound = kHang) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, bound, [&] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool open_ = false;
};

struct QueueError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// ---- SerialQueue

TEST(SerialQueue, KeepsSubmissionOrderPerProducerAndNeverOverlaps) {
    SerialQueue queue("com.tavrin.test.serial");
    std::vector<std::pair<int, int>> ran;  // touched only on the queue
    std::atomic<int> inFlight{0};
    std::atomic<bool> overlapped{false};
    constexpr int kProducers = 4;
    constexpr int kPerProducer = 500;
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
    for (const auto& [p, i] : result) {
        ASSERT_EQ(i, next[p]) << "producer " << p;
        ++next[p];
    }
    EXPECT_FALSE(overlapped);
}

TEST(SerialQueue, SyncRunsAfterEarlierBlocksAndReturnsTheirEffect) {
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
    std::string text = queue.sync([] { return std::string("moved out"); });
    EXPECT_EQ(text, "moved out");
    bool ran = false;
    queue.sync([&] { ran = true; });
    EXPECT_TRUE(ran);
}

TEST(SerialQueue, SyncRethrowsAndTheQueueKeepsGoing) {
    SerialQueue queue("com.tavrin.test.throw");
    EXPECT_THROW(queue.sync([]() -> int { throw QueueError("boom"); }), QueueError);
    queue.async([] { throw QueueError("nobody listens"); });
    EXPECT_EQ(queue.sync([] { return 7; }), 7);
}

TEST(SerialQueue, SyncFromInsideTheQueueRunsInline) {
    SerialQueue queue("com.tavrin.test.reentrant");
    std::promise<int> result;
    queue.async([&] {
        const int inner = queue.sync([&] { return queue.sync([] { return 5; }) + 1; });
        result.set_value(inner);
    });
    auto future = result.get_future();
    ASSERT_EQ(future.wait_for(kHang), std::future_status::ready) << "deadlocked";
    EXPECT_EQ(future.get(), 6);
    EXPECT_TRUE(queue.sync([&] { return queue.isCurrent(); }));
    EXPECT_FALSE(queue.isCurrent());
}

TEST(SerialQueue, ThreadCarriesTheLabel) {
    SerialQueue queue("com.tavrin.OfflineCacheMonitorQueue");
    EXPECT_EQ(queue.label(), "com.tavrin.OfflineCacheMonitorQueue");
    const auto [label, name] = queue.sync([] { return std::make_pair(currentQueueLabel(), currentThreadName()); });
    EXPECT_EQ(label, "com.tavrin.OfflineCacheMonitorQueue");
    EXPECT_EQ(name, "com.tavrin.Offl");  // Linux keeps 15 characters
    EXPECT_EQ(currentQueueLabel(), "");

    SerialQueue shortName("short");
    EXPECT_EQ(shortName.sync([] { return currentThreadName(); }), "short");
}

TEST(SerialQueue, DestructionRunsPendingBlocks) {
    std::atomic<int> count{0};
    {
        SerialQueue queue("com.tavrin.test.drain");
        Gate release;
        queue.async([&] { release.wait(); });
        for (int i = 0; i < 100; ++i) queue.async([&] { ++count; });
        release.open();
    }
    EXPECT_EQ(count.load(), 100);
}

TEST(SerialQueue, MayBeDestroyedByItsOwnBlock) {
    std::promise<void> destroyed;
    auto queue = std::shared_ptr<SerialQueue>(new SerialQueue("com.tavrin.test.self"), [&](SerialQueue* q) {
        delete q;
        destroyed.set_value();
    });
    std::atomic<int> after{0};
    Gate release;
    // The first block keeps the last reference; dropping it ends the queue on its own thread.
    queue->async([keep = queue, &release] { release.wait(); });
    queue->async([&] { ++after; });  // submitted before destruction, so it still runs
    queue.reset();
    release.open();
    auto future = destroyed.get_future();
    ASSERT_EQ(future.wait_for(kHang), std::future_status::ready);
    // The queue's thread finishes the remaining block after its owner is gone.
    for (int i = 0; i < 1000 && after.load() == 0; ++i) std::this_thread::sleep_for(1ms);
    EXPECT_EQ(after.load(), 1);
}

// ---- ConcurrentQueue

TEST(ConcurrentQueue, ReadSeesEveryWriteSubmittedBeforeIt) {
    ConcurrentQueue queue("com.tavrin.test.cache");
    int value = 0;
    Gate release;
    queue.asyncBarrier([&] {
        release.wait();
        value = 1;
    });
    std::thread opener([&] {
        std::this_thread::sleep_for(30ms);
        release.open();
    });
    // Submitted while the write is held back: the read must wait for it.
    EXPECT_EQ(queue.sync([&] { return value; }), 1);
    opener.join();
    for (int i = 2; i < 500; ++i) {
        queue.asyncBarrier([&, i] { value = i; });
        ASSERT_EQ(queue.sync([&] { return value; }), i);
    }
}

TEST(ConcurrentQueue, WritesApplyInSubmissionOrder) {
    ConcurrentQueue queue("com.tavrin.test.order");
    std::vector<int> applied;
    for (int i = 0; i < 1000; ++i) queue.asyncBarrier([&, i] { applied.push_back(i); });
    queue.drain();
    const auto snapshot = queue.sync([&] { return applied; });
    ASSERT_EQ(snapshot.size(), 1000u);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(snapshot[static_cast<std::size_t>(i)], i);
    // A throwing write does not stop the ones after it.
    queue.asyncBarrier([] { throw QueueError("lost"); });
    queue.asyncBarrier([&] { applied.push_back(-1); });
    EXPECT_EQ(queue.sync([&] { return applied.back(); }), -1);
}

TEST(ConcurrentQueue, ReadsRunConcurrently) {
    ConcurrentQueue queue("com.tavrin.test.readers");
    std::mutex m;
    std::condition_variable cv;
    int inside = 0;
    // Each read waits until both are inside at once; exclusive reads would time out.
    auto read = [&] {
        return queue.sync([&] {
            std::unique_lock lock(m);
            ++inside;
            cv.notify_all();
            return cv.wait_for(lock, kHang, [&] { return inside == 2; });
        });
    };
    auto a = std::async(std::launch::async, read);
    auto b = std::async(std::launch::async, read);
    EXPECT_TRUE(a.get());
    EXPECT_TRUE(b.get());
}

TEST(ConcurrentQueue, ReadExceptionsReachTheCallerAndReleaseTheData) {
    ConcurrentQueue queue("com.tavrin.test.readthrow");
    EXPECT_THROW(queue.sync([]() -> int { throw QueueError("read failed"); }), QueueError);
    int value = 0;
    queue.asyncBarrier([&] { value = 3; });
    EXPECT_EQ(queue.sync([&] { return value; }), 3);
}

TEST(ConcurrentQueue, NestedReadsAndReadsInsideWritesDoNotDeadlock) {
    ConcurrentQueue queue("com.tavrin.test.nested");
    int value = 0;
    Gate inRead;
    Gate writeSubmitted;
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

TEST(ConcurrentQueue, WriterThreadCarriesTheLabelAndDestructionAppliesPendingWrites) {
    std::vector<int> applied;
    std::string label;
    {
        ConcurrentQueue queue("com.tavrin.OfflineCacheQueue");
        queue.asyncBarrier([&] { label = currentQueueLabel() + "|" + currentThreadName(); });
        for (int i = 0; i < 50; ++i) queue.asyncBarrier([&, i] { applied.push_back(i); });
    }
    EXPECT_EQ(label, "com.tavrin.OfflineCacheQueue|com.tavrin.Offl");
    EXPECT_EQ(applied.size(), 50u);
}

TEST(ConcurrentQueue, MayBeDestroyedByItsOwnWrite) {
    std::promise<void> destroyed;
    auto queue = std::shared_ptr<ConcurrentQueue>(new ConcurrentQueue("com.tavrin.test.selfcq"),
                                                  [&](ConcurrentQueue* q) {
                                                      delete q;
                                                      destroyed.set_value();
                                                  });
    Gate release;
    queue->asyncBarrier([keep = queue, &release] { release.wait(); });
    queue.reset();
    release.open();
    EXPECT_EQ(destroyed.get_future().wait_for(kHang), std::future_status::ready);
}

// ---- TaskPool

TEST(TaskPool, FuturesCarryValuesAndExceptions) {
    TaskPool pool(2, "com.tavrin.test.pool");
    auto value = pool.submit([] { return std::string("done"); });
    auto failure = pool.submit([]() -> int { throw QueueError("task failed"); });
    auto nothing = pool.submit([] {});
    EXPECT_EQ(value.get(), "done");
    EXPECT_THROW(failure.get(), QueueError);
    EXPECT_NO_THROW(nothing.get());
    EXPECT_EQ(pool.submit([] { return currentQueueLabel(); }).get(), "com.tavrin.test.pool");
}

TEST(TaskPool, DetachSwallowsExceptions) {
    TaskPool pool(1);
    std::atomic<int> ran{0};
    pool.detach([&] {
        ++ran;
        throw QueueError("ignored");
    });
    pool.detach([&] { throw 42; });
    pool.detach([&] { ++ran; });
    // The single thread survived both throws and ran what came after.
    EXPECT_EQ(pool.submit([&] { return ran.load(); }).get(), 2);
}

TEST(TaskPool, TasksRunInParallelAndDestructionRunsWhatWasSubmitted) {
    std::atomic<int> count{0};
    {
        TaskPool pool(2);
        std::mutex m;
        std::condition_variable cv;
        int arrived = 0;
        auto meet = [&] {
            std::unique_lock lock(m);
            ++arrived;
            cv.notify_all();
            return cv.wait_for(lock, kHang, [&] { return arrived == 2; });
        };
        auto a = pool.submit(meet);
        auto b = pool.submit(meet);
        EXPECT_TRUE(a.get());
        EXPECT_TRUE(b.get());
        for (int i = 0; i < 100; ++i) pool.detach([&] { ++count; });
    }
    EXPECT_EQ(count.load(), 100);
}

TEST(TaskPool, SharedPoolAndSelfDestruction) {
    EXPECT_EQ(&TaskPool::shared(), &TaskPool::shared());
    EXPECT_EQ(TaskPool::shared().submit([] { return 3; }).get(), 3);
    EXPECT_EQ(&processLock(), &processLock());

    std::promise<void> destroyed;
    auto pool = std::shared_ptr<TaskPool>(new TaskPool(2), [&](TaskPool* p) {
        delete p;
        destroyed.set_value();
    });
    Gate release;
    pool->detach([keep = pool, &release] { release.wait(); });
    pool.reset();
    release.open();
    EXPECT_EQ(destroyed.get_future().wait_for(kHang), std::future_status::ready);
}

}  // namespace
}  // namespace tavrin::platform
