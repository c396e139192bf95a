#include "tavrin/platform/key_value_store.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <random>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "tavrin/platform/device_facts.h"
#include "tavrin/platform/sqlite_key_value_store.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace tavrin::platform {
namespace {

namespace fs = std::filesystem;
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

// Runs `body` in a forked child and gives back what it returned; a child that
// dies or throws yields a line saying so. Results travel over a pipe because
// test assertions made in the child would not reach the parent.
std::string inChild(const std::function<std::string()>& body) {
    int fds[2];
    if (pipe(fds) != 0) return "pipe failed";
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        std::string out;
        try {
            out = body();
        } catch (const std::exception& e) {
            out = std::string("exception: ") + e.what();
        }
        (void)!write(fds[1], out.data(), out.size());
        _exit(0);
    }
    close(fds[1]);
    std::string out;
    char buffer[512];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;) out.append(buffer, static_cast<std::size_t>(n));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status)) out += "child did not exit normally";
    return out;
}

// In the calling (child) process only: makes `directory` a mount point of its
// own with `options`. Gives an error text, empty on success.
std::string privateMount(const fs::path& directory, const char* type, const char* data, unsigned long flags) {
    if (unshare(CLONE_NEWNS) != 0) return std::string("skip: no mount namespace: ") + std::strerror(errno);
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return std::string("skip: cannot make mounts private: ") + std::strerror(errno);
    if (type) {
        if (mount(type, directory.c_str(), type, flags, data) != 0)
            return std::string("mount failed: ") + std::strerror(errno);
        return {};
    }
    if (mount(directory.c_str(), directory.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
        mount(nullptr, directory.c_str(), nullptr, MS_BIND | MS_REMOUNT | flags, nullptr) != 0)
        return std::string("bind mount failed: ") + std::strerror(errno);
    return {};
}

class KeyValueStoreTest : public ::testing::Test {
protected:
    void TearDown() override {
        KeyValueStore::setStandard(nullptr);
        KeyValueStore::setDataDirectory(std::nullopt);
        DeviceFacts::reset();
    }
    TempDir dir;
    fs::path file = dir / "tavrin.sqlite";
};

TEST_F(KeyValueStoreTest, ValuesKeepTheirTypeAcrossReopen) {
    const Bytes binary{0x00, 0xff, 0x42, 0x00};
    {
        SqliteKeyValueStore store(file);
        ASSERT_TRUE(store.isPersistent());
        EXPECT_TRUE(store.setString("text", "42"));
        EXPECT_TRUE(store.setInteger("number", 42));
        EXPECT_TRUE(store.setData("bytes", toBytes("42")));
        EXPECT_TRUE(store.setString("nul inside", std::string("a\0b", 3)));
        EXPECT_TRUE(store.setData("binary", binary));
        EXPECT_TRUE(store.setString("empty text", ""));
        EXPECT_TRUE(store.setData("empty data", {}));
        EXPECT_TRUE(store.setInteger("min", std::numeric_limits<std::int64_t>::min()));
        EXPECT_TRUE(store.setInteger("max", std::numeric_limits<std::int64_t>::max()));
        EXPECT_TRUE(store.synchronize());
    }
    SqliteKeyValueStore store(file);
    EXPECT_EQ(store.value("text"), Value(std::string("42")));
    EXPECT_EQ(store.value("number"), Value(std::int64_t{42}));
    EXPECT_EQ(store.value("bytes"), Value(toBytes("42")));
    EXPECT_EQ(store.string("nul inside"), std::string("a\0b", 3));
    EXPECT_EQ(store.data("binary"), binary);
    EXPECT_EQ(store.value("empty text"), Value(std::string()));
    EXPECT_EQ(store.value("empty data"), Value(Bytes{}));
    EXPECT_EQ(store.integer("min"), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(store.integer("max"), std::numeric_limits<std::int64_t>::max());

    // A typed read of another type finds nothing, however convertible the value looks.
    EXPECT_EQ(store.integer("text"), std::nullopt);
    EXPECT_EQ(store.data("text"), std::nullopt);
    EXPECT_EQ(store.string("number"), std::nullopt);
    EXPECT_EQ(store.data("number"), std::nullopt);
    EXPECT_EQ(store.string("bytes"), std::nullopt);
    EXPECT_EQ(store.integer("bytes"), std::nullopt);
    EXPECT_EQ(store.value("missing"), std::nullopt);
    EXPECT_EQ(store.string("missing"), std::nullopt);
}

TEST_F(KeyValueStoreTest, OverwriteReplacesTypeAndRemoveForgets) {
    SqliteKeyValueStore store(file);
    ASSERT_TRUE(store.setString("k", "first"));
    ASSERT_TRUE(store.setInteger("k", 7));
    EXPECT_EQ(store.string("k"), std::nullopt);
    EXPECT_EQ(store.integer("k"), 7);
    ASSERT_TRUE(store.setData("k", toBytes("x")));
    EXPECT_EQ(store.integer("k"), std::nullopt);
    EXPECT_EQ(store.value("k"), Value(toBytes("x")));
    ASSERT_TRUE(store.setString("other", "stays"));

    EXPECT_TRUE(store.remove("k"));
    EXPECT_EQ(store.value("k"), std::nullopt);
    EXPECT_TRUE(store.remove("never stored"));
    SqliteKeyValueStore reopened(file);
    EXPECT_EQ(reopened.value("k"), std::nullopt);
    EXPECT_EQ(reopened.string("other"), "stays");
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
        for (int i = 0;; ++i) {  // until killed
            const std::string key = "key" + std::to_string(i);
            const bool ok = i % 3 == 0   ? store.setString(key, "v" + std::to_string(i))
                            : i % 3 == 1 ? store.setInteger(key, i)
                                         : store.setData(key, toBytes(std::to_string(i)));
            if (!ok) _exit(2);
            const char byte = 1;
            if (write(acks[1], &byte, 1) != 1) _exit(3);
        }
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
    // No orderly close happened: the write-ahead log is still there to replay.
    EXPECT_TRUE(fs::exists(file.string() + "-wal"));

    LogCapture log;
    SqliteKeyValueStore store(file);
    EXPECT_EQ(store.movedAsidePath(), std::nullopt) << "an interrupted write must not damage the file";
    for (int i = 0; i < kAcknowledged; ++i) {
        const std::string key = "key" + std::to_string(i);
        const Value expected = i % 3 == 0   ? Value("v" + std::to_string(i))
                               : i % 3 == 1 ? Value(std::int64_t{i})
                                            : Value(toBytes(std::to_string(i)));
        EXPECT_EQ(store.value(key), expected) << key;
    }
    EXPECT_TRUE(log.sink->messages(LogType::error).empty());
}

TEST_F(KeyValueStoreTest, FileThatIsNotADatabaseIsMovedAsideAndReplaced) {
    std::mt19937 random(7);
    std::string noise(6000, '\0');
    for (char& c : noise) c = static_cast<char>(random());
    const std::string contents[] = {noise, "user=alice\nconsent=allow\n", std::string(4096, 'x')};
    for (const auto& original : contents) {
        TempDir place;
        const auto path = place / "tavrin.sqlite";
        writeFile(path, original);
        writeFile(path.string() + "-wal", "stale log of the bad file");
        LogCapture log;
        {
            SqliteKeyValueStore store(path);
            EXPECT_TRUE(store.isPersistent());
            const auto aside = store.movedAsidePath();
            ASSERT_TRUE(aside.has_value());
            EXPECT_EQ(aside->parent_path(), place.path());
            EXPECT_EQ(aside->filename().string().rfind("tavrin.sqlite.corrupt-", 0), 0u) << *aside;
            EXPECT_EQ(readFile(*aside), original);
            EXPECT_EQ(readFile(aside->string() + "-wal"), "stale log of the bad file");
            EXPECT_TRUE(loggedError(log, "is not a usable database"));
            EXPECT_TRUE(loggedError(log, aside->string()));
            EXPECT_TRUE(store.setString("fresh", "yes"));
        }
        SqliteKeyValueStore reopened(path);
        EXPECT_EQ(reopened.movedAsidePath(), std::nullopt);
        EXPECT_EQ(reopened.string("fresh"), "yes");
    }
}

TEST_F(KeyValueStoreTest, DamagedDatabaseIsMovedAside) {
    {
        SqliteKeyValueStore store(file);
        for (int i = 0; i < 40; ++i) ASSERT_TRUE(store.setData("k" + std::to_string(i), Bytes(1500, 0x5a)));
    }
    // Clobber a stretch of interior pages, leaving the header intact.
    std::string bytes = readFile(file);
    ASSERT_GT(bytes.size(), 40000u);
    for (std::size_t i = 8192; i < 24576; ++i) bytes[i] = static_cast<char>(i * 31);
    writeFile(file, bytes);

    LogCapture log;
    SqliteKeyValueStore store(file);
    ASSERT_TRUE(store.movedAsidePath().has_value());
    EXPECT_EQ(readFile(*store.movedAsidePath()), bytes);
    EXPECT_TRUE(loggedError(log, "is not a usable database"));
    EXPECT_EQ(store.value("k1"), std::nullopt);
    EXPECT_TRUE(store.setInteger("k1", 1));
}

TEST_F(KeyValueStoreTest, ConcurrentWritersLoseNothing) {
    constexpr int kThreads = 8;
    constexpr int kKeys = 200;
    {
        SqliteKeyValueStore store(file);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&store, t] {
                for (int k = 0; k < kKeys; ++k) {
                    const std::string key = "t" + std::to_string(t) + "-" + std::to_string(k);
                    EXPECT_TRUE(store.setInteger(key, t * 1000 + k));
                    EXPECT_EQ(store.integer(key), t * 1000 + k);  // reads interleave with others' writes
                }
            });
        }
        for (auto& thread : threads) thread.join();
    }
    SqliteKeyValueStore store(file);
    int found = 0;
    for (int t = 0; t < kThreads; ++t)
        for (int k = 0; k < kKeys; ++k)
            if (store.integer("t" + std::to_string(t) + "-" + std::to_string(k)) == t * 1000 + k) ++found;
    EXPECT_EQ(found, kThreads * kKeys);
}

TEST_F(KeyValueStoreTest, ReadOnlyOpenReadsButRefusesWrites) {
    {
        SqliteKeyValueStore store(file);
        ASSERT_TRUE(store.setString("id", "kept"));
    }
    LogCapture log;
    SqliteKeyValueStore store(file, {.readOnly = true});
    EXPECT_EQ(store.string("id"), "kept");
    EXPECT_FALSE(store.setString("id", "changed"));
    EXPECT_FALSE(store.remove("id"));
    EXPECT_TRUE(loggedError(log, "write failed for key \"id\""));
    EXPECT_TRUE(loggedError(log, "remove failed for key \"id\""));
    EXPECT_EQ(store.string("id"), "kept");
}

// What a store on a read-only location does, seen from a child process that
// made the directory read-only for itself.
std::string readOnlyReport(const fs::path& directory, const std::function<std::string()>& makeReadOnly) {
    {
        SqliteKeyValueStore store(directory / "tavrin.sqlite");
        if (!store.setString("id", "kept")) return "setup write failed";
    }
    return inChild([&]() -> std::string {
        if (auto failure = makeReadOnly(); !failure.empty()) return failure;
        LogCapture log;
        SqliteKeyValueStore store(directory / "tavrin.sqlite");
        std::ostringstream out;
        out << "read=" << store.string("id").value_or("<none>") << " set=" << store.setString("id", "new")
            << " after=" << store.string("id").value_or("<none>")
            << " logged=" << loggedError(log, "write failed for key \"id\"");
        SqliteKeyValueStore nowhere(directory / "missing" / "tavrin.sqlite");
        out << " fallback=" << nowhere.setString("x", "y") << nowhere.isPersistent()
            << loggedError(log, "kept in memory for this run only");
        return out.str();
    });
}

TEST_F(KeyValueStoreTest, ReadOnlyFileSystemFailsWritesAndKeepsReading) {
    const auto report = readOnlyReport(dir.path(), [&] { return privateMount(dir.path(), nullptr, nullptr, MS_RDONLY); });
    if (report.rfind("skip:", 0) == 0) GTEST_SKIP() << report;
    EXPECT_EQ(report, "read=kept set=0 after=kept logged=1 fallback=101");
}

TEST_F(KeyValueStoreTest, WriteProtectedDirectoryFailsWrites) {
    // Root ignores permission bits, so the child gives up root first.
    const bool root = geteuid() == 0;
    const auto report = readOnlyReport(dir.path(), [&]() -> std::string {
        if (root && (chown(dir.path().c_str(), 65534, 65534) != 0 || chown(file.c_str(), 65534, 65534) != 0 ||
                     setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
                     setresuid(65534, 65534, 65534) != 0))
            return std::string("skip: cannot become an unprivileged user: ") + std::strerror(errno);
        if (chmod(dir.path().c_str(), 0500) != 0) return std::string("chmod failed: ") + std::strerror(errno);
        return {};
    });
    if (report.rfind("skip:", 0) == 0) GTEST_SKIP() << report;
    EXPECT_EQ(report, "read=kept set=0 after=kept logged=1 fallback=101");
}

TEST_F(KeyValueStoreTest, FullDiskFailsTheWriteAndTheProcessGoesOn) {
    const auto report = inChild([&]() -> std::string {
        if (auto failure = privateMount(dir.path(), "tmpfs", "size=256k,mode=0700", 0); !failure.empty())
            return failure;
        LogCapture log;
        SqliteKeyValueStore store(file);
        if (!store.setString("first", "kept")) return "first write failed";
        int written = 0;
        while (written < 1000 && store.setData("blob" + std::to_string(written), Bytes(8192, 0x11))) ++written;
        std::ostringstream out;
        out << "stopped=" << (written < 1000) << " logged=" << loggedError(log, "write failed for key \"blob")
            << " first=" << store.string("first").value_or("<none>")
            << " earlier=" << (written > 0 && store.data("blob0") == Bytes(8192, 0x11));
        return out.str();
    });
    if (report.rfind("skip:", 0) == 0) GTEST_SKIP() << report;
    EXPECT_EQ(report, "stopped=1 logged=1 first=kept earlier=1");
}

// Sets or unsets an environment variable for one scope.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        value ? setenv(name, value, 1) : unsetenv(name);
    }
    ~ScopedEnv() { old_ ? setenv(name_, old_->c_str(), 1) : unsetenv(name_); }

private:
    const char* name_;
    std::optional<std::string> old_;
};

TEST_F(KeyValueStoreTest, DataDirectoryFollowsHostThenXdgThenHome) {
    const std::string xdg = (dir / "xdg").string();
    const std::string home = (dir / "home").string();
    ScopedEnv xdgEnv("XDG_DATA_HOME", xdg.c_str());
    ScopedEnv homeEnv("HOME", home.c_str());

    // Without a bundle identifier the executable's name names the directory.
    EXPECT_EQ(KeyValueStore::dataDirectory(), dir / "xdg" / "platform_key_value_store_test");
    DeviceFacts::setApplicationInfo({.bundleIdentifier = "com.example.shop"});
    EXPECT_EQ(KeyValueStore::dataDirectory(), dir / "xdg" / "com.example.shop");
    {
        ScopedEnv relative("XDG_DATA_HOME", "relative/path");  // not absolute: ignored
        EXPECT_EQ(KeyValueStore::dataDirectory(), dir / "home" / ".local" / "share" / "com.example.shop");
    }
    {
        ScopedEnv unset("XDG_DATA_HOME", nullptr);
        EXPECT_EQ(KeyValueStore::dataDirectory(), dir / "home" / ".local" / "share" / "com.example.shop");
    }
    KeyValueStore::setDataDirectory(dir / "chosen");
    EXPECT_EQ(KeyValueStore::dataDirectory(), dir / "chosen");
    KeyValueStore::setDataDirectory(std::nullopt);
    EXPECT_EQ(KeyValueStore::dataDirectory(), dir / "xdg" / "com.example.shop");
}

TEST_F(KeyValueStoreTest, StandardStoreOpensOnceInAPrivateDirectory) {
    const std::string xdg = (dir / "xdg").string();
    ScopedEnv xdgEnv("XDG_DATA_HOME", xdg.c_str());
    DeviceFacts::setApplicationInfo({.bundleIdentifier = "com.example.shop"});

    std::vector<std::shared_ptr<KeyValueStore>> seen(8);
    std::vector<std::thread> threads;
    for (auto& slot : seen) threads.emplace_back([&slot] { slot = KeyValueStore::standard(); });
    for (auto& thread : threads) thread.join();
    for (const auto& store : seen) EXPECT_EQ(store, seen.front());
    ASSERT_TRUE(seen.front()->setString("id", "abc"));

    const auto created = dir / "xdg" / "com.example.shop";
    EXPECT_TRUE(fs::exists(created / "tavrin.sqlite"));
    struct stat info {};
    ASSERT_EQ(stat(created.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    ASSERT_EQ(stat((dir / "xdg").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);

    // A replacement is used as is; clearing it reopens the same file.
    auto replacement = std::make_shared<SqliteKeyValueStore>(dir / "elsewhere.sqlite");
    KeyValueStore::setStandard(replacement);
    EXPECT_EQ(KeyValueStore::standard(), replacement);
    EXPECT_EQ(KeyValueStore::standard()->string("id"), std::nullopt);
    KeyValueStore::setStandard(nullptr);
    seen.clear();
    EXPECT_EQ(KeyValueStore::standard()->string("id"), "abc");

    // A host-chosen directory is used for the next opening.
    KeyValueStore::setStandard(nullptr);
    KeyValueStore::setDataDirectory(dir / "host" / "data");
    ASSERT_TRUE(KeyValueStore::standard()->setInteger("n", 1));
    EXPECT_TRUE(fs::exists(dir / "host" / "data" / "tavrin.sqlite"));
}

TEST_F(KeyValueStoreTest, UnusableLocationFallsBackToMemory) {
    writeFile(dir / "occupied", "a file where the directory should be");
    LogCapture log;
    KeyValueStore::setDataDirectory(dir / "occupied" / "data");
    auto store = KeyValueStore::standard();
    EXPECT_TRUE(store->setString("id", "this run only"));
    EXPECT_EQ(store->string("id"), "this run only");
    EXPECT_FALSE(store->synchronize());
    EXPECT_TRUE(loggedError(log, "cannot create directory"));
    EXPECT_TRUE(loggedError(log, "values are kept in memory for this run only"));
}

}  // namespace
}  // namespace tavrin::platform
