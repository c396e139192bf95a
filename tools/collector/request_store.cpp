#include "request_store.h"

#include <stdexcept>

#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <sqlite3.h>

namespace tavrin::collector {
namespace {

using Json = nlohmann::ordered_json;

void exec(sqlite3* db, const char* sql) {
    char* error = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
        std::string text = error ? error : "unknown error";
        sqlite3_free(error);
        throw std::runtime_error(std::string("collector storage: ") + text);
    }
}

class Statement {
public:
    Statement(sqlite3* db, const char* sql) : db_(db) {
        if (sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK)
            throw std::runtime_error(std::string("collector storage: ") + sqlite3_errmsg(db));
    }
    ~Statement() { sqlite3_finalize(stmt_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    void bind(int index, std::int64_t value) { sqlite3_bind_int64(stmt_, index, value); }
    void bind(int index, const std::string& text) {
        sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    }
    void bindBlob(int index, const std::string& bytes) {
        sqlite3_bind_blob(stmt_, index, bytes.data(), static_cast<int>(bytes.size()), SQLITE_TRANSIENT);
    }
    bool step() {
        const int rc = sqlite3_step(stmt_);
        if (rc == SQLITE_ROW) return true;
        if (rc == SQLITE_DONE) return false;
        throw std::runtime_error(std::string("collector storage: ") + sqlite3_errmsg(db_));
    }
    std::int64_t integer(int column) const { return sqlite3_column_int64(stmt_, column); }
    std::string text(int column) const {
        const auto* data = static_cast<const char*>(sqlite3_column_blob(stmt_, column));
        return data ? std::string(data, static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column))) : std::string();
    }

private:
    sqlite3* db_;
    sqlite3_stmt* stmt_ = nullptr;
};

constexpr const char* kColumns = "id, received_ms, method, path, headers, body, status, kind, problems";

StoredRequest readRow(const Statement& row) {
    StoredRequest request;
    request.id = row.integer(0);
    request.receivedMs = row.integer(1);
    request.method = row.text(2);
    request.path = row.text(3);
    for (const auto& pair : Json::parse(row.text(4), nullptr, false))
        if (pair.is_array() && pair.size() == 2) request.headers.emplace_back(pair[0], pair[1]);
    request.body = row.text(5);
    request.status = static_cast<int>(row.integer(6));
    request.kind = row.text(7);
    for (const auto& problem : Json::parse(row.text(8), nullptr, false))
        if (problem.is_string()) request.problems.push_back(problem);
    return request;
}

}  // namespace

RequestStore::RequestStore(const std::filesystem::path& directory) {
    namespace fs = std::filesystem;
    // What applications send (bodies, headers) is for the user's eyes only: a
    // new directory is made private, and an existing one others can enter is
    // refused rather than changed (it may be a shared place such as /tmp).
    if (fs::create_directories(directory)) {
        fs::permissions(directory, fs::perms::owner_all, fs::perm_options::replace);
    } else {
        struct stat info {};
        if (::lstat(directory.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::geteuid() ||
            (info.st_mode & 077) != 0)
            throw std::runtime_error(
                "collector storage: " + directory.string() +
                " must be a directory of this user that others cannot open (chmod 700), or a new path");
    }
    const auto file = (directory / "collector.sqlite3").string();
    if (sqlite3_open_v2(file.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
        std::string text = db_ ? sqlite3_errmsg(db_) : "out of memory";
        sqlite3_close(db_);
        throw std::runtime_error("collector storage: cannot open " + file + ": " + text);
    }
    // Before the journal files exist: SQLite gives them the database's mode.
    for (const char* suffix : {"", "-wal", "-shm"}) {
        std::error_code ignored;
        if (fs::exists(file + suffix, ignored))
            fs::permissions(file + suffix, fs::perms::owner_read | fs::perms::owner_write, fs::perm_options::replace,
                            ignored);
    }
    sqlite3_busy_timeout(db_, 5000);
    // A request the application saw answered must still be there after a crash.
    exec(db_, "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;");
    exec(db_,
         "CREATE TABLE IF NOT EXISTS requests ("
         " id INTEGER PRIMARY KEY AUTOINCREMENT, received_ms INTEGER NOT NULL, method TEXT NOT NULL,"
         " path TEXT NOT NULL, headers TEXT NOT NULL, body BLOB NOT NULL, status INTEGER NOT NULL,"
         " kind TEXT NOT NULL, problems TEXT NOT NULL)");
}

RequestStore::~RequestStore() { sqlite3_close(db_); }

StoredRequest RequestStore::add(StoredRequest request) {
    Json headers = Json::array();
    for (const auto& [name, value] : request.headers) headers.push_back({name, value});
    std::lock_guard lock(mutex_);
    Statement insert(db_,
                     "INSERT INTO requests (received_ms, method, path, headers, body, status, kind, problems)"
                     " VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
    insert.bind(1, request.receivedMs);
    insert.bind(2, request.method);
    insert.bind(3, request.path);
    insert.bind(4, headers.dump(-1, ' ', false, Json::error_handler_t::replace));
    insert.bindBlob(5, request.body);
    insert.bind(6, static_cast<std::int64_t>(request.status));
    insert.bind(7, request.kind);
    insert.bind(8, Json(request.problems).dump(-1, ' ', false, Json::error_handler_t::replace));
    insert.step();
    request.id = sqlite3_last_insert_rowid(db_);
    return request;
}

std::vector<StoredRequest> RequestStore::list(std::size_t limit, std::int64_t afterId) const {
    std::lock_guard lock(mutex_);
    Statement query(
        db_, (std::string("SELECT ") + kColumns + " FROM requests WHERE id > ? ORDER BY id DESC LIMIT ?").c_str());
    query.bind(1, afterId);
    query.bind(2, static_cast<std::int64_t>(limit));
    std::vector<StoredRequest> out;
    while (query.step()) out.push_back(readRow(query));
    return out;
}

std::optional<StoredRequest> RequestStore::get(std::int64_t id) const {
    std::lock_guard lock(mutex_);
    Statement query(db_, (std::string("SELECT ") + kColumns + " FROM requests WHERE id = ?").c_str());
    query.bind(1, id);
    if (!query.step()) return std::nullopt;
    return readRow(query);
}

std::string redactAuthorization(const std::string& value) {
    const auto space = value.find(' ');
    if (space == std::string::npos) return "[redacted]";
    return value.substr(0, space) + " [redacted]";
}

}  // namespace tavrin::collector
