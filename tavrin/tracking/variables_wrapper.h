#pragma once
// The variables of one data submission, bundled for the application. It has
// no JSON form of its own: the data submission record writes these fields.

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tavrin/tracking/codable_value.h"

namespace tavrin {

struct VariablesWrapper {
    VariablesWrapper(std::string documentLocationHref, std::string fbBrowserId,
                     std::vector<std::string> tvrpushedcommands,
                     std::map<std::string, CodableValue> customProperties)
        : documentLocationHref(std::move(documentLocationHref)),
          fbBrowserId(std::move(fbBrowserId)),
          tvrpushedcommands(std::move(tvrpushedcommands)),
          customProperties(std::move(customProperties)) {}

    const std::string documentLocationHref;
    const std::string fbBrowserId;
    const std::vector<std::string> tvrpushedcommands;  // names of the pushed commands
    const std::map<std::string, CodableValue> customProperties;
};

}  // namespace tavrin
