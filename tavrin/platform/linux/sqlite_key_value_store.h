#pragma once
// The default key-value store: one SQLite database file, one row per key with
// its value's type kept beside it. Every write is its own transaction in WAL
// mode with synchronous=FULL, so a write that returned true survives a crash.
// One connection serves all threads behind a mutex.
//
// Opening waits for another connection's lock (up to the busy timeout, for
// every step of the opening, like a write), never fails the caller, and every
// fallback is logged once at error level:
// - a file that is not a database, fails the quick integrity check, or holds a
//   key_value table of another shape, is renamed to "<file>.corrupt-<UTC time>"
//   (with its -wal/-shm) and a fresh store is created in its place;
// - a file that exists but cannot be written (read-only file system, no write
//   access, locked by another connection for longer than the wait) is opened
//   read-only: stored values stay readable, writes fail;
// - a location that cannot be used at all gives an in-memory store for this run,
//   and so does one someone else could read or plant values in: a directory
//   that is a symbolic link, belongs to another user, or is writable by others
//   (or by a group other than the user's own private group), and a database
//   or journal file that is a symbolic link or belongs to another user.
// Missing directories are created 0700, the database file is kept 0600 (its
// journal files follow it), and symbolic links are never followed.
// A store that cannot write durably says so: isPersistent() and synchronize()
// are false.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "tavrin/platform/internal/result.h"
#include "tavrin/platform/key_value_store.h"

struct sqlite3;
struct sqlite3_stmt;

namespace tavrin::platform {

class SqliteKeyValueStore final : public KeyValueStore {
public:
    // File name of the standard store inside the data directory.
    static constexpr const char* kFileName = "tavrin.sqlite";

    struct Options {
        // Opens the file read-only and never repairs it: reads work, every
        // write fails (and logs).
        bool readOnly = false;
        // Milliseconds the opening, and each later statement, waits for another
        // connection's lock.
        int busyTimeoutMilliseconds = 5000;
    };

    // Opens (creating when missing, with its directory) the database at `file`.
    explicit SqliteKeyValueStore(std::filesystem::path file);
    SqliteKeyValueStore(std::filesystem::path file, Options options);
    ~SqliteKeyValueStore() override;
    SqliteKeyValueStore(const SqliteKeyValueStore&) = delete;
    SqliteKeyValueStore& operator=(const SqliteKeyValueStore&) = delete;

    bool set(const std::string& key, const Value& value) override;
    std::optional<Value> value(const std::string& key) const override;
    bool remove(const std::string& key) override;
    bool synchronize() override;

    // ---- listing by key prefix: one range query over the key index.
    std::vector<Entry> values(std::string_view prefix) const override;
    std::vector<KeySize> keySizes(std::string_view prefix) const override;
    // One transaction for all the changes.
    bool apply(const std::vector<Change>& changes) override;

    // The database file asked for.
    const std::filesystem::path& path() const noexcept { return path_; }
    // True when a write that succeeds is durable: false when the store could
    // only be opened read-only or values live in memory only.
    bool isPersistent() const;
    // Folds the write-ahead log into the database file and empties it, without
    // waiting for other processes (one that is reading keeps the log for the
    // next opening to replay). Shutdown calls it: the shared store is never
    // closed, so this is what leaves one whole file behind.
    void checkpoint();
    // Where a bad file found at open was moved; empty when none was.
    std::optional<std::filesystem::path> movedAsidePath() const;

private:
    struct Statements;
    enum class Access { readWrite, readOnly, immutable, memory };
    using Deadline = std::chrono::steady_clock::time_point;

    // Why a step of the opening failed.
    struct Failure {
        int code;  // SQLite extended result code
        std::string message;
        // The file is readable but not a store of ours (not a database,
        // damaged, or a key_value table of another shape): to be moved aside.
        bool unusableFile = false;
    };
    using Outcome = tavrin::detail::Result<void, Failure>;

    void open();
    Outcome openAt(Access access, Deadline deadline);
    void openInMemory(const std::string& reason);
    Outcome quickCheck(Deadline deadline);
    Outcome checkShape(Deadline deadline);
    Outcome prepareStatements(Deadline deadline);
    Outcome execute(const char* sql, Deadline deadline);
    Failure lastFailure() const;
    void close();
    std::optional<std::filesystem::path> moveAside();
    void logFailure(const char* operation, const std::string& key, int code) const;
    // One statement of set() or remove(), with the lock held; the SQLite result.
    int writeLocked(const std::string& key, const Value& value);
    int removeLocked(const std::string& key);

    std::filesystem::path path_;
    Options options_;
    mutable std::mutex mutex_;
    sqlite3* db_ = nullptr;
    std::unique_ptr<Statements> statements_;
    bool inMemory_ = false;
    bool writable_ = false;
    std::optional<std::filesystem::path> movedAside_;
    // A forked child never closes the parent's connection.
    const std::uint32_t generation_;
};

}  // namespace tavrin::platform
