#include <gtest/gtest.h>

#include <tuple>

#include "tavrin/consent/internal/consent_id_utility.h"
#include "tavrin/consent/internal/user_id_utility.h"
#include "tavrin/consent/internal/vendor_consents_utility.h"
#include "tavrin/platform/clock.h"
#include "tavrin/platform/internal/pattern.h"
#include "tests/consent/store_fixture.h"
#include "tests/support/child_process.h"

namespace tavrin {
namespace {

using testing::StoreTest;

const platform::Pattern kUserIDPattern("^[0-9]{1,5}[0-9]{13}[0-9]{1,5}$");
const VendorConsents kDecision{{"x", ConsentStatus::allow}, {"y", ConsentStatus::deny}, {"z", ConsentStatus::ncm}};
const VendorValues kDecisionValues{
    {"x", VendorValue::boolean(true)}, {"y", VendorValue::boolean(false)}, {"z", VendorValue::string("ncm")}};

using UserIDUtilityTest = StoreTest;
using VendorConsentsUtilityTest = StoreTest;

// First random part, the time in milliseconds, second random part.
TEST_F(UserIDUtilityTest, GeneratedIDJoinsTwoDrawsAroundTheMillisecondTime) {
    platform::Clock::setFixed(1731667200.123);
    // Six-digit parts are kept; both at 100000 make 25 digits, too long for the pattern.
    for (const auto& [first, second, id, matches] :
         std::vector<std::tuple<std::int64_t, std::int64_t, std::string, bool>>{
             {482, 77, "482173166720012377", true},
             {0, 0, "017316672001230", true},
             {100000, 100000, "1000001731667200123100000", false}}) {
        std::vector<std::pair<std::int64_t, std::int64_t>> ranges;
        const auto generated = UserIDUtility::generateUserID([&](std::int64_t low, std::int64_t high) {
            ranges.emplace_back(low, high);
            return ranges.size() == 1 ? first : second;
        });
        EXPECT_EQ(generated, id);
        EXPECT_EQ(kUserIDPattern.matches(generated), matches) << generated;
        EXPECT_EQ(ranges, (std::vector<std::pair<std::int64_t, std::int64_t>>{{0, 100000}, {0, 100000}}));
    }
    platform::Clock::reset();
}

TEST_F(VendorConsentsUtilityTest, UnencodableDecisionLeavesTheStoredOne) {
    VendorConsentsUtility utility;
    utility.storeVendorConsents({{"x", ConsentStatus::allow}});
    log.sink->clear();
    utility.storeVendorConsents({{"bad\xff", ConsentStatus::deny}});
    const auto errors = log.sink->messages(platform::LogType::error);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(errors[0].starts_with("Failed to store Vendor Consents. Encoding error: ")) << errors[0];
    UserDefaultsUtility::resetCacheForTesting();
    EXPECT_EQ(utility.retrieveVendorConsents(), (VendorValues{{"x", VendorValue::boolean(true)}}));
}

// What a first launch writes, read back by the next process from the file.
TEST_F(VendorConsentsUtilityTest, NextProcessReadsWhatAFirstLaunchStored) {
    platform::Clock::setFixed(1731667200.123);
    ASSERT_EQ(testing::inChild([] {
                  UserIDUtility().storeUserID(UserIDUtility::generateUserID());
                  ConsentIDUtility("shop-app").storeConsentID("5d3e4f4a-0000-4000-8000-000000000001");
                  VendorConsentsUtility().storeVendorConsents(kDecision);
                  UserDefaultsUtility::setInt(1731667200123, "VendorConsents_lastupdate");
                  return std::string("done");
              }),
              "done");
    forgetProcessState();
    const auto userID = UserIDUtility().retrieveUserID();
    ASSERT_TRUE(userID);
    EXPECT_TRUE(kUserIDPattern.matches(*userID)) << *userID;
    EXPECT_EQ(ConsentIDUtility("shop-app").retrieveConsentID(), "5d3e4f4a-0000-4000-8000-000000000001");
    EXPECT_EQ(VendorConsentsUtility().retrieveVendorConsents(), kDecisionValues);
    // The stored forms, which other versions read too.
    auto file = openFile();
    EXPECT_EQ(file->string("global_user_id"), userID);
    EXPECT_EQ(file->string("shop-app_consentID"), "5d3e4f4a-0000-4000-8000-000000000001");
    EXPECT_EQ(file->integer("VendorConsents_lastupdate"), 1731667200123);
    EXPECT_EQ(platform::toString(file->data("VendorConsents").value_or(Bytes{})),
              "\"" + platform::base64Encode(R"({"x":"allow","y":"deny","z":"ncm"})") + "\"");
    platform::Clock::reset();
}

}  // namespace
}  // namespace tavrin
