#include "tavrin/consent/user_defaults_utility.h"

#include <gtest/gtest.h>

#include "tavrin/sdk/track_config.h"
#include "tests/consent/store_fixture.h"

namespace tavrin {
namespace {

using testing::StoreTest;

TrackConfig config(double offlineTimeout = 60) {
    return TrackConfig{.trackDomain = "d",
                       .container = "c",
                       .environment = TrackConfig::Environment::live,
                       .version = std::nullopt,
                       .debugCode = std::nullopt,
                       .sessionTimeoutInSeconds = std::nullopt,
                       .authorizationToken = "t",
                       .customProtocol = std::nullopt,
                       .enableOfflineTracking = true,
                       .offlineTrackingTimeout = offlineTimeout};
}

using UserDefaultsStrings = StoreTest;

TEST_F(UserDefaultsStrings, WritesThroughFlushesAndServesLaterReadsFromTheCache) {
    auto store = countReads();
    UserDefaultsUtility::setString("123", "k");
    EXPECT_EQ(store->writes, 1);
    EXPECT_EQ(store->flushes, 1);
    EXPECT_EQ(openFile()->string("k"), "123");

    EXPECT_EQ(UserDefaultsUtility::string("k"), "123");
    EXPECT_EQ(store->reads, 0);
}

TEST_F(UserDefaultsStrings, FirstReadFillsTheCacheAndHidesLaterChangesBehindItsBack) {
    auto store = countReads();
    store->inner().setString("k", "first");
    EXPECT_EQ(UserDefaultsUtility::string("k"), "first");
    EXPECT_EQ(store->reads, 1);

    store->inner().setString("k", "second");
    EXPECT_EQ(UserDefaultsUtility::string("k"), "first");
    EXPECT_EQ(UserDefaultsUtility::string("k"), "first");
    EXPECT_EQ(store->reads, 1);
}

TEST_F(UserDefaultsStrings, AMissIsNotCachedAndNonTextReadsAsAbsent) {
    auto store = countReads();
    EXPECT_EQ(UserDefaultsUtility::string("k"), std::nullopt);
    store->inner().setString("k", "late");
    EXPECT_EQ(UserDefaultsUtility::string("k"), "late");
    EXPECT_EQ(store->reads, 2);

    // An integer or data under the key is not text.
    store->inner().setInteger("n", 5);
    store->inner().setData("d", platform::toBytes("\"x\""));
    EXPECT_EQ(UserDefaultsUtility::string("n"), std::nullopt);
    EXPECT_EQ(UserDefaultsUtility::string("d"), std::nullopt);

    // A cached integer does not answer a text read; the store is asked, and the
    // miss drops the cached integer, so the next text read asks again.
    UserDefaultsUtility::setInt(7, "i");
    const int before = store->reads;
    EXPECT_EQ(UserDefaultsUtility::string("i"), std::nullopt);
    store->inner().setString("i", "now text");
    EXPECT_EQ(UserDefaultsUtility::string("i"), "now text");
    EXPECT_EQ(store->reads, before + 2);
    EXPECT_EQ(UserDefaultsUtility::string("i"), "now text");
    EXPECT_EQ(store->reads, before + 2);
}

TEST_F(UserDefaultsStrings, SetIntWritesAnIntegerRow) {
    UserDefaultsUtility::setInt(1731667200123, "VendorConsents_lastupdate");
    EXPECT_EQ(openFile()->integer("VendorConsents_lastupdate"), 1731667200123);
}

using UserDefaultsData = StoreTest;

TEST_F(UserDefaultsData, SavedBytesAreStoredAsJsonStringOfBase64AndCachedRaw) {
    auto store = countReads();
    const Bytes inner = platform::toBytes(R"({"x":"allow"})");
    UserDefaultsUtility::save(inner, "blob");
    EXPECT_EQ(store->writes, 1);
    EXPECT_EQ(store->flushes, 1);

    const auto raw = openFile()->data("blob");
    ASSERT_TRUE(raw);
    EXPECT_EQ(platform::toString(*raw), "\"" + platform::base64Encode(inner) + "\"");

    // Served from the cache as the bytes passed in.
    EXPECT_EQ(UserDefaultsUtility::loadData("blob"), inner);
    EXPECT_EQ(store->reads, 0);

    // From the file after the cache is gone, then cached again.
    UserDefaultsUtility::resetCacheForTesting();
    EXPECT_EQ(UserDefaultsUtility::loadData("blob"), inner);
    EXPECT_EQ(store->reads, 1);
    store->inner().setData("blob", platform::toBytes("\"" + platform::base64Encode("other") + "\""));
    EXPECT_EQ(UserDefaultsUtility::loadData("blob"), inner);
    EXPECT_EQ(store->reads, 1);
}

TEST_F(UserDefaultsData, UndecodableDataIsAbsentSilentlyAndNotCached) {
    auto store = countReads();
    for (const char* stored : {R"({"x":"allow"})", "\"not base64!\"", "\"YWJj\"junk", "", "\xff"}) {
        store->inner().setData("blob", platform::toBytes(stored));
        EXPECT_EQ(UserDefaultsUtility::loadData("blob"), std::nullopt) << stored;
    }
    store->inner().setString("text", "\"YWJj\"");  // text, not data
    EXPECT_EQ(UserDefaultsUtility::loadData("text"), std::nullopt);
    EXPECT_EQ(UserDefaultsUtility::loadData("missing"), std::nullopt);
    EXPECT_TRUE(log.sink->messages().empty());

    store->inner().setData("blob", platform::toBytes("\"YWJj\""));
    EXPECT_EQ(UserDefaultsUtility::loadData("blob"), platform::toBytes("abc"));
}

TEST_F(UserDefaultsData, RecordsRoundTripThroughTheFileAndTheCache) {
    auto store = countReads();
    UserDefaultsUtility::save(config(), "cfg");
    EXPECT_EQ(UserDefaultsUtility::load<TrackConfig>("cfg"), config());
    EXPECT_EQ(store->reads, 0);

    UserDefaultsUtility::resetCacheForTesting();
    EXPECT_EQ(UserDefaultsUtility::load<TrackConfig>("cfg"), config());
    EXPECT_EQ(store->reads, 1);
    EXPECT_EQ(UserDefaultsUtility::load<TrackConfig>("cfg"), config());
    EXPECT_EQ(store->reads, 1);

    // A cached value of another type is not taken for the record.
    UserDefaultsUtility::setString("x", "other");
    store->inner().setData("other", platform::toBytes("garbage"));
    EXPECT_EQ(UserDefaultsUtility::load<TrackConfig>("other"), std::nullopt);
    EXPECT_TRUE(log.sink->messages().empty());
}

TEST_F(UserDefaultsData, EncodingFailureIsLoggedAndWritesNothing) {
    auto store = countReads();
    UserDefaultsUtility::save(config(std::nan("")), "cfg");
    EXPECT_EQ(store->writes, 0);
    EXPECT_EQ(store->flushes, 0);
    EXPECT_EQ(openFile()->value("cfg"), std::nullopt);
    EXPECT_EQ(UserDefaultsUtility::load<TrackConfig>("cfg"), std::nullopt);

    const auto lines = log.sink->messages(platform::LogType::info);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("❌ UserDefaultsUtility: Failed to encode and save data for key cfg - ", 0), 0u)
        << lines[0];
    EXPECT_NE(lines[0].find("offlineTrackingTimeout"), std::string::npos) << lines[0];

    // Text that is not UTF-8 cannot become JSON either.
    UserDefaultsUtility::save(std::string("\xff"), "bad");
    EXPECT_EQ(openFile()->value("bad"), std::nullopt);
    EXPECT_EQ(log.sink->messages(platform::LogType::info).size(), 2u);
}

TEST_F(UserDefaultsData, RemoveClearsFileAndCache) {
    auto store = countReads();
    UserDefaultsUtility::save(config(), "cfg");
    UserDefaultsUtility::remove("cfg");
    EXPECT_EQ(store->removals, 1);
    EXPECT_EQ(store->flushes, 2);
    EXPECT_EQ(openFile()->value("cfg"), std::nullopt);
    EXPECT_EQ(UserDefaultsUtility::load<TrackConfig>("cfg"), std::nullopt);
    EXPECT_EQ(store->reads, 1);
}

}  // namespace
}  // namespace tavrin
