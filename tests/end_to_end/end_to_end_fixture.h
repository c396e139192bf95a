#pragma once
// The SDK as an application uses it: configured through TavrinService against
// a loopback collector that records every request, with the real SQLite store
// in a temporary directory and a network path that reports "online".

#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "tavrin/platform/internal/json.h"

#include "tavrin/sdk/tavrin_service.h"
#include "tavrin/session/session_manager.h"
#include "tavrin/tracking/tracking_service.h"
#include "tests/support/child_process.h"
#include "tests/support/transport_fixture.h"

extern char** environ;

namespace tavrin::testing {

using PlainJson = Json;

inline std::vector<std::string> memberNames(const PlainJson& object) {
    std::vector<std::string> names;
    for (const auto& item : object.items()) names.push_back(item.key());
    return names;
}

// Runs this test binary again with the filter and extra environment; returns
// the exit status (or -1 when it had to be killed after `limit`).
inline int runChild(const std::string& filter, std::vector<std::string> variables,
                    std::chrono::milliseconds limit = std::chrono::seconds(30),
                    std::chrono::milliseconds* took = nullptr) {
    SelfInvocation self(filter, std::move(variables));
    const auto start = std::chrono::steady_clock::now();
    pid_t child = 0;
    if (posix_spawn(&child, self.program.c_str(), nullptr, nullptr, self.argv, self.envp.data()) != 0) return -2;
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() - start > limit) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (took) *took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

class EndToEndTest : public ::testing::Test {
protected:
    void SetUp() override { useDirectory(dir.path().string()); }

    void TearDown() override {
        TavrinService::shutdown(std::chrono::seconds(5));
        platform::PathMonitor::setFactory({});
        platform::KeyValueStore::setStandard(nullptr);
        platform::KeyValueStore::setDataDirectory(std::nullopt);
    }

    static void useDirectory(const std::string& directory) {
        platform::KeyValueStore::setDataDirectory(directory);
        platform::KeyValueStore::setStandard(nullptr);
        UserDefaultsUtility::resetCacheForTesting();
        // A fresh monitor per manager: a monitor keeps the queue it started on.
        platform::PathMonitor::setFactory([]() -> std::shared_ptr<platform::PathMonitor> {
            return std::make_shared<ScriptedPathMonitor>(platform::PathStatus::satisfied);
        });
    }

    std::shared_ptr<TrackingService> start(TrackConfig config) {
        TavrinService::configure(config);
        return TrackingService::shared();
    }
    std::shared_ptr<TrackingService> start() { return start(trackConfig(hostPort(server.port()))); }

    // The bodies that reached the collector, oldest first; consent reports
    // are told apart by their "consent" member under "data".
    std::vector<PlainJson> bodies(bool consents) const {
        std::vector<PlainJson> out;
        for (const auto& request : server.requests()) {
            if (request.path == "/monitor") continue;
            auto body = PlainJson::parse(request.body);
            if (body["data"].contains("consent") == consents) out.push_back(std::move(body));
        }
        return out;
    }
    std::vector<PlainJson> submissions() const { return bodies(false); }
    std::vector<PlainJson> consentReports() const { return bodies(true); }

    TempDir dir;
    LogCapture logs;
    LoopbackServer server;
};

}  // namespace tavrin::testing
