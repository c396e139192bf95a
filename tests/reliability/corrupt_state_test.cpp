// Corrupt and foreign state between two launches. A first launch, offline,
// leaves every persisted value behind (settings, user and consent ids, vendor
// consents and their lastupdate, three offline cache records). Then one value,
// or the database file itself, is broken. A second launch, online, must end
// normally, say in its log what was wrong, keep working, and keep every value
// that was not the broken one.

#include <unistd.h>

#include <fstream>
#include <random>

#include "tavrin/consent/internal/consent_status_coding.h"
#include "tavrin/platform/internal/pattern.h"
#include "tavrin/platform/linux/sqlite_key_value_store.h"
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

// Hands every record (long ones cut) to the parent at once: it sees what a launch logged until it died.
class LaunchLogSink final : public platform::LogSink {
public:
    bool isEnabled(platform::LogType) const override { return true; }
    void write(const platform::LogRecord& record) override {
        std::string line = record.message.substr(0, 2000);
        std::replace(line.begin(), line.end(), '\n', ' ');
        report(line);
        // Records arrive from several threads at once: only ever set, never read-modify-write.
        if (line.starts_with("Cached requests successfully resent")) walkFinished = true;
    }
    std::atomic<bool> walkFinished{false};
};

// A launch after its start-up walk: the first, offline, caches two submissions and a consent decision;
// the second, online, submits and gives consent. Failures are logged for the parent to judge: only a
// crash or a hang ends a launch abnormally.
TEST(CorruptStateChild, Launch) {
    if (env("TAVRIN_CORRUPT_ROLE").empty()) GTEST_SKIP() << "runs only as a child of the corrupt-state tests";
    const bool first = env("TAVRIN_CORRUPT_ROLE") == "first";
    auto sink = std::make_shared<LaunchLogSink>();
    platform::SystemLog::setSink(sink);
    platform::KeyValueStore::setDataDirectory(env("TAVRIN_CORRUPT_DIR"));
    platform::PathMonitor::setFactory([first]() -> std::shared_ptr<platform::PathMonitor> {
        return std::make_shared<ScriptedPathMonitor>(first ? platform::PathStatus::unsatisfied
                                                           : platform::PathStatus::satisfied);
    });
    if (env("TAVRIN_CORRUPT_LOAD_SETTINGS") == "1") TrackingSettings::loadConfigFromUserDefaults();
    TavrinService::configure(trackConfig(env("TAVRIN_CORRUPT_DOMAIN")));
    auto& log = LoggerUtility::shared();
    if (!waitUntil([&] { return sink->walkFinished && OfflineCacheManager::shared()->isCurrentlyOffline() == first; },
                   60s))
        log.error("launch: the resend walk did not finish");
    try {
        for (const char* mark : first ? std::vector{"s1", "s2"} : std::vector{"c1"}) {
            TrackingService::shared()->push({{"track", "pageview"}, {"mark", mark}});
            TrackingService::shared()->submit().get();
        }
        const auto other = first ? VendorConsents::value_type{"vendorB", ConsentStatus::deny}
                                 : VendorConsents::value_type{"vendorC", ConsentStatus::ncm};
        if (!TrackingService::shared()->setConsents({{"vendorA", ConsentStatus::allow}, other}).get())
            log.error("launch: setConsents gave false");
    } catch (const std::exception& error) {
        log.error(std::string("launch: a call failed: ") + error.what());
    }
    TavrinService::shutdown(10s);
}

std::optional<VendorConsents> decodeVendorConsents(const std::optional<Value>& stored) {
    try {
        if (const auto* bytes = stored ? std::get_if<Bytes>(&*stored) : nullptr)
            return decodeJson<VendorConsents>(platform::toString(decodeJson<Bytes>(platform::toString(*bytes))));
    } catch (const DecodingError&) {
    }
    return std::nullopt;
}

bool wellFormedUserId(const PlainJson& id) {
    static const platform::Pattern pattern("^[0-9]{1,5}[0-9]{13}[0-9]{1,5}$");
    return id.is_string() && pattern.matches(id.get<std::string>());
}

std::string garbage(std::uint64_t seed) {
    std::mt19937_64 random(seed);
    std::string text(257, '\0');
    for (char& c : text) c = static_cast<char>(random() & 0xff);
    text[3] = '\xff';  // never valid UTF-8, whatever the draw
    return text;
}

// 16 MiB of one character; as a JSON string when quoted.
std::string huge(char c, bool quoted = false) {
    std::string text(std::size_t{16} << 20, c);
    if (quoted) text.front() = text.back() = '"';
    return text;
}

struct Launch {
    int status = 0;
    std::string log;
    std::vector<RecordedRequest> requests;
};

// What the second launch can read of the first launch's state.
enum class Previous { intact, readOnly, gone, inMemory };

class TavrinServiceCorruptStateTest : public ::testing::Test {
protected:
    void SetUp() override {
        const auto first = launch(root / "golden", "first");
        ASSERT_TRUE(first.status == 0 && first.log.find("launch: ") == std::string::npos)
            << "the first launch failed: " << first.log;
        ASSERT_TRUE(first.requests.empty())
            << "the first launch was to stay offline, yet sent " << first.requests[0].body;
        platform::SqliteKeyValueStore store(root / "golden" / platform::SqliteKeyValueStore::kFileName,
                                            {.readOnly = true});
        userId = store.string(kUserIdKey).value_or("");
        consentId = store.string(kConsentIdKey).value_or("");
        lastupdate = store.integer(kLastUpdateKey).value_or(0);
        for (const auto& entry : store.values(kRecordPrefix)) recordKeys.push_back(entry.first);
        ASSERT_TRUE(wellFormedUserId(userId) && consentId.size() == 36 && lastupdate > 0 && store.data(kSettingsKey) &&
                    decodeVendorConsents(store.value(kVendorKey)));
        ASSERT_EQ(recordKeys.size(), 3u);  // oldest first: s1, s2, the consent report
    }

    // A copy of the first launch's directory, with `key` (if any) set to `value`.
    fs::path freshCopy(const std::string& key = "", const Value& value = Value{}) {
        const fs::path data = root / ("case-" + std::to_string(++cases)) / "data";
        fs::create_directories(data);
        for (const auto& file : fs::directory_iterator(root / "golden"))
            fs::copy(file.path(), data / file.path().filename());
        EXPECT_TRUE(key.empty() ||
                    platform::SqliteKeyValueStore(data / platform::SqliteKeyValueStore::kFileName).set(key, value));
        return data;
    }

    Launch launch(const fs::path& data, const std::string& role, bool loadSettings = false,
                  bool readOnlyMount = false) {
        Launch out;
        const std::size_t before = server.requests().size();
        ChildProcess child("CorruptStateChild.Launch",
                           {"TAVRIN_CORRUPT_ROLE=" + role, "TAVRIN_CORRUPT_DIR=" + data.string(),
                            "TAVRIN_CORRUPT_DOMAIN=" + hostPort(server.port()),
                            std::string("TAVRIN_CORRUPT_LOAD_SETTINGS=") + (loadSettings ? "1" : "0")},
                           readOnlyMount ? std::optional(data) : std::nullopt);
        while (const auto line = child.readLine(120s)) out.log += *line + "\n";
        out.status = child.wait(10s);
        const auto all = server.requests();
        out.requests.assign(all.begin() + static_cast<std::ptrdiff_t>(before), all.end());
        return out;
    }

    // Checks a second launch on `data`, whose `broken` key (none: the file) was corrupted.
    void verify(const Launch& launch, const fs::path& data, const std::string& broken, Previous previous,
                const std::vector<std::string>& logged) {
        const std::string log = launch.log.substr(0, 20000);
        ASSERT_EQ(launch.status, 0) << "the launch did not end normally; its log:\n" << log;
        for (const auto& line : logged)
            EXPECT_NE(launch.log.find(line), std::string::npos) << "not logged: " << line << "\n" << log;
        EXPECT_EQ(launch.log.find("launch: "), std::string::npos) << log;

        // It keeps working: its submission and its consent report went out once.
        std::map<std::string, int> sent;  // by mark; consent reports as "report" (this launch's) or "first report"
        PlainJson submitted, report;
        for (const auto& request : launch.requests) {
            const auto body = PlainJson::parse(request.body, nullptr, false);
            if (request.path == "/monitor") continue;
            ASSERT_TRUE(body.is_object()) << "not a JSON object: " << request.body;
            const bool consent = body["data"].contains("consent");
            const std::string what = !consent ? body["data"]["variables"].value("mark", "")
                                     : body["data"]["consent"]["vendors"].contains("vendorC") ? "report"
                                                                                              : "first report";
            ++sent[what];
            if (what == "c1") submitted = body;
            if (what == "report") report = body;
        }
        EXPECT_EQ(sent["c1"], 1);
        ASSERT_EQ(sent["report"], 1) << log;

        // Every intact value of the first launch is used; a broken one replaced.
        const auto intact = [&](const std::string& key) {
            return (previous == Previous::intact || previous == Previous::readOnly) && broken != key;
        };
        const auto& user = submitted["data"]["identifier"]["user"];
        const auto& consent = report["data"]["identifier"]["consent"];
        const auto& changed = report["data"]["consent"]["vendorsChanged"];
        EXPECT_EQ(report["data"]["identifier"]["user"]["id"], user["id"]);
        if (intact(kUserIdKey))
            EXPECT_EQ(user, PlainJson({{"id", userId}, {"action", "update"}}));
        else
            EXPECT_TRUE(user["action"] == "new" && wellFormedUserId(user["id"])) << user;
        if (intact(kConsentIdKey))
            EXPECT_EQ(consent, PlainJson({{"id", consentId}, {"action", "update"}}));
        else
            EXPECT_TRUE(consent["action"] == "new" && consent["id"].get<std::string>().size() == 36) << consent;
        const bool vendors = intact(kVendorKey);
        EXPECT_EQ(submitted["consent"],
                  vendors ? PlainJson::parse(R"({"vendorA":{"status":true},"vendorB":{"status":false}})")
                          : PlainJson::object());
        EXPECT_EQ(changed, PlainJson::parse(vendors ? R"({"vendorC":"ncm"})" : R"({"vendorA":true,"vendorC":"ncm"})"));
        // Every record of the first launch but the broken one was resent, once.
        const std::string records[] = {"s1", "s2", "first report"};
        for (std::size_t i = 0; i < recordKeys.size(); ++i)
            EXPECT_EQ(sent[records[i]], intact(recordKeys[i]) ? 1 : 0) << "record " << recordKeys[i];

        // What it left for the next launch: what it used, or (read-only) all of the first launch's.
        if (previous == Previous::inMemory) return;
        platform::SqliteKeyValueStore store(data / platform::SqliteKeyValueStore::kFileName, {.readOnly = true});
        const bool written = previous != Previous::readOnly;
        EXPECT_EQ(store.string(kUserIdKey), written ? user["id"].get<std::string>() : userId);
        EXPECT_EQ(store.string(kConsentIdKey), written ? consent["id"].get<std::string>() : consentId);
        EXPECT_EQ(decodeVendorConsents(store.value(kVendorKey)),
                  (VendorConsents{{"vendorA", ConsentStatus::allow},
                                  written ? VendorConsents::value_type{"vendorC", ConsentStatus::ncm}
                                          : VendorConsents::value_type{"vendorB", ConsentStatus::deny}}));
        const auto stamp = store.integer(kLastUpdateKey);
        EXPECT_TRUE(written ? stamp >= lastupdate : stamp == lastupdate) << stamp.value_or(-1);
        EXPECT_EQ(store.values(kRecordPrefix).size(), written ? 0u : recordKeys.size())
            << "sent or broken records stay cached";
        const auto settings = store.data(kSettingsKey);
        EXPECT_TRUE(settings &&
                    decodeJson<TrackConfig>(platform::toString(*settings)).trackDomain == hostPort(server.port()));
    }

    void printTally(const std::string& what) {
        printFigure("corrupt state, " + what + ": " + std::to_string(cases) + " cases, " +
                    (HasFailure() ? "some failed" : "each launch ended normally and kept every intact value"));
    }

    TempDir root;
    LogCapture logs;
    LoopbackServer server;
    std::string userId, consentId;
    std::int64_t lastupdate = 0;
    std::vector<std::string> recordKeys;
    int cases = 0;
};

// Each value replaced by garbage, a value of the wrong type, an empty and a 16 MiB one.
TEST_F(TavrinServiceCorruptStateTest, BrokenStoredValueCostsOnlyThatValue) {
    struct Key {
        std::string key;
        bool text;  // stored as text, or as data
        Value wrongType;
        std::vector<std::string> logged, wrongTypeLogged = {};  // what the launch must say, each a part of one line
    };
    const std::string vendors = "stored under key VendorConsents could not be decoded";
    std::vector<Key> keys{
        {kSettingsKey,
         false,
         platform::toBytes(R"(["shop-app","live"])"),
         {"the value stored under key com.tavrin.TrackingSettings could not be decoded"}},
        {kUserIdKey,
         true,
         std::int64_t{482173166720012377},
         {"The User ID stored under key global_user_id is not well formed"},
         {"the value stored under key global_user_id is an integer, not text"}},
        {kConsentIdKey,
         true,
         platform::toBytes("7c9e6679-7425-40de-944b-e07fc1f90ae7"),
         {"The Consent ID stored under key shop-app_consentID is not usable"},
         {"the value stored under key shop-app_consentID is data, not text"}},
        // The statuses without their second encoding layer.
        {kVendorKey, false, platform::toBytes(R"({"vendorA":"allow","vendorB":"deny"})"), {vendors}},
        // Nothing reads the lastupdate back: the launch only replaces it.
        {kLastUpdateKey, true, std::string("yesterday"), {}},
    };
    // Each offline cache record in turn: the other two are still resent.
    for (const auto& record : recordKeys)
        keys.push_back({record,
                        false,
                        platform::toBytes(R"([{"type":"dataSubmission"}])"),
                        {"Failed to load cache: ", "(record " + record + " removed)"}});
    for (int round = 0; round < reliabilityScale(); ++round) {  // garbage differs per round
        for (const auto& k : keys) {
            const std::string garbled = garbage(round * 10 + cases), big = huge('7', !k.text);
            const std::pair<std::string, Value> values[] = {
                {"garbage", k.text ? Value(garbled) : Value(platform::toBytes(garbled))},
                {"wrong type", k.wrongType},
                {"empty", k.text ? Value(std::string()) : Value(Bytes{})},
                {"16 MiB", k.text ? Value(big) : Value(platform::toBytes(big))}};
            for (const auto& [name, value] : values) {
                SCOPED_TRACE(k.key + ", " + name);
                const fs::path data = freshCopy(k.key, value);
                const bool wrongType = name == "wrong type" && !k.wrongTypeLogged.empty();
                verify(launch(data, "second", k.key == kSettingsKey), data, k.key, Previous::intact,
                       wrongType ? k.wrongTypeLogged : k.logged);
            }
        }
    }
    printTally("stored values");
}

TEST_F(TavrinServiceCorruptStateTest, BrokenDatabaseFileLeavesTheSdkWorking) {
    const auto file = [](const fs::path& data) { return data / platform::SqliteKeyValueStore::kFileName; };
    const std::vector<std::string> movedAside{"is not a usable database", "moved the unusable file to"};
    struct Case {
        std::string name;
        std::function<void(const fs::path&)> breakIt;
        Previous previous;
        std::vector<std::string> logged;
    } table[] = {
        {"truncated, as by a full disk",
         [&](const fs::path& data) { fs::resize_file(file(data), fs::file_size(file(data)) / 2); }, Previous::gone,
         movedAside},
        {"zeroed",
         [&](const fs::path& data) {
             const std::string zeros(fs::file_size(file(data)), '\0');
             std::ofstream(file(data), std::ios::binary | std::ios::trunc) << zeros;
         },
         Previous::gone, movedAside},
        // Someone else's directory in its place: left alone, values live in memory.
        {"replaced by a directory",
         [&](const fs::path& data) {
             for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(fs::path(file(data).string() + suffix));
             fs::create_directory(file(data));
             std::ofstream(file(data) / "theirs.txt") << "not yours";
         },
         Previous::inMemory,
         {"values are kept in memory for this run only"}},
        // Modes for an ordinary user, a read-only mount for root (who ignores modes).
        {"read-only",
         [](const fs::path& data) {
             for (const auto& entry : fs::directory_iterator(data)) fs::permissions(entry.path(), fs::perms(0444));
             fs::permissions(data, fs::perms(0555));
         },
         Previous::readOnly,
         {"writes will fail"}},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        const fs::path data = freshCopy();
        row.breakIt(data);
        const auto second = launch(data, "second", false, row.previous == Previous::readOnly && ::geteuid() == 0);
        fs::permissions(data, fs::perms(0755));
        for (const auto& entry : fs::directory_iterator(data)) fs::permissions(entry.path(), fs::perms(0755));
        if (second.status == kCannotMountReadOnly)
            continue;  // no private read-only mount: needs root and mount namespaces
        verify(second, data, "", row.previous, row.logged);
        // The broken file is kept beside the fresh one, a foreign directory left as it was.
        int aside = 0;
        for (const auto& entry : fs::directory_iterator(data))
            aside += entry.path().filename().string().starts_with("tavrin.sqlite.corrupt-");
        EXPECT_EQ(aside > 0, row.previous == Previous::gone);
        EXPECT_EQ(fs::exists(file(data) / "theirs.txt"), row.previous == Previous::inMemory);
    }
    printTally("database file");
}

}  // namespace
}  // namespace tavrin::testing
