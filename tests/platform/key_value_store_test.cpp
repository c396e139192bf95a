#include "tavrin/platform/key_value_store.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <thread>
#include <tuple>

#include "tavrin/platform/device_facts.h"
#include "tavrin/platform/internal/json.h"
#include "tavrin/platform/linux/sqlite_key_value_store.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace tavrin::platform {
namespace {

namespace fs = std::filesystem;
using testing::inChild;
using testing::LogCapture;
using testing::readFile;
using testing::TempDir;
using testing::writeFile;
using Value = KeyValueStore::Value;

bool loggedError(const LogCapture& log, std::string_view part) {
    for (const auto& m : log.sink->messages(LogType::error))
        if (m.find(part) != std::string::npos) return true;
    return false;
}

// A connection of the test's own, as another program using the file would have.
struct Connection {
    sqlite3* db = nullptr;
    explicit Connection(const fs::path& file) { sqlite3_open(file.c_str(), &db); }
    ~Connection() { sqlite3_close(db); }
    bool run(const char* sql) { return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK; }
};

// The value the crash test writes for `i`: each type in turn.
Value valueFor(int i) {
    if (i % 3 == 0) return "v" + std::to_string(i);
    if (i % 3 == 1) return std::int64_t{i};
    return toBytes(std::to_string(i));
}

class SqliteKeyValueStoreTest : public ::testing::Test {
protected:
    TempDir dir;
    fs::path file = dir / "tavrin.sqlite";
};

// A typed read of another type finds nothing, however convertible the value looks.
TEST_F(SqliteKeyValueStoreTest, KeyHoldsTheLastValueWrittenWithItsTypeAcrossReopen) {
    const std::vector<std::pair<std::string, Value>> values = {{"text", std::string("42")},
                                                               {"number", std::int64_t{42}},
                                                               {"bytes", toBytes("42")},
                                                               {"nul", std::string("a\0b", 3)},
                                                               {"binary", Bytes{0x00, 0xff, 0x00}},
                                                               {"empty text", std::string()},
                                                               {"empty data", Bytes{}},
                                                               {"min", INT64_MIN},
                                                               {"max", INT64_MAX}};
    {
        SqliteKeyValueStore store(file);
        ASSERT_TRUE(store.setInteger("removed", 1) && store.remove("removed") && store.setString("number", "old"));
        for (const auto& [key, value] : values) EXPECT_TRUE(store.set(key, value)) << key;
    }
    SqliteKeyValueStore store(file);
    EXPECT_EQ(store.value("removed"), std::nullopt);
    for (const auto& [key, value] : values) {
        EXPECT_EQ(store.value(key), value) << key;
        EXPECT_EQ(store.string(key).has_value(), std::holds_alternative<std::string>(value)) << key;
        EXPECT_EQ(store.integer(key).has_value(), std::holds_alternative<std::int64_t>(value)) << key;
        EXPECT_EQ(store.data(key).has_value(), std::holds_alternative<Bytes>(value)) << key;
    }
}

TEST_F(SqliteKeyValueStoreTest, ListsTheValuesUnderAPrefixInKeyOrder) {
    SqliteKeyValueStore store(file);
    for (const char* key : {"rec/2", "rec/1", "rec", "rec0", "rec0a", "re", "a\xff", "a\xff\x01", "b", "a\xfe"})
        ASSERT_TRUE(store.setString(key, key));
    using Entries = std::vector<KeyValueStore::Entry>;
    EXPECT_EQ(store.values("rec/"), (Entries{{"rec/1", "rec/1"}, {"rec/2", "rec/2"}}));
    EXPECT_EQ(store.values("a\xff"), (Entries{{"a\xff", "a\xff"}, {"a\xff\x01", "a\xff\x01"}}));
    EXPECT_EQ(store.values("rec").size(), 5u);
    EXPECT_EQ(store.values("x"), Entries{});
}

// A write that returned true is on disk even when the process dies right
// after, in the middle of the next write.
TEST_F(SqliteKeyValueStoreTest, AcknowledgedWritesSurviveSigkill) {
    int acks[2];
    ASSERT_EQ(pipe(acks), 0);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);  // never kill(-1)
    if (pid == 0) {     // writes until killed, acknowledging each write
        SqliteKeyValueStore store(file);
        for (int i = 0; store.set("key" + std::to_string(i), valueFor(i)) && write(acks[1], "", 1) == 1; ++i) {
        }
        _exit(2);
    }
    close(acks[1]);
    int received = 0;
    for (char byte; received < 60 && read(acks[0], &byte, 1) == 1;) ++received;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    close(acks[0]);
    ASSERT_EQ(received, 60);
    LogCapture log;
    SqliteKeyValueStore store(file);
    EXPECT_EQ(store.movedAsidePath(), std::nullopt) << "an interrupted write damaged the file";
    for (int i = 0; i < 60; ++i) EXPECT_EQ(store.value("key" + std::to_string(i)), valueFor(i)) << i;
    EXPECT_TRUE(log.sink->messages(LogType::error).empty());
}

// Not a database, a damaged one, or one whose table has another shape: moved
// aside with its log, said at error level, and a fresh store takes its place.
TEST_F(SqliteKeyValueStoreTest, UnusableFileIsMovedAsideAndReplaced) {
    {
        SqliteKeyValueStore store(file);
        for (int i = 0; i < 40; ++i) ASSERT_TRUE(store.setData("k" + std::to_string(i), Bytes(1500, 0x5a)));
    }
    // SQLite header intact: interior pages clobbered, or the schema on the first page.
    std::string damaged = readFile(file), noSchema = damaged;
    ASSERT_GT(damaged.size(), 40000u);
    for (std::size_t i = 8192; i < 24576; ++i) damaged[i] = static_cast<char>(i * 31);
    for (std::size_t i = 100; i < 1000; ++i) noSchema[i] = static_cast<char>(i * 31);
    std::string foreign;
    {
        TempDir other;
        Connection connection(other / "shop.db");
        ASSERT_TRUE(
            connection.run("CREATE TABLE key_value (name TEXT PRIMARY KEY, content BLOB);"
                           "INSERT INTO key_value VALUES ('user', 'alice')"));
        foreign = readFile(other / "shop.db");
    }

    const std::map<std::string, std::string> files = {
        {"text", "user=alice\nconsent=allow\n"}, {"damaged", damaged}, {"no schema", noSchema}, {"foreign", foreign}};
    for (const auto& [what, original] : files) {
        SCOPED_TRACE(what);
        TempDir place;
        const auto path = place / "tavrin.sqlite";
        writeFile(path, original);
        const std::string wal = what == "text" ? "stale log of the bad file" : "";
        if (!wal.empty()) writeFile(path.string() + "-wal", wal);
        LogCapture log;
        const auto aside = SqliteKeyValueStore(path).movedAsidePath();
        ASSERT_TRUE(aside.has_value());
        EXPECT_EQ(aside->parent_path(), place.path());
        EXPECT_EQ(aside->filename().string().rfind("tavrin.sqlite.corrupt-", 0), 0u) << *aside;
        EXPECT_EQ(readFile(*aside), original);
        EXPECT_EQ(readFile(aside->string() + "-wal"), wal);
        EXPECT_TRUE(loggedError(log, "is not a usable database"));
        SqliteKeyValueStore fresh(path);
        EXPECT_EQ(fresh.movedAsidePath(), std::nullopt);
        EXPECT_TRUE(fresh.isPersistent() && fresh.setString("fresh", "yes") && fresh.values("").size() == 1);
    }
}

// None falls back to read-only because another held a lock while it opened.
TEST_F(SqliteKeyValueStoreTest, ProcessesOpeningTheSameStoreAtOnceAllWrite) {
    for (int round = 0; round < 100; ++round) {
        TempDir place;
        const auto path = place / "data" / "tavrin.sqlite";
        if (round % 2 == 1) {  // half the rounds open a store that exists
            ASSERT_TRUE(SqliteKeyValueStore(path).setString("existing", "yes"));
        }
        const auto reports = testing::inChildrenAtOnce(4, [&](int i) {
            LogCapture log;
            SqliteKeyValueStore store(path);
            const bool wrote = store.setString("process" + std::to_string(i), "here") && store.isPersistent();
            const auto errors = log.sink->messages(LogType::error);
            return std::string(wrote ? "wrote" : "did not write") + (errors.empty() ? "" : ": " + errors[0]);
        });
        ASSERT_EQ(reports, std::vector<std::string>(4, "wrote")) << "round " << round;
        SqliteKeyValueStore after(path);
        for (int i = 0; i < 4; ++i) EXPECT_EQ(after.string("process" + std::to_string(i)), "here") << round;
    }
}

// The store keeps reading, writes fail with an error log and the process goes on.
TEST_F(SqliteKeyValueStoreTest, UnwritableLocationFailsWritesAndTheProcessGoesOn) {
    ASSERT_TRUE(SqliteKeyValueStore(file).setString("id", "kept"));
    const char* where = dir.path().c_str();
    for (const bool fullDisk : {false, true}) {
        const auto report = inChild([&]() -> std::string {
            // In a mount namespace of the child's own: a read-only bind mount, or a
            // small tmpfs over the directory (hiding the file: the store starts empty).
            if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
                return "skip";
            if (fullDisk ? mount("tmpfs", where, "tmpfs", 0, "size=256k,mode=0700") != 0
                         : mount(where, where, nullptr, MS_BIND, nullptr) != 0 ||
                               mount(nullptr, where, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0)
                return std::string("mount failed: ") + std::strerror(errno);
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
        if (report == "skip") GTEST_SKIP() << "no private mount namespace (needs root or CAP_SYS_ADMIN)";
        EXPECT_EQ(report, "stopped=1 logged=1 id=kept earlier=1") << (fullDisk ? "full disk" : "read-only mount");
    }
}

unsigned modeOf(const fs::path& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

// The file and its journals are for the user alone, also one an earlier version left readable.
TEST_F(SqliteKeyValueStoreTest, FilesAreKeptPrivate) {
    {
        SqliteKeyValueStore store(file);
        ASSERT_TRUE(store.setString("k", "v"));
        for (const char* suffix : {"", "-wal", "-shm"}) EXPECT_EQ(modeOf(file.string() + suffix), 0600u) << suffix;
    }
    ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
    SqliteKeyValueStore reopened(file);
    EXPECT_EQ(reopened.string("k"), "v");
    EXPECT_EQ(modeOf(file), 0600u);
}

// Where someone else could read the values or plant some for the SDK to trust
// and send, the store keeps its values in memory for the run instead.
TEST_F(SqliteKeyValueStoreTest, LocationOthersControlIsRefused) {
    // Each prepares `data` (holding a store with "k" = "planted") and may change the path to open.
    const std::vector<std::tuple<const char*, std::function<bool(const fs::path&, fs::path&)>, const char*>> cases{
        {"directory is a symbolic link",
         [](const fs::path& data, fs::path& open) {
             fs::create_directory_symlink(data, data.string() + "-link");
             open = fs::path(data.string() + "-link") / open.filename();
             return true;
         },
         "is a symbolic link"},
        {"directory writable by others",
         [](const fs::path& data, fs::path&) { return ::chmod(data.c_str(), 0703) == 0; }, "writable by other users"},
        {"directory writable by another group",
         [](const fs::path& data, fs::path&) {
             return ::chown(data.c_str(), -1, 65534) == 0 && ::chmod(data.c_str(), 0770) == 0;
         },
         "writable by its group"},
        {"directory owned by another user",
         [](const fs::path& data, fs::path&) { return ::chown(data.c_str(), 65534, 65534) == 0; },
         "owned by another user"},
        {"database file is a symbolic link",
         [](const fs::path& data, fs::path& open) {
             fs::rename(open, data / "elsewhere.sqlite");
             fs::create_symlink(data / "elsewhere.sqlite", open);
             return true;
         },
         "is a symbolic link"},
        {"database file owned by another user",
         [](const fs::path&, fs::path& open) { return ::chown(open.c_str(), 65534, 65534) == 0; },
         "owned by another user"},
    };
    int index = 0;
    for (const auto& [name, prepare, logged] : cases) {
        SCOPED_TRACE(name);
        const fs::path data = dir / std::to_string(++index) / "data";
        fs::path open = data / "tavrin.sqlite";
        ASSERT_TRUE(SqliteKeyValueStore(open).setString("k", "planted"));
        if (!prepare(data, open)) {
            ASSERT_NE(::geteuid(), 0u) << std::strerror(errno);
            std::cout << name << ": skipped, only root can give files away\n";
            continue;
        }
        LogCapture log;
        SqliteKeyValueStore store(open);
        EXPECT_FALSE(store.isPersistent());
        EXPECT_EQ(store.string("k"), std::nullopt) << "read what someone else could have planted";
        EXPECT_FALSE(store.setString("k", "mine"));  // kept for this run only
        EXPECT_EQ(store.string("k"), "mine");
        EXPECT_TRUE(loggedError(log, logged));
        EXPECT_TRUE(loggedError(log, "kept in memory for this run only"));
    }
}

// The standard store and where it lives; the environment it depends on is restored.
class KeyValueStoreTest : public SqliteKeyValueStoreTest {
protected:
    void SetUp() override {
        setenv("XDG_DATA_HOME", (dir / "xdg").c_str(), 1);
        setenv("HOME", (dir / "home").c_str(), 1);
    }
    void TearDown() override {
        KeyValueStore::setStandard(nullptr);
        KeyValueStore::setDataDirectory(std::nullopt);
        DeviceFacts::reset();
        for (const auto& [name, value] : saved) value ? setenv(name, value->c_str(), 1) : unsetenv(name);
    }
    static std::optional<std::string> environment(const char* name) {
        const char* value = std::getenv(name);
        return value ? std::optional<std::string>(value) : std::nullopt;
    }
    const std::map<const char*, std::optional<std::string>> saved = {{"XDG_DATA_HOME", environment("XDG_DATA_HOME")},
                                                                     {"HOME", environment("HOME")}};
    const fs::path byName = dir / "xdg" / "platform_key_value_store_test";
};

// The executable's name names the directory: a bundle identifier set by the
// host must not move the store elsewhere.
TEST_F(KeyValueStoreTest, DataDirectoryIsTheHostsElseXdgElseHome) {
    DeviceFacts::setApplicationInfo({.bundleIdentifier = "com.example.shop", .infoDictionary = {}});
    EXPECT_EQ(KeyValueStore::dataDirectory(), byName);
    KeyValueStore::setDataDirectory(dir / "chosen");
    EXPECT_EQ(KeyValueStore::dataDirectory(), dir / "chosen");
    KeyValueStore::setDataDirectory(std::nullopt);
    setenv("XDG_DATA_HOME", "relative/path", 1);  // not absolute: ignored
    EXPECT_EQ(KeyValueStore::dataDirectory(), dir / "home" / ".local" / "share" / "platform_key_value_store_test");
    unsetenv("XDG_DATA_HOME");
    EXPECT_EQ(KeyValueStore::dataDirectory(), dir / "home" / ".local" / "share" / "platform_key_value_store_test");
}

TEST_F(KeyValueStoreTest, StandardStoreOpensOnceInDirectoriesOnlyTheUserCanEnter) {
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
    seen.clear();
    KeyValueStore::setStandard(nullptr);  // reopens the same file
    EXPECT_EQ(KeyValueStore::standard()->string("id"), "abc");
}

}  // namespace
}  // namespace tavrin::platform
