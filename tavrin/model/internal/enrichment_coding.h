#pragma once
// JSON form of Enrichment: "arguments" then "variables", both required.

#include "tavrin/model/enrichment.h"
#include "tavrin/model/internal/codable_value_coding.h"

namespace tavrin {

Json encodeJson(const Enrichment& enrichment);

template <>
struct JsonDecode<Enrichment> {
    static Enrichment decode(const Decoder& decoder);
};

}  // namespace tavrin
