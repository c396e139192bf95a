#pragma once
// An instruction for a server-side plug-in that travels with the next data
// submission: its resolved arguments and the variables it fills.

#include <map>
#include <string>
#include <vector>

#include "tavrin/tracking/codable_value.h"

namespace tavrin {

struct Enrichment {
    std::map<std::string, CodableValue> arguments;
    std::vector<std::string> variables;

    friend bool operator==(const Enrichment&, const Enrichment&) = default;
};

}  // namespace tavrin
