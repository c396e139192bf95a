#pragma once
// Documents shaped exactly like what the SDK sends, for the collector's tests.

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

namespace tavrin::testing::samples {

using Json = nlohmann::ordered_json;

inline constexpr std::int64_t kNow = 1795312800123;

inline Json systemPart(const std::string& initiator = "tvr_push_submit") {
    return {{"type", "sdk-ios"},
            {"timestamp", kNow},
            {"navigator-userAgent", "ShopApp/2.1 (iPhone15,2; iOS 17.1) TavrinSDK"},
            {"initiator", initiator}};
}

inline Json configurationPart() {
    return {{"container", "shop-app"}, {"environment", "live"}, {"version", "3"}, {"debugcode", "dbg-42"}};
}

// A live data submission with offline tracking on (the "false" marker inside variables).
inline Json dataSubmission() {
    Json document = {{"version", "3"}, {"system", systemPart()}};
    document["consent"] = Json::parse(R"({"vendorA":{"status":true},"vendorB":{"status":"ncm"}})");
    document["configuration"] = configurationPart();
    document["data"] = Json::parse(R"({
        "identifier": {"user": {"id": "u-1", "action": "update"}, "session": {"id": "s-1", "action": "new"}},
        "variables": {"document_location_href": "app://shop/product/A1", "fb_browser_id": "fb.1.1795312800.42",
                      "tvrpushedcommands": ["pageview", "product_view"], "price": 9.99, "qty": 2,
                      "tags": ["sale", "summer"], "app_offline_cached_data": "false"},
        "enrichment": {"geo": {"arguments": {"city": "Lisbon", "radius": 5.0}, "variables": ["region"]}}})");
    return document;
}

// The same submission cached while offline and sent late.
inline Json offlineResend() {
    Json document = dataSubmission();
    document["app_offline_cached_data"] = "true";
    document["app_offline_resend_timestamp"] = std::to_string(kNow + 60'000);
    return document;
}

inline Json consentSubmission() {
    Json document = {{"version", "3"}, {"system", systemPart()}, {"configuration", configurationPart()}};
    document["data"] = Json::parse(R"({
        "identifier": {"user": {"id": "u-1", "action": "update"}, "consent": {"id": "c-1", "action": "new"}},
        "consent": {"lastupdate": 0, "data": {}, "vendors": {"vendorA": true, "vendorB": "ncm"},
                    "vendorsChanged": {"vendorB": "ncm"}}})");
    document["data"]["consent"]["lastupdate"] = kNow;
    return document;
}

inline Json tag(const std::string& id, const std::string& name, std::int64_t timestamp) {
    Json tag = Json::parse(R"({"id": "", "name": "", "source": "frontend", "type": "info", "timestamp": 0,
        "trigger": {"id": "", "executed": true, "conditions": [], "excludeTriggers": []},
        "http": {"general": {"requestUrl": "", "requestMethod": "", "requestStatus": 200, "remoteAddress": ""},
                 "payload": {}, "requestHeaders": {}, "queryStringParameters": {},
                 "response": {"status": 200, "statusText": "", "data": "", "success": true, "headers": {}}},
        "variables": {"frontend": {}, "backend": {}, "constant": {}, "enrichment": {}}, "functions": {}})");
    tag["id"] = id;
    tag["name"] = name;
    tag["timestamp"] = timestamp;
    return tag;
}

inline Json monitorReport(
    Json tags = Json::array({tag("AI01", "T-SDK: [INIT] - [AI01] SDK initialised", kNow),
                             tag("AD01", "T-SDK: [TAVRIN DL] - [AD01] Push: pageview", kNow + 5),
                             tag("AS01", "T-SDK: [STATE] - [AS01] State executed: tvr_push_submit", kNow + 9)})) {
    return {{"debugid", "dbg-42"}, {"consent", Json::object()}, {"docs", Json::object()},
            {"state", ""},         {"eventDocumentId", ""},     {"tags", std::move(tags)}};
}

}  // namespace tavrin::testing::samples
