// A submission cached while offline completes only once its record is on
// disk: a process killed right after the caller saw success still finds the
// request at its next launch.

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "tests/support/child_process.h"
#include "tests/support/transport_fixture.h"

namespace tavrin::testing {
namespace {

constexpr const char* kDirVariable = "TAVRIN_DURABILITY_DIR";
constexpr const char* kFdVariable = "TAVRIN_DURABILITY_FD";
constexpr const char* kDomainVariable = "TAVRIN_DURABILITY_DOMAIN";

// The child's part: cache one submission offline, report, wait to be killed.
TEST(DurabilityChild, CachesOfflineThenWaitsToBeKilled) {
    const char* directory = std::getenv(kDirVariable);
    if (!directory) GTEST_SKIP() << "runs only as the child process of the kill -9 test";
    platform::KeyValueStore::setDataDirectory(std::string(directory));
    auto path = std::make_shared<testing::ScriptedPathMonitor>(platform::PathStatus::unsatisfied);
    platform::PathMonitor::setFactory([path]() -> std::shared_ptr<platform::PathMonitor> { return path; });
    const auto config = trackConfig(std::getenv(kDomainVariable));
    TrackingSettings::configure(config);
    auto manager = OfflineCacheManager::shared();
    manager->configure(true, config.offlineTrackingTimeout);
    manager->startNetworkMonitoring();
    ASSERT_TRUE(waitUntil([&] { return manager->isCurrentlyOffline(); }));
    Service::shared()->sendDataSubmission(sampleSubmission("durable")).get();
    ASSERT_EQ(write(std::atoi(std::getenv(kFdVariable)), "ok", 2), 2);
    for (;;) pause();
}

using OfflineCacheDurabilityTest = TransportTest;

TEST_F(OfflineCacheDurabilityTest, RequestCachedBeforeAKillNineIsSentAtTheNextLaunch) {
    LoopbackServer server;
    TempDir childDir;
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    SelfInvocation self("DurabilityChild.*", {std::string(kDirVariable) + "=" + childDir.path().string(),
                                              std::string(kFdVariable) + "=" + std::to_string(fds[1]),
                                              std::string(kDomainVariable) + "=" + hostPort(server.port())});
    pid_t child = 0;
    ASSERT_EQ(posix_spawn(&child, self.program.c_str(), nullptr, nullptr, self.argv, self.envp.data()), 0);
    close(fds[1]);
    pollfd ready{fds[0], POLLIN, 0};
    char answer[2] = {};
    const bool ok = poll(&ready, 1, 20000) == 1 && read(fds[0], answer, 2) == 2;
    kill(child, SIGKILL);  // at once: no clean shutdown, no flush
    int status = 0;
    waitpid(child, &status, 0);
    close(fds[0]);
    ASSERT_TRUE(ok) << "the child did not report its submission";
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);

    platform::KeyValueStore::setDataDirectory(childDir.path().string());
    platform::KeyValueStore::setStandard(nullptr);
    configure(trackConfig(hostPort(server.port())));
    OfflineCacheManager::shared()->resendCachedRequests().get();
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(Json::parse(requests[0].body)["data"]["variables"]["mark"], "durable");
    EXPECT_TRUE(cached().empty());
}

}  // namespace
}  // namespace tavrin::testing
