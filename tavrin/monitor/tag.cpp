#include "tavrin/monitor/internal/tag.h"

namespace tavrin {

Json Tag::Trigger::encode() const {
    Json out = Json::object();
    out["id"] = id;
    out["executed"] = executed;
    out["conditions"] = encodeJson(conditions);
    out["excludeTriggers"] = encodeJson(excludeTriggers);
    return out;
}

Tag::Trigger Tag::Trigger::decode(const Decoder& decoder) {
    Trigger t;
    t.id = decodeMember<std::string>(decoder, "id");
    t.executed = decodeMember<bool>(decoder, "executed");
    t.conditions = decodeMember<Array>(decoder, "conditions");
    t.excludeTriggers = decodeMember<Array>(decoder, "excludeTriggers");
    return t;
}

Json Tag::HTTP::General::encode() const {
    Json out = Json::object();
    out["requestUrl"] = requestUrl;
    out["requestMethod"] = requestMethod;
    out["requestStatus"] = requestStatus;
    out["remoteAddress"] = remoteAddress;
    return out;
}

Tag::HTTP::General Tag::HTTP::General::decode(const Decoder& decoder) {
    General g;
    g.requestUrl = decodeMember<std::string>(decoder, "requestUrl");
    g.requestMethod = decodeMember<std::string>(decoder, "requestMethod");
    g.requestStatus = decodeMember<std::int64_t>(decoder, "requestStatus");
    g.remoteAddress = decodeMember<std::string>(decoder, "remoteAddress");
    return g;
}

Json Tag::HTTP::Response::encode() const {
    Json out = Json::object();
    out["status"] = status;
    out["statusText"] = statusText;
    out["data"] = data;
    out["success"] = success;
    out["headers"] = encodeJson(headers);
    return out;
}

Tag::HTTP::Response Tag::HTTP::Response::decode(const Decoder& decoder) {
    Response r;
    r.status = decodeMember<std::int64_t>(decoder, "status");
    r.statusText = decodeMember<std::string>(decoder, "statusText");
    r.data = decodeMember<std::string>(decoder, "data");
    r.success = decodeMember<bool>(decoder, "success");
    r.headers = decodeMember<Dictionary>(decoder, "headers");
    return r;
}

Json Tag::HTTP::encode() const {
    Json out = Json::object();
    out["general"] = general.encode();
    out["payload"] = encodeJson(payload);
    out["requestHeaders"] = encodeJson(requestHeaders);
    out["queryStringParameters"] = encodeJson(queryStringParameters);
    out["response"] = response.encode();
    return out;
}

Tag::HTTP Tag::HTTP::decode(const Decoder& decoder) {
    HTTP h;
    h.general = decodeMember<General>(decoder, "general");
    h.payload = decodeMember<Dictionary>(decoder, "payload");
    h.requestHeaders = decodeMember<Dictionary>(decoder, "requestHeaders");
    h.queryStringParameters = decodeMember<Dictionary>(decoder, "queryStringParameters");
    h.response = decodeMember<Response>(decoder, "response");
    return h;
}

Json Tag::Variables::encode() const {
    Json out = Json::object();
    out["frontend"] = encodeJson(frontend);
    out["backend"] = encodeJson(backend);
    out["constant"] = encodeJson(constant);
    out["enrichment"] = encodeJson(enrichment);
    return out;
}

Tag::Variables Tag::Variables::decode(const Decoder& decoder) {
    Variables v;
    v.frontend = decodeMember<Dictionary>(decoder, "frontend");
    v.backend = decodeMember<Dictionary>(decoder, "backend");
    v.constant = decodeMember<Dictionary>(decoder, "constant");
    v.enrichment = decodeMember<Dictionary>(decoder, "enrichment");
    return v;
}

void Tag::dropNonFiniteNumbers(const AnyCodable::DroppedHandler& dropped) {
    // Most members are empty: their paths are made only for a walk.
    const auto walk = [&](auto& member, std::initializer_list<const char*> names) {
        if (!member.empty()) AnyCodable::dropNonFiniteNumbers(member, dropped, CodingPath(names.begin(), names.end()));
    };
    walk(trigger.conditions, {"trigger", "conditions"});
    walk(trigger.excludeTriggers, {"trigger", "excludeTriggers"});
    walk(http.payload, {"http", "payload"});
    walk(http.requestHeaders, {"http", "requestHeaders"});
    walk(http.queryStringParameters, {"http", "queryStringParameters"});
    walk(http.response.headers, {"http", "response", "headers"});
    walk(variables.frontend, {"variables", "frontend"});
    walk(variables.backend, {"variables", "backend"});
    walk(variables.constant, {"variables", "constant"});
    walk(variables.enrichment, {"variables", "enrichment"});
    walk(functions, {"functions"});
}

Tag Tag::makeInfo(std::string id, std::string name, std::int64_t timestamp, bool success) {
    Tag tag;
    tag.id = std::move(id);
    tag.name = std::move(name);
    tag.source = "frontend";
    tag.type = "info";
    tag.timestamp = timestamp;
    tag.trigger.executed = true;
    tag.http.general.requestStatus = 200;
    tag.http.response.status = 200;
    tag.http.response.success = success;
    return tag;
}

Json Tag::encode() const {
    Json out = jsonObject(9);
    out["id"] = id;
    out["name"] = name;
    out["source"] = source;
    out["type"] = type;
    out["timestamp"] = timestamp;
    out["trigger"] = trigger.encode();
    out["http"] = http.encode();
    out["variables"] = variables.encode();
    out["functions"] = encodeJson(functions);
    return out;
}

Tag Tag::decode(const Decoder& decoder) {
    Tag tag;
    tag.id = decodeMember<std::string>(decoder, "id");
    tag.name = decodeMember<std::string>(decoder, "name");
    tag.source = decodeMember<std::string>(decoder, "source");
    tag.type = decodeMember<std::string>(decoder, "type");
    tag.timestamp = decodeMember<std::int64_t>(decoder, "timestamp");
    tag.trigger = decodeMember<Trigger>(decoder, "trigger");
    tag.http = decodeMember<HTTP>(decoder, "http");
    tag.variables = decodeMember<Variables>(decoder, "variables");
    tag.functions = decodeMember<Dictionary>(decoder, "functions");
    return tag;
}

}  // namespace tavrin
