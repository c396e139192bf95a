#pragma once
// What the rtnetlink monitor reads from the kernel, reduced to what decides
// the path, and the decision itself.

#include <optional>
#include <vector>

#include "tavrin/platform/path_monitor.h"

namespace tavrin::platform::detail {

// Interface flags and the operational state "up", with the values of the
// Linux kernel's IFF_* and IF_OPER_UP, so rtnetlink's figures are used as
// they come; another system's monitor translates into them.
inline constexpr unsigned kLinkUp = 0x1;
inline constexpr unsigned kLinkLoopback = 0x8;
inline constexpr unsigned kLinkRunning = 0x40;
inline constexpr unsigned char kOperationalUp = 6;

struct LinkFact {
    int index = 0;
    unsigned flags = 0;                      // kLink* of the interface
    std::optional<unsigned char> operState;  // kOperationalUp or another state, when reported
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
