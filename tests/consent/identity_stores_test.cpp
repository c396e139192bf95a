#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <regex>
#include <tuple>
#include <utility>
#include <vector>

#include "tavrin/consent/internal/consent_id_utility.h"
#include "tavrin/consent/internal/user_id_utility.h"
#include "tavrin/consent/internal/vendor_consents_utility.h"
#include "tavrin/platform/clock.h"
#include "tavrin/platform/internal/pattern.h"
#include "tests/consent/store_fixture.h"
#include "tests/support/child_process.h"

namespace tavrin {
namespace {

using testing::fullConfig;
using testing::StoreTest;
using Lines = std::vector<std::string>;

const platform::Pattern kUserIDPattern("^[0-9]{1,5}[0-9]{13}[0-9]{1,5}$");
const VendorConsents kDecision{{"x", ConsentStatus::allow}, {"y", ConsentStatus::deny}, {"z", ConsentStatus::ncm}};
const VendorValues kDecisionValues{
    {"x", VendorValue::boolean(true)}, {"y", VendorValue::boolean(false)}, {"z", VendorValue::string("ncm")}};

// Each identifier under its own key, with the exact log lines; consent IDs per container.
TEST_F(StoreTest, IdentifiersAbsentThenStoredAndRetrievedUnderTheirKeys) {
    UserIDUtility user;
    ConsentIDUtility a("a"), b("b");
    const std::vector<std::tuple<std::function<void(const std::string&)>, std::function<std::optional<std::string>()>,
                                 std::string, std::string>>
        cases{{[&](const std::string& id) { user.storeUserID(id); }, [&] { return user.retrieveUserID(); },
               "global_user_id", "User ID"},
              {[&](const std::string& id) { a.storeConsentID(id); }, [&] { return a.retrieveConsentID(); },
               "a_consentID", "Consent ID"},
              {[&](const std::string& id) { b.storeConsentID(id); }, [&] { return b.retrieveConsentID(); },
               "b_consentID", "Consent ID"}};
    for (const auto& [store, retrieve, key, noun] : cases) {
        log.sink->clear();
        EXPECT_EQ(retrieve(), std::nullopt);
        store("id in " + key);
        EXPECT_EQ(retrieve(), "id in " + key);
        EXPECT_EQ(openFile()->string(key), "id in " + key);
        // The warning goes out as an error line.
        EXPECT_EQ(log.sink->messages(platform::LogType::error),
                  Lines{"No " + noun + " found in UserDefaults with key " + key + "."});
        EXPECT_EQ(log.sink->messages(platform::LogType::info),
                  (Lines{noun + " successfully stored in UserDefaults with key: " + key + ".",
                         noun + " successfully retrieved from UserDefaults with key: " + key + "."}));
    }
    EXPECT_EQ(a.retrieveConsentID(), "id in a_consentID");

    // Without a container the configured one is used.
    TrackingSettings::configure(fullConfig("shop-app"));
    EXPECT_EQ(ConsentIDUtility().consentIDKey, "shop-app_consentID");
    TrackingSettings::configure(fullConfig("other"));
    EXPECT_EQ(ConsentIDUtility().consentIDKey, "other_consentID");
}

class UserIDGenerator : public ::testing::Test {
protected:
    void TearDown() override { platform::Clock::reset(); }
};

TEST_F(UserIDGenerator, FirstRandomThenMillisecondsThenSecondRandomAndPatternBoundaries) {
    platform::Clock::setFixed(1731667200.123);
    // Six-digit parts are kept; both at 100000 make 25 digits, too long for the pattern.
    const std::vector<std::tuple<std::int64_t, std::int64_t, std::string, bool>> cases{
        {482, 77, "482173166720012377", true},
        {0, 0, "017316672001230", true},
        {100000, 5, "10000017316672001235", true},
        {100000, 100000, "1000001731667200123100000", false}};
    for (const auto& [first, second, id, matches] : cases) {
        std::vector<std::pair<std::int64_t, std::int64_t>> ranges;
        const auto generated = UserIDUtility::generateUserID([&](std::int64_t low, std::int64_t high) {
            ranges.emplace_back(low, high);
            return ranges.size() == 1 ? first : second;
        });
        EXPECT_EQ(generated, id);
        EXPECT_EQ(kUserIDPattern.matches(generated), matches) << generated;
        EXPECT_EQ(ranges, (std::vector<std::pair<std::int64_t, std::int64_t>>{{0, 100000}, {0, 100000}}));
    }
}

TEST_F(UserIDGenerator, SecureRandomIDsAreDigitsAroundTheMillisecondTime) {
    platform::Clock::setFixed(1731667200.5);
    // Each random part is 0...100000 without leading zeros: 15 to 25 digits in all.
    const std::regex composed("(0|[1-9][0-9]{0,4}|100000)1731667200500(0|[1-9][0-9]{0,4}|100000)");
    for (int i = 0; i < 200; ++i) {
        const auto id = UserIDUtility::generateUserID();
        ASSERT_TRUE(std::regex_match(id, composed)) << id;
    }
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    platform::Clock::setFixed(std::nan(""));
    EXPECT_DEATH(UserIDUtility::generateUserID(), "Timestamp in milliseconds cannot be converted to a 64-bit integer");
}

// The stored form and a read from the file are checked across processes below.
TEST_F(StoreTest, VendorConsentsStoresAndReadsBackAsVendorValues) {
    VendorConsentsUtility utility;
    utility.storeVendorConsents(kDecision);
    EXPECT_EQ(utility.retrieveVendorConsents(), kDecisionValues);
    EXPECT_EQ(log.sink->messages(platform::LogType::info),
              (Lines{"Vendor consents successfully stored in UserDefaults with key: VendorConsents.",
                     "Vendor consents successfully retrieved from UserDefaults with key: VendorConsents."}));
    EXPECT_EQ(log.sink->messages(platform::LogType::debug),
              Lines{R"(Stored Vendor Consents (Raw JSON): {"x":"allow","y":"deny","z":"ncm"})"});
}

// Whatever is stored and unreadable is named first; the closing warning is
// the one a fresh install gets.
TEST_F(StoreTest, VendorConsentsAnyOtherStoredFormReadsAsAbsentWithTheWarning) {
    auto store = countReads();
    VendorConsentsUtility utility;
    const std::string named = "Vendor consents: the value stored under key VendorConsents ";
    const std::vector<std::pair<std::optional<platform::KeyValueStore::Value>, std::string>> forms{
        {std::nullopt, ""},                                                                       // nothing
        {platform::toBytes(R"({"x":"allow"})"), "could not be decoded ("},                        // plain JSON
        {platform::toBytes("\"" + platform::base64Encode(R"({"x":"maybe"})") + "\""), "could not be decoded ("},
        {platform::toBytes("\"" + platform::base64Encode(R"(["allow"])") + "\""), "could not be decoded ("},
        {platform::toBytes("\"" + platform::base64Encode("not json") + "\""), "could not be decoded ("},
        {std::string(R"({"x":"allow"})"), "is text, not data; they are ignored."},
        {std::int64_t{1}, "is an integer, not data; they are ignored."}};
    for (const auto& [form, why] : forms) {
        form ? store->inner().set("VendorConsents", *form) : store->inner().remove("VendorConsents");
        UserDefaultsUtility::resetCacheForTesting();
        log.sink->clear();
        EXPECT_EQ(utility.retrieveVendorConsents(), std::nullopt);
        auto lines = log.sink->messages(platform::LogType::error);
        ASSERT_EQ(lines.size(), why.empty() ? 1u : 2u) << why;
        EXPECT_EQ(lines.back(), "No vendor consents found in UserDefaults with key VendorConsents.");
        if (!why.empty()) {
            EXPECT_EQ(lines.front().rfind(named + why, 0), 0u) << lines.front();
        }
        EXPECT_EQ(log.sink->records().size(), lines.size());
    }
}

TEST_F(StoreTest, VendorConsentsUnencodableDecisionIsLoggedAndLeavesTheStoredOne) {
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

TEST_F(StoreTest, AcrossProcessesWhatOneProcessWritesTheNextReadsFromTheFile) {
    platform::Clock::setFixed(1731667200.123);
    // The child starts without an open store or cached values and writes
    // everything a first launch would.
    const auto childReport = testing::inChild([] {
        UserIDUtility().storeUserID(UserIDUtility::generateUserID());
        ConsentIDUtility("shop-app").storeConsentID("5d3e4f4a-0000-4000-8000-000000000001");
        VendorConsentsUtility().storeVendorConsents(kDecision);
        UserDefaultsUtility::setInt(1731667200123, "VendorConsents_lastupdate");
        TrackingSettings::configure(fullConfig());
        return std::string("done");
    });
    ASSERT_EQ(childReport, "done");

    forgetProcessState();
    const auto userID = UserIDUtility().retrieveUserID();
    ASSERT_TRUE(userID);
    EXPECT_TRUE(kUserIDPattern.matches(*userID)) << *userID;
    EXPECT_NE(userID->find("1731667200123"), std::string::npos) << *userID;
    EXPECT_EQ(ConsentIDUtility("shop-app").retrieveConsentID(), "5d3e4f4a-0000-4000-8000-000000000001");
    EXPECT_EQ(VendorConsentsUtility().retrieveVendorConsents(), kDecisionValues);
    TrackingSettings::loadConfigFromUserDefaults();
    EXPECT_EQ(TrackingSettings::shared()->config(), fullConfig());

    // The stored forms themselves.
    auto file = openFile();
    EXPECT_EQ(file->string("global_user_id"), userID);
    EXPECT_EQ(file->integer("VendorConsents_lastupdate"), 1731667200123);
    EXPECT_EQ(platform::toString(file->data("VendorConsents").value_or(Bytes{})),
              "\"" + platform::base64Encode(R"({"x":"allow","y":"deny","z":"ncm"})") + "\"");
    EXPECT_EQ(platform::toString(file->data("com.tavrin.TrackingSettings").value_or(Bytes{})),
              encodeJsonText(fullConfig()));
    platform::Clock::reset();
}

}  // namespace
}  // namespace tavrin
