#pragma once
// What the rtnetlink monitor reads from the kernel, reduced to what decides
// the path, and the decision itself.

#include <optional>
#include <vector>

#include "tavrin/platform/path_monitor.h"

namespace tavrin::platform::detail {

struct LinkFact {
    int index = 0;
    unsigned flags = 0;                      // IFF_* of the interface
    std::optional<unsigned char> operState;  // IF_OPER_* when the kernel reported it
};

struct DefaultRouteFact {
    // Interfaces the route leaves through (one, or the hops of a multipath
    // route whose hops are not dead or link-down). Empty when the route names
    // a nexthop object, which is not resolved to interfaces.
    std::vector<int> outputInterfaces;
    bool usesNexthopObject = false;
};

// A loopback interface never counts; an interface counts when it is up and
// its lower layer runs (IFF_RUNNING, or operational state up).
bool isUsableLink(const LinkFact& link) noexcept;
PathStatus evaluatePath(const std::vector<LinkFact>& links, const std::vector<DefaultRouteFact>& defaultRoutes);

}  // namespace tavrin::platform::detail
