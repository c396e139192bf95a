#pragma once
// Tests that change routes run inside a network namespace of their own
// (root or CAP_SYS_ADMIN), so the machine's own network is never touched.

#include <gtest/gtest.h>
#include <sched.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

namespace tavrin::testing {

// Runs the scenario on a thread moved into a new network namespace; threads
// it starts (HTTP client, path monitor reader) and sockets it opens are there
// too. Elsewhere the test is skipped with the reason.
inline void runInOwnNetworkNamespace(const std::function<void()>& scenario) {
    std::string skip;
    std::thread([&] {
        if (unshare(CLONE_NEWNET) != 0)
            skip = std::string("unshare(CLONE_NEWNET): ") + std::strerror(errno) + " (needs root or CAP_SYS_ADMIN)";
        else
            scenario();
    }).join();
    if (!skip.empty()) GTEST_SKIP() << skip;
}

// Runs `ip arguments` in the calling thread's namespace; a failure fails the test.
inline bool ip(const std::string& arguments) {
    const int status = std::system(("ip " + arguments).c_str());
    EXPECT_EQ(status, 0) << "ip " << arguments;
    return status == 0;
}

}  // namespace tavrin::testing
