#include "tavrin/platform/notification_center.h"

#include <gtest/gtest.h>

#include <vector>

namespace tavrin::platform {
namespace {

using Calls = std::vector<std::string>;

// Removals made while a post is delivered apply to that post, additions from
// the next one; a post from an observer is delivered at once.
TEST(NotificationCenterTest, ObserverMayReenterTheCenterDuringDelivery) {
    NotificationCenter center;
    Calls calls;
    NotificationCenter::Token self = 0, later = 0;
    self = center.addObserver("N", [&](const std::string&) {
        calls.push_back("self");
        center.removeObserver(self);
        center.removeObserver(later);
        center.addObserver("N", [&](const std::string&) { calls.push_back("added"); });
        center.post("inner");
    });
    center.addObserver("inner", [&](const std::string& name) { calls.push_back(name); });
    center.addObserver("N", [&](const std::string&) { calls.push_back("second"); });
    later = center.addObserver("N", [&](const std::string&) { calls.push_back("later"); });
    center.post("N");
    center.post("N");
    EXPECT_EQ(calls, (Calls{"self", "inner", "second", "second", "added"}));
}

}  // namespace
}  // namespace tavrin::platform
