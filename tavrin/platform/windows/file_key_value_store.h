#pragma once
// The default key-value store on Windows: one file per key in a directory of
// its own. Files only, no registry: one mechanism is one thing to get right
// and to test in a temporary directory, values have no size limit, and the
// registry offers no more atomicity than a rename while RegFlushKey writes a
// whole hive to disk.
//
// Writing a value: its bytes go to a new temporary file in the same directory,
// FlushFileBuffers puts them on the disk, the file is renamed over the key's
// file through its own handle, and a second FlushFileBuffers on that handle
// puts the rename (the name lives in the file's own record) on the disk before
// set() returns true. A reader therefore sees the old file or the new one,
// never a part of one, and a crash or power loss at any point leaves one of
// the two. Removing renames the key's file to a temporary name the same way,
// then deletes it. Temporary files are held open without sharing until they
// are renamed, so the cleanup at the next opening (which deletes every
// leftover one) cannot take a file another process is still writing.
//
// File names: NTFS names ignore case and forbid some characters, so a key is
// encoded: [a-z0-9._-] stay as they are, every other byte (upper-case letters
// included) becomes %XX; "A" and "a" are two files. A name is "k_<encoded>.kv"
// (the prefix keeps device names such as "con" out, the extension keeps a
// trailing dot). An encoded key longer than kMaxEncodedName is cut and ended
// with a hash of the whole key. Paths are given to Windows in their \\?\ form,
// so a deep data directory has no 260-character limit.
//
// Each file holds a header (magic, format version, value type, key length,
// value length, CRC-32 of all the rest) then the key itself and the value.
// The key inside makes the file self-describing: the listing by prefix comes
// from an index of key -> size built from the headers when the store opens,
// and a cut name is checked against the key it holds. A file whose size,
// header or checksum does not match (a torn write on a disk that lies, a
// damaged sector, someone's edit) reads as absent and is moved to the
// "corrupt" folder with an error line in the log.
//
// Several changes (apply) are all or nothing: they are first written as one
// journal file the same durable way, then carried out file by file, then the
// journal is retired (renamed away durably, then deleted). An opening that
// finds a journal carries it out again before anything else, so a crash in
// the middle ends with every change made; a journal that is not whole was
// never committed and is moved aside.
//
// One store serves all threads behind a mutex. Two processes on the same
// directory are not supported, but the renames keep each file whole.
//
// A directory that cannot be created, or in which a file cannot be created,
// gives an in-memory store for this run (holding what could still be read
// there), said once at error level; set() then keeps the value and answers
// false.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tavrin/platform/internal/result.h"
#include "tavrin/platform/key_value_store.h"

namespace tavrin::platform {

class FileKeyValueStore final : public KeyValueStore {
public:
    // Where damaged files go, inside the store's directory.
    static constexpr const char* kCorruptFolder = "corrupt";
    // Longest encoded key kept whole in a file name (NTFS allows 255 per name).
    static constexpr std::size_t kMaxEncodedName = 160;

    // Opens (creating when missing) the store in `directory`.
    explicit FileKeyValueStore(std::filesystem::path directory);
    ~FileKeyValueStore() override;
    FileKeyValueStore(const FileKeyValueStore&) = delete;
    FileKeyValueStore& operator=(const FileKeyValueStore&) = delete;

    bool set(const std::string& key, const Value& value) override;
    std::optional<Value> value(const std::string& key) const override;
    bool remove(const std::string& key) override;
    // Every write is durable before it returns: true unless values live in memory.
    bool synchronize() override;

    // ---- listing by key prefix: from the index, reading only the files listed.
    std::vector<Entry> values(std::string_view prefix) const override;
    std::vector<KeySize> keySizes(std::string_view prefix) const override;
    // All or nothing, through a journal (see above).
    bool apply(const std::vector<Change>& changes) override;

    const std::filesystem::path& directory() const noexcept { return directory_; }
    // False when values live in memory for this run only.
    bool isPersistent() const;
    // The name of the file that holds `key`.
    static std::string fileNameFor(const std::string& key);
    // The journal apply() commits before changing anything, and its content
    // for `changes`: what an apply cut short by a crash leaves behind.
    static constexpr const char* kJournalFile = "pending.journal";
    static std::string journalFor(const std::vector<Change>& changes);

private:
    struct Stored {
        std::size_t size;  // of the value, in bytes
    };

    void open();
    void openInMemory(const std::string& reason);
    void removeLeftovers();
    void replayJournal();
    void loadIndex();
    tavrin::detail::Status probe() const;

    // With the lock held.
    std::optional<Value> readLocked(const std::string& key) const;
    tavrin::detail::Status writeLocked(const std::string& key, const Value& value);
    tavrin::detail::Status removeLocked(const std::string& key);
    // Each change in turn, without a journal.
    tavrin::detail::Status performLocked(const std::vector<Change>& changes);
    // Moves a damaged file to the corrupt folder and says so.
    void moveAside(const std::wstring& file, const std::string& why) const;
    std::wstring pathOf(std::string_view fileName) const;

    std::filesystem::path directory_;
    std::wstring windowsDirectory_;  // absolute, in \\?\ form, no trailing separator
    mutable std::mutex mutex_;
    bool inMemory_ = false;
    // Every stored key (in memory: with its value).
    mutable std::map<std::string, Stored> index_;
    std::map<std::string, Value> memory_;
};

}  // namespace tavrin::platform
