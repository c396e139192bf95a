#include "tavrin/platform/linux/sqlite_key_value_store.h"

#include <grp.h>
#include <pwd.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <system_error>
#include <thread>

#include "tavrin/platform/clock.h"
#include "tavrin/platform/dispatch.h"
#include "tavrin/platform/internal/log_hook.h"
#include "tavrin/platform/internal/result.h"

namespace tavrin::platform {

namespace {

constexpr const char* kCreateTable =
    "CREATE TABLE IF NOT EXISTS key_value ("
    " key TEXT PRIMARY KEY NOT NULL,"
    " type TEXT NOT NULL CHECK (type IN ('string', 'integer', 'data')),"
    " value"  // no declared type: SQLite keeps each value's own storage class
    ") WITHOUT ROWID";
constexpr const char* kUpsert =
    "INSERT INTO key_value (key, type, value) VALUES (?1, ?2, ?3)"
    " ON CONFLICT (key) DO UPDATE SET type = excluded.type, value = excluded.value";
constexpr const char* kSelect = "SELECT type, value FROM key_value WHERE key = ?1";
constexpr const char* kDelete = "DELETE FROM key_value WHERE key = ?1";

void logStoreError(const std::string& message) {
    platform::logError([&] { return "KeyValueStore: " + message; });
}

std::string describe(int code, const char* detail) {
    std::string text = sqlite3_errstr(code);
    if (detail && *detail && text != detail) text += std::string(" (") + detail + ")";
    return text;
}

bool isNotADatabase(int code) {
    const int primary = code & 0xff;
    return primary == SQLITE_NOTADB || primary == SQLITE_CORRUPT;
}

bool isBusy(int code) { return (code & 0xff) == SQLITE_BUSY; }

using SteadyClock = std::chrono::steady_clock;

// Runs one step of the opening until no other connection's lock turns it away,
// or the deadline passes. The busy handler (set to the time left before each
// try) covers most waits, but SQLite answers BUSY at once where waiting could
// deadlock, as when a read turns into a write (the journal-mode change does):
// those are retried here after the statement has let go of its own lock.
template <class Step>
auto untilUnlocked(sqlite3* db, SteadyClock::time_point deadline, Step step) {
    using namespace std::chrono;
    for (auto pause = milliseconds(1);; pause = std::min(pause * 2, milliseconds(20))) {
        const auto left = duration_cast<milliseconds>(deadline - SteadyClock::now());
        sqlite3_busy_timeout(db, static_cast<int>(std::max<milliseconds::rep>(left.count(), 0)));
        auto outcome = step();
        if (outcome.ok() || !isBusy(outcome.error().code) || SteadyClock::now() >= deadline) return outcome;
        std::this_thread::sleep_for(std::min<SteadyClock::duration>(pause, deadline - SteadyClock::now()));
    }
}

// Creates the missing directories of `directory` with mode 0700.
tavrin::detail::Status makeDirectories(const std::filesystem::path& directory) {
    if (directory.empty()) return {};
    std::error_code ec;
    if (std::filesystem::is_directory(directory, ec)) return {};
    if (directory.has_parent_path() && directory.parent_path() != directory)
        if (auto made = makeDirectories(directory.parent_path()); !made) return made;
    if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST)
        return tavrin::detail::Error{errno,
                                     "cannot create directory " + directory.string() + ": " + std::strerror(errno)};
    if (!std::filesystem::is_directory(directory, ec))
        return tavrin::detail::Error{EEXIST, "cannot create directory " + directory.string() +
                                                 ": a file of that name is in the way"};
    return {};
}

// Whether `group` is the user's own private group: named after the user, with
// no member listed (a user's primary group needs no listing).
bool isPrivateGroup(gid_t group) {
    const long size = std::max(sysconf(_SC_GETPW_R_SIZE_MAX), sysconf(_SC_GETGR_R_SIZE_MAX));
    std::vector<char> userBuffer(size > 0 ? static_cast<std::size_t>(size) : 16384), groupBuffer(userBuffer.size());
    passwd user{};
    passwd* foundUser = nullptr;
    ::group entry{};
    ::group* foundGroup = nullptr;
    if (getpwuid_r(::geteuid(), &user, userBuffer.data(), userBuffer.size(), &foundUser) != 0 || !foundUser ||
        getgrgid_r(group, &entry, groupBuffer.data(), groupBuffer.size(), &foundGroup) != 0 || !foundGroup)
        return false;
    const bool noOtherMember = !foundGroup->gr_mem || !foundGroup->gr_mem[0] ||
                               (std::strcmp(foundGroup->gr_mem[0], foundUser->pw_name) == 0 && !foundGroup->gr_mem[1]);
    return std::strcmp(foundGroup->gr_name, foundUser->pw_name) == 0 && noOtherMember;
}

// Why the location of `file` must not be used, or nothing: anyone but the
// user who could write the directory or own the files could read the stored
// values or plant some that the SDK would then trust and send.
std::optional<std::string> unsafeLocation(const std::filesystem::path& file) {
    const std::filesystem::path directory = file.has_parent_path() ? file.parent_path() : ".";
    struct stat info {};
    if (::lstat(directory.c_str(), &info) != 0)
        return "cannot inspect the directory " + directory.string() + ": " + std::strerror(errno);
    const std::string where = "the directory " + directory.string();
    if (S_ISLNK(info.st_mode)) return where + " is a symbolic link";
    if (!S_ISDIR(info.st_mode)) return where + " is not a directory";
    if (info.st_uid != ::geteuid())
        return where + " is owned by another user (uid " + std::to_string(info.st_uid) + ")";
    if (info.st_mode & S_IWOTH) return where + " is writable by other users";
    if ((info.st_mode & S_IWGRP) && !isPrivateGroup(info.st_gid)) return where + " is writable by its group";
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
        const std::string path = file.string() + suffix;
        if (::lstat(path.c_str(), &info) != 0) continue;  // not there yet
        if (S_ISLNK(info.st_mode)) return "the file " + path + " is a symbolic link";
        if (!S_ISREG(info.st_mode)) return "the file " + path + " is not a regular file";
        if (info.st_uid != ::geteuid())
            return "the file " + path + " is owned by another user (uid " + std::to_string(info.st_uid) + ")";
    }
    return std::nullopt;
}

// Takes away what others may do with the database and its journal files: a
// new file, or one an earlier version left readable (SQLite gives its journal
// files the database's mode when it creates them). Runs right after the
// opening, before anything is written. By path, not by opening the file,
// which would drop this process's locks on it when closed.
void keepPrivate(const std::filesystem::path& file) {
    for (const char* suffix : {"", "-wal", "-shm"}) {
        const std::string path = file.string() + suffix;
        struct stat info {};
        if (::lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == ::geteuid() &&
            (info.st_mode & 077) != 0)
            (void)::chmod(path.c_str(), info.st_mode & 0700);
    }
}

// A file that has content but not the database header is someone else's:
// SQLite is not let near it (it would reset a journal lying beside it).
bool hasForeignHeader(const std::filesystem::path& file) {
    static constexpr char kMagic[] = "SQLite format 3";  // with its NUL: 16 bytes
    std::FILE* in = std::fopen(file.c_str(), "rb");
    if (!in) return false;
    char header[sizeof kMagic] = {};
    const std::size_t got = std::fread(header, 1, sizeof header, in);
    std::fclose(in);
    return got > 0 && std::memcmp(header, kMagic, got) != 0;
}

// "20240131T235959Z" of the current time.
std::string timestamp() {
    const auto seconds = static_cast<std::time_t>(std::floor(Clock::now()));
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &utc);
    return text;
}

// Percent-encodes what a URI path may not carry as is.
std::string uriPath(const std::string& path) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : path) {
        if (std::isalnum(c) || std::strchr("/-._~", c)) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 0xf];
        }
    }
    return out;
}

std::filesystem::path withSuffix(const std::filesystem::path& file, const std::string& suffix) {
    return std::filesystem::path(file.string() + suffix);
}

}  // namespace

struct SqliteKeyValueStore::Statements {
    sqlite3_stmt* upsert = nullptr;
    sqlite3_stmt* select = nullptr;
    sqlite3_stmt* erase = nullptr;

    ~Statements() {
        sqlite3_finalize(upsert);
        sqlite3_finalize(select);
        sqlite3_finalize(erase);
    }
};

namespace {

// Resets a cached statement whatever way the caller leaves.
class StatementUse {
public:
    explicit StatementUse(sqlite3_stmt* statement) : statement_(statement) {}
    ~StatementUse() {
        sqlite3_reset(statement_);
        sqlite3_clear_bindings(statement_);
    }
    StatementUse(const StatementUse&) = delete;
    StatementUse& operator=(const StatementUse&) = delete;

private:
    sqlite3_stmt* statement_;
};

}  // namespace

SqliteKeyValueStore::SqliteKeyValueStore(std::filesystem::path file)
    : SqliteKeyValueStore(std::move(file), Options{}) {}

SqliteKeyValueStore::SqliteKeyValueStore(std::filesystem::path file, Options options)
    : path_(std::move(file)), options_(options), generation_(forkGeneration()) {
    std::lock_guard lock(mutex_);
    open();
}

SqliteKeyValueStore::~SqliteKeyValueStore() {
    if (generation_ != forkGeneration()) {
        // A forked child's copy: the connection and its locks are the
        // parent's (and the mutex may have been held by a parent's thread).
        keepForever(std::shared_ptr<Statements>(std::move(statements_)));
        if (db_) keepForever(std::shared_ptr<sqlite3>(db_, [](sqlite3*) {}));
        return;
    }
    std::lock_guard lock(mutex_);
    close();
}

bool SqliteKeyValueStore::isPersistent() const {
    std::lock_guard lock(mutex_);
    return db_ != nullptr && writable_ && !inMemory_;
}

std::optional<std::filesystem::path> SqliteKeyValueStore::movedAsidePath() const {
    std::lock_guard lock(mutex_);
    return movedAside_;
}

void SqliteKeyValueStore::close() {
    statements_.reset();
    if (db_) sqlite3_close_v2(db_);
    db_ = nullptr;
}

SqliteKeyValueStore::Failure SqliteKeyValueStore::lastFailure() const {
    const int code = sqlite3_extended_errcode(db_);
    return {code, describe(code, sqlite3_errmsg(db_)), isNotADatabase(code)};
}

SqliteKeyValueStore::Outcome SqliteKeyValueStore::execute(const char* sql, Deadline deadline) {
    return untilUnlocked(db_, deadline, [&]() -> Outcome {
        char* message = nullptr;
        if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) == SQLITE_OK) return {};
        const int code = sqlite3_extended_errcode(db_);
        Failure failure{code, describe(code, message), isNotADatabase(code)};
        sqlite3_free(message);
        return failure;
    });
}

SqliteKeyValueStore::Outcome SqliteKeyValueStore::openAt(Access access, Deadline deadline) {
    const bool inMemory = access == Access::memory;
    const bool readOnly = access == Access::readOnly || access == Access::immutable;
    std::string location = path_.string();
    // Our own mutex serialises every use; a symbolic link is never followed.
    int flags = SQLITE_OPEN_NOMUTEX | (inMemory ? 0 : SQLITE_OPEN_NOFOLLOW);
    if (inMemory) {
        location = ":memory:";
        flags |= SQLITE_OPEN_READWRITE;
    } else if (readOnly) {
        flags |= SQLITE_OPEN_READONLY;
    } else {
        flags |= SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    }
    if (access == Access::immutable) {
        // Without write access to the directory SQLite cannot create the WAL
        // index, and only an immutable open reads the file at all.
        location = "file:" + uriPath(location) + "?immutable=1";
        flags |= SQLITE_OPEN_URI;
    }
    if (sqlite3_open_v2(location.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
        Failure failure = db_ ? lastFailure() : Failure{SQLITE_NOMEM, describe(SQLITE_NOMEM, nullptr)};
        close();
        return failure;
    }
    sqlite3_extended_result_codes(db_, 1);
    if (access == Access::readWrite) keepPrivate(path_);

    // Reading the header and every page catches a file that is not a database
    // or is damaged now, rather than on some later write; the shape is checked
    // before anything is written to the file.
    Outcome step;
    if (!inMemory) step = quickCheck(deadline);
    if (step && !inMemory) step = checkShape(deadline);
    if (step && !readOnly) step = execute("PRAGMA journal_mode = WAL", deadline);
    if (step && !readOnly) step = execute("PRAGMA synchronous = FULL", deadline);
    // An overwritten or removed value (a configuration stored by an earlier
    // version with its token) is zeroed in the pages written anyway. Full
    // secure_delete, Debian's default, also rewrote every freed overflow page
    // of a sent request, in the WAL and again at the checkpoint, doubling the
    // storage written per cached request; freed pages keep their bytes until
    // reused.
    if (step && !readOnly) step = execute("PRAGMA secure_delete = FAST", deadline);
    // The values are small and a cached request is read once, so a page cache
    // of 256 KiB does; SQLite's default of 2 MiB grew with every page the
    // offline cache ever touched, the bulk of what the SDK added to its host.
    if (step) step = execute("PRAGMA cache_size = -256", deadline);
    if (step && !readOnly) step = execute(kCreateTable, deadline);
    if (step && options_.readOnly && inMemory) step = execute("PRAGMA query_only = ON", deadline);
    if (step) step = prepareStatements(deadline);
    if (!step) {
        close();
        return step;
    }
    sqlite3_busy_timeout(db_, options_.busyTimeoutMilliseconds);
    inMemory_ = inMemory;
    writable_ = !readOnly && !options_.readOnly && sqlite3_db_readonly(db_, "main") != 1;
    return {};
}

SqliteKeyValueStore::Outcome SqliteKeyValueStore::quickCheck(Deadline deadline) {
    return untilUnlocked(db_, deadline, [&]() -> Outcome {
        sqlite3_stmt* check = nullptr;
        int rc = sqlite3_prepare_v2(db_, "PRAGMA main.quick_check", -1, &check, nullptr);
        if (rc == SQLITE_OK) rc = sqlite3_step(check);
        Outcome failure;
        if (rc != SQLITE_ROW) {
            failure = lastFailure();
        } else {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(check, 0));
            const std::string verdict = text ? text : "";
            if (verdict != "ok") failure = Failure{SQLITE_CORRUPT, "integrity check failed: " + verdict, true};
        }
        sqlite3_finalize(check);
        return failure;
    });
}

SqliteKeyValueStore::Outcome SqliteKeyValueStore::checkShape(Deadline deadline) {
    return untilUnlocked(db_, deadline, [&]() -> Outcome {
        sqlite3_stmt* info = nullptr;
        int rc = sqlite3_prepare_v2(db_, "PRAGMA table_info(key_value)", -1, &info, nullptr);
        std::string columns;
        bool keyIsPrimary = false;
        if (rc == SQLITE_OK) rc = SQLITE_ROW;
        while (rc == SQLITE_ROW && (rc = sqlite3_step(info)) == SQLITE_ROW) {
            const auto* name = reinterpret_cast<const char*>(sqlite3_column_text(info, 1));
            columns += (columns.empty() ? "" : ", ") + std::string(name ? name : "");
            if (name && std::strcmp(name, "key") == 0) keyIsPrimary = sqlite3_column_int(info, 5) == 1;
        }
        Outcome failure;
        if (rc != SQLITE_DONE)
            failure = lastFailure();
        else if (!columns.empty() && (columns != "key, type, value" || !keyIsPrimary))
            // Someone else's table of that name: nothing of ours can be read from it.
            failure = Failure{SQLITE_MISMATCH, "the key_value table has another shape (" + columns + ")", true};
        sqlite3_finalize(info);
        return failure;
    });
}

SqliteKeyValueStore::Outcome SqliteKeyValueStore::prepareStatements(Deadline deadline) {
    statements_ = std::make_unique<Statements>();
    return untilUnlocked(db_, deadline, [&]() -> Outcome {
        for (auto [sql, slot] : {std::pair{kUpsert, &statements_->upsert}, std::pair{kSelect, &statements_->select},
                                 std::pair{kDelete, &statements_->erase}}) {
            if (!*slot && sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, slot, nullptr) != SQLITE_OK)
                return lastFailure();
        }
        return {};
    });
}

std::optional<std::filesystem::path> SqliteKeyValueStore::moveAside() {
    const std::string base = path_.string() + ".corrupt-" + timestamp();
    std::filesystem::path target = base;
    std::error_code ec;
    for (int n = 1; std::filesystem::exists(target, ec) || std::filesystem::exists(withSuffix(target, "-wal"), ec); ++n)
        target = base + "-" + std::to_string(n);
    if (std::rename(path_.c_str(), target.c_str()) != 0) {
        logStoreError("cannot move " + path_.string() + " aside: " + std::strerror(errno));
        return std::nullopt;
    }
    // Journal files belong to the bad file; left in place they would be
    // replayed into the fresh one.
    for (const char* suffix : {"-wal", "-shm", "-journal"}) {
        const auto from = withSuffix(path_, suffix);
        if (std::filesystem::exists(from, ec)) std::rename(from.c_str(), withSuffix(target, suffix).c_str());
    }
    return target;
}

void SqliteKeyValueStore::open() {
    // One wait for the whole opening, however many steps and fallbacks it takes.
    const Deadline deadline = SteadyClock::now() + std::chrono::milliseconds(options_.busyTimeoutMilliseconds);
    if (auto made = makeDirectories(path_.parent_path()); !made) {
        openInMemory(made.error().message);
        return;
    }
    if (auto unsafe = unsafeLocation(path_)) {
        openInMemory(*unsafe);
        return;
    }
    Outcome opened;
    if (!options_.readOnly) {
        opened = hasForeignHeader(path_) ? Outcome(Failure{SQLITE_NOTADB, "no database header", true})
                                         : openAt(Access::readWrite, deadline);
        if (opened) {
            if (!writable_) logStoreError("the file " + path_.string() + " is write-protected; writes will fail");
            return;
        }
        if (opened.error().unusableFile) {
            logStoreError("the file " + path_.string() + " is not a usable database (" + opened.error().message + ")");
            if (auto target = moveAside()) {
                movedAside_ = target;
                logStoreError("moved the unusable file to " + target->string() + " and started an empty store");
                opened = openAt(Access::readWrite, deadline);
                if (opened) return;
            }
        }
        std::error_code ec;
        if (!std::filesystem::exists(path_, ec)) {
            openInMemory(opened.error().message);
            return;
        }
        // The values are there but cannot be written: keep reading them.
        const std::string writeFailure = opened.error().message;
        if ((opened = openAt(Access::readOnly, deadline)) || (opened = openAt(Access::immutable, deadline))) {
            logStoreError("cannot open " + path_.string() + " for writing (" + writeFailure +
                          "); it is opened read-only and writes will fail");
            return;
        }
    } else if ((opened = openAt(Access::readOnly, deadline)) || (opened = openAt(Access::immutable, deadline))) {
        return;
    }
    openInMemory(opened.error().message);
}

void SqliteKeyValueStore::openInMemory(const std::string& reason) {
    logStoreError("cannot open " + path_.string() + " (" + reason +
                  "); values are kept in memory for this run only and will not persist");
    if (auto opened = openAt(Access::memory, SteadyClock::now()); !opened)
        logStoreError("cannot open an in-memory store: " + opened.error().message);
}

void SqliteKeyValueStore::logFailure(const char* operation, const std::string& key, int code) const {
    const std::string detail = describe(code, db_ ? sqlite3_errmsg(db_) : nullptr);
    logStoreError(std::string(operation) + " failed for key \"" + key + "\" in " +
                  (inMemory_ ? std::string("the in-memory store") : path_.string()) + ": " + detail);
}

bool SqliteKeyValueStore::set(const std::string& key, const Value& value) {
    std::lock_guard lock(mutex_);
    if (!statements_) {
        logStoreError("write failed for key \"" + key + "\": the store is not open");
        return false;
    }
    const int rc = writeLocked(key, value);
    if (rc != SQLITE_DONE) {
        logFailure("write", key, rc);
        return false;
    }
    return !inMemory_;  // kept, but not durable: said once when the store opened
}

int SqliteKeyValueStore::writeLocked(const std::string& key, const Value& value) {
    sqlite3_stmt* s = statements_->upsert;
    StatementUse use(s);
    int rc = sqlite3_bind_text(s, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    if (const auto* text = std::get_if<std::string>(&value)) {
        if (rc == SQLITE_OK) rc = sqlite3_bind_text(s, 2, "string", -1, SQLITE_STATIC);
        if (rc == SQLITE_OK) rc = sqlite3_bind_text64(s, 3, text->data(), text->size(), SQLITE_STATIC, SQLITE_UTF8);
    } else if (const auto* integer = std::get_if<std::int64_t>(&value)) {
        if (rc == SQLITE_OK) rc = sqlite3_bind_text(s, 2, "integer", -1, SQLITE_STATIC);
        if (rc == SQLITE_OK) rc = sqlite3_bind_int64(s, 3, *integer);
    } else {
        const auto& bytes = std::get<Bytes>(value);
        if (rc == SQLITE_OK) rc = sqlite3_bind_text(s, 2, "data", -1, SQLITE_STATIC);
        // An empty buffer has no data pointer, and binding a null pointer would store NULL.
        if (rc == SQLITE_OK)
            rc = bytes.empty() ? sqlite3_bind_zeroblob(s, 3, 0)
                               : sqlite3_bind_blob64(s, 3, bytes.data(), bytes.size(), SQLITE_STATIC);
    }
    if (rc == SQLITE_OK) rc = sqlite3_step(s);
    return rc;
}

std::optional<KeyValueStore::Value> SqliteKeyValueStore::value(const std::string& key) const {
    std::lock_guard lock(mutex_);
    if (!statements_) return std::nullopt;
    sqlite3_stmt* s = statements_->select;
    StatementUse use(s);
    int rc = sqlite3_bind_text(s, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    if (rc == SQLITE_OK) rc = sqlite3_step(s);
    if (rc == SQLITE_DONE) return std::nullopt;
    if (rc != SQLITE_ROW) {
        logFailure("read", key, rc);
        return std::nullopt;
    }
    const auto* typeText = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
    const std::string_view type = typeText ? typeText : "";
    // Built in place: moving a finished variant into the optional trips a
    // false maybe-uninitialized warning in GCC 12 sanitizer builds.
    std::optional<Value> result;
    if (type == "integer") {
        result.emplace(std::in_place_type<std::int64_t>, sqlite3_column_int64(s, 1));
    } else if (type == "string") {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(s, 1));
        result.emplace(std::in_place_type<std::string>, text ? text : "",
                       static_cast<std::size_t>(sqlite3_column_bytes(s, 1)));
    } else if (type == "data") {
        const auto* blob = static_cast<const std::uint8_t*>(sqlite3_column_blob(s, 1));
        const auto size = static_cast<std::size_t>(sqlite3_column_bytes(s, 1));
        result.emplace(std::in_place_type<Bytes>);
        if (blob) std::get<Bytes>(*result).assign(blob, blob + size);
    }
    return result;
}

bool SqliteKeyValueStore::remove(const std::string& key) {
    std::lock_guard lock(mutex_);
    if (!statements_) {
        logStoreError("remove failed for key \"" + key + "\": the store is not open");
        return false;
    }
    const int rc = removeLocked(key);
    if (rc != SQLITE_DONE) {
        logFailure("remove", key, rc);
        return false;
    }
    return !inMemory_;
}

int SqliteKeyValueStore::removeLocked(const std::string& key) {
    sqlite3_stmt* s = statements_->erase;
    StatementUse use(s);
    int rc = sqlite3_bind_text(s, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    if (rc == SQLITE_OK) rc = sqlite3_step(s);
    return rc;
}

bool SqliteKeyValueStore::apply(const std::vector<Change>& changes) {
    if (changes.empty()) return true;
    std::lock_guard lock(mutex_);
    if (!statements_) {
        logStoreError("write failed for key \"" + changes.front().key + "\": the store is not open");
        return false;
    }
    // BEGIN IMMEDIATE takes the write lock at once (waiting out the busy
    // timeout), so the changes never meet a lock halfway.
    int rc = sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
        logFailure("write", changes.front().key, rc);
        return false;
    }
    for (const auto& change : changes) {
        rc = change.value ? writeLocked(change.key, *change.value) : removeLocked(change.key);
        if (rc != SQLITE_DONE) {
            logFailure(change.value ? "write" : "remove", change.key, rc);
            sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
            return false;
        }
    }
    rc = sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
        logFailure("write", changes.front().key, rc);
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        return false;
    }
    return !inMemory_;
}

bool SqliteKeyValueStore::synchronize() {
    // Every write is committed with a full sync before it returns, so there is
    // nothing left to flush; only a store that cannot write durably says no.
    std::lock_guard lock(mutex_);
    return statements_ != nullptr && writable_ && !inMemory_;
}

void SqliteKeyValueStore::checkpoint() {
    std::lock_guard lock(mutex_);
    if (!statements_ || !writable_ || inMemory_) return;
    sqlite3_busy_timeout(db_, 0);
    const int rc = sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    sqlite3_busy_timeout(db_, options_.busyTimeoutMilliseconds);
    if (rc != SQLITE_OK && rc != SQLITE_BUSY)
        logStoreError("checkpoint of " + path_.string() + " failed: " + describe(rc, sqlite3_errmsg(db_)));
}

// ---- listing by key prefix

namespace {

// The least text greater than every text starting with `prefix` (bytewise),
// or nothing when there is none (empty prefix, or only 0xFF bytes).
std::optional<std::string> prefixUpperBound(std::string_view prefix) {
    std::string bound(prefix);
    while (!bound.empty()) {
        auto& last = reinterpret_cast<unsigned char&>(bound.back());
        if (last != 0xFF) {
            ++last;
            return bound;
        }
        bound.pop_back();
    }
    return std::nullopt;
}

// Prepares `SELECT columns` over the keys starting with `prefix`, in key
// order: keys compare bytewise (BINARY), so the prefix is a range of the
// primary key. The result code is SQLITE_OK when the statement is ready.
int prepareRange(sqlite3* db, const std::string& columns, std::string_view prefix, sqlite3_stmt** statement) {
    const auto upper = prefixUpperBound(prefix);
    const std::string sql =
        "SELECT " + columns + " FROM key_value WHERE key >= ?1" + (upper ? " AND key < ?2" : "") + " ORDER BY key";
    int rc = sqlite3_prepare_v2(db, sql.c_str(), -1, statement, nullptr);
    if (rc == SQLITE_OK)
        rc = sqlite3_bind_text(*statement, 1, prefix.data(), static_cast<int>(prefix.size()), SQLITE_TRANSIENT);
    if (rc == SQLITE_OK && upper)
        rc = sqlite3_bind_text(*statement, 2, upper->data(), static_cast<int>(upper->size()), SQLITE_TRANSIENT);
    return rc;
}

}  // namespace

std::vector<KeyValueStore::Entry> SqliteKeyValueStore::values(std::string_view prefix) const {
    std::lock_guard lock(mutex_);
    std::vector<Entry> entries;
    if (!db_) return entries;
    sqlite3_stmt* s = nullptr;
    int rc = prepareRange(db_, "key, type, value", prefix, &s);
    while (rc == SQLITE_OK || rc == SQLITE_ROW) {
        rc = sqlite3_step(s);
        if (rc != SQLITE_ROW) break;
        const auto* keyText = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
        std::string key(keyText ? keyText : "", static_cast<std::size_t>(sqlite3_column_bytes(s, 0)));
        const auto* typeText = reinterpret_cast<const char*>(sqlite3_column_text(s, 1));
        const std::string_view type = typeText ? typeText : "";
        if (type != "integer" && type != "string" && type != "data") continue;
        // Filled in place: moving a finished variant trips a false
        // maybe-uninitialized warning in GCC 12.
        auto& value = entries.emplace_back(std::move(key), Value{}).second;
        if (type == "integer") {
            value.emplace<std::int64_t>(sqlite3_column_int64(s, 2));
        } else if (type == "string") {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(s, 2));
            value.emplace<std::string>(text ? text : "", static_cast<std::size_t>(sqlite3_column_bytes(s, 2)));
        } else {
            const auto* blob = static_cast<const std::uint8_t*>(sqlite3_column_blob(s, 2));
            const auto size = static_cast<std::size_t>(sqlite3_column_bytes(s, 2));
            auto& bytes = value.emplace<Bytes>();
            if (blob) bytes.assign(blob, blob + size);
        }
    }
    if (rc != SQLITE_DONE) logFailure("list", std::string(prefix) + "*", rc);
    sqlite3_finalize(s);
    return entries;
}

std::vector<KeyValueStore::KeySize> SqliteKeyValueStore::keySizes(std::string_view prefix) const {
    std::lock_guard lock(mutex_);
    std::vector<KeySize> sizes;
    if (!db_) return sizes;
    sqlite3_stmt* s = nullptr;
    // length() of a blob reads only the record's header, not the value's pages.
    int rc = prepareRange(
        db_, "key, CASE WHEN typeof(value) = 'blob' THEN length(value) ELSE length(CAST(value AS BLOB)) END", prefix,
        &s);
    while (rc == SQLITE_OK || rc == SQLITE_ROW) {
        rc = sqlite3_step(s);
        if (rc != SQLITE_ROW) break;
        const auto* keyText = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
        sizes.emplace_back(std::string(keyText ? keyText : "", static_cast<std::size_t>(sqlite3_column_bytes(s, 0))),
                           static_cast<std::size_t>(std::max<sqlite3_int64>(sqlite3_column_int64(s, 1), 0)));
    }
    if (rc != SQLITE_DONE) logFailure("list", std::string(prefix) + "*", rc);
    sqlite3_finalize(s);
    return sizes;
}

}  // namespace tavrin::platform
