#include "tavrin/platform/windows/file_key_value_store.h"
#include "tavrin/platform/windows/wide_text.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <system_error>
#include <utility>

#include "tavrin/platform/internal/log_hook.h"
#include "tavrin/platform/internal/system.h"

namespace tavrin::platform {

namespace {

namespace fs = std::filesystem;
using tavrin::detail::Error;
using tavrin::detail::Result;
using tavrin::detail::Status;

// Value file: magic, version (2), type (1), zero (1), key length (4), value
// length (8), CRC-32 of the 20 bytes before it, the key and the value (4).
constexpr char kValueMagic[4] = {'T', 'K', 'V', 'F'};
// Journal: magic, version (2), zero (2), count (4), then per change an
// operation (1), type (1), key length (4), value length (8), key and value;
// last the CRC-32 of everything before it (4).
constexpr char kJournalMagic[4] = {'T', 'K', 'V', 'J'};
constexpr std::uint16_t kFormatVersion = 1;
constexpr std::size_t kHeaderSize = 24;
constexpr std::size_t kChecksumOffset = 20;
constexpr std::string_view kValuePrefix = "k_";
constexpr std::string_view kValueExtension = ".kv";
constexpr std::wstring_view kTemporaryExtension = L".tmp";

enum class Kind : std::uint8_t { text = 1, integer = 2, data = 3 };

void logStoreError(const std::string& message) {
    platform::logError([&] { return "KeyValueStore: " + message; });
}

// Paths shown in log lines: without the \\?\ that only Windows needs.
std::string shown(std::wstring_view path) {
    if (path.starts_with(L"\\\\?\\UNC\\")) return "\\\\" + win::toUtf8(path.substr(8));
    if (path.starts_with(L"\\\\?\\")) return win::toUtf8(path.substr(4));
    return win::toUtf8(path);
}

// File names are ASCII by construction.
std::wstring widen(std::string_view ascii) { return std::wstring(ascii.begin(), ascii.end()); }

Error systemError(const std::string& what, std::wstring_view path, DWORD code = GetLastError()) {
    return Error{static_cast<int>(code), what + " " + shown(path) + ": " + win::errorText(code)};
}

bool isAbsent(DWORD code) { return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND; }

class Handle {
public:
    explicit Handle(HANDLE handle = INVALID_HANDLE_VALUE) : handle_(handle) {}
    ~Handle() {
        if (valid()) CloseHandle(handle_);
    }
    Handle(Handle&& other) noexcept : handle_(std::exchange(other.handle_, INVALID_HANDLE_VALUE)) {}
    Handle& operator=(Handle&& other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    bool valid() const { return handle_ != INVALID_HANDLE_VALUE; }
    HANDLE get() const { return handle_; }

private:
    HANDLE handle_;
};

// ---- checksums and names

constexpr std::array<std::uint32_t, 256> makeCrcTable() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < 256; ++i) {
        std::uint32_t c = i;
        for (int bit = 0; bit < 8; ++bit) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        table[i] = c;
    }
    return table;
}
constexpr auto kCrcTable = makeCrcTable();

std::uint32_t crc32(std::string_view bytes, std::uint32_t crc = 0) {
    crc = ~crc;
    for (unsigned char byte : bytes) crc = kCrcTable[(crc ^ byte) & 0xff] ^ (crc >> 8);
    return ~crc;
}

std::uint64_t fnv1a(std::string_view bytes) {
    std::uint64_t hash = 0xcbf29ce484222325ull;
    for (unsigned char byte : bytes) hash = (hash ^ byte) * 0x100000001b3ull;
    return hash;
}

constexpr char kHex[] = "0123456789ABCDEF";

// Whether the name of `key`'s file is cut and ends with a hash.
bool isCutName(std::string_view name) { return name.find('~') != std::string_view::npos; }

// ---- little-endian fields

void put(std::string& out, std::uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) out += static_cast<char>((value >> (8 * i)) & 0xff);
}

std::uint64_t get(std::string_view in, std::size_t offset, int bytes) {
    std::uint64_t value = 0;
    for (int i = 0; i < bytes; ++i)
        value |= static_cast<std::uint64_t>(static_cast<unsigned char>(in[offset + i])) << (8 * i);
    return value;
}

Kind kindOf(const KeyValueStore::Value& value) {
    if (std::holds_alternative<std::string>(value)) return Kind::text;
    if (std::holds_alternative<std::int64_t>(value)) return Kind::integer;
    return Kind::data;
}

std::string payloadOf(const KeyValueStore::Value& value) {
    if (const auto* text = std::get_if<std::string>(&value)) return *text;
    if (const auto* number = std::get_if<std::int64_t>(&value)) {
        std::string out;
        put(out, static_cast<std::uint64_t>(*number), 8);
        return out;
    }
    const auto& bytes = std::get<Bytes>(value);
    return std::string(bytes.begin(), bytes.end());
}

std::size_t sizeOf(const KeyValueStore::Value& value) {
    if (const auto* text = std::get_if<std::string>(&value)) return text->size();
    if (const auto* bytes = std::get_if<Bytes>(&value)) return bytes->size();
    return sizeof(std::int64_t);
}

Result<KeyValueStore::Value> valueOf(std::uint8_t kind, std::string_view payload) {
    // Built in place: moving a finished variant trips a false maybe-uninitialized warning in GCC 12.
    KeyValueStore::Value value;
    switch (static_cast<Kind>(kind)) {
        case Kind::text: value.emplace<std::string>(payload); break;
        case Kind::integer:
            if (payload.size() != 8) return Error{0, "an integer of " + std::to_string(payload.size()) + " bytes"};
            value.emplace<std::int64_t>(static_cast<std::int64_t>(get(payload, 0, 8)));
            break;
        case Kind::data: value.emplace<Bytes>(payload.begin(), payload.end()); break;
        default: return Error{0, "unknown value type " + std::to_string(kind)};
    }
    return value;
}

std::string encodeValueFile(const std::string& key, const KeyValueStore::Value& value) {
    const std::string payload = payloadOf(value);
    std::string out(kValueMagic, sizeof kValueMagic);
    put(out, kFormatVersion, 2);
    put(out, static_cast<std::uint8_t>(kindOf(value)), 1);
    put(out, 0, 1);
    put(out, key.size(), 4);
    put(out, payload.size(), 8);
    std::uint32_t crc = crc32(out);
    crc = crc32(key, crc);
    crc = crc32(payload, crc);
    put(out, crc, 4);
    return out + key + payload;
}

struct Head {
    std::uint8_t kind;
    std::size_t keySize;
    std::size_t valueSize;
};

// The header's own checks, against the size of the whole file.
Result<Head> decodeHead(std::string_view header, std::uint64_t fileSize) {
    if (header.size() < kHeaderSize) return Error{0, "shorter than a header (" + std::to_string(fileSize) + " bytes)"};
    if (std::memcmp(header.data(), kValueMagic, sizeof kValueMagic) != 0) return Error{0, "not a value file"};
    if (get(header, 4, 2) != kFormatVersion) return Error{0, "format version " + std::to_string(get(header, 4, 2))};
    const Head head{static_cast<std::uint8_t>(get(header, 6, 1)), static_cast<std::size_t>(get(header, 8, 4)),
                    static_cast<std::size_t>(get(header, 12, 8))};
    if (head.kind < 1 || head.kind > 3 || get(header, 7, 1) != 0) return Error{0, "a damaged header"};
    if (kHeaderSize + static_cast<std::uint64_t>(head.keySize) + head.valueSize != fileSize)
        return Error{0, std::to_string(fileSize) + " bytes where the header announces " +
                            std::to_string(kHeaderSize + head.keySize + head.valueSize)};
    return head;
}

struct Decoded {
    std::string key;
    KeyValueStore::Value value;
};

Result<Decoded> decodeValueFile(std::string_view file) {
    auto head = decodeHead(file, file.size());
    if (!head) return head.error();
    const std::uint32_t stored = static_cast<std::uint32_t>(get(file, kChecksumOffset, 4));
    std::uint32_t crc = crc32(file.substr(0, kChecksumOffset));
    crc = crc32(file.substr(kHeaderSize), crc);
    if (crc != stored) return Error{0, "a checksum mismatch"};
    auto value = valueOf(head->kind, file.substr(kHeaderSize + head->keySize));
    if (!value) return value.error();
    return Decoded{std::string(file.substr(kHeaderSize, head->keySize)), std::move(*value)};
}

Result<std::vector<KeyValueStore::Change>> decodeJournal(std::string_view file) {
    if (file.size() < 16 || std::memcmp(file.data(), kJournalMagic, sizeof kJournalMagic) != 0)
        return Error{0, "not a journal"};
    if (get(file, 4, 2) != kFormatVersion) return Error{0, "format version " + std::to_string(get(file, 4, 2))};
    const std::string_view body = file.substr(0, file.size() - 4);
    if (crc32(body) != static_cast<std::uint32_t>(get(file, body.size(), 4))) return Error{0, "a checksum mismatch"};
    std::vector<KeyValueStore::Change> changes;
    const auto count = get(body, 8, 4);
    std::size_t at = 12;
    for (std::uint64_t i = 0; i < count; ++i) {
        if (body.size() - at < 14) return Error{0, "a change cut short"};
        const auto operation = get(body, at, 1), kind = get(body, at + 1, 1);
        const auto keySize = get(body, at + 2, 4), valueSize = get(body, at + 6, 8);
        at += 14;
        if (keySize > body.size() - at || valueSize > body.size() - at - keySize) return Error{0, "a change cut short"};
        auto& change = changes.emplace_back();
        change.key = std::string(body.substr(at, keySize));
        if (operation == 1) {
            auto value = valueOf(static_cast<std::uint8_t>(kind), body.substr(at + keySize, valueSize));
            if (!value) return value.error();
            change.value = std::move(*value);
        } else if (operation != 0) {
            return Error{0, "unknown operation " + std::to_string(operation)};
        }
        at += keySize + valueSize;
    }
    if (at != body.size()) return Error{0, "bytes after the last change"};
    return changes;
}

// ---- files

Status writeAll(HANDLE file, std::string_view bytes, std::wstring_view path) {
    while (!bytes.empty()) {
        const DWORD chunk = static_cast<DWORD>(std::min<std::size_t>(bytes.size(), 1u << 30));
        DWORD written = 0;
        if (!WriteFile(file, bytes.data(), chunk, &written, nullptr) || written == 0)
            return systemError("cannot write", path);
        bytes.remove_prefix(written);
    }
    return {};
}

Result<std::string> readAll(HANDLE file, std::size_t size, std::wstring_view path) {
    std::string bytes(size, '\0');
    std::size_t done = 0;
    while (done < size) {
        const DWORD chunk = static_cast<DWORD>(std::min<std::size_t>(size - done, 1u << 30));
        DWORD read = 0;
        if (!ReadFile(file, bytes.data() + done, chunk, &read, nullptr)) return systemError("cannot read", path);
        if (read == 0) break;  // shorter than it was a moment ago
        done += read;
    }
    bytes.resize(done);
    return bytes;
}

Result<Handle> openForReading(const std::wstring& path) {
    Handle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                            FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (!file.valid()) return systemError("cannot open", path);
    return file;
}

Result<std::uint64_t> sizeOfFile(HANDLE file, std::wstring_view path) {
    LARGE_INTEGER size{};
    if (!GetFileSizeEx(file, &size)) return systemError("cannot read the size of", path);
    return static_cast<std::uint64_t>(size.QuadPart);
}

Result<std::string> readWhole(const std::wstring& path) {
    auto file = openForReading(path);
    if (!file) return file.error();
    auto size = sizeOfFile(file->get(), path);
    if (!size) return size.error();
    if (*size > static_cast<std::uint64_t>(SIZE_MAX / 2)) return Error{0, "too large"};
    return readAll(file->get(), static_cast<std::size_t>(*size), path);
}

// The key and value size of a value file, from its header and key alone.
struct Listed {
    std::string key;
    std::size_t valueSize;
};

Result<Listed> readListing(const std::wstring& path) {
    auto file = openForReading(path);
    if (!file) return file.error();
    auto size = sizeOfFile(file->get(), path);
    if (!size) return size.error();
    auto header = readAll(file->get(), kHeaderSize, path);
    if (!header) return header.error();
    auto head = decodeHead(*header, *size);
    if (!head) return head.error();
    auto key = readAll(file->get(), head->keySize, path);
    if (!key) return key.error();
    if (key->size() != head->keySize) return Error{0, "shorter than its header announces"};
    return Listed{std::move(*key), head->valueSize};
}

std::atomic<unsigned> temporaryCounter{0};

std::wstring temporaryName() {
    return L"~" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(temporaryCounter++) +
           std::wstring(kTemporaryExtension);
}

std::wstring joined(const std::wstring& directory, std::wstring_view name) {
    return directory + (directory.ends_with(L'\\') ? L"" : L"\\") + std::wstring(name);
}

// A new temporary file, shared with no one until it is renamed and closed.
Result<std::pair<Handle, std::wstring>> createTemporary(const std::wstring& directory) {
    for (int attempt = 0;; ++attempt) {
        std::wstring path = joined(directory, temporaryName());
        Handle file(
            CreateFileW(path.c_str(), GENERIC_WRITE | DELETE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
        if (file.valid()) return std::pair{std::move(file), std::move(path)};
        const DWORD code = GetLastError();
        // A name left by an earlier process with the same id: take the next.
        if (code != ERROR_FILE_EXISTS || attempt >= 1000) return systemError("cannot create", path, code);
    }
}

Status renameByHandle(HANDLE file, const std::wstring& target, bool replace) {
    const DWORD nameBytes = static_cast<DWORD>(target.size() * sizeof(wchar_t));
    std::vector<unsigned char> buffer(sizeof(FILE_RENAME_INFO) + nameBytes);
    auto* info = reinterpret_cast<FILE_RENAME_INFO*>(buffer.data());
    info->ReplaceIfExists = replace ? TRUE : FALSE;
    info->RootDirectory = nullptr;
    info->FileNameLength = nameBytes;
    std::memcpy(info->FileName, target.data(), nameBytes);
    if (!SetFileInformationByHandle(file, FileRenameInfo, info, static_cast<DWORD>(buffer.size())))
        return systemError("cannot rename to", target);
    return {};
}

void deleteOnClose(HANDLE file) {
    FILE_DISPOSITION_INFO disposition{};
    disposition.DeleteFile = TRUE;
    SetFileInformationByHandle(file, FileDispositionInfo, &disposition, sizeof disposition);
}

// The bytes are on the disk before the name is, and the name before the
// function returns: a reader finds the old content or the new, whole.
Status writeDurably(const std::wstring& directory, const std::wstring& target, std::string_view bytes) {
    auto temporary = createTemporary(directory);
    if (!temporary) return temporary.error();
    auto& [file, path] = *temporary;
    Status written = writeAll(file.get(), bytes, path);
    if (written && !FlushFileBuffers(file.get())) written = systemError("cannot flush", path);
    if (written) written = renameByHandle(file.get(), target, true);
    if (!written) {
        deleteOnClose(file.get());
        return written;
    }
    // The new name lives in the file's own record, which this flush writes.
    if (!FlushFileBuffers(file.get())) return systemError("cannot flush", target);
    return {};
}

// Renamed away durably first, so the removal cannot be undone by a crash;
// the renamed file is then deleted (or cleaned up at the next opening).
Status removeDurably(const std::wstring& directory, const std::wstring& target) {
    Handle file(
        CreateFileW(target.c_str(), GENERIC_WRITE | DELETE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file.valid()) {
        const DWORD code = GetLastError();
        if (isAbsent(code)) return {};
        return systemError("cannot open", target, code);
    }
    Status renamed;
    for (int attempt = 0; attempt < 1000; ++attempt) {
        renamed = renameByHandle(file.get(), joined(directory, temporaryName()), false);
        if (renamed || renamed.error().code != ERROR_ALREADY_EXISTS) break;
    }
    if (!renamed) return renamed;
    if (!FlushFileBuffers(file.get())) return systemError("cannot flush the removal of", target);
    deleteOnClose(file.get());
    return {};
}

// "20240131T235959Z" of the current time.
std::wstring timestamp() {
    SYSTEMTIME now{};
    GetSystemTime(&now);
    wchar_t text[32];
    swprintf(text, std::size(text), L"%04u%02u%02uT%02u%02u%02uZ", now.wYear, now.wMonth, now.wDay, now.wHour,
             now.wMinute, now.wSecond);
    return text;
}

// `directory` made absolute in the \\?\ form, where no length limit applies.
Result<std::wstring> windowsPath(const fs::path& directory) {
    std::error_code ec;
    const fs::path absolute = fs::absolute(directory, ec);
    if (ec) return Error{ec.value(), "cannot make the path absolute: " + ec.message()};
    std::wstring text = absolute.lexically_normal().make_preferred().wstring();
    while (text.size() > 3 && text.ends_with(L'\\')) text.pop_back();
    if (text.starts_with(L"\\\\?\\")) return text;
    if (text.starts_with(L"\\\\")) return L"\\\\?\\UNC\\" + text.substr(2);
    return L"\\\\?\\" + text;
}

Status makeDirectories(const std::wstring& directory) {
    // Past the root: "\\?\C:\" or "\\?\UNC\server\share\".
    std::size_t start = 7;
    if (directory.starts_with(L"\\\\?\\UNC\\")) {
        const auto share = directory.find(L'\\', 8);
        start = share == std::wstring::npos ? directory.size() : directory.find(L'\\', share + 1);
        if (start == std::wstring::npos) start = directory.size();
    }
    for (std::size_t end = start; end <= directory.size() && start < directory.size();) {
        end = directory.find(L'\\', end + 1);
        if (end == std::wstring::npos) end = directory.size();
        const std::wstring part = directory.substr(0, end);
        const DWORD attributes = GetFileAttributesW(part.c_str());
        if (attributes != INVALID_FILE_ATTRIBUTES) {
            if (!(attributes & FILE_ATTRIBUTE_DIRECTORY))
                return Error{ERROR_ALREADY_EXISTS,
                             "cannot create the directory " + shown(part) + ": a file of that name is in the way"};
        } else if (!CreateDirectoryW(part.c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS) {
            return systemError("cannot create the directory", part);
        }
        if (end == directory.size()) break;
    }
    return {};
}

// The names in `directory` (files only).
std::vector<std::wstring> filesIn(const std::wstring& directory) {
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW found{};
    HANDLE search = FindFirstFileExW(joined(directory, L"*").c_str(), FindExInfoBasic, &found, FindExSearchNameMatch,
                                     nullptr, FIND_FIRST_EX_LARGE_FETCH);
    if (search == INVALID_HANDLE_VALUE) {
        const DWORD code = GetLastError();
        if (code != ERROR_FILE_NOT_FOUND) logStoreError(systemError("cannot list", directory, code).message);
        return names;
    }
    do {
        if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) names.emplace_back(found.cFileName);
    } while (FindNextFileW(search, &found));
    FindClose(search);
    return names;
}

bool isValueFileName(std::wstring_view name) {
    return name.size() >= kValuePrefix.size() + kValueExtension.size() && name.starts_with(widen(kValuePrefix)) &&
           name.ends_with(widen(kValueExtension));
}

}  // namespace

std::string FileKeyValueStore::fileNameFor(const std::string& key) {
    std::string encoded;
    for (unsigned char c : key) {
        if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-') {
            encoded += static_cast<char>(c);
        } else {
            encoded += '%';
            encoded += kHex[c >> 4];
            encoded += kHex[c & 0xf];
        }
    }
    if (encoded.size() > kMaxEncodedName) {
        // Cut before an escape rather than inside one; the hash tells the rest.
        std::size_t cut = kMaxEncodedName - 20;
        if (encoded[cut - 1] == '%')
            cut -= 1;
        else if (encoded[cut - 2] == '%')
            cut -= 2;
        encoded.resize(cut);
        encoded += '~';
        const std::uint64_t hash = fnv1a(key);
        for (int shift = 60; shift >= 0; shift -= 4) encoded += kHex[(hash >> shift) & 0xf];
    }
    return std::string(kValuePrefix) + encoded + std::string(kValueExtension);
}

std::string FileKeyValueStore::journalFor(const std::vector<Change>& changes) {
    std::string out(kJournalMagic, sizeof kJournalMagic);
    put(out, kFormatVersion, 2);
    put(out, 0, 2);
    put(out, changes.size(), 4);
    for (const auto& change : changes) {
        const std::string payload = change.value ? payloadOf(*change.value) : std::string();
        put(out, change.value ? 1 : 0, 1);
        put(out, change.value ? static_cast<std::uint8_t>(kindOf(*change.value)) : 0, 1);
        put(out, change.key.size(), 4);
        put(out, payload.size(), 8);
        out += change.key;
        out += payload;
    }
    put(out, crc32(out), 4);
    return out;
}

FileKeyValueStore::FileKeyValueStore(fs::path directory) : directory_(std::move(directory)) { open(); }

FileKeyValueStore::~FileKeyValueStore() = default;

std::wstring FileKeyValueStore::pathOf(std::string_view fileName) const {
    return joined(windowsDirectory_, widen(fileName));
}

void FileKeyValueStore::open() {
    auto path = windowsPath(directory_);
    if (!path) {
        openInMemory(path.error().message);
        return;
    }
    windowsDirectory_ = std::move(*path);
    if (auto made = makeDirectories(windowsDirectory_); !made) {
        openInMemory(made.error().message);
        return;
    }
    if (auto writable = probe(); !writable) {
        // What is there stays readable for this run.
        loadIndex();
        std::vector<std::string> keys;
        for (const auto& entry : index_) keys.push_back(entry.first);
        for (const auto& key : keys)
            if (auto value = readLocked(key)) memory_.emplace(key, std::move(*value));
        index_.clear();
        openInMemory(writable.error().message);
        return;
    }
    removeLeftovers();
    replayJournal();
    loadIndex();
}

void FileKeyValueStore::openInMemory(const std::string& reason) {
    inMemory_ = true;
    logStoreError("cannot open " + win::toUtf8(directory_.wstring()) + " (" + reason +
                  "); values are kept in memory for this run only and will not persist");
}

Status FileKeyValueStore::probe() const {
    auto temporary = createTemporary(windowsDirectory_);
    if (!temporary) return temporary.error();
    auto& [file, path] = *temporary;
    Status written = writeAll(file.get(), "probe", path);
    if (written && !FlushFileBuffers(file.get())) written = systemError("cannot flush", path);
    deleteOnClose(file.get());
    return written;
}

// Temporary files of writes a crash cut short. One another process is still
// writing is open without sharing, so its deletion fails and it is left.
void FileKeyValueStore::removeLeftovers() {
    for (const auto& name : filesIn(windowsDirectory_)) {
        if (!name.starts_with(L'~') || !name.ends_with(kTemporaryExtension)) continue;
        const std::wstring path = joined(windowsDirectory_, name);
        if (DeleteFileW(path.c_str())) continue;
        const DWORD code = GetLastError();
        if (code != ERROR_SHARING_VIOLATION && code != ERROR_ACCESS_DENIED && !isAbsent(code))
            logStoreError(systemError("cannot remove the leftover file", path, code).message);
    }
}

// Finishes an apply() a crash interrupted after its journal was committed.
void FileKeyValueStore::replayJournal() {
    const std::wstring path = pathOf(kJournalFile);
    auto bytes = readWhole(path);
    if (!bytes) {
        if (!isAbsent(static_cast<DWORD>(bytes.error().code))) logStoreError(bytes.error().message);
        return;
    }
    auto changes = decodeJournal(*bytes);
    if (!changes) {
        moveAside(path, changes.error().message);
        return;
    }
    if (auto done = performLocked(*changes); !done) {
        // Not tried again: a later write must not be undone by an older change.
        moveAside(path, "its changes could not all be made: " + done.error().message);
        return;
    }
    if (auto retired = removeDurably(windowsDirectory_, path); !retired) logStoreError(retired.error().message);
    log(LogSeverity::info, [&] {
        return "KeyValueStore: completed " + std::to_string(changes->size()) +
               " changes an interrupted apply had committed";
    });
}

void FileKeyValueStore::loadIndex() {
    for (const auto& name : filesIn(windowsDirectory_)) {
        if (!isValueFileName(name)) continue;
        // Read whole: a damaged file is found now rather than listed until read.
        const std::wstring path = joined(windowsDirectory_, name);
        auto bytes = readWhole(path);
        if (!bytes) {
            if (!isAbsent(static_cast<DWORD>(bytes.error().code))) logStoreError(bytes.error().message);
            continue;
        }
        auto decoded = decodeValueFile(*bytes);
        if (!decoded) {
            moveAside(path, decoded.error().message);
            continue;
        }
        if (widen(fileNameFor(decoded->key)) != name) {
            moveAside(path, "it holds a key that belongs in another file");
            continue;
        }
        index_[decoded->key] = Stored{sizeOf(decoded->value)};
    }
}

void FileKeyValueStore::moveAside(const std::wstring& file, const std::string& why) const {
    const std::wstring folder = joined(windowsDirectory_, widen(kCorruptFolder));
    const std::wstring name = file.substr(file.find_last_of(L'\\') + 1);
    if (!CreateDirectoryW(folder.c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS) {
        logStoreError("the file " + shown(file) + " is unusable (" + why + ") and " +
                      systemError("cannot create", folder).message);
        return;
    }
    const std::wstring base = joined(folder, name + L"." + timestamp());
    std::wstring target = base;
    for (int n = 1; GetFileAttributesW(target.c_str()) != INVALID_FILE_ATTRIBUTES; ++n)
        target = base + L"-" + std::to_wstring(n);
    if (!MoveFileExW(file.c_str(), target.c_str(), MOVEFILE_WRITE_THROUGH)) {
        logStoreError("the file " + shown(file) + " is unusable (" + why + ") and " +
                      systemError("cannot be moved to", target).message);
        return;
    }
    logStoreError("the file " + shown(file) + " is unusable (" + why + "); moved it to " + shown(target));
}

bool FileKeyValueStore::set(const std::string& key, const Value& value) {
    std::lock_guard lock(mutex_);
    if (inMemory_) {
        memory_.insert_or_assign(key, value);
        return false;  // kept, but not durable: said once when the store opened
    }
    if (auto written = writeLocked(key, value); !written) {
        logStoreError("write failed for key \"" + key + "\": " + written.error().message);
        return false;
    }
    return true;
}

Status FileKeyValueStore::writeLocked(const std::string& key, const Value& value) {
    const std::string name = fileNameFor(key);
    const std::wstring path = pathOf(name);
    if (isCutName(name)) {
        // Two long keys whose names hash alike: the file's owner keeps it.
        auto listed = readListing(path);
        if (listed && listed->key != key)
            return Error{0, "its file name " + name + " is taken by another key of the same length and hash"};
    }
    if (auto written = writeDurably(windowsDirectory_, path, encodeValueFile(key, value)); !written) return written;
    index_[key] = Stored{sizeOf(value)};
    return {};
}

std::optional<KeyValueStore::Value> FileKeyValueStore::value(const std::string& key) const {
    std::lock_guard lock(mutex_);
    if (inMemory_) {
        auto found = memory_.find(key);
        return found == memory_.end() ? std::nullopt : std::optional<Value>(found->second);
    }
    return readLocked(key);
}

std::optional<KeyValueStore::Value> FileKeyValueStore::readLocked(const std::string& key) const {
    const std::string name = fileNameFor(key);
    const std::wstring path = pathOf(name);
    auto bytes = readWhole(path);
    if (!bytes) {
        if (!isAbsent(static_cast<DWORD>(bytes.error().code)))
            logStoreError("read failed for key \"" + key + "\": " + bytes.error().message);
        index_.erase(key);
        return std::nullopt;
    }
    auto decoded = decodeValueFile(*bytes);
    if (decoded && decoded->key != key && isCutName(name)) return std::nullopt;  // another key's, see writeLocked
    if (!decoded || decoded->key != key) {
        moveAside(path, decoded ? "it holds another key" : decoded.error().message);
        index_.erase(key);
        return std::nullopt;
    }
    index_[key] = Stored{sizeOf(decoded->value)};
    return std::move(decoded->value);
}

bool FileKeyValueStore::remove(const std::string& key) {
    std::lock_guard lock(mutex_);
    if (inMemory_) {
        memory_.erase(key);
        return false;
    }
    if (auto removed = removeLocked(key); !removed) {
        logStoreError("remove failed for key \"" + key + "\": " + removed.error().message);
        return false;
    }
    return true;
}

Status FileKeyValueStore::removeLocked(const std::string& key) {
    const std::string name = fileNameFor(key);
    if (isCutName(name)) {
        auto listed = readListing(pathOf(name));
        if (listed && listed->key != key) return {};  // not this key's file: this key has none
    }
    if (auto removed = removeDurably(windowsDirectory_, pathOf(name)); !removed) return removed;
    index_.erase(key);
    return {};
}

Status FileKeyValueStore::performLocked(const std::vector<Change>& changes) {
    for (const auto& change : changes) {
        auto done = change.value ? writeLocked(change.key, *change.value) : removeLocked(change.key);
        if (!done) return Error{done.error().code, "key \"" + change.key + "\": " + done.error().message};
    }
    return {};
}

bool FileKeyValueStore::apply(const std::vector<Change>& changes) {
    if (changes.empty()) return true;
    if (changes.size() == 1) {
        const auto& only = changes.front();
        return only.value ? set(only.key, *only.value) : remove(only.key);
    }
    std::lock_guard lock(mutex_);
    if (inMemory_) {
        for (const auto& change : changes) {
            if (change.value)
                memory_.insert_or_assign(change.key, *change.value);
            else
                memory_.erase(change.key);
        }
        return false;
    }
    const std::wstring journal = pathOf(kJournalFile);
    if (auto committed = writeDurably(windowsDirectory_, journal, journalFor(changes)); !committed) {
        logStoreError("write failed for key \"" + changes.front().key + "\" and " + std::to_string(changes.size() - 1) +
                      " more changes: " + committed.error().message);
        return false;
    }
    auto done = performLocked(changes);
    // Retired even when a change failed: kept, it would later replay older
    // changes over what is written after this call.
    auto retired = removeDurably(windowsDirectory_, journal);
    if (!done) {
        logStoreError("write failed for " + done.error().message + "; the changes before it were made");
        if (!retired) logStoreError("cannot retire the journal: " + retired.error().message);
        return false;
    }
    if (!retired) {
        logStoreError("cannot retire the journal after " + std::to_string(changes.size()) +
                      " changes: " + retired.error().message);
        return false;
    }
    return true;
}

bool FileKeyValueStore::synchronize() {
    // Every write is flushed before it returns: nothing is left to flush.
    return isPersistent();
}

bool FileKeyValueStore::isPersistent() const {
    std::lock_guard lock(mutex_);
    return !inMemory_;
}

// ---- listing by key prefix

std::vector<KeyValueStore::Entry> FileKeyValueStore::values(std::string_view prefix) const {
    std::lock_guard lock(mutex_);
    std::vector<Entry> entries;
    if (inMemory_) {
        for (auto it = memory_.lower_bound(std::string(prefix)); it != memory_.end() && it->first.starts_with(prefix);
             ++it)
            entries.emplace_back(it->first, it->second);
        return entries;
    }
    std::vector<std::string> keys;
    for (auto it = index_.lower_bound(std::string(prefix)); it != index_.end() && it->first.starts_with(prefix); ++it)
        keys.push_back(it->first);
    for (auto& key : keys)
        if (auto value = readLocked(key)) entries.emplace_back(std::move(key), std::move(*value));
    return entries;
}

std::vector<KeyValueStore::KeySize> FileKeyValueStore::keySizes(std::string_view prefix) const {
    std::lock_guard lock(mutex_);
    std::vector<KeySize> sizes;
    if (inMemory_) {
        for (auto it = memory_.lower_bound(std::string(prefix)); it != memory_.end() && it->first.starts_with(prefix);
             ++it)
            sizes.emplace_back(it->first, sizeOf(it->second));
        return sizes;
    }
    for (auto it = index_.lower_bound(std::string(prefix)); it != index_.end() && it->first.starts_with(prefix); ++it)
        sizes.emplace_back(it->first, it->second.size);
    return sizes;
}

}  // namespace tavrin::platform

namespace tavrin::platform::os {

// In a folder of its own, so that nothing else in the data directory is taken for a value.
std::shared_ptr<KeyValueStore> openDefaultStore(const std::filesystem::path& directory) {
    return std::make_shared<FileKeyValueStore>(directory / "values");
}

}  // namespace tavrin::platform::os
