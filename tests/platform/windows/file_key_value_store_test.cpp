#include "tavrin/platform/windows/file_key_value_store.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <thread>

#include "tavrin/platform/internal/system.h"
#include "tests/support/log_capture.h"
#include "tests/support/reliability_child_process.h"
#include "tests/support/temp_dir.h"

namespace tavrin::platform {
namespace {

namespace fs = std::filesystem;
using testing::LogCapture;
using Value = KeyValueStore::Value;
using Entries = std::vector<KeyValueStore::Entry>;
using Sizes = std::vector<KeyValueStore::KeySize>;

using testing::ChildProcess;
using testing::readFile;
using testing::TempDir;
using testing::writeFile;
using namespace std::chrono_literals;

constexpr const char* kChildDirectoryVariable = "TAVRIN_STORE_CHILD_DIRECTORY";

std::vector<std::string> namesIn(const fs::path& directory) {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(directory, ec))
        if (entry.is_regular_file()) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::size_t errorsContaining(const LogCapture& log, std::string_view part) {
    std::size_t found = 0;
    for (const auto& m : log.sink->messages(LogType::error)) found += m.find(part) != std::string::npos;
    return found;
}

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

// The value the crash test writes for `i`: each type in turn.
Value valueFor(int i) {
    if (i % 3 == 0) return "v" + std::to_string(i);
    if (i % 3 == 1) return std::int64_t{i} * 1000003;
    return bytesOf(std::to_string(i));
}

// A handle on `file` that shares nothing, as another program writing it would hold.
struct ExclusiveHandle {
    HANDLE handle;
    explicit ExclusiveHandle(const fs::path& file)
        : handle(CreateFileW(file.wstring().c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                             FILE_ATTRIBUTE_NORMAL, nullptr)) {}
    ~ExclusiveHandle() { release(); }
    void release() {
        if (handle != INVALID_HANDLE_VALUE) CloseHandle(std::exchange(handle, INVALID_HANDLE_VALUE));
    }
};

class FileKeyValueStoreTest : public ::testing::Test {
protected:
    TempDir scratch;
    fs::path dir = scratch / "values";
    fs::path fileOf(const std::string& key) const { return dir / FileKeyValueStore::fileNameFor(key); }
};

// A typed read of another type finds nothing, however convertible the value looks.
TEST_F(FileKeyValueStoreTest, KeyHoldsTheLastValueWrittenWithItsTypeAcrossReopen) {
    const std::vector<std::pair<std::string, Value>> values = {{"text", std::string("42")},
                                                               {"number", std::int64_t{42}},
                                                               {"bytes", bytesOf("42")},
                                                               {"nul", std::string("a\0b", 3)},
                                                               {"binary", Bytes{0x00, 0xff, 0x00}},
                                                               {"empty text", std::string()},
                                                               {"empty data", Bytes{}},
                                                               {"min", INT64_MIN},
                                                               {"max", INT64_MAX},
                                                               {"large", Bytes(3 << 20, 0xa5)}};
    {
        FileKeyValueStore store(dir);
        ASSERT_TRUE(store.isPersistent());
        ASSERT_TRUE(store.setInteger("removed", 1) && store.remove("removed") && store.setData("number", Bytes(9)));
        EXPECT_TRUE(store.remove("never there"));
        for (const auto& [key, value] : values) EXPECT_TRUE(store.set(key, value)) << key;
        EXPECT_TRUE(store.synchronize());
    }
    FileKeyValueStore store(dir);
    EXPECT_EQ(store.value("removed"), std::nullopt);
    for (const auto& [key, value] : values) {
        EXPECT_EQ(store.value(key), value) << key;
        EXPECT_EQ(store.string(key).has_value(), std::holds_alternative<std::string>(value)) << key;
        EXPECT_EQ(store.integer(key).has_value(), std::holds_alternative<std::int64_t>(value)) << key;
        EXPECT_EQ(store.data(key).has_value(), std::holds_alternative<Bytes>(value)) << key;
    }
    // One file per key, nothing else left behind by the writes.
    EXPECT_EQ(namesIn(dir).size(), values.size());
    EXPECT_EQ(store.keySizes("number"), (Sizes{{"number", 8}}));
}

// Keys that differ only in case, or hold what a file name cannot, are all
// separate keys; the listing is in bytewise key order, also once the store is
// opened again and knows its keys only from the files.
TEST_F(FileKeyValueStoreTest, EveryKeyIsItsOwnFileAndListsInBytewiseOrder) {
    const std::string longKey(300, 'k');
    const std::vector<std::string> keys = {"A",         "a",     "%41",    "a.",      "a ",          "con",
                                           "aux.txt",   "x:y",   "a/b\\c", "*?\"<>|", "\xc3\xa9",    "a\xff",
                                           "a\xff\x01", "a\xfe", "",       longKey,   longKey + "1", longKey + "2"};
    auto check = [&](const FileKeyValueStore& store) {
        for (const auto& key : keys) EXPECT_EQ(store.string(key), "value of " + key) << key;
        EXPECT_EQ(store.values("a\xff"), (Entries{{"a\xff", "value of a\xff"}, {"a\xff\x01", "value of a\xff\x01"}}));
        std::vector<std::string> listed;
        for (const auto& [key, value] : store.values("")) listed.push_back(key);
        EXPECT_EQ(listed.front(), "");
        EXPECT_EQ(listed[1], "%41");
        EXPECT_EQ(listed.back(), "\xc3\xa9");
        EXPECT_TRUE(std::is_sorted(listed.begin(), listed.end(), [](const std::string& l, const std::string& r) {
            return std::lexicographical_compare(l.begin(), l.end(), r.begin(), r.end(), [](char x, char y) {
                return static_cast<unsigned char>(x) < static_cast<unsigned char>(y);
            });
        }));
        EXPECT_EQ(listed.size(), keys.size());
        EXPECT_EQ(store.keySizes(longKey), (Sizes{{longKey, 309}, {longKey + "1", 310}, {longKey + "2", 310}}));
    };
    {
        FileKeyValueStore store(dir);
        for (const auto& key : keys) ASSERT_TRUE(store.setString(key, "value of " + key)) << key;
        check(store);
    }
    EXPECT_EQ(namesIn(dir).size(), keys.size());
    FileKeyValueStore store(dir);
    check(store);
}

TEST_F(FileKeyValueStoreTest, ListsThePrefixRangeWithTheSizeOfEachValue) {
    FileKeyValueStore store(dir);
    for (const char* key : {"rec/2", "rec/1", "rec", "rec0", "re", "b", "Rec/3"})
        ASSERT_TRUE(store.setString(key, key));
    ASSERT_TRUE(store.setInteger("rec/4", 7) && store.setData("rec/3", Bytes(1000, 1)));
    EXPECT_EQ(store.values("rec/"),
              (Entries{{"rec/1", "rec/1"}, {"rec/2", "rec/2"}, {"rec/3", Bytes(1000, 1)}, {"rec/4", std::int64_t{7}}}));
    EXPECT_EQ(store.keySizes("rec/"), (Sizes{{"rec/1", 5}, {"rec/2", 5}, {"rec/3", 1000}, {"rec/4", 8}}));
    EXPECT_EQ(store.keySizes("rec").size(), 6u);
    ASSERT_TRUE(store.remove("rec/2"));
    EXPECT_EQ(store.keySizes("rec/").size(), 3u);
    EXPECT_EQ(store.values("x"), Entries{});
}

TEST_F(FileKeyValueStoreTest, ApplyMakesEveryChangeInOrderAndLeavesNoJournal) {
    {
        FileKeyValueStore store(dir);
        ASSERT_TRUE(store.setString("gone", "x") && store.setString("kept", "old"));
        EXPECT_TRUE(store.apply({{"a", std::int64_t{1}},
                                 {"gone", std::nullopt},
                                 {"a", std::string("twice")},
                                 {"kept", Bytes{1, 2}},
                                 {"absent", std::nullopt}}));
        EXPECT_TRUE(store.apply({{"single", std::string("s")}}));
        EXPECT_TRUE(store.apply({}));
        EXPECT_FALSE(fs::exists(dir / FileKeyValueStore::kJournalFile));
    }
    FileKeyValueStore store(dir);
    EXPECT_EQ(store.values(""),
              (Entries{{"a", std::string("twice")}, {"kept", Bytes{1, 2}}, {"single", std::string("s")}}));
}

// A journal an apply committed before the process died is carried out at
// the next opening; a damaged one was never committed and changes nothing.
TEST_F(FileKeyValueStoreTest, CommittedJournalIsCarriedOutAtOpenAndADamagedOneMovedAside) {
    const std::vector<KeyValueStore::Change> changes = {
        {"new", std::string("n")}, {"old", std::nullopt}, {"typed", std::int64_t{5}}};
    for (const bool damaged : {false, true}) {
        SCOPED_TRACE(damaged ? "damaged" : "whole");
        TempDir place;
        const fs::path values = place / "values";
        ASSERT_TRUE(FileKeyValueStore(values).setString("old", "o"));
        std::string journal = FileKeyValueStore::journalFor(changes);
        if (damaged) journal[journal.size() / 2] ^= 0x20;
        writeFile(values / FileKeyValueStore::kJournalFile, journal);
        LogCapture log;
        FileKeyValueStore store(values);
        EXPECT_FALSE(fs::exists(values / FileKeyValueStore::kJournalFile));
        if (damaged) {
            EXPECT_EQ(store.values(""), (Entries{{"old", std::string("o")}}));
            EXPECT_EQ(errorsContaining(log, "pending.journal is unusable (a checksum mismatch)"), 1u);
            EXPECT_EQ(namesIn(values / FileKeyValueStore::kCorruptFolder).size(), 1u);
        } else {
            EXPECT_EQ(store.values(""), (Entries{{"new", std::string("n")}, {"typed", std::int64_t{5}}}));
            EXPECT_TRUE(log.sink->messages(LogType::error).empty());
        }
    }
}

// A change that cannot be made fails the apply; its journal does not survive
// to replay older changes over values written later.
TEST_F(FileKeyValueStoreTest, ApplyThatFailsHalfwayIsNotReplayedLater) {
    {
        FileKeyValueStore store(dir);
        ASSERT_TRUE(store.setString("b", "old b"));
        LogCapture log;
        ExclusiveHandle busy(fileOf("b"));
        ASSERT_NE(busy.handle, INVALID_HANDLE_VALUE);
        EXPECT_FALSE(store.apply({{"a", std::string("new a")}, {"b", std::string("new b")}}));
        EXPECT_EQ(errorsContaining(log, "write failed for key \"b\""), 1u);
        busy.release();
        EXPECT_EQ(store.string("b"), "old b");
        ASSERT_TRUE(store.setString("a", "later"));
    }
    FileKeyValueStore store(dir);
    EXPECT_EQ(store.string("a"), "later");
    EXPECT_EQ(store.string("b"), "old b");
}

// Whatever the damage, the value reads as absent, the file is moved to the
// corrupt folder as it was, the log says which, and the key can be written again.
TEST_F(FileKeyValueStoreTest, DamagedFileReadsAsAbsentAndIsMovedAsideWithALogLine) {
    const std::map<std::string, std::function<void(std::string&)>> damages = {
        {"truncated", [](std::string& f) { f.pop_back(); }},
        {"torn in half", [](std::string& f) { f.resize(f.size() / 2); }},
        {"flipped value byte", [](std::string& f) { f.back() ^= 0x01; }},
        {"flipped key byte", [](std::string& f) { f[24] ^= 0x40; }},
        {"flipped type", [](std::string& f) { f[6] = 2; }},
        {"grown", [](std::string& f) { f += '\0'; }},
        {"empty", [](std::string& f) { f.clear(); }},
        {"someone's text", [](std::string& f) { f = "user=alice\r\n"; }},
    };
    for (const bool whileOpen : {false, true}) {
        for (const auto& [what, damage] : damages) {
            SCOPED_TRACE(what + (whileOpen ? " while open" : " while closed"));
            TempDir place;
            const fs::path values = place / "values", victim = values / FileKeyValueStore::fileNameFor("victim");
            auto store = std::make_unique<FileKeyValueStore>(values);
            ASSERT_TRUE(store->setString("victim", "a value of some length") && store->setInteger("other", 3));
            if (!whileOpen) store.reset();
            std::string bytes = readFile(victim);
            damage(bytes);
            writeFile(victim, bytes);
            LogCapture log;
            if (!whileOpen) store = std::make_unique<FileKeyValueStore>(values);
            EXPECT_EQ(store->value("victim"), std::nullopt);
            EXPECT_EQ(store->values(""), (Entries{{"other", std::int64_t{3}}}));
            EXPECT_EQ(store->keySizes(""), (Sizes{{"other", 8}}));
            EXPECT_FALSE(fs::exists(victim));
            const auto aside = namesIn(values / FileKeyValueStore::kCorruptFolder);
            ASSERT_EQ(aside.size(), 1u);
            EXPECT_EQ(aside[0].rfind(FileKeyValueStore::fileNameFor("victim") + ".", 0), 0u) << aside[0];
            EXPECT_EQ(readFile(values / FileKeyValueStore::kCorruptFolder / aside[0]), bytes);
            EXPECT_EQ(errorsContaining(log, victim.filename().string() + " is unusable"), 1u);
            EXPECT_TRUE(store->setString("victim", "again"));
            EXPECT_EQ(FileKeyValueStore(values).string("victim"), "again");
        }
    }
}

// Temporary files a crash left are removed at open, unless another process
// still holds one open; nothing else in the directory is touched.
TEST_F(FileKeyValueStoreTest, LeftoverTemporaryFilesAreRemovedAtOpen) {
    ASSERT_TRUE(FileKeyValueStore(dir).setString("k", "v"));
    writeFile(dir / "~4242-0.tmp", "half a val");
    writeFile(dir / "~4242-1.tmp", "");
    writeFile(dir / "notes.txt", "the user's");
    ExclusiveHandle writing(dir / "~777-3.tmp");
    ASSERT_NE(writing.handle, INVALID_HANDLE_VALUE);
    LogCapture log;
    FileKeyValueStore store(dir);
    EXPECT_EQ(namesIn(dir), (std::vector<std::string>{FileKeyValueStore::fileNameFor("k"), "notes.txt", "~777-3.tmp"}));
    EXPECT_EQ(store.values(""), (Entries{{"k", std::string("v")}}));
    EXPECT_TRUE(log.sink->messages(LogType::error).empty());
}

// Said once, when the store opens; every later write keeps its value but says false.
TEST_F(FileKeyValueStoreTest, UnusableDirectoryKeepsValuesInMemoryAndSaysSoOnce) {
    writeFile(scratch / "a file", "in the way");
    LogCapture log;
    FileKeyValueStore store(scratch / "a file" / "values");
    EXPECT_FALSE(store.isPersistent());
    EXPECT_FALSE(store.synchronize());
    EXPECT_FALSE(store.setString("id", "abc"));
    EXPECT_FALSE(store.setInteger("n", 1));
    EXPECT_FALSE(store.apply({{"m", std::int64_t{2}}, {"n", std::nullopt}}));
    EXPECT_EQ(store.string("id"), "abc");
    EXPECT_EQ(store.values(""), (Entries{{"id", std::string("abc")}, {"m", std::int64_t{2}}}));
    EXPECT_EQ(store.keySizes(""), (Sizes{{"id", 3}, {"m", 8}}));
    EXPECT_FALSE(store.remove("id"));
    EXPECT_EQ(store.string("id"), std::nullopt);
    EXPECT_EQ(log.sink->messages(LogType::error).size(), 1u);
    EXPECT_EQ(errorsContaining(log, "kept in memory for this run only"), 1u);
}

// Far past the 260 characters a plain Windows path may have.
TEST_F(FileKeyValueStoreTest, WorksInADeepDirectory) {
    fs::path deep = dir;
    for (int i = 0; i < 30; ++i) deep /= "level-" + std::to_string(i) + "-of-a-deep-tree";
    ASSERT_GT(deep.wstring().size(), 600u);
    ASSERT_TRUE(FileKeyValueStore(deep).setString(std::string(200, 'Q'), "deep"));
    FileKeyValueStore store(deep);
    EXPECT_TRUE(store.isPersistent());
    EXPECT_EQ(store.values(""), (Entries{{std::string(200, 'Q'), std::string("deep")}}));
}

TEST_F(FileKeyValueStoreTest, ThreadsWritingAtOnceLoseNothing) {
    {
        FileKeyValueStore store(dir);
        std::vector<std::thread> threads;
        std::atomic<int> failures{0};
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 20; ++i) {
                    const std::string key = "t" + std::to_string(t) + "/" + std::to_string(i);
                    if (!store.apply({{key, valueFor(i)}, {key + "/pair", valueFor(i + 1)}}) ||
                        store.value(key) != valueFor(i))
                        ++failures;
                }
            });
        }
        for (auto& thread : threads) thread.join();
        EXPECT_EQ(failures, 0);
    }
    FileKeyValueStore store(dir);
    EXPECT_EQ(store.keySizes("t").size(), 160u);
    EXPECT_EQ(store.value("t3/19/pair"), valueFor(20));
}

TEST_F(FileKeyValueStoreTest, DefaultStoreLivesInAFolderOfTheDataDirectory) {
    ASSERT_TRUE(os::openDefaultStore(scratch.path())->setString("k", "v"));
    EXPECT_EQ(FileKeyValueStore(scratch / "values").string("k"), "v");
}

// ---- a process killed while writing

// Not run by itself: the killed process of the test below. Writes until it
// is killed, by turns three changes that must be made together and single
// values, and acknowledges each write that returned true.
TEST(FileKeyValueStoreChild, WritesUntilKilled) {
    const std::string directory = testing::env(kChildDirectoryVariable);
    if (directory.empty()) GTEST_SKIP() << "only run by AcknowledgedWritesSurviveTerminateProcess";
    FileKeyValueStore store{fs::path(std::u8string(directory.begin(), directory.end()))};
    for (int i = 0;; ++i) {
        const std::string key = "key" + std::to_string(i);
        const bool written =
            i % 2 == 1 ? store.set(key, valueFor(i))
                       : store.apply({{key, valueFor(i)}, {"pair/a", std::int64_t{i}}, {"pair/b", std::int64_t{i}}});
        ASSERT_TRUE(written) << "write " << i << " failed";
        if (!testing::report("ack " + std::to_string(i))) return;  // the test that started it has gone
    }
}

// A write that returned true is on disk even when the process is killed right
// after, in the middle of the next write (an apply, made whole or not at all).
// Each round kills a little later, so the kill lands at other steps.
TEST_F(FileKeyValueStoreTest, AcknowledgedWritesSurviveTerminateProcess) {
    constexpr int kAcknowledged = 20;  // even: the write cut short is an apply
    for (const int delay : {0, 1, 2, 4, 8, 16}) {
        SCOPED_TRACE("killed " + std::to_string(delay) + " ms after the last acknowledgement");
        TempDir place;
        const fs::path values = place / "values";
        {
            const std::u8string directory = values.u8string();
            ChildProcess child("FileKeyValueStoreChild.*", {std::string(kChildDirectoryVariable) + "=" +
                                                            std::string(directory.begin(), directory.end())});
            for (int i = 0; i < kAcknowledged; ++i)
                ASSERT_EQ(child.readLine(60s), "ack " + std::to_string(i))
                    << "the child ended after " << i << " writes";
            std::this_thread::sleep_for(std::chrono::milliseconds(delay));
            child.killNow();
            // Killed, not ended by a failed write.
            ASSERT_EQ(child.wait(60s), testing::kKilledExitCode);
        }
        LogCapture log;
        FileKeyValueStore store(values);
        for (int i = 0; i < kAcknowledged; ++i) EXPECT_EQ(store.value("key" + std::to_string(i)), valueFor(i)) << i;
        // Later writes may or may not have landed, but whole.
        for (int i = kAcknowledged; i < kAcknowledged + 4; ++i) {
            const auto found = store.value("key" + std::to_string(i));
            EXPECT_TRUE(!found || *found == valueFor(i)) << i;
        }
        const auto a = store.integer("pair/a"), b = store.integer("pair/b");
        ASSERT_TRUE(a && b);
        EXPECT_EQ(*a, *b);
        EXPECT_GE(*a, kAcknowledged - 2);
        EXPECT_EQ(store.value("key" + std::to_string(*a)), valueFor(static_cast<int>(*a)));
        EXPECT_FALSE(store.value("key" + std::to_string(*a + 2)).has_value()) << "an apply was made in part";
        EXPECT_FALSE(fs::exists(values / FileKeyValueStore::kCorruptFolder));
        EXPECT_TRUE(log.sink->messages(LogType::error).empty());
    }
}

}  // namespace
}  // namespace tavrin::platform
