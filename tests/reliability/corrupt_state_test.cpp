// Corrupt and foreign state between two launches. A first launch, offline,
// leaves every persisted value behind: the settings, the user and consent
// identifiers, the vendor consents with their lastupdate, and three offline
// cache records (two data submissions and a consent report). Then one value
// at a time is replaced by garbage bytes, a value of the wrong type, an empty
// value and a 16 MiB value, or the database file itself is truncated, zeroed,
// replaced by a directory or made read-only. A second launch, online, runs in
// a child process against the loopback collector: it resends the cache,
// submits, gives consent and shuts down. Each launch must exit normally, say
// in its log what was wrong, keep working, and keep every value that was not
// the broken one.

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <random>

#include "tavrin/consent/internal/consent_status_coding.h"
#include "tavrin/platform/internal/pattern.h"
#include "tavrin/sdk/internal/track_config_coding.h"
#include "tests/end_to_end/end_to_end_fixture.h"
#include "tests/reliability/fault_support.h"

namespace tavrin::testing {
namespace {

namespace fs = std::filesystem;
using Value = platform::KeyValueStore::Value;

constexpr const char* kSettingsKey = "com.tavrin.TrackingSettings";
constexpr const char* kUserIdKey = "global_user_id";
constexpr const char* kConsentIdKey = "shop-app_consentID";
constexpr const char* kVendorKey = "VendorConsents";
constexpr const char* kLastUpdateKey = "VendorConsents_lastupdate";
constexpr const char* kRecordPrefix = "com.tavrin.OfflineCache/";
constexpr std::size_t kHugeSize = std::size_t{16} << 20;

// ---- the two launches, each a child process

// Hands every record to the parent at once, one line each (long messages
// cut), so the parent sees what a launch logged up to the moment it died.
class LaunchLogSink final : public platform::LogSink {
public:
    bool isEnabled(platform::LogType) const override { return true; }
    void write(const platform::LogRecord& record) override {
        std::string line = std::string(platform::logTypeName(record.type)) + ": " + record.message.substr(0, 2000);
        std::replace(line.begin(), line.end(), '\n', ' ');
        std::lock_guard lock(mutex_);
        if (record.message.starts_with("Cached requests successfully resent") ||
            record.message.starts_with("Failed to resend cached requests"))
            walkFinished = true;
        report(line);
    }
    std::atomic<bool> walkFinished{false};

private:
    std::mutex mutex_;
};

std::shared_ptr<LaunchLogSink> startChildLaunch(platform::PathStatus path) {
    auto sink = std::make_shared<LaunchLogSink>();
    platform::SystemLog::setSink(sink);
    platform::KeyValueStore::setDataDirectory(env("TAVRIN_CORRUPT_DIR"));
    platform::PathMonitor::setFactory([path]() -> std::shared_ptr<platform::PathMonitor> {
        return std::make_shared<ScriptedPathMonitor>(path);
    });
    return sink;
}

// Offline: everything it sends waits in the offline cache.
TEST(CorruptStateChild, FirstLaunch) {
    if (env("TAVRIN_CORRUPT_ROLE") != "first") GTEST_SKIP() << "runs only as a child of the corrupt-state tests";
    auto sink = startChildLaunch(platform::PathStatus::unsatisfied);
    TavrinService::configure(trackConfig(env("TAVRIN_CORRUPT_DOMAIN")));
    ASSERT_TRUE(waitUntil([] { return OfflineCacheManager::shared()->isCurrentlyOffline(); }));
    // The start-up walk does not ask the path: before it has ended, it could
    // send what is cached next to the server that is only pretended away.
    ASSERT_TRUE(waitUntil([&] { return sink->walkFinished.load(); }));
    auto tracking = TrackingService::shared();
    for (const char* mark : {"s1", "s2"}) {
        tracking->push({{"track", "pageview"}, {"mark", mark}});
        tracking->submit().get();
    }
    EXPECT_TRUE(tracking->setConsents({{"vendorA", ConsentStatus::allow}, {"vendorB", ConsentStatus::deny}}).get());
    EXPECT_TRUE(TavrinService::shutdown(10s));
    platform::SystemLog::setSink(nullptr);
}

// Online: resends the cache, submits, gives consent. Failures are logged for
// the parent to judge; only a crash or a hang ends it abnormally.
TEST(CorruptStateChild, SecondLaunch) {
    if (env("TAVRIN_CORRUPT_ROLE") != "second") GTEST_SKIP() << "runs only as a child of the corrupt-state tests";
    auto sink = startChildLaunch(platform::PathStatus::satisfied);
    if (env("TAVRIN_CORRUPT_LOAD_SETTINGS") == "1") TrackingSettings::loadConfigFromUserDefaults();
    TavrinService::configure(trackConfig(env("TAVRIN_CORRUPT_DOMAIN")));
    auto tracking = TrackingService::shared();
    auto& log = LoggerUtility::shared();
    tracking->push({{"track", "pageview"}, {"mark", "c1"}});
    try {
        tracking->submit().get();  // before the decision: it carries the stored one
        if (!tracking->setConsents({{"vendorA", ConsentStatus::allow}, {"vendorC", ConsentStatus::ncm}}).get())
            log.error("launch: setConsents gave false");
    } catch (const std::exception& error) {
        log.error(std::string("launch: a call failed: ") + error.what());
    }
    if (!waitUntil([&] { return sink->walkFinished.load(); }, 60s)) log.error("launch: the resend walk did not finish");
    TavrinService::shutdown(10s);
    platform::SystemLog::setSink(nullptr);
}

// ---- values, broken and intact

std::optional<VendorConsents> decodeVendorConsents(const std::optional<Value>& stored) {
    const auto* bytes = stored ? std::get_if<Bytes>(&*stored) : nullptr;
    try {
        if (bytes) return decodeJson<VendorConsents>(platform::toString(decodeJson<Bytes>(platform::toString(*bytes))));
    } catch (const DecodingError&) {
    }
    return std::nullopt;
}

bool wellFormedUserId(const PlainJson& id) {
    static const platform::Pattern pattern("^[0-9]{1,5}[0-9]{13}[0-9]{1,5}$");
    return id.is_string() && pattern.matches(id.get<std::string>());
}

std::string garbageText(std::uint64_t seed) {
    std::mt19937_64 random(seed);
    std::string text(257, '\0');
    for (char& c : text) c = static_cast<char>(random() & 0xff);
    text[3] = '\xff';  // never valid UTF-8, whatever the draw
    return text;
}
Bytes garbageBytes(std::uint64_t seed) { return platform::toBytes(garbageText(seed)); }

// A JSON string of 16 MiB: well-formed, of the wrong type everywhere.
Bytes hugeJsonString() {
    std::string text(kHugeSize, 'A');
    text.front() = text.back() = '"';
    return platform::toBytes(text);
}

struct Corruption {
    std::string key, name;
    Value value;
    std::vector<std::string> logged;  // what the launch must say, each a part of one line
};

struct Launch {
    std::string name;
    int status = 0;
    std::string log;
    std::vector<RecordedRequest> requests;
    fs::path data;
};

// What the second launch can read of the first launch's state.
enum class Previous {
    intact,    // the database opens; only the named key (if any) is broken
    readOnly,  // everything readable, nothing written
    gone,      // no usable database
};

class TavrinServiceCorruptStateTest : public ::testing::Test {
protected:
    void SetUp() override {
        const fs::path golden = root / "golden";
        const auto first = launch("first launch", golden, "first");
        ASSERT_EQ(first.status, 0) << "the first launch failed: " << first.log;
        ASSERT_TRUE(first.requests.empty()) << "the first launch was to stay offline, yet sent " << first.requests[0].body;
        platform::SqliteKeyValueStore store(golden / platform::SqliteKeyValueStore::kFileName, {.readOnly = true});
        userId = store.string(kUserIdKey).value_or("");
        consentId = store.string(kConsentIdKey).value_or("");
        lastupdate = store.integer(kLastUpdateKey).value_or(0);
        for (const auto& entry : store.values(kRecordPrefix)) recordKeys.push_back(entry.first);
        ASSERT_TRUE(wellFormedUserId(userId));
        ASSERT_EQ(consentId.size(), 36u);
        ASSERT_GT(lastupdate, 0);
        ASSERT_TRUE(store.data(kSettingsKey));
        ASSERT_TRUE(decodeVendorConsents(store.value(kVendorKey)));
        ASSERT_EQ(recordKeys.size(), 3u);  // oldest first: s1, s2, the consent report
    }

    // A copy of the first launch's directory, with `key` (if any) set to `value`.
    fs::path freshCopy(const std::string& key = "", const Value& value = Value{}) {
        const fs::path data = root / ("case-" + std::to_string(++cases)) / "data";
        fs::create_directories(data);
        for (const auto& file : fs::directory_iterator(root / "golden")) fs::copy(file.path(), data / file.path().filename());
        if (!key.empty()) {
            platform::SqliteKeyValueStore store(data / platform::SqliteKeyValueStore::kFileName);
            EXPECT_TRUE(store.set(key, value)) << key;
        }
        return data;
    }

    Launch launch(const std::string& name, const fs::path& data, const std::string& role, bool readOnlyMount = false) {
        Launch out{name, 0, "", {}, data};
        const std::size_t before = server.requests().size();
        ChildProcess child(role == "first" ? "CorruptStateChild.FirstLaunch" : "CorruptStateChild.SecondLaunch",
                           {"TAVRIN_CORRUPT_ROLE=" + role, "TAVRIN_CORRUPT_DIR=" + data.string(),
                            "TAVRIN_CORRUPT_DOMAIN=" + hostPort(server.port()),
                            std::string("TAVRIN_CORRUPT_LOAD_SETTINGS=") + (name.starts_with("tracking settings") ? "1" : "0")},
                           readOnlyMount ? std::optional(data) : std::nullopt);
        while (const auto line = child.readLine(120s)) out.log += *line + "\n";
        out.status = child.wait(10s);
        const auto all = server.requests();
        out.requests.assign(all.begin() + static_cast<std::ptrdiff_t>(before), all.end());
        return out;
    }

    // Checks one second launch. `broken` is the key that was corrupted
    // (empty when the database file itself was).
    void verify(const Launch& launch, const std::string& broken, Previous previous, const std::vector<std::string>& logged) {
        SCOPED_TRACE(launch.name);
        const std::string log = launch.log.substr(0, 20000);
        crashes += launch.status != 0;
        ASSERT_EQ(launch.status, 0) << "the launch did not end normally; its log:\n" << log;
        for (const auto& line : logged) EXPECT_NE(launch.log.find(line), std::string::npos) << "not logged: " << line << "\n" << log;
        EXPECT_EQ(launch.log.find("launch: "), std::string::npos) << log;

        // What reached the collector: data submissions by mark, consent reports.
        std::map<std::string, int> marks;
        std::optional<PlainJson> submitted, report;
        int ownReports = 0, firstLaunchReports = 0;
        for (const auto& request : launch.requests) {
            if (request.path == "/monitor") continue;
            auto body = PlainJson::parse(request.body, nullptr, false);
            if (body.is_discarded() || !body.is_object()) {
                ADD_FAILURE() << "a body that is not a JSON object reached the collector";
            } else if (!body["data"].contains("consent")) {
                ++marks[body["data"]["variables"].value("mark", "")];
                if (body["data"]["variables"].value("mark", "") == "c1") submitted = body;
            } else if (body["data"]["consent"]["vendors"].contains("vendorC")) {
                ++ownReports;
                report = body;
            } else {
                ++firstLaunchReports;
            }
        }
        // It keeps working: its submission and its consent report went out once.
        EXPECT_EQ(marks["c1"], 1);
        EXPECT_EQ(ownReports, 1);
        ASSERT_TRUE(submitted && report) << log;

        // Every intact value of the first launch is used; a broken one is replaced.
        const bool readable = previous != Previous::gone;
        const auto intact = [&](const std::string& key) { return readable && broken != key; };
        bool lost = false;
        const auto keeps = [&](const PlainJson& got, const PlainJson& expected) {
            EXPECT_EQ(got, expected);
            lost |= got != expected;
        };
        const auto& user = (*submitted)["data"]["identifier"]["user"];
        const auto& consent = (*report)["data"]["identifier"]["consent"];
        const auto& changed = (*report)["data"]["consent"]["vendorsChanged"];
        if (intact(kUserIdKey)) {
            keeps(user, {{"id", userId}, {"action", "update"}});
        } else {
            EXPECT_EQ(user["action"], "new");
            EXPECT_TRUE(wellFormedUserId(user["id"])) << user;
        }
        EXPECT_EQ((*report)["data"]["identifier"]["user"]["id"], user["id"]);
        if (intact(kConsentIdKey)) {
            keeps(consent, {{"id", consentId}, {"action", "update"}});
        } else {
            EXPECT_EQ(consent["action"], "new");
            EXPECT_EQ(consent["id"].get<std::string>().size(), 36u);
        }
        if (intact(kVendorKey)) {
            EXPECT_EQ((*submitted)["consent"], PlainJson::parse(R"({"vendorA":{"status":true},"vendorB":{"status":false}})"));
            keeps(changed, PlainJson::parse(R"({"vendorC":"ncm"})"));
        } else {
            EXPECT_EQ((*submitted)["consent"], PlainJson::object());
            EXPECT_EQ(changed, PlainJson::parse(R"({"vendorA":true,"vendorC":"ncm"})"));
        }
        // Every record of the first launch but the broken one was resent, once.
        for (std::size_t i = 0; i < recordKeys.size(); ++i) {
            const int expected = intact(recordKeys[i]) ? 1 : 0;
            const int got = i == 0 ? marks["s1"] : i == 1 ? marks["s2"] : firstLaunchReports;
            EXPECT_EQ(got, expected) << "record " << recordKeys[i];
            lost |= got < expected;
        }
        lostCases += lost;

        // What the launch left for the next one: a read-only store all the
        // first launch's values, any other what this launch used.
        platform::SqliteKeyValueStore store(launch.data / platform::SqliteKeyValueStore::kFileName, {.readOnly = true});
        const bool written = previous != Previous::readOnly;
        EXPECT_EQ(store.string(kUserIdKey), written ? user["id"].get<std::string>() : userId);
        EXPECT_EQ(store.string(kConsentIdKey), written ? consent["id"].get<std::string>() : consentId);
        const VendorConsents decided{{"vendorA", ConsentStatus::allow}, {"vendorC", ConsentStatus::ncm}};
        const VendorConsents first{{"vendorA", ConsentStatus::allow}, {"vendorB", ConsentStatus::deny}};
        EXPECT_EQ(decodeVendorConsents(store.value(kVendorKey)), written ? decided : first);
        const auto stamp = store.integer(kLastUpdateKey);
        EXPECT_TRUE(written ? stamp >= lastupdate : stamp == lastupdate) << stamp.value_or(-1);
        EXPECT_EQ(store.values(kRecordPrefix).size(), written ? 0u : recordKeys.size()) << "sent or broken records stay cached";
        if (written) {
            const auto settings = store.data(kSettingsKey);
            ASSERT_TRUE(settings);
            EXPECT_EQ(decodeJson<TrackConfig>(platform::toString(*settings)).trackDomain, hostPort(server.port()));
        }
    }

    void printTally(const std::string& what) const {
        printFigure("corrupt state, " + what + ": " + std::to_string(cases) + " cases, " + std::to_string(crashes) +
                    " launches that did not end normally, " + std::to_string(lostCases) + " cases in which an intact value was lost");
    }

    TempDir root;
    LogCapture logs;
    LoopbackServer server;
    std::string userId, consentId;
    std::int64_t lastupdate = 0;
    std::vector<std::string> recordKeys;
    int cases = 0, crashes = 0, lostCases = 0;
};

TEST_F(TavrinServiceCorruptStateTest, BrokenStoredValueCostsOnlyThatValue) {
    for (int round = 0; round < reliabilityScale(); ++round) {  // garbage differs per round
        const std::string settings = "the value stored under key com.tavrin.TrackingSettings could not be decoded";
        const std::string userIdMalformed = "The User ID stored under key global_user_id is not well formed";
        const std::string consentIdUnusable = "The Consent ID stored under key shop-app_consentID is not usable";
        const std::string vendors = "stored under key VendorConsents could not be decoded";
        std::vector<Corruption> table{
            {kSettingsKey, "garbage", garbageBytes(round), {settings}},
            {kSettingsKey, "wrong type", platform::toBytes(R"(["shop-app","live"])"), {settings}},
            {kSettingsKey, "empty", Bytes{}, {settings}},
            {kSettingsKey, "16 MiB", hugeJsonString(), {settings}},
            {kUserIdKey, "garbage", garbageText(round), {userIdMalformed}},
            {kUserIdKey, "wrong type", std::int64_t{482173166720012377},
             {"the value stored under key global_user_id is an integer, not text"}},
            {kUserIdKey, "empty", std::string(), {userIdMalformed}},
            {kUserIdKey, "16 MiB", std::string(kHugeSize, '7'), {userIdMalformed}},
            {kConsentIdKey, "garbage", garbageText(round), {consentIdUnusable}},
            {kConsentIdKey, "wrong type", platform::toBytes("7c9e6679-7425-40de-944b-e07fc1f90ae7"),
             {"the value stored under key shop-app_consentID is data, not text"}},
            {kConsentIdKey, "empty", std::string(), {consentIdUnusable}},
            {kConsentIdKey, "16 MiB", std::string(kHugeSize, 'c'), {consentIdUnusable}},
            {kVendorKey, "garbage", garbageBytes(round), {vendors}},
            // The statuses without their second encoding layer.
            {kVendorKey, "wrong type", platform::toBytes(R"({"vendorA":"allow","vendorB":"deny"})"), {vendors}},
            {kVendorKey, "empty", Bytes{}, {vendors}},
            {kVendorKey, "16 MiB", hugeJsonString(), {vendors}},
            // Nothing reads the lastupdate back: the launch only replaces it.
            {kLastUpdateKey, "garbage", garbageBytes(round), {}},
            {kLastUpdateKey, "wrong type", std::string("yesterday"), {}},
            {kLastUpdateKey, "empty", std::string(), {}},
            {kLastUpdateKey, "16 MiB", std::string(kHugeSize, '9'), {}},
        };
        // Each offline cache record in turn: the other two are still resent.
        for (std::size_t i = 0; i < recordKeys.size(); ++i) {
            const std::vector<std::string> removed{"Failed to load cache: ", "(record " + recordKeys[i] + " removed)"};
            table.push_back({recordKeys[i], "garbage", garbageBytes(round * 3 + i), removed});
            table.push_back({recordKeys[i], "wrong type", platform::toBytes(R"([{"type":"dataSubmission"}])"), removed});
            table.push_back({recordKeys[i], "empty", Bytes{}, removed});
            table.push_back({recordKeys[i], "16 MiB", hugeJsonString(), removed});
        }
        for (const auto& row : table) {
            const std::string name = (row.key == kSettingsKey ? "tracking settings" : row.key) + ", " + row.name;
            verify(launch(name, freshCopy(row.key, row.value), "second"), row.key, Previous::intact, row.logged);
        }
    }
    printTally("stored values");
    EXPECT_EQ(crashes + lostCases, 0);
}

TEST_F(TavrinServiceCorruptStateTest, UnusableDatabaseFileIsMovedAsideAndAFreshOneUsed) {
    const auto file = [](const fs::path& data) { return data / platform::SqliteKeyValueStore::kFileName; };
    const std::vector<std::string> movedAside{"is not a usable database", "moved the unusable file to"};
    for (int round = 0; round < reliabilityScale(); ++round) {
        const fs::path truncated = freshCopy();  // as by a full disk or a copy that stopped
        fs::resize_file(file(truncated), fs::file_size(file(truncated)) / 2);
        verify(launch("database truncated", truncated, "second"), "", Previous::gone, movedAside);

        const fs::path zeroed = freshCopy();
        const auto size = fs::file_size(file(zeroed));
        std::ofstream(file(zeroed), std::ios::binary | std::ios::trunc) << std::string(size, '\0');
        verify(launch("database zeroed", zeroed, "second"), "", Previous::gone, movedAside);
        // The bad file is kept beside the fresh one, for whoever wants to look.
        int keptAside = 0;
        for (const auto& entry : fs::directory_iterator(zeroed))
            keptAside += entry.path().filename().string().starts_with("tavrin.sqlite.corrupt-") &&
                         fs::file_size(entry.path()) == size;
        EXPECT_EQ(keptAside, 1);
    }
    printTally("database file");
    EXPECT_EQ(crashes + lostCases, 0);
}

// Someone else's directory in the database's place: left alone, values live in memory.
TEST_F(TavrinServiceCorruptStateTest, ForeignDirectoryInPlaceOfTheDatabaseIsLeftAlone) {
    const fs::path data = freshCopy();
    const fs::path file = data / platform::SqliteKeyValueStore::kFileName;
    for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(fs::path(file.string() + suffix));
    fs::create_directory(file);
    std::ofstream(file / "theirs.txt") << "not yours";
    const auto second = launch("database replaced by a directory", data, "second");
    EXPECT_EQ(second.status, 0) << second.log.substr(0, 20000);
    EXPECT_NE(second.log.find("values are kept in memory for this run only"), std::string::npos) << second.log;
    std::ifstream theirs(file / "theirs.txt");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(theirs), {}), "not yours");
    // Working all the same, from an empty store.
    int submitted = 0, reports = 0;
    for (const auto& request : second.requests) {
        if (request.path == "/monitor") continue;
        const auto body = PlainJson::parse(request.body);
        if (body["data"].contains("consent"))
            reports += body["data"]["identifier"]["consent"]["action"] == "new";
        else
            submitted += body["data"]["variables"].value("mark", "") == "c1";
    }
    EXPECT_EQ(submitted, 1);
    EXPECT_EQ(reports, 1);
}

// Modes for an ordinary user, a read-only mount for root (who ignores modes).
TEST_F(TavrinServiceCorruptStateTest, ReadOnlyDatabaseKeepsEveryValueReadable) {
    const fs::path data = freshCopy();
    for (const auto& entry : fs::directory_iterator(data)) fs::permissions(entry.path(), fs::perms(0444));
    fs::permissions(data, fs::perms(0555));
    const auto second = launch("database read-only", data, "second", ::geteuid() == 0);
    fs::permissions(data, fs::perms(0755));
    for (const auto& entry : fs::directory_iterator(data)) fs::permissions(entry.path(), fs::perms(0644));
    if (second.status == kCannotMountReadOnly) GTEST_SKIP() << "no private read-only mount (needs root and mount namespaces)";
    verify(second, "", Previous::readOnly, {"writes will fail"});
}

}  // namespace
}  // namespace tavrin::testing
