#pragma once
// The variables of one data submission (page address, browser id, pushed
// commands, custom properties), bundled in one value that cannot change, for
// an application that keeps or shows them together.
//
//     tavrin::VariablesWrapper variables("https://shop.example.com/cart", "fb.1.1700000000000.42",
//                                        {"pageview", "addtocart"},
//                                        {{"currency", tavrin::CodableValue::string("EUR")}});
//     for (const std::string& command : variables.tvrpushedcommands) { /* "pageview", then "addtocart" */ }
//     const tavrin::CodableValue& currency = variables.customProperties.at("currency");
//
// It has no JSON form of its own: the data submission record writes these fields.

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tavrin/model/codable_value.h"
#include "tavrin/platform/api.h"

namespace tavrin {

struct TAVRIN_API VariablesWrapper {
    VariablesWrapper(std::string documentLocationHref, std::string fbBrowserId,
                     std::vector<std::string> tvrpushedcommands, std::map<std::string, CodableValue> customProperties)
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
