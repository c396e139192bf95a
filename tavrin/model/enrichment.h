#pragma once
// An instruction for a server-side plug-in that travels with the next data
// submission: its resolved arguments and the variables it fills.
// TrackingService::addEnrichment and addCustomEnrichment make one per plug-in
// id; an application holds one to keep or compare what it registers.
//
//     tavrin::Enrichment geo{.arguments = {{"city", tavrin::CodableValue::string("Vienna")}},
//                            .variables = {"region"}};
//     tavrin::TrackingService::shared()->addCustomEnrichment("geo", geo.arguments, geo.variables);
//     bool same = geo == tavrin::Enrichment{geo.arguments, {"region"}};  // true: equal arguments and variables

#include <map>
#include <string>
#include <vector>

#include "tavrin/model/codable_value.h"
#include "tavrin/platform/api.h"

namespace tavrin {

struct TAVRIN_API Enrichment {
    std::map<std::string, CodableValue> arguments;
    std::vector<std::string> variables;

    friend bool operator==(const Enrichment&, const Enrichment&) = default;
};

}  // namespace tavrin
