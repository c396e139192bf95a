#include "tavrin/platform/internal/sqlite_key_value_store.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>
#include <fstream>
#include <system_error>

#include "tavrin/platform/clock.h"
#include "tavrin/sdk/internal/logger_utility.h"

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

void logError(std::string message) {
    LoggerUtility::shared().error([&] { return "KeyValueStore: " + message; });
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

// Creates the missing directories of `directory` with mode 0700.
bool makeDirectories(const std::filesystem::path& directory, std::string& failure) {
    if (directory.empty()) return true;
    std::error_code ec;
    if (std::filesystem::is_directory(directory, ec)) return true;
    if (directory.has_parent_path() && directory.parent_path() != directory &&
        !makeDirectories(directory.parent_path(), failure))
        return false;
    if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
        failure = "cannot create directory " + directory.string() + ": " + std::strerror(errno);
        return false;
    }
    if (!std::filesystem::is_directory(directory, ec)) {
        failure = "cannot create directory " + directory.string() + ": a file of that name is in the way";
        return false;
    }
    return true;
}

// A file that has content but not the database header is someone else's:
// SQLite is not let near it (it would reset a journal lying beside it).
bool hasForeignHeader(const std::filesystem::path& file) {
    static constexpr char kMagic[] = "SQLite format 3";  // with its NUL: 16 bytes
    std::ifstream in(file, std::ios::binary);
    if (!in) return false;
    char header[sizeof kMagic] = {};
    in.read(header, sizeof header);
    const auto got = in.gcount();
    return got > 0 && std::memcmp(header, kMagic, static_cast<std::size_t>(got)) != 0;
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
    : path_(std::move(file)), options_(options) {
    std::lock_guard lock(mutex_);
    open();
}

SqliteKeyValueStore::~SqliteKeyValueStore() {
    std::lock_guard lock(mutex_);
    close();
}

bool SqliteKeyValueStore::isPersistent() const {
    std::lock_guard lock(mutex_);
    return db_ != nullptr && !inMemory_;
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

bool SqliteKeyValueStore::execute(const char* sql, int& failureCode, std::string& failure) {
    char* message = nullptr;
    const int rc = sqlite3_exec(db_, sql, nullptr, nullptr, &message);
    if (rc == SQLITE_OK) return true;
    failureCode = sqlite3_extended_errcode(db_);
    failure = describe(failureCode, message);
    sqlite3_free(message);
    return false;
}

bool SqliteKeyValueStore::openAt(Access access, int& failureCode, std::string& failure) {
    const bool inMemory = access == Access::memory;
    const bool readOnly = access == Access::readOnly || access == Access::immutable;
    std::string location = path_.string();
    int flags = SQLITE_OPEN_NOMUTEX;  // our own mutex serialises every use
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
    const int rc = sqlite3_open_v2(location.c_str(), &db_, flags, nullptr);
    if (rc != SQLITE_OK) {
        failureCode = db_ ? sqlite3_extended_errcode(db_) : rc;
        failure = describe(failureCode, db_ ? sqlite3_errmsg(db_) : nullptr);
        close();
        return false;
    }
    sqlite3_extended_result_codes(db_, 1);
    sqlite3_busy_timeout(db_, options_.busyTimeoutMilliseconds);

    // Reading the header and every page catches a file that is not a database
    // or is damaged now, rather than on some later write.
    if (!inMemory && !quickCheck(failureCode, failure)) {
        close();
        return false;
    }
    if (!readOnly) {
        if (!execute("PRAGMA journal_mode = WAL", failureCode, failure) ||
            !execute("PRAGMA synchronous = FULL", failureCode, failure) ||
            !execute(kCreateTable, failureCode, failure)) {
            close();
            return false;
        }
    }
    if (options_.readOnly && inMemory && !execute("PRAGMA query_only = ON", failureCode, failure)) {
        close();
        return false;
    }

    statements_ = std::make_unique<Statements>();
    for (auto [sql, slot] : {std::pair{kUpsert, &statements_->upsert}, std::pair{kSelect, &statements_->select},
                             std::pair{kDelete, &statements_->erase}}) {
        if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, slot, nullptr) != SQLITE_OK) {
            failureCode = sqlite3_extended_errcode(db_);
            failure = describe(failureCode, sqlite3_errmsg(db_));
            close();
            return false;
        }
    }
    inMemory_ = inMemory;
    return true;
}

bool SqliteKeyValueStore::quickCheck(int& failureCode, std::string& failure) {
    sqlite3_stmt* check = nullptr;
    int rc = sqlite3_prepare_v2(db_, "PRAGMA quick_check", -1, &check, nullptr);
    std::string verdict;
    if (rc == SQLITE_OK) rc = sqlite3_step(check);
    if (rc == SQLITE_ROW) {
        const auto* text = sqlite3_column_text(check, 0);
        verdict = text ? reinterpret_cast<const char*>(text) : "";
    } else {
        failureCode = sqlite3_extended_errcode(db_);
        failure = describe(failureCode, sqlite3_errmsg(db_));
    }
    sqlite3_finalize(check);
    if (rc != SQLITE_ROW) return false;
    if (verdict != "ok") {
        failureCode = SQLITE_CORRUPT;
        failure = "integrity check failed: " + verdict;
        return false;
    }
    return true;
}

std::optional<std::filesystem::path> SqliteKeyValueStore::moveAside() {
    const std::string base = path_.string() + ".corrupt-" + timestamp();
    std::filesystem::path target = base;
    std::error_code ec;
    for (int n = 1; std::filesystem::exists(target, ec) || std::filesystem::exists(withSuffix(target, "-wal"), ec);
         ++n)
        target = base + "-" + std::to_string(n);
    if (std::rename(path_.c_str(), target.c_str()) != 0) {
        logError("cannot move " + path_.string() + " aside: " + std::strerror(errno));
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
    int code = SQLITE_OK;
    std::string failure;
    std::error_code ec;
    if (!makeDirectories(path_.parent_path(), failure)) {
        openInMemory(failure);
        return;
    }
    if (!options_.readOnly) {
        if (hasForeignHeader(path_)) {
            code = SQLITE_NOTADB;
            failure = "no database header";
        } else if (openAt(Access::readWrite, code, failure)) {
            if (sqlite3_db_readonly(db_, "main") == 1)
                logError("the file " + path_.string() + " is write-protected; writes will fail");
            return;
        }
        if (isNotADatabase(code)) {
            logError("the file " + path_.string() + " is not a usable database (" + failure + ")");
            if (auto target = moveAside()) {
                movedAside_ = target;
                logError("moved the unusable file to " + target->string() + " and started an empty store");
                if (openAt(Access::readWrite, code, failure)) return;
            }
        }
        if (!std::filesystem::exists(path_, ec)) {
            openInMemory(failure);
            return;
        }
        // The values are there but cannot be written: keep reading them.
        const std::string writeFailure = failure;
        if (openAt(Access::readOnly, code, failure) || openAt(Access::immutable, code, failure)) {
            logError("cannot open " + path_.string() + " for writing (" + writeFailure +
                     "); it is opened read-only and writes will fail");
            return;
        }
    } else if (openAt(Access::readOnly, code, failure) || openAt(Access::immutable, code, failure)) {
        return;
    }
    openInMemory(failure);
}

void SqliteKeyValueStore::openInMemory(const std::string& reason) {
    logError("cannot open " + path_.string() + " (" + reason +
             "); values are kept in memory for this run only and will not persist");
    int code = SQLITE_OK;
    std::string failure;
    if (!openAt(Access::memory, code, failure)) logError("cannot open an in-memory store: " + failure);
}

void SqliteKeyValueStore::logFailure(const char* operation, const std::string& key, int code) const {
    const std::string detail = describe(code, db_ ? sqlite3_errmsg(db_) : nullptr);
    logError(std::string(operation) + " failed for key \"" + key + "\" in " +
             (inMemory_ ? std::string("the in-memory store") : path_.string()) + ": " + detail);
}

bool SqliteKeyValueStore::set(const std::string& key, const Value& value) {
    std::lock_guard lock(mutex_);
    if (!statements_) {
        logError("write failed for key \"" + key + "\": the store is not open");
        return false;
    }
    sqlite3_stmt* s = statements_->upsert;
    StatementUse use(s);
    int rc = sqlite3_bind_text(s, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    if (const auto* text = std::get_if<std::string>(&value)) {
        if (rc == SQLITE_OK) rc = sqlite3_bind_text(s, 2, "string", -1, SQLITE_STATIC);
        if (rc == SQLITE_OK)
            rc = sqlite3_bind_text64(s, 3, text->data(), text->size(), SQLITE_STATIC, SQLITE_UTF8);
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
    if (rc != SQLITE_DONE) {
        logFailure("write", key, rc);
        return false;
    }
    return true;
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
        logError("remove failed for key \"" + key + "\": the store is not open");
        return false;
    }
    sqlite3_stmt* s = statements_->erase;
    StatementUse use(s);
    int rc = sqlite3_bind_text(s, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    if (rc == SQLITE_OK) rc = sqlite3_step(s);
    if (rc != SQLITE_DONE) {
        logFailure("remove", key, rc);
        return false;
    }
    return true;
}

bool SqliteKeyValueStore::synchronize() {
    // Every write is committed with a full sync before it returns, so there is
    // nothing left to flush; only a store that fell back to memory is not durable.
    std::lock_guard lock(mutex_);
    return statements_ != nullptr && !inMemory_;
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

}  // namespace

std::vector<KeyValueStore::Entry> SqliteKeyValueStore::values(std::string_view prefix) const {
    std::lock_guard lock(mutex_);
    std::vector<Entry> entries;
    if (!db_) return entries;
    const auto upper = prefixUpperBound(prefix);
    // Keys compare bytewise (BINARY), so the prefix is a range of the primary key.
    const char* sql = upper ? "SELECT key, type, value FROM key_value WHERE key >= ?1 AND key < ?2 ORDER BY key"
                            : "SELECT key, type, value FROM key_value WHERE key >= ?1 ORDER BY key";
    sqlite3_stmt* s = nullptr;
    int rc = sqlite3_prepare_v2(db_, sql, -1, &s, nullptr);
    if (rc == SQLITE_OK) rc = sqlite3_bind_text(s, 1, prefix.data(), static_cast<int>(prefix.size()), SQLITE_STATIC);
    if (rc == SQLITE_OK && upper)
        rc = sqlite3_bind_text(s, 2, upper->data(), static_cast<int>(upper->size()), SQLITE_STATIC);
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

}  // namespace tavrin::platform
