#include "tavrin/platform/dispatch.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <limits>
#include <map>

#include "tavrin/platform/internal/log_hook.h"
#include "tavrin/platform/internal/system.h"

namespace tavrin::platform {

namespace {
thread_local std::string tCurrentLabel;
// The worker core whose thread this is; lets a queue recognise its own thread.
thread_local const void* tCurrentCore = nullptr;
// The concurrent queues this thread is reading from, innermost last.
thread_local std::vector<const void*> tReadingQueues;

// An asynchronous block has no caller to hand its exception to, so it goes to the log.
void runLogged(const std::function<void()>& block, const std::string& label) noexcept {
    try {
        block();
    } catch (const std::exception& e) {
        logError([&] { return "Exception escaped an asynchronous block on " + label + ": " + e.what(); });
    } catch (...) {
        logError([&] { return "Exception escaped an asynchronous block on " + label + ": unknown exception"; });
    }
}

std::atomic<std::uint32_t> gForkGeneration{0};

// Registered while the library loads, before any thread of ours exists.
const bool gForkHandlerRegistered = [] {
    return os::registerForkHandlers(nullptr, nullptr, [] { gForkGeneration.fetch_add(1, std::memory_order_relaxed); });
}();

}  // namespace

std::uint32_t forkGeneration() noexcept { return gForkGeneration.load(std::memory_order_relaxed); }

void keepForever(std::shared_ptr<const void> object) {
    // Never destroyed, and reachable from here, so leak checkers do not count
    // what is set aside; usable while static objects are destroyed at exit.
    static auto* mutex = new std::mutex();
    static auto* kept = new std::vector<std::shared_ptr<const void>>();
    std::lock_guard lock(*mutex);
    kept->push_back(std::move(object));
}

const std::string& currentQueueLabel() { return tCurrentLabel; }

void setCurrentThreadName(const std::string& name) {
    tCurrentLabel = name;
    os::nameThread(name);
}

// ---- the pool and the strands over it

namespace detail {

class WorkerCore {
public:
    // Starts `threads` threads named after the label. Each holds the core, so
    // it outlives its owner while posted blocks remain.
    static std::shared_ptr<WorkerCore> start(std::string label, std::size_t threads) {
        auto core = std::shared_ptr<WorkerCore>(new WorkerCore(std::move(label)));
        for (std::size_t i = 0; i < std::max<std::size_t>(threads, 1); ++i)
            core->threads_.emplace_back([core] { run(core); });
        return core;
    }

    // The core to post to: in a forked child, where this core's threads do
    // not exist, a fresh one with as many threads (this one is set aside with
    // whatever the parent had queued).
    static void revive(std::shared_ptr<WorkerCore>& core) {
        if (core->generation_ == forkGeneration()) [[likely]]
            return;
        auto fresh = start(core->label, core->threads_.size());
        keepForever(std::exchange(core, std::move(fresh)));
    }

    const std::string label;

    void post(std::function<void()> block) {
        {
            std::lock_guard lock(mutex_);
            blocks_.push_back(std::move(block));
        }
        work_.notify_one();
    }

    // A block that becomes due at `when`; its token cancels it.
    std::uint64_t postAt(std::chrono::steady_clock::time_point when, std::function<void()> block) {
        std::uint64_t token;
        {
            std::lock_guard lock(mutex_);
            token = ++timerTokens_;
            timed_.emplace(token, Timed{when, std::move(block)});
        }
        work_.notify_all();
        return token;
    }

    bool cancelTimed(std::uint64_t token) {
        std::function<void()> dropped;  // released outside the lock
        std::lock_guard lock(mutex_);
        auto found = timed_.find(token);
        if (found == timed_.end()) return false;
        dropped = std::move(found->second.block);
        timed_.erase(found);
        return true;
    }

    bool isCurrent() const noexcept { return tCurrentCore == this; }
    std::uint32_t generation() const noexcept { return generation_; }

    // Lets the threads run every block already posted and end, then joins
    // them; from one of its own blocks it detaches them instead.
    void stop() {
        // A forked child's copy: the threads are the parent's, and the lock
        // may have been held by one of them when the process forked.
        if (generation_ != forkGeneration()) {
            keepForever(std::make_shared<std::vector<std::thread>>(std::move(threads_)));
            return;
        }
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        work_.notify_all();
        const bool fromOwnBlock = isCurrent();
        for (auto& thread : threads_) {
            if (!thread.joinable()) continue;
            if (fromOwnBlock)
                thread.detach();
            else
                thread.join();
        }
    }

private:
    explicit WorkerCore(std::string l) : label(std::move(l)) {}

    static void run(const std::shared_ptr<WorkerCore>& core) {
        setCurrentThreadName(core->label);
        tCurrentCore = core.get();
        for (;;) {
            std::function<void()> block;
            {
                std::unique_lock lock(core->mutex_);
                for (;;) {
                    core->releaseDueTimers();
                    if (core->stopping_ || !core->blocks_.empty()) break;
                    if (core->timed_.empty()) {
                        core->work_.wait(lock);
                    } else {
                        core->work_.wait_until(lock, core->nextDue());
                    }
                }
                if (core->blocks_.empty()) {
                    // Timers not yet due at the end never run; they go with the core.
                    return;
                }
                block = std::move(core->blocks_.front());
                core->blocks_.pop_front();
            }
            runLogged(block, core->label);
            // Released here, on the pool's thread, not under the lock.
            block = nullptr;
        }
    }

    struct Timed {
        std::chrono::steady_clock::time_point when;
        std::function<void()> block;
    };

    // With the lock held: moves the due timed blocks to the queue, earliest first.
    void releaseDueTimers() {
        if (timed_.empty()) return;
        const auto now = std::chrono::steady_clock::now();
        std::vector<std::map<std::uint64_t, Timed>::iterator> due;
        for (auto it = timed_.begin(); it != timed_.end(); ++it)
            if (it->second.when <= now) due.push_back(it);
        std::sort(due.begin(), due.end(), [](auto a, auto b) { return a->second.when < b->second.when; });
        for (auto it : due) {
            blocks_.push_back(std::move(it->second.block));
            timed_.erase(it);
        }
    }

    std::chrono::steady_clock::time_point nextDue() const {
        auto earliest = std::chrono::steady_clock::time_point::max();
        for (const auto& [token, timed] : timed_) earliest = std::min(earliest, timed.when);
        return earliest;
    }

    mutable std::mutex mutex_;
    std::condition_variable work_;
    std::deque<std::function<void()>> blocks_;
    // Few at a time (a retry timer or two), so a map by token does.
    std::map<std::uint64_t, Timed> timed_;
    std::uint64_t timerTokens_ = 0;
    bool stopping_ = false;
    std::vector<std::thread> threads_;  // touched only by start and stop
    const std::uint32_t generation_ = forkGeneration();
};

namespace {

// The pool every queue runs on: two threads, so pushes keep being processed
// while a store write waits for the disk. Never destroyed (work may still
// run while statics are destroyed at exit); a forked child starts its own.
std::shared_ptr<WorkerCore> sharedCore() {
    static auto* mutex = new std::mutex();
    static auto* core = new std::shared_ptr<WorkerCore>(WorkerCore::start("com.tavrin.pool", 2));
    std::lock_guard lock(*mutex);
    WorkerCore::revive(*core);
    return *core;
}

// The strand whose block runs on this thread (innermost when a waiting caller
// runs another strand's blocks from inside a block).
thread_local const Strand* tCurrentStrand = nullptr;

}  // namespace

class Strand : public std::enable_shared_from_this<Strand> {
public:
    static std::shared_ptr<Strand> make(std::string label) {
        return std::shared_ptr<Strand>(new Strand(std::move(label), sharedCore()));
    }

    // The strand to post to: in a forked child, a fresh one on the child's
    // pool (blocks queued in the parent stay the parent's).
    static void revive(std::shared_ptr<Strand>& strand) {
        if (strand->generation_ == forkGeneration()) [[likely]]
            return;
        keepForever(std::exchange(strand, make(strand->label)));
    }

    const std::string label;

    // Returns the block's ticket: the number of blocks posted so far.
    std::uint64_t post(std::function<void()> block) {
        std::uint64_t ticket;
        bool schedule;
        {
            std::lock_guard lock(mutex_);
            blocks_.push_back(std::move(block));
            ticket = ++posted_;
            schedule = claimSchedule();
        }
        if (schedule) scheduleDrain();
        return ticket;
    }

    std::uint64_t postAt(std::chrono::steady_clock::time_point when, std::function<void()> block) {
        std::lock_guard lock(mutex_);
        if (stopping_) return 0;
        const std::uint64_t token = ++timerTokens_;
        const auto poolToken = pool_->postAt(when, [weak = weak_from_this(), token] {
            if (auto self = weak.lock()) self->fire(token);
        });
        timers_.emplace(token, Timer{poolToken, std::move(block)});
        return token;
    }

    bool cancelTimed(std::uint64_t token) {
        Timer dropped;  // released outside the lock
        {
            std::lock_guard lock(mutex_);
            auto found = timers_.find(token);
            if (found == timers_.end()) return false;
            dropped = std::move(found->second);
            timers_.erase(found);
        }
        pool_->cancelTimed(dropped.poolToken);
        return true;
    }

    std::uint64_t posted() const {
        std::lock_guard lock(mutex_);
        return posted_;
    }

    // Waits until the blocks up to `ticket` have run. A pool thread runs
    // them itself while they run nowhere, so it never waits for another pool
    // thread to become free. Other threads (the host's) only wait: running
    // the SDK's work there would speed a host that submits in a loop past
    // what the pool sends, and what waits would pile up in memory.
    void waitUntilFinished(std::uint64_t ticket) {
        const bool poolThread = tCurrentCore != nullptr;
        std::unique_lock lock(mutex_);
        while (finished_ < ticket) {
            if (poolThread && !running_ && !blocks_.empty()) {
                runBlocks(lock, ticket, std::numeric_limits<std::size_t>::max());
            } else {
                wakeAt_ = std::min(wakeAt_, ticket);
                ++waiters_;
                finishedCv_.wait(lock);
                --waiters_;
            }
        }
    }

    bool isCurrent() const noexcept { return tCurrentStrand == this; }
    std::uint32_t generation() const noexcept { return generation_; }

    // Drops the timed blocks not yet due and waits for the rest (from one of
    // its own blocks: they run on after it returns).
    void stop() {
        if (generation_ != forkGeneration()) return;  // the parent's strand
        std::map<std::uint64_t, Timer> timers;
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
            timers.swap(timers_);
        }
        for (const auto& [token, timer] : timers) pool_->cancelTimed(timer.poolToken);
        if (!isCurrent()) waitUntilFinished(posted());
    }

private:
    Strand(std::string l, std::shared_ptr<WorkerCore> pool) : label(std::move(l)), pool_(std::move(pool)) {}

    // Blocks run at a time before the strand lets the other work on the pool in.
    static constexpr std::size_t kSlice = 256;

    struct Timer {
        std::uint64_t poolToken = 0;
        std::function<void()> block;
    };

    // Makes this thread's blocks count as the strand's for isCurrent and the label.
    struct CurrentScope {
        explicit CurrentScope(const Strand* s) : previous(tCurrentStrand), previousLabel(std::move(tCurrentLabel)) {
            tCurrentStrand = s;
            tCurrentLabel = s->label;
        }
        ~CurrentScope() {
            tCurrentStrand = previous;
            tCurrentLabel = std::move(previousLabel);
        }
        const Strand* previous;
        std::string previousLabel;
    };

    // With the lock held: true when the caller must hand a drain to the pool.
    bool claimSchedule() {
        if (running_ || scheduled_) return false;
        scheduled_ = true;
        return true;
    }

    void scheduleDrain() {
        pool_->post([self = shared_from_this()] { self->drain(); });
    }

    void fire(std::uint64_t token) {
        bool schedule = false;
        std::function<void()> block;
        {
            std::lock_guard lock(mutex_);
            auto found = timers_.find(token);
            if (found == timers_.end()) return;  // cancelled
            blocks_.push_back(std::move(found->second.block));
            timers_.erase(found);
            ++posted_;
            schedule = claimSchedule();
        }
        if (schedule) scheduleDrain();
    }

    void drain() {
        std::unique_lock lock(mutex_);
        scheduled_ = false;
        // A waiting caller is running them; it hands back what it leaves.
        if (running_) return;
        runBlocks(lock, std::numeric_limits<std::uint64_t>::max(), kSlice);
    }

    // With the lock held and no block running: runs blocks in order until
    // `ticket` has run, none is left or `slice` have run, then hands what is
    // left to the pool.
    void runBlocks(std::unique_lock<std::mutex>& lock, std::uint64_t ticket, std::size_t slice) {
        running_ = true;
        std::size_t ran = 0;
        while (!blocks_.empty() && finished_ < ticket && ran < slice) {
            auto block = std::move(blocks_.front());
            blocks_.pop_front();
            lock.unlock();
            {
                CurrentScope scope(this);
                runLogged(block, label);
                // Released before the count moves on, so a block holding the
                // last reference to something is gone before a waiter resumes.
                block = nullptr;
            }
            lock.lock();
            ++finished_;
            ++ran;
            // Waiters wake when the earliest of their blocks has run, not at every block.
            if (finished_ >= wakeAt_) {
                wakeAt_ = kNobodyWaits;
                finishedCv_.notify_all();
            }
        }
        running_ = false;
        if (!blocks_.empty() && claimSchedule()) {
            lock.unlock();
            scheduleDrain();
            lock.lock();
        }
        // Waiters that found the strand running may now run the rest themselves.
        if (waiters_ > 0) finishedCv_.notify_all();
    }

    const std::shared_ptr<WorkerCore> pool_;
    mutable std::mutex mutex_;
    std::condition_variable finishedCv_;
    std::deque<std::function<void()>> blocks_;
    std::uint64_t posted_ = 0;
    std::uint64_t finished_ = 0;
    // The earliest ticket a waiter waits for, and how many wait.
    static constexpr std::uint64_t kNobodyWaits = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t wakeAt_ = kNobodyWaits;
    std::size_t waiters_ = 0;
    bool running_ = false;
    bool scheduled_ = false;
    bool stopping_ = false;
    std::map<std::uint64_t, Timer> timers_;
    std::uint64_t timerTokens_ = 0;
    const std::uint32_t generation_ = forkGeneration();
};

}  // namespace detail

// ---- SerialQueue

SerialQueue::SerialQueue(std::string label) : core_(detail::Strand::make(std::move(label))) {}

SerialQueue::~SerialQueue() { core_->stop(); }

const std::string& SerialQueue::label() const noexcept { return core_->label; }

bool SerialQueue::isCurrent() const noexcept { return core_->isCurrent(); }

void SerialQueue::async(std::function<void()> block) { enqueue(std::move(block)); }

std::uint64_t SerialQueue::asyncAfter(std::chrono::milliseconds delay, std::function<void()> block) {
    detail::Strand::revive(core_);
    return core_->postAt(std::chrono::steady_clock::now() + std::max(delay, std::chrono::milliseconds(0)),
                         std::move(block));
}

bool SerialQueue::cancel(std::uint64_t token) { return core_->cancelTimed(token); }

std::uint64_t SerialQueue::enqueue(std::function<void()> block) {
    detail::Strand::revive(core_);
    return core_->post(std::move(block));
}

void SerialQueue::waitUntilRun(std::uint64_t ticket) { core_->waitUntilFinished(ticket); }

// ---- ConcurrentQueue

ConcurrentQueue::ConcurrentQueue(std::string label)
    : core_(detail::Strand::make(std::move(label))), data_(std::make_shared<std::shared_mutex>()) {}

ConcurrentQueue::~ConcurrentQueue() { core_->stop(); }

const std::string& ConcurrentQueue::label() const noexcept { return core_->label; }

void ConcurrentQueue::revive() const {
    if (core_->generation() == forkGeneration()) [[likely]]
        return;
    detail::Strand::revive(core_);
    keepForever(std::exchange(data_, std::make_shared<std::shared_mutex>()));
}

void ConcurrentQueue::asyncBarrier(std::function<void()> write) {
    revive();
    // The write itself is released by the strand after the lock, like any block.
    core_->post([data = data_, write = std::move(write)] {
        std::unique_lock exclusive(*data);
        write();
    });
}

void ConcurrentQueue::barrier(std::function<void()> write) {
    if (isWriterThread()) {  // already exclusive
        write();
        return;
    }
    if (isReadingThread()) {
        asyncBarrier(std::move(write));
        return;
    }
    revive();
    core_->waitUntilFinished(core_->posted());
    // Marked as reading, so a read inside the write runs directly.
    ReadScope scope(*this, std::unique_lock(*data_));
    write();
}

void ConcurrentQueue::drain() {
    if (isWriterThread() || isReadingThread()) return;
    revive();
    core_->waitUntilFinished(core_->posted());
}

void ConcurrentQueue::holdForFork() {
    revive();
    core_->waitUntilFinished(core_->posted());
    data_->lock();
}

void ConcurrentQueue::releaseAfterFork() { data_->unlock(); }

bool ConcurrentQueue::isWriterThread() const noexcept { return core_->isCurrent(); }

bool ConcurrentQueue::isReadingThread() const noexcept {
    for (const void* q : tReadingQueues)
        if (q == core_.get()) return true;
    return false;
}

ConcurrentQueue::ReadScope::ReadScope(const ConcurrentQueue& queue) : queue_((queue.revive(), queue.core_.get())) {
    queue.core_->waitUntilFinished(queue.core_->posted());
    lock_ = std::shared_lock(*queue.data_);
    tReadingQueues.push_back(queue_);
}

ConcurrentQueue::ReadScope::ReadScope(const ConcurrentQueue& queue, std::unique_lock<std::shared_mutex> exclusive)
    : queue_(queue.core_.get()), exclusive_(std::move(exclusive)) {
    tReadingQueues.push_back(queue_);
}

ConcurrentQueue::ReadScope::~ReadScope() { tReadingQueues.pop_back(); }

// ---- TaskPool

TaskPool::TaskPool(std::size_t threads, std::string label)
    : core_(detail::WorkerCore::start(std::move(label), threads)) {}

TaskPool::TaskPool(Shared) : core_(detail::sharedCore()), shared_(true) {}

TaskPool::~TaskPool() {
    if (!shared_) core_->stop();
}

TaskPool& TaskPool::shared() {
    // Never destroyed: detached tasks may still be running while static
    // destructors run at exit.
    static auto* pool = new TaskPool(Shared{});
    return *pool;
}

void TaskPool::detach(std::function<void()> fn) { enqueue(std::move(fn)); }

void TaskPool::enqueue(std::function<void()> block) {
    if (shared_) {
        // In a forked child, the child's own pool (the one its queues use).
        if (core_->generation() != forkGeneration()) [[unlikely]]
            core_ = detail::sharedCore();
    } else {
        detail::WorkerCore::revive(core_);
    }
    core_->post(std::move(block));
}

std::mutex& processLock() {
    static std::mutex lock;
    return lock;
}

}  // namespace tavrin::platform
