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

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <set>

#include "tavrin/consent/internal/consent_status_coding.h"
#include "tavrin/platform/internal/pattern.h"
#include "tavrin/sdk/internal/track_config_coding.h"
#include "tests/end_to_end/end_to_end_fixture.h"
#include "tests/reliability/corrupt_state_support.h"
#include "tests/reliability/reliability_scale.h"

namespace tavrin::testing {
namespace {

namespace fs = std::filesystem;
using Value = platform::KeyValueStore::Value;

constexpr const char* kDirVariable = "TAVRIN_CORRUPT_DIR";
constexpr const char* kDomainVariable = "TAVRIN_CORRUPT_DOMAIN";
constexpr const char* kLogVariable = "TAVRIN_CORRUPT_LOG";
constexpr const char* kLoadSettingsVariable = "TAVRIN_CORRUPT_LOAD_SETTINGS";

constexpr const char* kSettingsKey = "com.tavrin.TrackingSettings";
constexpr const char* kUserIdKey = "global_user_id";
constexpr const char* kConsentIdKey = "shop-app_consentID";
constexpr const char* kVendorKey = "VendorConsents";
constexpr const char* kLastUpdateKey = "VendorConsents_lastupdate";
constexpr const char* kRecordPrefix = "com.tavrin.OfflineCache/";
constexpr std::size_t kHugeSize = std::size_t{16} << 20;

// ---- the two launches, each run as a child process

void childLaunchScaffold(const char* directory, platform::PathStatus path) {
    platform::KeyValueStore::setDataDirectory(std::string(directory));
    platform::PathMonitor::setFactory([path]() -> std::shared_ptr<platform::PathMonitor> {
        return std::make_shared<ScriptedPathMonitor>(path);
    });
}

// Offline: everything it sends waits in the offline cache.
TEST(CorruptStateChild, FirstLaunch) {
    const char *directory = std::getenv(kDirVariable), *domain = std::getenv(kDomainVariable),
               *logPath = std::getenv(kLogVariable);
    if (!directory || !domain || !logPath) GTEST_SKIP() << "runs only as a child launch of the corrupt-state scenarios";
    auto sink = std::make_shared<FileLogSink>(logPath);
    platform::SystemLog::setSink(sink);
    childLaunchScaffold(directory, platform::PathStatus::unsatisfied);
    TavrinService::configure(trackConfig(domain));
    ASSERT_TRUE(waitUntil([] { return OfflineCacheManager::shared()->isCurrentlyOffline(); }));
    // The start-up resend walk does not ask the path: had it still to take
    // its snapshot, it would send what is cached next to the server that is
    // only pretended away.
    ASSERT_TRUE(waitUntil([&] { return sink->walkFinished.load(); }));
    auto tracking = TrackingService::shared();
    tracking->push({{"track", "pageview"}, {"mark", "s1"}});
    tracking->submit().get();
    tracking->push({{"track", "pageview"}, {"mark", "s2"}});
    tracking->submit().get();
    EXPECT_TRUE(tracking->setConsents({{"vendorA", ConsentStatus::allow}, {"vendorB", ConsentStatus::deny}}).get());
    EXPECT_TRUE(TavrinService::shutdown(std::chrono::seconds(10)));
    platform::SystemLog::setSink(nullptr);
}

// Online: resends the cache, submits, gives consent. Failures are logged for
// the parent to judge; only a crash or a hang ends it abnormally.
TEST(CorruptStateChild, SecondLaunch) {
    const char *directory = std::getenv(kDirVariable), *domain = std::getenv(kDomainVariable),
               *logPath = std::getenv(kLogVariable);
    if (!directory || !domain || !logPath) GTEST_SKIP() << "runs only as a child launch of the corrupt-state scenarios";
    auto sink = std::make_shared<FileLogSink>(logPath);
    platform::SystemLog::setSink(sink);
    childLaunchScaffold(directory, platform::PathStatus::satisfied);
    if (std::getenv(kLoadSettingsVariable)) TrackingSettings::loadConfigFromUserDefaults();
    TavrinService::configure(trackConfig(domain));
    auto tracking = TrackingService::shared();
    tracking->push({{"track", "pageview"}, {"mark", "c1"}});
    auto& log = LoggerUtility::shared();
    try {
        tracking->submit().get();
    } catch (const std::exception& error) {
        log.error(std::string("launch: submit failed: ") + error.what());
    }
    try {
        if (!tracking->setConsents({{"vendorA", ConsentStatus::allow}, {"vendorC", ConsentStatus::ncm}}).get())
            log.error("launch: setConsents gave false");
    } catch (const std::exception& error) {
        log.error(std::string("launch: setConsents failed: ") + error.what());
    }
    if (!waitUntil([&] { return sink->walkFinished.load(); }, std::chrono::seconds(60)))
        log.error("launch: the resend walk did not finish");
    TavrinService::shutdown(std::chrono::seconds(10));
    platform::SystemLog::setSink(nullptr);
}

// ---- reading a store as the parent

std::optional<Value> storedValue(const fs::path& data, const std::string& key) {
    platform::SqliteKeyValueStore store(data / platform::SqliteKeyValueStore::kFileName, {.readOnly = true});
    return store.value(key);
}

std::optional<VendorConsents> decodeVendorConsents(const Value& stored) {
    const auto* bytes = std::get_if<Bytes>(&stored);
    if (!bytes) return std::nullopt;
    try {
        const auto inner = decodeJson<Bytes>(platform::toString(*bytes));
        return decodeJson<VendorConsents>(platform::toString(inner));
    } catch (const DecodingError&) {
        return std::nullopt;
    }
}

bool wellFormedUserId(const std::string& id) {
    static const platform::Pattern pattern("^[0-9]{1,5}[0-9]{13}[0-9]{1,5}$");
    return pattern.matches(id);
}

// ---- corruptions

struct Corruption {
    std::string name;
    Value value;
    // What the launch must say (each a part of one line).
    std::vector<std::string> logged;
};

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

// The launch's results: how it ended, what it logged, what reached the collector.
struct Launch {
    std::string name;
    int status = 0;
    std::string log;
    std::vector<RecordedRequest> requests;
    fs::path data;

    bool crashed() const { return status < 0 || status >= 128; }
};

// What the first launch left, read back before anything is broken.
struct Golden {
    std::string userId, consentId;
    std::int64_t lastupdate = 0;
    std::vector<std::string> recordKeys;  // oldest first: s1, s2, the consent report
};

// The state the second launch should find for what it reads.
enum class Previous {
    intact,    // the database opens; only the named key (if any) is broken
    readOnly,  // the database opens read-only: everything readable, nothing written
    gone,      // no usable database: nothing of the first launch can be read
};

struct Tally {
    int cases = 0, crashes = 0, lost = 0, tests = 0;
};
Tally& processTally() {
    static Tally tally;
    return tally;
}

class CorruptStateTest : public ::testing::Test {
protected:
    void SetUp() override {
        const fs::path golden = root / "golden";
        const int status = runChild("CorruptStateChild.FirstLaunch",
                                    {std::string(kDirVariable) + "=" + golden.string(),
                                     std::string(kDomainVariable) + "=" + hostPort(server.port()),
                                     std::string(kLogVariable) + "=" + (root / "first-launch.log").string()},
                                    std::chrono::seconds(120));
        ASSERT_EQ(status, 0) << "the first launch failed: " << readFile(root / "first-launch.log");
        for (const auto& request : server.requests())
            ADD_FAILURE() << "the first launch was to stay offline, yet sent " << request.path << ": " << request.body;
        platform::SqliteKeyValueStore store(golden / platform::SqliteKeyValueStore::kFileName, {.readOnly = true});
        golden_.userId = store.string(kUserIdKey).value_or("");
        golden_.consentId = store.string(kConsentIdKey).value_or("");
        golden_.lastupdate = store.integer(kLastUpdateKey).value_or(0);
        for (const auto& entry : store.values(kRecordPrefix)) golden_.recordKeys.push_back(entry.first);
        ASSERT_TRUE(wellFormedUserId(golden_.userId));
        ASSERT_EQ(golden_.consentId.size(), 36u);
        ASSERT_GT(golden_.lastupdate, 0);
        ASSERT_TRUE(store.data(kSettingsKey));
        ASSERT_TRUE(decodeVendorConsents(store.value(kVendorKey).value_or(Value{})));
        ASSERT_EQ(golden_.recordKeys.size(), 3u);
    }

    void TearDown() override {
        auto& tally = processTally();
        tally.cases += tally_.cases;
        tally.crashes += tally_.crashes;
        tally.lost += tally_.lost;
        ++tally.tests;
    }

    // A copy of the first launch's directory for one case.
    fs::path freshCopy() {
        const fs::path data = root / ("case-" + std::to_string(++caseNumber_)) / "data";
        fs::create_directories(data);
        for (const auto& file : fs::directory_iterator(root / "golden")) fs::copy(file.path(), data / file.path().filename());
        return data;
    }

    static void write(const fs::path& data, const std::string& key, const Value& value) {
        platform::SqliteKeyValueStore store(data / platform::SqliteKeyValueStore::kFileName);
        ASSERT_TRUE(store.set(key, value)) << key;
    }

    Launch secondLaunch(const std::string& name, const fs::path& data, bool loadSettings = false,
                        bool readOnlyMount = false) {
        Launch launch;
        launch.name = name;
        launch.data = data;
        const fs::path logFile = data.parent_path() / "launch.log";
        std::vector<std::string> variables{std::string(kDirVariable) + "=" + data.string(),
                                           std::string(kDomainVariable) + "=" + hostPort(server.port()),
                                           std::string(kLogVariable) + "=" + logFile.string()};
        if (loadSettings) variables.push_back(std::string(kLoadSettingsVariable) + "=1");
        const std::size_t before = server.requests().size();
        launch.status = readOnlyMount ? runChildWithReadOnlyDirectory("CorruptStateChild.SecondLaunch", variables, data,
                                                                       std::chrono::seconds(120))
                                      : runChild("CorruptStateChild.SecondLaunch", variables, std::chrono::seconds(120));
        launch.log = readFile(logFile);
        const auto all = server.requests();
        launch.requests.assign(all.begin() + static_cast<std::ptrdiff_t>(before), all.end());
        return launch;
    }

    // Checks one launch; counts it in the tally. `broken` is the key that was
    // corrupted (empty when the database file itself was).
    void verify(const Launch& launch, const std::string& broken, Previous previous,
                const std::vector<std::string>& logged) {
        SCOPED_TRACE(launch.name);
        ++tally_.cases;
        if (launch.crashed()) ++tally_.crashes;
        ASSERT_EQ(launch.status, 0) << "the launch did not end normally; its log:\n" << launch.log.substr(0, 20000);

        for (const auto& line : logged)
            EXPECT_NE(launch.log.find(line), std::string::npos) << "not logged: " << line << "\nlog:\n"
                                                                << launch.log.substr(0, 20000);
        EXPECT_EQ(launch.log.find("launch: "), std::string::npos) << launch.log.substr(0, 20000);

        // What reached the collector, by body.
        std::map<std::string, int> marks;  // data submissions by their mark
        std::vector<PlainJson> reports;    // consent reports
        std::optional<PlainJson> submitted;
        for (const auto& request : launch.requests) {
            if (request.path == "/monitor") continue;
            auto body = PlainJson::parse(request.body, nullptr, false);
            if (body.is_discarded() || !body.is_object()) {
                ADD_FAILURE() << "a body that is not a JSON object reached the collector";
                continue;
            }
            if (body["data"].contains("consent")) {
                reports.push_back(body);
            } else {
                const std::string mark = body["data"]["variables"].value("mark", "");
                ++marks[mark];
                if (mark == "c1") submitted = body;
            }
        }
        std::optional<PlainJson> report;
        int firstLaunchReports = 0;
        for (const auto& body : reports) {
            if (body["data"]["consent"]["vendors"].contains("vendorC"))
                report = body;
            else
                ++firstLaunchReports;
        }

        // It keeps working: the submission and the consent report went out once.
        EXPECT_EQ(marks["c1"], 1);
        ASSERT_TRUE(submitted && report) << launch.log.substr(0, 20000);
        EXPECT_EQ(reports.size(), static_cast<std::size_t>(firstLaunchReports) + 1);

        bool lost = false;
        const auto& user = (*submitted)["data"]["identifier"]["user"];
        const auto& consentId = (*report)["data"]["identifier"]["consent"];
        const bool readable = previous != Previous::gone;
        if (readable && broken != kUserIdKey) {
            EXPECT_EQ(user, PlainJson({{"id", golden_.userId}, {"action", "update"}}));
            lost |= user["id"] != golden_.userId;
        } else {
            EXPECT_EQ(user["action"], "new");
            EXPECT_TRUE(wellFormedUserId(user["id"].get<std::string>()));
        }
        EXPECT_EQ((*report)["data"]["identifier"]["user"]["id"], user["id"]);
        if (readable && broken != kConsentIdKey) {
            EXPECT_EQ(consentId, PlainJson({{"id", golden_.consentId}, {"action", "update"}}));
            lost |= consentId["id"] != golden_.consentId;
        } else {
            EXPECT_EQ(consentId["action"], "new");
            EXPECT_EQ(consentId["id"].get<std::string>().size(), 36u);
        }
        const auto changed = (*report)["data"]["consent"]["vendorsChanged"];
        if (readable && broken != kVendorKey) {
            EXPECT_EQ((*submitted)["consent"], PlainJson::parse(R"({"vendorA":{"status":true},"vendorB":{"status":false}})"));
            EXPECT_EQ(changed, PlainJson::parse(R"({"vendorC":"ncm"})"));
            lost |= changed != PlainJson::parse(R"({"vendorC":"ncm"})");
        } else {
            EXPECT_EQ((*submitted)["consent"], PlainJson::object());
            EXPECT_EQ(changed, PlainJson::parse(R"({"vendorA":true,"vendorC":"ncm"})"));
        }

        // Every record of the first launch but the broken one was resent, once.
        const std::vector<std::string> sent{"s1", "s2"};
        for (std::size_t i = 0; i < golden_.recordKeys.size(); ++i) {
            const int expected = readable && golden_.recordKeys[i] != broken ? 1 : 0;
            const int got = i < sent.size() ? marks[sent[i]] : firstLaunchReports;
            EXPECT_EQ(got, expected) << "record " << golden_.recordKeys[i];
            lost |= got < expected;
        }

        // What the launch left for the next one.
        if (previous == Previous::intact || previous == Previous::gone) {
            const auto userId = storedValue(launch.data, kUserIdKey);
            const auto consents = storedValue(launch.data, kVendorKey);
            const auto lastupdate = storedValue(launch.data, kLastUpdateKey);
            const auto settings = storedValue(launch.data, kSettingsKey);
            ASSERT_TRUE(userId && std::holds_alternative<std::string>(*userId));
            EXPECT_EQ(std::get<std::string>(*userId), user["id"].get<std::string>());
            EXPECT_EQ(storedValue(launch.data, kConsentIdKey), std::optional<Value>(consentId["id"].get<std::string>()));
            EXPECT_EQ(decodeVendorConsents(consents.value_or(Value{})),
                      (VendorConsents{{"vendorA", ConsentStatus::allow}, {"vendorC", ConsentStatus::ncm}}));
            ASSERT_TRUE(lastupdate && std::holds_alternative<std::int64_t>(*lastupdate));
            EXPECT_GE(std::get<std::int64_t>(*lastupdate), golden_.lastupdate);
            ASSERT_TRUE(settings && std::holds_alternative<Bytes>(*settings));
            EXPECT_EQ(decodeJson<TrackConfig>(platform::toString(std::get<Bytes>(*settings))).trackDomain,
                      hostPort(server.port()));
            platform::SqliteKeyValueStore store(launch.data / platform::SqliteKeyValueStore::kFileName, {.readOnly = true});
            EXPECT_TRUE(store.values(kRecordPrefix).empty()) << "sent or broken records stay cached";
        } else if (previous == Previous::readOnly) {
            // Nothing could be written, so everything of the first launch is still there.
            EXPECT_EQ(storedValue(launch.data, kUserIdKey), std::optional<Value>(golden_.userId));
            EXPECT_EQ(storedValue(launch.data, kConsentIdKey), std::optional<Value>(golden_.consentId));
            EXPECT_EQ(storedValue(launch.data, kLastUpdateKey), std::optional<Value>(golden_.lastupdate));
            EXPECT_EQ(decodeVendorConsents(storedValue(launch.data, kVendorKey).value_or(Value{})),
                      (VendorConsents{{"vendorA", ConsentStatus::allow}, {"vendorB", ConsentStatus::deny}}));
            platform::SqliteKeyValueStore store(launch.data / platform::SqliteKeyValueStore::kFileName, {.readOnly = true});
            EXPECT_EQ(store.values(kRecordPrefix).size(), golden_.recordKeys.size());
        }
        if (lost) ++tally_.lost;
    }

    // One value broken in each of the four ways (garbage once per round).
    void runTable(const std::string& value, const std::string& key, const std::vector<Corruption>& corruptions,
                  bool loadSettings = false) {
        for (const auto& corruption : corruptions) {
            const std::string name = value + ", " + corruption.name;
            const fs::path data = freshCopy();
            write(data, key, corruption.value);
            verify(secondLaunch(name, data, loadSettings), key, Previous::intact, corruption.logged);
        }
    }

    void report(const std::string& value) const {
        std::printf("FIGURE corrupt state, %s: %d cases, %d crashes or hangs, %d cases in which an intact value was lost\n",
                    value.c_str(), tally_.cases, tally_.crashes, tally_.lost);
        EXPECT_EQ(tally_.crashes, 0);
        EXPECT_EQ(tally_.lost, 0);
    }

    // Rounds of the table: garbage differs per round.
    static int rounds() { return reliabilityScale(); }

    TempDir root;
    LogCapture logs;
    LoopbackServer server;
    Golden golden_;
    Tally tally_;
    int caseNumber_ = 0;
};

TEST_F(CorruptStateTest, TrackingSettings) {
    const std::string undecodable = "the value stored under key com.tavrin.TrackingSettings could not be decoded";
    for (int round = 0; round < rounds(); ++round) {
        runTable("tracking settings", kSettingsKey,
                 {{"garbage", garbageBytes(round), {undecodable}},
                  {"wrong type", platform::toBytes(R"(["shop-app","live"])"), {undecodable}},
                  {"empty", Bytes{}, {undecodable}},
                  {"16 MiB", hugeJsonString(), {undecodable}}},
                 /*loadSettings=*/true);
    }
    report("tracking settings");
}

TEST_F(CorruptStateTest, UserId) {
    const std::string malformed = "The User ID stored under key global_user_id is not well formed";
    for (int round = 0; round < rounds(); ++round) {
        runTable("user id", kUserIdKey,
                 {{"garbage", garbageText(round), {malformed}},
                  {"wrong type", std::int64_t{482173166720012377},
                   {"the value stored under key global_user_id is an integer, not text"}},
                  {"empty", std::string(), {malformed}},
                  {"16 MiB", std::string(kHugeSize, '7'), {malformed}}});
    }
    report("user id");
}

TEST_F(CorruptStateTest, ConsentId) {
    const std::string unusable = "The Consent ID stored under key shop-app_consentID is not usable";
    for (int round = 0; round < rounds(); ++round) {
        runTable("consent id", kConsentIdKey,
                 {{"garbage", garbageText(round), {unusable}},
                  {"wrong type", platform::toBytes("7c9e6679-7425-40de-944b-e07fc1f90ae7"),
                   {"the value stored under key shop-app_consentID is data, not text"}},
                  {"empty", std::string(), {unusable}},
                  {"16 MiB", std::string(kHugeSize, 'c'), {unusable}}});
    }
    report("consent id");
}

TEST_F(CorruptStateTest, VendorConsents) {
    const std::string undecodable = "stored under key VendorConsents could not be decoded";
    for (int round = 0; round < rounds(); ++round) {
        runTable("vendor consents", kVendorKey,
                 {{"garbage", garbageBytes(round), {undecodable}},
                  // The statuses without their second encoding layer.
                  {"wrong type", platform::toBytes(R"({"vendorA":"allow","vendorB":"deny"})"), {undecodable}},
                  {"empty", Bytes{}, {undecodable}},
                  {"16 MiB", hugeJsonString(), {undecodable}}});
    }
    report("vendor consents");
}

// Nothing reads the lastupdate back; the launch only has to replace it and
// keep everything else.
TEST_F(CorruptStateTest, VendorConsentsLastUpdate) {
    for (int round = 0; round < rounds(); ++round) {
        runTable("vendor consents lastupdate", kLastUpdateKey,
                 {{"garbage", garbageBytes(round), {}},
                  {"wrong type", std::string("yesterday"), {}},
                  {"empty", std::string(), {}},
                  {"16 MiB", std::string(kHugeSize, '9'), {}}});
    }
    report("vendor consents lastupdate");
}

// Each of the three records in turn: the other two are still resent.
TEST_F(CorruptStateTest, OfflineCacheRecords) {
    for (int round = 0; round < rounds(); ++round) {
        for (std::size_t i = 0; i < golden_.recordKeys.size(); ++i) {
            const std::string& key = golden_.recordKeys[i];
            const std::vector<std::string> logged{"Failed to load cache: ", "(record " + key + " removed)"};
            runTable("offline cache record " + std::to_string(i + 1), key,
                     {{"garbage", garbageBytes(round * 3 + i), logged},
                      {"wrong type", platform::toBytes(R"([{"type":"dataSubmission"}])"), logged},
                      {"empty", Bytes{}, logged},
                      {"16 MiB", hugeJsonString(), logged}});
        }
    }
    report("offline cache records");
}

TEST_F(CorruptStateTest, DatabaseFile) {
    const auto file = [](const fs::path& data) { return data / platform::SqliteKeyValueStore::kFileName; };
    const std::vector<std::string> movedAside{"is not a usable database", "moved the unusable file to"};
    for (int round = 0; round < rounds(); ++round) {
        {  // Cut in half, as by a full disk or a copy that stopped.
            const fs::path data = freshCopy();
            const auto size = fs::file_size(file(data));
            fs::resize_file(file(data), size / 2);
            verify(secondLaunch("database truncated", data), "", Previous::gone, movedAside);
        }
        {  // Same size, every byte zero.
            const fs::path data = freshCopy();
            const auto size = fs::file_size(file(data));
            {
                std::ofstream out(file(data), std::ios::binary | std::ios::trunc);
                out << std::string(size, '\0');
            }
            verify(secondLaunch("database zeroed", data), "", Previous::gone, movedAside);
            // The bad file is kept beside the fresh one, for whoever wants to look.
            int keptAside = 0;
            for (const auto& entry : fs::directory_iterator(data))
                keptAside += entry.path().filename().string().starts_with("tavrin.sqlite.corrupt-") &&
                             fs::file_size(entry.path()) == size;
            EXPECT_EQ(keptAside, 1);
        }
        {  // Someone else's directory in its place: left alone, values live in memory.
            const fs::path data = freshCopy();
            for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(fs::path(file(data).string() + suffix));
            fs::create_directory(file(data));
            std::ofstream(file(data) / "theirs.txt") << "not yours";
            const auto launch = secondLaunch("database replaced by a directory", data);
            ++tally_.cases;
            if (launch.crashed()) ++tally_.crashes;
            EXPECT_EQ(launch.status, 0) << launch.log.substr(0, 20000);
            EXPECT_NE(launch.log.find("values are kept in memory for this run only"), std::string::npos) << launch.log;
            EXPECT_EQ(readFile(file(data) / "theirs.txt"), "not yours");
            // Working all the same, from an empty store.
            int submitted = 0, reports = 0;
            for (const auto& request : launch.requests) {
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
        {  // Read-only: modes for an ordinary user, a read-only mount for root.
            const fs::path data = freshCopy();
            for (const auto& entry : fs::directory_iterator(data)) fs::permissions(entry.path(), fs::perms(0444));
            fs::permissions(data, fs::perms(0555));
            const bool root = ::geteuid() == 0;
            const auto launch = secondLaunch("database read-only", data, false, root);
            fs::permissions(data, fs::perms(0755));
            for (const auto& entry : fs::directory_iterator(data)) fs::permissions(entry.path(), fs::perms(0644));
            if (launch.status == kCannotMountReadOnly) {
                std::printf("read-only database case skipped: no private read-only mount (needs root and mount namespaces)\n");
                continue;
            }
            verify(launch, "", Previous::readOnly, {"writes will fail"});
        }
    }
    report("database file");
}

// Run as one process (not one per test), the scenarios also print their sum.
class TotalFigure : public ::testing::Environment {
public:
    void TearDown() override {
        const auto& tally = processTally();
        if (tally.tests > 1)
            std::printf("FIGURE corrupt state, all: %d cases, %d crashes or hangs, %d cases in which an intact value was lost\n",
                        tally.cases, tally.crashes, tally.lost);
    }
};
const auto* const totalFigure = ::testing::AddGlobalTestEnvironment(new TotalFigure);

}  // namespace
}  // namespace tavrin::testing
