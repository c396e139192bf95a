// Consent decisions made one after the other without waiting are applied in
// call order: each diff is against the decision before it, one consent id is
// made, and the decision stored at the end is the last call's.

#include <map>

#include "tavrin/consent/internal/vendor_consents_utility.h"
#include "tests/end_to_end/end_to_end_fixture.h"

namespace tavrin::testing {
namespace {

using ConsentOrderTest = EndToEndTest;

TEST_F(ConsentOrderTest, DecisionsMadeWithoutWaitingAreAppliedInCallOrder) {
    auto tracking = start();
    constexpr int kCalls = 24;
    const auto flip = [](int call) { return call % 2 ? ConsentStatus::deny : ConsentStatus::allow; };
    std::vector<std::future<bool>> results;
    for (int call = 0; call < kCalls; ++call)
        results.push_back(
            tracking->setConsents({{"call" + std::to_string(call), ConsentStatus::allow}, {"flip", flip(call)}}));
    for (auto& result : results) EXPECT_TRUE(result.get());

    // Each report is known by its own vendor: the collector may see them in any order.
    std::map<int, PlainJson> byCall;
    for (auto& report : consentReports())
        for (const auto& vendor : report["data"]["consent"]["vendors"].items())
            if (vendor.key() != "flip") byCall[std::stoi(vendor.key().substr(4))] = report["data"];
    ASSERT_EQ(byCall.size(), static_cast<std::size_t>(kCalls));
    const auto consentId = byCall[0]["identifier"]["consent"]["id"];
    for (int call = 0; call < kCalls; ++call) {
        const auto& data = byCall[call];
        const std::string action = call == 0 ? "new" : "update";
        EXPECT_EQ(data["identifier"]["consent"], PlainJson({{"id", consentId}, {"action", action}})) << call;
        EXPECT_EQ(data["identifier"]["user"]["action"], action) << call;
        // Against the call before: its own vendor is new and "flip" changed; the
        // previous call's vendor, dropped, is not reported.
        EXPECT_EQ(data["consent"]["vendorsChanged"],
                  PlainJson({{"call" + std::to_string(call), true}, {"flip", call % 2 == 0}}))
            << call;
        if (call > 0) {
            EXPECT_GE(data["consent"]["lastupdate"], byCall[call - 1]["consent"]["lastupdate"]) << call;
        }
    }

    UserDefaultsUtility::resetCacheForTesting();  // read back from the file
    const auto stored = VendorConsentsUtility("VendorConsents").retrieveVendorConsents();
    ASSERT_TRUE(stored);
    EXPECT_EQ(*stored, (VendorValues{{"call" + std::to_string(kCalls - 1), VendorValue::boolean(true)},
                                     {"flip", VendorValue::boolean(false)}}));
}

}  // namespace
}  // namespace tavrin::testing
