#include "tavrin/platform/key_value_store.h"
#include "tavrin/platform/internal/json.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <map>
#include <random>
#include <sstream>
#include <thread>
#include <vector>

#include "tavrin/platform/device_facts.h"
#include "tavrin/platform/internal/sqlite_key_value_store.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace tavrin::platform {
namespace {

namespace fs = std::filesystem;
using testing::inChild;
using testing::inChildrenAtOnce;
using testing::LogCapture;
using testing::TempDir;
using Value = KeyValueStore::Value;

std::string readFile(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeFile(const fs::path& file, const std::string& bytes) {
    std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
}

bool loggedError(const LogCapture& log, std::string_view part) {
    for (const auto& m : log.sink->messages(LogType::error))
        if (m.find(part) != std::string::npos) return true;
    return false;
}

// A connection of the test's own, as another program using the file would have.
class Connection {
public:
    explicit Connection(const fs::path& file) { sqlite3_open(file.c_str(), &db_); }
    ~Connection() { sqlite3_close(db_); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    // The error text, empty on success.
    std::string run(const char* sql) {
        char* message = nullptr;
        if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) == SQLITE_OK) return "";
        std::string text = message ? message : "failed";
        sqlite3_free(message);
        return text;
    }

private:
    sqlite3* db_ = nullptr;
};

// In the calling (child) process only: makes `directory` a mount point of its
// own, a fresh file system of `type` or (type null) a bind mount with `flags`.
std::string privateMount(const fs::path& directory, const char* type, const char* data, unsigned long flags) {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return std::string("skip: no private mount namespace: ") + std::strerror(errno);
    const bool ok = type ? mount(type, directory.c_str(), type, flags, data) == 0
                         : mount(directory.c_str(), directory.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
                               mount(nullptr, directory.c_str(), nullptr, MS_BIND | MS_REMOUNT | flags, nullptr) == 0;
    return ok ? "" : std::string("mount failed: ") + std::strerror(errno);
}

// The value the crash and concurrency tests write for `i`: each type in turn.
Value valueFor(int i) {
    if (i % 3 == 0) return "v" + std::to_string(i);
    if (i % 3 == 1) return std::int64_t{i};
    return toBytes(std::to_string(i));
}

class KeyValueStoreTest : public ::testing::Test {
protected:
    void TearDown() override {
        KeyValueStore::setStandard(nullptr);
        KeyValueStore::setDataDirectory(std::nullopt);
        DeviceFacts::reset();
        for (const char* name : kEnvironment) saved.count(name) ? setenv(name, saved[name].c_str(), 1) : unsetenv(name);
    }
    // The variables the data directory depends on, restored after each test.
    static constexpr const char* kEnvironment[] = {"XDG_DATA_HOME", "HOME"};
    void SetUp() override {
        for (const char* name : kEnvironment)
            if (const char* value = std::getenv(name)) saved[name] = value;
    }
    std::map<std::string, std::string> saved;
    TempDir dir;
    fs::path file = dir / "tavrin.sqlite";
};

TEST_F(KeyValueStoreTest, ValuesKeepTheirTypeAcrossReopenAndOverwrite) {
    const std::vector<std::pair<std::string, Value>> values = {
        {"text", std::string("42")},
        {"number", std::int64_t{42}},
        {"bytes", toBytes("42")},
        {"nul inside", std::string("a\0b", 3)},
        {"binary", Bytes{0x00, 0xff, 0x42, 0x00}},
        {"empty text", std::string()},
        {"empty data", Bytes{}},
        {"min", std::numeric_limits<std::int64_t>::min()},
        {"max", std::numeric_limits<std::int64_t>::max()},
    };
    {
        SqliteKeyValueStore store(file);
        ASSERT_TRUE(store.isPersistent());
        for (const auto& [key, value] : values) EXPECT_TRUE(store.set(key, value)) << key;
        EXPECT_TRUE(store.synchronize());
    }
    SqliteKeyValueStore store(file);
    for (const auto& [key, value] : values) {
        EXPECT_EQ(store.value(key), value) << key;
        // A typed read of another type finds nothing, however convertible the value looks.
        EXPECT_EQ(store.string(key).has_value(), std::holds_alternative<std::string>(value)) << key;
        EXPECT_EQ(store.integer(key).has_value(), std::holds_alternative<std::int64_t>(value)) << key;
        EXPECT_EQ(store.data(key).has_value(), std::holds_alternative<Bytes>(value)) << key;
    }
    EXPECT_EQ(store.string("missing"), std::nullopt);

    // Overwriting replaces the type; remove forgets, also after reopening.
    ASSERT_TRUE(store.setInteger("text", 7));
    EXPECT_EQ(store.string("text"), std::nullopt);
    EXPECT_EQ(store.integer("text"), 7);
    EXPECT_TRUE(store.remove("text"));
    EXPECT_EQ(store.value("text"), std::nullopt);
    EXPECT_TRUE(store.remove("never stored"));
    SqliteKeyValueStore reopened(file);
    EXPECT_EQ(reopened.value("text"), std::nullopt);
    EXPECT_EQ(reopened.value("number"), Value(std::int64_t{42}));

    // Opened read-only it reads but refuses writes, with an error log.
    LogCapture log;
    SqliteKeyValueStore readOnly(file, {.readOnly = true});
    EXPECT_FALSE(readOnly.setString("number", "changed"));
    EXPECT_FALSE(readOnly.remove("number"));
    EXPECT_TRUE(loggedError(log, "write failed for key \"number\""));
    EXPECT_TRUE(loggedError(log, "remove failed for key \"number\""));
    EXPECT_EQ(readOnly.value("number"), Value(std::int64_t{42}));
}

// A write that returned true is on disk even when the process dies right
// after, before any orderly close.
TEST_F(KeyValueStoreTest, AcknowledgedWritesSurviveSigkill) {
    int acks[2];
    ASSERT_EQ(pipe(acks), 0);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(acks[0]);
        SqliteKeyValueStore store(file);
        for (int i = 0;; ++i)  // until killed
            if (!store.set("key" + std::to_string(i), valueFor(i)) || write(acks[1], "", 1) != 1) _exit(2);
    }
    close(acks[1]);
    constexpr int kAcknowledged = 60;
    int received = 0;
    char byte;
    while (received < kAcknowledged && read(acks[0], &byte, 1) == 1) ++received;
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    close(acks[0]);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "child status " << status;
    ASSERT_EQ(received, kAcknowledged);
    EXPECT_TRUE(fs::exists(file.string() + "-wal")) << "no orderly close: the write-ahead log is there to replay";

    LogCapture log;
    SqliteKeyValueStore store(file);
    EXPECT_EQ(store.movedAsidePath(), std::nullopt) << "an interrupted write must not damage the file";
    for (int i = 0; i < kAcknowledged; ++i) EXPECT_EQ(store.value("key" + std::to_string(i)), valueFor(i)) << i;
    EXPECT_TRUE(log.sink->messages(LogType::error).empty());
}

TEST_F(KeyValueStoreTest, UnusableFileIsMovedAsideAndReplaced) {
    std::mt19937 random(7);
    std::string noise(6000, '\0');
    for (char& c : noise) c = static_cast<char>(random());
    // A real database with a stretch of interior pages clobbered, header intact.
    {
        SqliteKeyValueStore store(file);
        for (int i = 0; i < 40; ++i) ASSERT_TRUE(store.setData("k" + std::to_string(i), Bytes(1500, 0x5a)));
    }
    std::string damaged = readFile(file);
    ASSERT_GT(damaged.size(), 40000u);
    for (std::size_t i = 8192; i < 24576; ++i) damaged[i] = static_cast<char>(i * 31);

    // A sound database whose table has another shape is not ours to use either.
    std::string foreign;
    {
        TempDir other;
        Connection connection(other / "shop.db");
        ASSERT_EQ(connection.run("CREATE TABLE key_value (name TEXT PRIMARY KEY, content BLOB);"
                                 "INSERT INTO key_value VALUES ('user', 'alice')"),
                  "");
        foreign = readFile(other / "shop.db");
    }

    for (const auto& original :
         {noise, std::string("user=alice\nconsent=allow\n"), std::string(4096, 'x'), damaged, foreign}) {
        TempDir place;
        const auto path = place / "tavrin.sqlite";
        writeFile(path, original);
        const bool sqliteFile = original == damaged || original == foreign;
        const std::string wal = sqliteFile ? "" : "stale log of the bad file";
        if (!wal.empty()) writeFile(path.string() + "-wal", wal);
        LogCapture log;
        {
            SqliteKeyValueStore store(path);
            EXPECT_TRUE(store.isPersistent());
            const auto aside = store.movedAsidePath();
            ASSERT_TRUE(aside.has_value());
            EXPECT_EQ(aside->parent_path(), place.path());
            EXPECT_EQ(aside->filename().string().rfind("tavrin.sqlite.corrupt-", 0), 0u) << *aside;
            EXPECT_EQ(readFile(*aside), original);
            EXPECT_EQ(readFile(aside->string() + "-wal"), wal);
            EXPECT_TRUE(loggedError(log, "is not a usable database"));
            EXPECT_TRUE(loggedError(log, aside->string()));
            EXPECT_EQ(store.value("k1"), std::nullopt);
            EXPECT_TRUE(store.setString("fresh", "yes"));
        }
        SqliteKeyValueStore reopened(path);
        EXPECT_EQ(reopened.movedAsidePath(), std::nullopt);
        EXPECT_EQ(reopened.string("fresh"), "yes");
    }
}

TEST_F(KeyValueStoreTest, ConcurrentWritersLoseNothing) {
    constexpr int kThreads = 8, kKeys = 200;
    const auto key = [](int t, int k) { return "t" + std::to_string(t) + "-" + std::to_string(k); };
    {
        SqliteKeyValueStore store(file);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&, t] {
                for (int k = 0; k < kKeys; ++k) {
                    EXPECT_TRUE(store.set(key(t, k), valueFor(t * 1000 + k)));
                    EXPECT_EQ(store.value(key(t, k)), valueFor(t * 1000 + k));  // interleaved with others' writes
                }
            });
        for (auto& thread : threads) thread.join();
    }
    SqliteKeyValueStore store(file);
    int found = 0;
    for (int t = 0; t < kThreads; ++t)
        for (int k = 0; k < kKeys; ++k) found += store.value(key(t, k)) == valueFor(t * 1000 + k);
    EXPECT_EQ(found, kThreads * kKeys);
}

// Processes that start at the same moment and create, or open, the same store
// all get a writable store: none falls back to read-only because another held
// a lock while it opened.
TEST_F(KeyValueStoreTest, ProcessesOpeningTheSameStoreAtOnceAllWrite) {
    constexpr int kRounds = 100, kProcesses = 4;
    std::map<std::string, int> outcomes;
    std::string firstError;
    for (int round = 0; round < kRounds; ++round) {
        TempDir place;
        const auto path = place / "data" / "tavrin.sqlite";
        if (round % 2 == 1) {
            ASSERT_TRUE(SqliteKeyValueStore(path).setString("existing", "yes"));
        }
        const auto reports = inChildrenAtOnce(kProcesses, [&](int i) {
            LogCapture log;
            SqliteKeyValueStore store(path);
            const bool wrote = store.setString("process" + std::to_string(i), "here");
            const auto errors = log.sink->messages(LogType::error);
            std::ostringstream out;
            out << "persistent=" << store.isPersistent() << " wrote=" << wrote << " errors=" << errors.size();
            if (!errors.empty()) out << "\n" << errors[0];
            return out.str();
        });
        for (const auto& report : reports) {
            const auto newline = report.find('\n');
            ++outcomes[report.substr(0, newline)];
            if (newline != std::string::npos && firstError.empty()) firstError = report.substr(newline + 1);
        }
        SqliteKeyValueStore after(path);
        for (int i = 0; i < kProcesses; ++i) EXPECT_EQ(after.string("process" + std::to_string(i)), "here") << round;
        EXPECT_EQ(after.movedAsidePath(), std::nullopt) << round;
    }
    EXPECT_EQ(outcomes, (std::map<std::string, int>{{"persistent=1 wrote=1 errors=0", kRounds * kProcesses}}))
        << firstError;
}

// Opening waits for a lock another connection holds, as a write does; a store
// still locked out when the wait ends says that it cannot write, once.
TEST_F(KeyValueStoreTest, OpeningWaitsForAnotherConnectionsLock) {
    for (const char* lock : {"BEGIN EXCLUSIVE", "BEGIN IMMEDIATE", "BEGIN; SELECT count(*) FROM sqlite_schema"}) {
        TempDir place;
        const auto path = place / "tavrin.sqlite";
        Connection other(path);
        ASSERT_EQ(other.run("CREATE TABLE unrelated (x)"), "");  // a database in the default journal mode
        ASSERT_EQ(other.run(lock), "") << lock;
        std::thread release([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            other.run("COMMIT");
        });
        LogCapture log;
        SqliteKeyValueStore store(path, {.busyTimeoutMilliseconds = 5000});
        release.join();
        EXPECT_TRUE(store.isPersistent()) << lock;
        EXPECT_TRUE(store.setString("id", "kept")) << lock;
        EXPECT_TRUE(store.synchronize()) << lock;
        const auto errors = log.sink->messages(LogType::error);
        EXPECT_TRUE(errors.empty()) << lock << ": " << errors[0];
    }

    // Held for longer than the store waits.
    Connection other(file);
    ASSERT_EQ(other.run("CREATE TABLE unrelated (x)"), "");
    ASSERT_EQ(other.run("BEGIN EXCLUSIVE"), "");
    LogCapture log;
    const auto started = std::chrono::steady_clock::now();
    SqliteKeyValueStore store(file, {.busyTimeoutMilliseconds = 200});
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(200));
    EXPECT_FALSE(store.isPersistent());
    EXPECT_FALSE(store.synchronize());
    EXPECT_EQ(log.sink->messages(LogType::error).size(), 1u);
    EXPECT_EQ(store.movedAsidePath(), std::nullopt);
    other.run("COMMIT");
}

// A store on a location a child process made unwritable for itself (a
// read-only mount, a full disk, no write permission) keeps reading; writes fail
// with an error log and the process goes on.
TEST_F(KeyValueStoreTest, UnwritableLocationFailsWritesAndTheProcessGoesOn) {
    const std::function<std::string()> readOnlyMount = [&] {
        return privateMount(dir.path(), nullptr, nullptr, MS_RDONLY);
    };
    const std::function<std::string()> fullDisk = [&] {  // hides the file: the store starts empty
        return privateMount(dir.path(), "tmpfs", "size=256k,mode=0700", 0);
    };
    const std::function<std::string()> writeProtected = [&]() -> std::string {
        // Root ignores permission bits, so the child gives up root first.
        if (geteuid() == 0 && (chown(dir.path().c_str(), 65534, 65534) != 0 || chown(file.c_str(), 65534, 65534) != 0 ||
                               setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
                               setresuid(65534, 65534, 65534) != 0))
            return std::string("skip: cannot become an unprivileged user: ") + std::strerror(errno);
        return chmod(dir.path().c_str(), 0500) == 0 ? "" : std::string("chmod failed: ") + std::strerror(errno);
    };
    ASSERT_TRUE(SqliteKeyValueStore(file).setString("id", "kept"));
    std::string skipped;
    for (const auto& makeUnwritable : {readOnlyMount, fullDisk, writeProtected}) {
        const auto report = inChild([&]() -> std::string {
            if (auto failure = makeUnwritable(); !failure.empty()) return failure;
            LogCapture log;
            SqliteKeyValueStore store(file);
            if (!store.string("id") && !store.setString("id", "kept")) return "first write failed";
            int written = 0;
            while (written < 1000 && store.setData("blob" + std::to_string(written), Bytes(8192, 0x11))) ++written;
            std::ostringstream out;
            out << "stopped=" << (written < 1000) << " logged=" << loggedError(log, "write failed for key \"blob")
                << " id=" << store.string("id").value_or("<none>")
                << " earlier=" << (written == 0 || store.data("blob0") == Bytes(8192, 0x11));
            return out.str();
        });
        if (report.rfind("skip:", 0) == 0)
            skipped += report + "; ";
        else
            EXPECT_EQ(report, "stopped=1 logged=1 id=kept earlier=1");
    }
    if (!skipped.empty()) GTEST_SKIP() << skipped;
}

TEST_F(KeyValueStoreTest, StandardStoreInTheHostsDirectoryElseXdgElseHome) {
    setenv("XDG_DATA_HOME", (dir / "xdg").c_str(), 1);
    setenv("HOME", (dir / "home").c_str(), 1);
    // The executable's name names the directory, whatever the host set before or
    // after: a bundle identifier set first must not move the store elsewhere.
    const fs::path byName = dir / "xdg" / "platform_key_value_store_test";
    EXPECT_EQ(KeyValueStore::dataDirectory(), byName);
    DeviceFacts::setApplicationInfo({.bundleIdentifier = "com.example.shop", .infoDictionary = {}});
    EXPECT_EQ(KeyValueStore::dataDirectory(), byName);
    KeyValueStore::setDataDirectory(dir / "chosen");
    EXPECT_EQ(KeyValueStore::dataDirectory(), dir / "chosen");
    KeyValueStore::setDataDirectory(std::nullopt);
    EXPECT_EQ(KeyValueStore::dataDirectory(), byName);
    setenv("XDG_DATA_HOME", "relative/path", 1);  // not absolute: ignored
    EXPECT_EQ(KeyValueStore::dataDirectory(), dir / "home" / ".local" / "share" / "platform_key_value_store_test");
    unsetenv("XDG_DATA_HOME");
    EXPECT_EQ(KeyValueStore::dataDirectory(), dir / "home" / ".local" / "share" / "platform_key_value_store_test");

    // The standard store opens once, in directories only the user can enter.
    setenv("XDG_DATA_HOME", (dir / "xdg").c_str(), 1);
    std::vector<std::shared_ptr<KeyValueStore>> seen(8);
    std::vector<std::thread> threads;
    for (auto& slot : seen) threads.emplace_back([&slot] { slot = KeyValueStore::standard(); });
    for (auto& thread : threads) thread.join();
    for (const auto& store : seen) EXPECT_EQ(store, seen.front());
    ASSERT_TRUE(seen.front()->setString("id", "abc"));
    EXPECT_TRUE(fs::exists(byName / "tavrin.sqlite"));
    for (const auto& created : {dir / "xdg", byName}) {
        struct stat info {};
        ASSERT_EQ(stat(created.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0700u) << created;
    }

    // A replacement is used as is; clearing it reopens the same file.
    auto replacement = std::make_shared<SqliteKeyValueStore>(dir / "elsewhere.sqlite");
    KeyValueStore::setStandard(replacement);
    EXPECT_EQ(KeyValueStore::standard(), replacement);
    KeyValueStore::setStandard(nullptr);
    seen.clear();
    EXPECT_EQ(KeyValueStore::standard()->string("id"), "abc");

    // A host-chosen directory is used for the next opening; one that cannot be
    // created leaves a store in memory.
    KeyValueStore::setStandard(nullptr);
    KeyValueStore::setDataDirectory(dir / "host" / "data");
    ASSERT_TRUE(KeyValueStore::standard()->setInteger("n", 1));
    EXPECT_TRUE(fs::exists(dir / "host" / "data" / "tavrin.sqlite"));

    writeFile(dir / "occupied", "a file where the directory should be");
    LogCapture log;
    KeyValueStore::setStandard(nullptr);
    KeyValueStore::setDataDirectory(dir / "occupied" / "data");
    auto store = KeyValueStore::standard();
    // Kept for this run, but not durable, and the store says so.
    EXPECT_FALSE(store->setString("id", "this run only"));
    EXPECT_EQ(store->string("id"), "this run only");
    EXPECT_FALSE(store->synchronize());
    EXPECT_FALSE(std::dynamic_pointer_cast<SqliteKeyValueStore>(store)->isPersistent());
    EXPECT_TRUE(loggedError(log, "cannot create directory"));
    EXPECT_TRUE(loggedError(log, "values are kept in memory for this run only"));
}

}  // namespace
}  // namespace tavrin::platform
