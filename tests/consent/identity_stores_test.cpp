#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include "tavrin/consent/consent_id_utility.h"
#include "tavrin/consent/user_id_utility.h"
#include "tavrin/consent/vendor_consents_utility.h"
#include "tavrin/platform/clock.h"
#include "tavrin/platform/pattern.h"
#include "tests/consent/store_fixture.h"

namespace tavrin {
namespace {

using testing::StoreTest;

const platform::Pattern kUserIDPattern("^[0-9]{1,5}[0-9]{13}[0-9]{1,5}$");

TrackConfig configFor(const std::string& container) {
    return TrackConfig{.trackDomain = "collect.example.com",
                       .container = container,
                       .environment = TrackConfig::Environment::stage,
                       .version = "3",
                       .debugCode = std::nullopt,
                       .sessionTimeoutInSeconds = 900,
                       .authorizationToken = "token",
                       .customProtocol = std::nullopt,
                       .enableOfflineTracking = true,
                       .offlineTrackingTimeout = 86400};
}

// A random part as the generator writes it: 0...100000 without leading zeros.
bool isRandomPart(const std::string& text) {
    if (text.empty() || text.size() > 6 || (text.size() > 1 && text[0] == '0')) return false;
    for (char c : text)
        if (c < '0' || c > '9') return false;
    return std::stoll(text) <= 100000;
}

using UserIDStore = StoreTest;

TEST_F(UserIDStore, FreshInstallHasNoUserIDAndWarns) {
    UserIDUtility utility;
    EXPECT_EQ(utility.userIDKey, "global_user_id");
    EXPECT_EQ(utility.retrieveUserID(), std::nullopt);
    EXPECT_EQ(log.sink->messages(platform::LogType::error),
              std::vector<std::string>{"No User ID found in UserDefaults with key global_user_id."});
}

TEST_F(UserIDStore, StoredIDComesBackFromTheCacheWithoutAStoreRead) {
    auto store = countReads();
    UserIDUtility utility;
    utility.storeUserID("123");
    EXPECT_EQ(utility.retrieveUserID(), "123");
    EXPECT_EQ(store->reads, 0);
    EXPECT_EQ(openFile()->string("global_user_id"), "123");
    EXPECT_EQ(log.sink->messages(platform::LogType::info),
              (std::vector<std::string>{"User ID successfully stored in UserDefaults with key: global_user_id.",
                                        "User ID successfully retrieved from UserDefaults with key: global_user_id."}));
}

class UserIDGenerator : public ::testing::Test {
protected:
    void TearDown() override { platform::Clock::reset(); }
};

TEST_F(UserIDGenerator, ComposesFirstRandomThenMillisecondsThenSecondRandom) {
    platform::Clock::setFixed(1731667200.1239);
    std::vector<std::pair<std::int64_t, std::int64_t>> ranges;
    std::vector<std::int64_t> results{482, 77};
    auto draw = [&](std::int64_t low, std::int64_t high) {
        ranges.emplace_back(low, high);
        auto next = results.front();
        results.erase(results.begin());
        return next;
    };
    EXPECT_EQ(UserIDUtility::generateUserID(draw), "482173166720012377");
    EXPECT_EQ(ranges, (std::vector<std::pair<std::int64_t, std::int64_t>>{{0, 100000}, {0, 100000}}));
}

TEST_F(UserIDGenerator, PatternBoundaries) {
    platform::Clock::setFixed(1731667200.123);
    auto constant = [](std::int64_t value) { return [value](std::int64_t, std::int64_t) { return value; }; };

    const auto smallest = UserIDUtility::generateUserID(constant(0));
    EXPECT_EQ(smallest, "017316672001230");
    EXPECT_TRUE(kUserIDPattern.matches(smallest));

    // Six-digit parts are kept; both at 100000 make 25 digits, too long for the pattern.
    const auto largest = UserIDUtility::generateUserID(constant(100000));
    EXPECT_EQ(largest, "1000001731667200123100000");
    EXPECT_EQ(largest.size(), 25u);
    EXPECT_FALSE(kUserIDPattern.matches(largest));

    // One six-digit part still fits within 23 digits.
    std::vector<std::int64_t> parts{100000, 5};
    auto mixed = [&](std::int64_t, std::int64_t) {
        auto v = parts.front();
        parts.erase(parts.begin());
        return v;
    };
    const auto oneSix = UserIDUtility::generateUserID(mixed);
    EXPECT_EQ(oneSix, "10000017316672001235");
    EXPECT_TRUE(kUserIDPattern.matches(oneSix));
}

TEST_F(UserIDGenerator, SecureRandomIDsAreDigitsAroundTheMillisecondTime) {
    platform::Clock::setFixed(1731667200.5);
    const std::string millis = "1731667200500";
    for (int i = 0; i < 200; ++i) {
        const auto id = UserIDUtility::generateUserID();
        ASSERT_GE(id.size(), 15u) << id;
        ASSERT_LE(id.size(), 25u) << id;
        ASSERT_EQ(id.find_first_not_of("0123456789"), std::string::npos) << id;
        bool composed = false;
        for (std::size_t at = 1; at <= 6 && !composed; ++at)
            composed = id.compare(at, millis.size(), millis) == 0 && isRandomPart(id.substr(0, at)) &&
                       isRandomPart(id.substr(at + millis.size()));
        ASSERT_TRUE(composed) << id;
    }
}

TEST_F(UserIDGenerator, UnrepresentableClockIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (double now : {std::nan(""), HUGE_VAL, -HUGE_VAL, 9.3e15, -9.3e15}) {
        EXPECT_DEATH(
            {
                platform::Clock::setFixed(now);
                UserIDUtility::generateUserID();
            },
            "Timestamp in milliseconds cannot be converted to a 64-bit integer")
            << now;
    }
}

using ConsentIDStore = StoreTest;

TEST_F(ConsentIDStore, KeptPerContainer) {
    ConsentIDUtility a("a");
    ConsentIDUtility b("b");
    EXPECT_EQ(a.consentIDKey, "a_consentID");
    EXPECT_EQ(b.consentIDKey, "b_consentID");
    a.storeConsentID("consent-a");
    EXPECT_EQ(b.retrieveConsentID(), std::nullopt);
    b.storeConsentID("consent-b");
    EXPECT_EQ(a.retrieveConsentID(), "consent-a");
    EXPECT_EQ(b.retrieveConsentID(), "consent-b");
    EXPECT_EQ(openFile()->string("a_consentID"), "consent-a");
    EXPECT_EQ(openFile()->string("b_consentID"), "consent-b");

    const auto info = log.sink->messages(platform::LogType::info);
    EXPECT_EQ(info.front(), "Consent ID successfully stored in UserDefaults with key: a_consentID.");
    EXPECT_EQ(info.back(), "Consent ID successfully retrieved from UserDefaults with key: b_consentID.");
    EXPECT_EQ(log.sink->messages(platform::LogType::error),
              std::vector<std::string>{"No Consent ID found in UserDefaults with key b_consentID."});
}

TEST_F(ConsentIDStore, DefaultKeyFollowsTheActiveConfiguration) {
    TrackingSettings::configure(configFor("shop-app"));
    EXPECT_EQ(ConsentIDUtility().consentIDKey, "shop-app_consentID");
    TrackingSettings::configure(configFor("other"));
    EXPECT_EQ(ConsentIDUtility().consentIDKey, "other_consentID");
}

using VendorConsentsStore = StoreTest;

TEST_F(VendorConsentsStore, StoresDoublyEncodedAndReadsBackAsVendorValues) {
    VendorConsentsUtility utility;
    EXPECT_EQ(utility.vendorConsentsKey, "VendorConsents");
    utility.storeVendorConsents({{"x", ConsentStatus::allow}, {"y", ConsentStatus::deny}, {"z", ConsentStatus::ncm}});

    // The row is data: a JSON string holding the base64 of the JSON object of statuses.
    const auto raw = openFile()->data("VendorConsents");
    ASSERT_TRUE(raw);
    const Json outer = Json::parse(platform::toString(*raw));
    ASSERT_TRUE(outer.is_string());
    const auto inner = platform::base64Decode(outer.get<std::string>());
    ASSERT_TRUE(inner);
    EXPECT_EQ(Json::parse(platform::toString(*inner)), Json::parse(R"({"x":"allow","y":"deny","z":"ncm"})"));

    const VendorValues expected{{"x", VendorValue::boolean(true)},
                                {"y", VendorValue::boolean(false)},
                                {"z", VendorValue::string("ncm")}};
    EXPECT_EQ(utility.retrieveVendorConsents(), expected);
    UserDefaultsUtility::resetCacheForTesting();
    EXPECT_EQ(utility.retrieveVendorConsents(), expected);

    EXPECT_EQ(log.sink->messages(platform::LogType::info),
              (std::vector<std::string>{
                  "Vendor consents successfully stored in UserDefaults with key: VendorConsents.",
                  "Vendor consents successfully retrieved from UserDefaults with key: VendorConsents.",
                  "Vendor consents successfully retrieved from UserDefaults with key: VendorConsents."}));
    EXPECT_EQ(log.sink->messages(platform::LogType::debug),
              std::vector<std::string>{R"(Stored Vendor Consents (Raw JSON): {"x":"allow","y":"deny","z":"ncm"})"});
}

TEST_F(VendorConsentsStore, AnyOtherStoredFormReadsAsAbsentWithTheWarning) {
    auto store = countReads();
    VendorConsentsUtility utility;
    const std::string warning = "No vendor consents found in UserDefaults with key VendorConsents.";
    const std::vector<platform::KeyValueStore::Value> forms{
        platform::toBytes(R"({"x":"allow"})"),                                         // plain JSON
        platform::toBytes("\"" + platform::base64Encode(R"({"x":"maybe"})") + "\""),  // unknown status
        platform::toBytes("\"" + platform::base64Encode(R"(["allow"])") + "\""),      // not an object
        platform::toBytes("\"" + platform::base64Encode("not json") + "\""),
        std::string(R"({"x":"allow"})"),  // text instead of data
        std::int64_t{1}};
    for (const auto& form : forms) {
        store->inner().set("VendorConsents", form);
        UserDefaultsUtility::resetCacheForTesting();
        log.sink->clear();
        EXPECT_EQ(utility.retrieveVendorConsents(), std::nullopt);
        EXPECT_EQ(log.sink->messages(), std::vector<std::string>{warning});
    }
    store->inner().remove("VendorConsents");
    EXPECT_EQ(utility.retrieveVendorConsents(), std::nullopt);
}

TEST_F(VendorConsentsStore, UnencodableDecisionIsLoggedAndLeavesTheStoredOne) {
    VendorConsentsUtility utility;
    utility.storeVendorConsents({{"x", ConsentStatus::allow}});
    log.sink->clear();
    utility.storeVendorConsents({{"bad\xff", ConsentStatus::deny}});
    const auto errors = log.sink->messages(platform::LogType::error);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].rfind("Failed to store Vendor Consents. Encoding error: ", 0), 0u) << errors[0];
    EXPECT_TRUE(log.sink->messages(platform::LogType::info).empty());
    UserDefaultsUtility::resetCacheForTesting();
    EXPECT_EQ(utility.retrieveVendorConsents(), (VendorValues{{"x", VendorValue::boolean(true)}}));
}

using StoresAcrossProcesses = StoreTest;

TEST_F(StoresAcrossProcesses, WhatOneProcessWritesTheNextReadsFromTheFile) {
    platform::Clock::setFixed(1731667200.123);
    const TrackConfig config = configFor("shop-app");

    // The child starts without an open store or cached values and writes
    // everything a first launch would.
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        UserIDUtility users;
        users.storeUserID(UserIDUtility::generateUserID());
        ConsentIDUtility("shop-app").storeConsentID("5d3e4f4a-0000-4000-8000-000000000001");
        VendorConsentsUtility().storeVendorConsents(
            {{"x", ConsentStatus::allow}, {"y", ConsentStatus::deny}, {"z", ConsentStatus::ncm}});
        UserDefaultsUtility::setInt(1731667200123, "VendorConsents_lastupdate");
        TrackingSettings::configure(config);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);

    forgetProcessState();
    const auto userID = UserIDUtility().retrieveUserID();
    ASSERT_TRUE(userID);
    EXPECT_TRUE(kUserIDPattern.matches(*userID)) << *userID;
    EXPECT_NE(userID->find("1731667200123"), std::string::npos) << *userID;
    EXPECT_EQ(ConsentIDUtility("shop-app").retrieveConsentID(), "5d3e4f4a-0000-4000-8000-000000000001");
    EXPECT_EQ(VendorConsentsUtility().retrieveVendorConsents(), (VendorValues{{"x", VendorValue::boolean(true)},
                                                                              {"y", VendorValue::boolean(false)},
                                                                              {"z", VendorValue::string("ncm")}}));
    TrackingSettings::loadConfigFromUserDefaults();
    EXPECT_EQ(TrackingSettings::shared()->config(), config);

    // The stored forms themselves.
    auto file = openFile();
    EXPECT_EQ(file->integer("VendorConsents_lastupdate"), 1731667200123);
    const auto vendors = file->data("VendorConsents");
    ASSERT_TRUE(vendors);
    EXPECT_EQ(platform::toString(*vendors),
              "\"" + platform::base64Encode(R"({"x":"allow","y":"deny","z":"ncm"})") + "\"");
    const auto settings = file->data("com.tavrin.TrackingSettings");
    ASSERT_TRUE(settings);
    EXPECT_EQ(Json::parse(platform::toString(*settings)), encodeJson(config));
    platform::Clock::reset();
}

}  // namespace
}  // namespace tavrin
