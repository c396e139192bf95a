#include "classify.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <initializer_list>
#include <set>

#include <nlohmann/json.hpp>

namespace tavrin::collector {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::array<std::string_view, 3> kFixedVariables = {"document_location_href", "fb_browser_id",
                                                             "tvrpushedcommands"};
constexpr std::string_view kCachedMarker = "app_offline_cached_data";
constexpr std::string_view kResendMarker = "app_offline_resend_timestamp";
constexpr std::size_t kMaxDepth = 256;

// A JSON object keeps only one value per key once parsed, so repeated keys are
// found while the raw text is read: every object's keys are remembered on a
// stack while its members stream past.
class DuplicateKeyFinder : public nlohmann::json_sax<Json> {
public:
    struct Duplicate {
        std::string pointer, key;
    };
    std::vector<Duplicate> duplicates;
    bool tooDeep = false;

    bool null() override { return value(); }
    bool boolean(bool) override { return value(); }
    bool number_integer(number_integer_t) override { return value(); }
    bool number_unsigned(number_unsigned_t) override { return value(); }
    bool number_float(number_float_t, const string_t&) override { return value(); }
    bool string(string_t&) override { return value(); }
    bool binary(binary_t&) override { return value(); }
    bool start_object(std::size_t) override { return open(true); }
    bool end_object() override { return close(); }
    bool start_array(std::size_t) override { return open(false); }
    bool end_array() override { return close(); }
    bool key(string_t& name) override {
        Frame& frame = frames_.back();
        if (!frame.keys.insert(name).second) duplicates.push_back({frame.pointer, name});
        frame.lastKey = name;
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override { return false; }

private:
    struct Frame {
        bool object;
        std::string pointer, lastKey;
        std::size_t index = 0;
        std::set<std::string> keys;
    };
    std::vector<Frame> frames_;

    std::string childPointer() const {
        if (frames_.empty()) return "";
        const Frame& parent = frames_.back();
        return parent.pointer + "/" + (parent.object ? parent.lastKey : std::to_string(parent.index));
    }
    bool open(bool object) {
        // Printing or comparing a parsed document recurses; no SDK document comes near this.
        if (frames_.size() >= kMaxDepth) {
            tooDeep = true;
            return false;
        }
        frames_.push_back({object, childPointer(), {}, 0, {}});
        return true;
    }
    bool close() {
        frames_.pop_back();
        return value();
    }
    bool value() {
        if (!frames_.empty() && !frames_.back().object) ++frames_.back().index;
        return true;
    }
};

enum class Type { text, integer, boolean, object, array, codable, vendorValue, any };

std::string_view typeName(Type type) {
    switch (type) {
        case Type::text: return "text";
        case Type::integer: return "an integer";
        case Type::boolean: return "a boolean";
        case Type::object: return "an object";
        case Type::array: return "an array";
        case Type::codable: return "a text, boolean, number or array of those";
        case Type::vendorValue: return "a boolean or text";
        case Type::any: return "any value";
    }
    return "?";
}

std::string_view jsonTypeName(const Json& value) {
    switch (value.type()) {
        case Json::value_t::null: return "null";
        case Json::value_t::object: return "an object";
        case Json::value_t::array: return "an array";
        case Json::value_t::string: return "text";
        case Json::value_t::boolean: return "a boolean";
        case Json::value_t::number_float: return "a fractional number";
        default: return "an integer";
    }
}

bool isCodable(const Json& value) {
    if (value.is_string() || value.is_boolean() || value.is_number()) return true;
    if (!value.is_array()) return false;
    return std::all_of(value.begin(), value.end(), isCodable);
}

bool hasType(const Json& value, Type type) {
    switch (type) {
        case Type::text: return value.is_string();
        case Type::integer: return value.is_number_integer();
        case Type::boolean: return value.is_boolean();
        case Type::object: return value.is_object();
        case Type::array: return value.is_array();
        case Type::codable: return isCodable(value);
        case Type::vendorValue: return value.is_boolean() || value.is_string();
        case Type::any: return true;
    }
    return false;
}

enum class Presence { required, optional };

// Collects problems while walking one document against its expected shape.
class ShapeChecker {
public:
    explicit ShapeChecker(std::vector<std::string>& problems) : problems_(problems) {}

    void problem(const std::string& pointer, const std::string& text) {
        problems_.push_back((pointer.empty() ? std::string("/") : pointer) + ": " + text);
        reported_.insert(pointer);
    }

    // The member `key` of `parent`, when present with the expected type.
    const Json* member(const Json& parent, const std::string& pointer, const std::string& key, Type type,
                       Presence presence = Presence::required) {
        const std::string at = pointer + "/" + key;
        auto found = parent.find(key);
        if (found == parent.end()) {
            if (presence == Presence::required) problem(at, "missing (" + std::string(typeName(type)) + " expected)");
            return nullptr;
        }
        if (found->is_null() && presence == Presence::optional) {
            problem(at, "optional member written as null (leave it out when absent)");
            return nullptr;
        }
        if (!hasType(*found, type)) {
            problem(at, "is " + std::string(jsonTypeName(*found)) + ", " + std::string(typeName(type)) + " expected");
            return nullptr;
        }
        return &*found;
    }

    void onlyMembers(const Json& object, const std::string& pointer, std::initializer_list<std::string_view> allowed) {
        for (const auto& [key, value] : object.items()) {
            if (std::find(allowed.begin(), allowed.end(), key) == allowed.end() &&
                !reported_.count(pointer + "/" + key))
                problem(pointer + "/" + key, "unexpected member");
        }
    }

    void timestamp(const Json& parent, const std::string& pointer, const std::string& key) {
        const Json* value = member(parent, pointer, key, Type::integer);
        // Milliseconds since 1970 passed 10^11 in 1973; a smaller value is seconds.
        if (value && value->get<std::int64_t>() < 100'000'000'000)
            problem(pointer + "/" + key, "looks like seconds, milliseconds since 1970 expected");
    }

    void action(const Json& parent, const std::string& pointer) {
        const Json* value = member(parent, pointer, "action", Type::text);
        if (value && *value != "new" && *value != "update")
            problem(pointer + "/action", "is \"" + value->get<std::string>() + "\", \"new\" or \"update\" expected");
    }

    void idAndAction(const Json& parent, const std::string& pointer, const std::string& key) {
        const Json* object = member(parent, pointer, key, Type::object);
        if (!object) return;
        const std::string at = pointer + "/" + key;
        member(*object, at, "id", Type::text);
        action(*object, at);
        onlyMembers(*object, at, {"id", "action"});
    }

    void system(const Json& document) {
        const Json* system = member(document, "", "system", Type::object);
        if (!system) return;
        member(*system, "/system", "type", Type::text);
        timestamp(*system, "/system", "timestamp");
        if (!system->contains("navigator-userAgent") && system->contains("navigatorUserAgent"))
            problem("/system/navigatorUserAgent", "the user agent must be sent as \"navigator-userAgent\"");
        else
            member(*system, "/system", "navigator-userAgent", Type::text);
        member(*system, "/system", "initiator", Type::text);
        onlyMembers(*system, "/system", {"type", "timestamp", "navigator-userAgent", "initiator"});
    }

    void configuration(const Json& document) {
        const Json* configuration = member(document, "", "configuration", Type::object);
        if (!configuration) return;
        member(*configuration, "/configuration", "container", Type::text);
        const Json* environment = member(*configuration, "/configuration", "environment", Type::text);
        if (environment && *environment != "live" && *environment != "stage")
            problem("/configuration/environment",
                    "is \"" + environment->get<std::string>() + "\", \"live\" or \"stage\" expected");
        member(*configuration, "/configuration", "version", Type::text, Presence::optional);
        member(*configuration, "/configuration", "debugcode", Type::text, Presence::optional);
        onlyMembers(*configuration, "/configuration", {"container", "environment", "version", "debugcode"});
    }

    void dictionaryOf(const Json& object, const std::string& pointer, Type type) {
        for (const auto& [key, value] : object.items()) {
            if (!hasType(value, type))
                problem(pointer + "/" + key,
                        "is " + std::string(jsonTypeName(value)) + ", " + std::string(typeName(type)) + " expected");
        }
    }

    void textArray(const Json& array, const std::string& pointer) {
        for (std::size_t i = 0; i < array.size(); ++i) {
            if (!array[i].is_string())
                problem(pointer + "/" + std::to_string(i),
                        "is " + std::string(jsonTypeName(array[i])) + ", text expected");
        }
    }

private:
    std::vector<std::string>& problems_;
    std::set<std::string> reported_;  // a member already explained is not also "unexpected"
};

void checkDataSubmission(const Json& document, bool resend, ShapeChecker& check) {
    check.member(document, "", "version", Type::text);
    check.system(document);
    if (const Json* consent = check.member(document, "", "consent", Type::object)) {
        for (const auto& [vendor, entry] : consent->items()) {
            const std::string at = "/consent/" + vendor;
            if (!entry.is_object()) {
                check.problem(at, "is " + std::string(jsonTypeName(entry)) + ", an object with \"status\" expected");
                continue;
            }
            check.member(entry, at, "status", Type::codable);
            check.onlyMembers(entry, at, {"status"});
        }
    }
    check.configuration(document);

    if (resend) {
        const Json* cached = check.member(document, "", std::string(kCachedMarker), Type::text);
        if (cached && *cached != "true")
            check.problem("/" + std::string(kCachedMarker), "a resent submission carries \"true\"");
        const Json* when = check.member(document, "", std::string(kResendMarker), Type::text);
        if (when) {
            const auto text = when->get<std::string>();
            if (text.empty() || !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
                check.problem("/" + std::string(kResendMarker),
                              "is \"" + text + "\", a decimal string of milliseconds expected");
        }
        check.onlyMembers(document, "",
                          {"version", "system", "consent", "configuration", "data", kCachedMarker, kResendMarker});
    } else {
        check.onlyMembers(document, "", {"version", "system", "consent", "configuration", "data"});
    }

    const Json* data = check.member(document, "", "data", Type::object);
    if (!data) return;
    if (const Json* identifier = check.member(*data, "/data", "identifier", Type::object)) {
        check.idAndAction(*identifier, "/data/identifier", "user");
        check.idAndAction(*identifier, "/data/identifier", "session");
        check.onlyMembers(*identifier, "/data/identifier", {"user", "session"});
    }
    if (const Json* variables = check.member(*data, "/data", "variables", Type::object)) {
        check.member(*variables, "/data/variables", "document_location_href", Type::text);
        check.member(*variables, "/data/variables", "fb_browser_id", Type::text);
        if (const Json* commands = check.member(*variables, "/data/variables", "tvrpushedcommands", Type::array))
            check.textArray(*commands, "/data/variables/tvrpushedcommands");
        for (const auto& [name, value] : variables->items()) {
            if (std::find(kFixedVariables.begin(), kFixedVariables.end(), name) != kFixedVariables.end()) continue;
            const std::string at = "/data/variables/" + name;
            if (value.is_null())
                check.problem(at, "custom property is null (a property value is never null)");
            else if (!isCodable(value))
                check.problem(at, "custom property is " + std::string(jsonTypeName(value)) +
                                      ", a text, boolean, number or array of those expected");
            else if (name == kCachedMarker && value != "false")
                check.problem(
                    at, "a live send marks itself \"false\" here; resent submissions carry \"true\" at the top level");
        }
    }
    if (const Json* enrichment = check.member(*data, "/data", "enrichment", Type::object, Presence::optional)) {
        for (const auto& [plugin, entry] : enrichment->items()) {
            const std::string at = "/data/enrichment/" + plugin;
            if (!entry.is_object()) {
                check.problem(at, "is " + std::string(jsonTypeName(entry)) + ", an object expected");
                continue;
            }
            if (const Json* arguments = check.member(entry, at, "arguments", Type::object))
                check.dictionaryOf(*arguments, at + "/arguments", Type::codable);
            if (const Json* names = check.member(entry, at, "variables", Type::array))
                check.textArray(*names, at + "/variables");
            check.onlyMembers(entry, at, {"arguments", "variables"});
        }
    }
    check.onlyMembers(*data, "/data", {"identifier", "variables", "enrichment"});
}

void checkConsentSubmission(const Json& document, ShapeChecker& check) {
    check.member(document, "", "version", Type::text);
    check.system(document);
    check.configuration(document);
    check.onlyMembers(document, "", {"version", "system", "configuration", "data"});
    const Json* data = check.member(document, "", "data", Type::object);
    if (!data) return;
    if (const Json* identifier = check.member(*data, "/data", "identifier", Type::object)) {
        check.idAndAction(*identifier, "/data/identifier", "user");
        check.idAndAction(*identifier, "/data/identifier", "consent");
        check.onlyMembers(*identifier, "/data/identifier", {"user", "consent"});
    }
    if (const Json* consent = check.member(*data, "/data", "consent", Type::object)) {
        const std::string at = "/data/consent";
        check.timestamp(*consent, at, "lastupdate");
        if (const Json* extra = check.member(*consent, at, "data", Type::object))
            check.dictionaryOf(*extra, at + "/data", Type::text);
        if (const Json* vendors = check.member(*consent, at, "vendors", Type::object))
            check.dictionaryOf(*vendors, at + "/vendors", Type::vendorValue);
        if (const Json* changed = check.member(*consent, at, "vendorsChanged", Type::object))
            check.dictionaryOf(*changed, at + "/vendorsChanged", Type::vendorValue);
        check.onlyMembers(*consent, at, {"lastupdate", "data", "vendors", "vendorsChanged"});
    }
    check.onlyMembers(*data, "/data", {"identifier", "consent"});
}

void checkTag(const Json& tag, const std::string& at, ShapeChecker& check) {
    for (const char* key : {"id", "name", "source", "type"}) check.member(tag, at, key, Type::text);
    check.timestamp(tag, at, "timestamp");
    if (const Json* trigger = check.member(tag, at, "trigger", Type::object)) {
        const std::string t = at + "/trigger";
        check.member(*trigger, t, "id", Type::text);
        check.member(*trigger, t, "executed", Type::boolean);
        check.member(*trigger, t, "conditions", Type::array);
        check.member(*trigger, t, "excludeTriggers", Type::array);
        check.onlyMembers(*trigger, t, {"id", "executed", "conditions", "excludeTriggers"});
    }
    if (const Json* http = check.member(tag, at, "http", Type::object)) {
        const std::string h = at + "/http";
        if (const Json* general = check.member(*http, h, "general", Type::object)) {
            const std::string g = h + "/general";
            check.member(*general, g, "requestUrl", Type::text);
            check.member(*general, g, "requestMethod", Type::text);
            check.member(*general, g, "requestStatus", Type::integer);
            check.member(*general, g, "remoteAddress", Type::text);
            check.onlyMembers(*general, g, {"requestUrl", "requestMethod", "requestStatus", "remoteAddress"});
        }
        for (const char* key : {"payload", "requestHeaders", "queryStringParameters"})
            check.member(*http, h, key, Type::object);
        if (const Json* response = check.member(*http, h, "response", Type::object)) {
            const std::string r = h + "/response";
            check.member(*response, r, "status", Type::integer);
            check.member(*response, r, "statusText", Type::text);
            check.member(*response, r, "data", Type::text);
            check.member(*response, r, "success", Type::boolean);
            check.member(*response, r, "headers", Type::object);
            check.onlyMembers(*response, r, {"status", "statusText", "data", "success", "headers"});
        }
        check.onlyMembers(*http, h, {"general", "payload", "requestHeaders", "queryStringParameters", "response"});
    }
    if (const Json* variables = check.member(tag, at, "variables", Type::object)) {
        for (const char* key : {"frontend", "backend", "constant", "enrichment"})
            check.member(*variables, at + "/variables", key, Type::object);
        check.onlyMembers(*variables, at + "/variables", {"frontend", "backend", "constant", "enrichment"});
    }
    check.member(tag, at, "functions", Type::object);
    check.onlyMembers(tag, at,
                      {"id", "name", "source", "type", "timestamp", "trigger", "http", "variables", "functions"});
}

void checkMonitorReport(const Json& document, ShapeChecker& check) {
    if (!document.contains("debugid") && document.contains("debugID"))
        check.problem("/debugID", "the debug code must be sent as \"debugid\"");
    else
        check.member(document, "", "debugid", Type::text);
    check.member(document, "", "consent", Type::object);
    check.member(document, "", "docs", Type::object);
    check.member(document, "", "state", Type::text);
    if (!document.contains("eventDocumentId") && document.contains("eventDocumentID"))
        check.problem("/eventDocumentID", "must be sent as \"eventDocumentId\"");
    else
        check.member(document, "", "eventDocumentId", Type::text);
    if (const Json* tags = check.member(document, "", "tags", Type::array)) {
        for (std::size_t i = 0; i < tags->size(); ++i) {
            const std::string at = "/tags/" + std::to_string(i);
            if (!(*tags)[i].is_object())
                check.problem(at, "is " + std::string(jsonTypeName((*tags)[i])) + ", a tag object expected");
            else
                checkTag((*tags)[i], at, check);
        }
    }
    check.onlyMembers(document, "", {"debugid", "consent", "docs", "state", "eventDocumentId", "tags"});
}

bool isConsentSubmission(const Json& document) {
    auto data = document.find("data");
    if (data == document.end() || !data->is_object()) return false;
    if (data->contains("consent")) return true;
    auto identifier = data->find("identifier");
    return identifier != data->end() && identifier->is_object() && identifier->contains("consent");
}

}  // namespace

std::string_view kindName(RequestKind kind) {
    switch (kind) {
        case RequestKind::dataSubmission: return "data";
        case RequestKind::consentSubmission: return "consent";
        case RequestKind::offlineResend: return "offline-resend";
        case RequestKind::monitorReport: return "monitor";
        case RequestKind::invalid: return "invalid";
    }
    return "invalid";
}

Classification classify(std::string_view path, std::string_view body) {
    Classification result;
    if (path != "/" && path != "/monitor") {
        result.problems.push_back("/: no such endpoint " + std::string(path) + " (POST \"/\" or \"/monitor\")");
        return result;
    }
    DuplicateKeyFinder finder;
    if (!Json::sax_parse(body.begin(), body.end(), &finder, nlohmann::detail::input_format_t::json, true)) {
        result.problems.push_back(finder.tooDeep ? "/: body nests deeper than " + std::to_string(kMaxDepth) + " levels"
                                                 : "/: body is not JSON");
        return result;
    }
    const Json document = Json::parse(body.begin(), body.end());
    if (!document.is_object()) {
        result.problems.push_back("/: body is " + std::string(jsonTypeName(document)) + ", a JSON object expected");
        return result;
    }

    ShapeChecker check(result.problems);
    for (const auto& duplicate : finder.duplicates) {
        const bool fixed =
            std::find(kFixedVariables.begin(), kFixedVariables.end(), duplicate.key) != kFixedVariables.end();
        if (duplicate.pointer == "/data/variables" && fixed)
            check.problem(duplicate.pointer, "custom property \"" + duplicate.key +
                                                 "\" collides with the fixed variable of that name (written twice)");
        else
            check.problem(duplicate.pointer, "key \"" + duplicate.key + "\" appears more than once");
    }

    if (path == "/monitor") {
        result.kind = RequestKind::monitorReport;
        checkMonitorReport(document, check);
    } else if (isConsentSubmission(document)) {
        result.kind = RequestKind::consentSubmission;
        checkConsentSubmission(document, check);
    } else if (document.contains(kCachedMarker) || document.contains(kResendMarker)) {
        result.kind = RequestKind::offlineResend;
        checkDataSubmission(document, true, check);
    } else {
        result.kind = RequestKind::dataSubmission;
        checkDataSubmission(document, false, check);
    }
    return result;
}

}  // namespace tavrin::collector
