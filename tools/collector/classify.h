#pragma once
// What arrived at the collector, and what is wrong with it. A pure function of
// the path and the raw body so that tests and fuzz targets can call it alone.

#include <string>
#include <string_view>
#include <vector>

namespace tavrin::collector {

enum class RequestKind {
    dataSubmission,     // POST "/": a live data submission
    consentSubmission,  // POST "/": a consent decision
    offlineResend,      // POST "/": a cached data submission sent late (top-level offline markers)
    monitorReport,      // POST "/monitor": debug tags
    invalid,            // not JSON, not an object, or an unknown path
};

// Stable lower-case names used in storage, the JSON API and the debug view.
std::string_view kindName(RequestKind kind);

struct Classification {
    RequestKind kind = RequestKind::invalid;
    // One line per problem, each starting with the JSON pointer it concerns.
    std::vector<std::string> problems;
};

Classification classify(std::string_view path, std::string_view body);

}  // namespace tavrin::collector
