#include "tavrin/platform/system_log.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <regex>
#include <string>

#include "tests/support/temp_dir.h"

namespace tavrin::platform {
namespace {

// A log daemon's socket, bound by the test at a path of its choosing.
struct LogSocket {
    explicit LogSocket(std::string where) : path(std::move(where)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        bound = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        timeval wait{2, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    }
    ~LogSocket() { ::close(fd); }
    // The next datagram, or nothing within two seconds.
    std::string receive() {
        char buffer[4096];
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        return n < 0 ? "" : std::string(buffer, static_cast<std::size_t>(n));
    }
    std::string path;
    int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool bound = false;
};

TEST(SyslogSinkTest, FollowsTheHostsLogMask) {
    SyslogSink sink;
    const int previous = setlogmask(LOG_UPTO(LOG_INFO));
    EXPECT_FALSE(sink.isEnabled(LogType::debug));
    EXPECT_TRUE(sink.isEnabled(LogType::info));
    EXPECT_TRUE(sink.isEnabled(LogType::error));
    setlogmask(LOG_MASK(LOG_ERR));
    EXPECT_FALSE(sink.isEnabled(LogType::info));
    EXPECT_TRUE(sink.isEnabled(LogType::error));
    EXPECT_EQ(setlogmask(previous), LOG_MASK(LOG_ERR)) << "the sink changed the mask";
}

// "<PRI>Mmm dd hh:mm:ss IDENT[PID]: MSG", the priority being facility user (8)
// plus the severity of each type; a '%' in the text is no format.
TEST(SyslogSinkTest, SendsClassicDatagramsWithTheSubsystemAsIdentity) {
    testing::TempDir dir;
    LogSocket daemon((dir / "log").string());
    ASSERT_TRUE(daemon.bound);
    SyslogSink sink((dir / "log").string());
    const std::regex shape(R"(<(\d+)>[A-Z][a-z]{2} [ 123]\d \d\d:\d\d:\d\d (.*))");
    for (const auto& [type, priority] :
         {std::pair{LogType::debug, "15"}, {LogType::info, "14"}, {LogType::error, "11"}}) {
        sink.write(LogRecord{type, "com.other.sdk", "net", "it broke: 100%s %d", LogPrivacy::publicText});
        const std::string datagram = daemon.receive();
        std::smatch m;
        ASSERT_TRUE(std::regex_match(datagram, m, shape)) << datagram;
        EXPECT_EQ(m[1], priority);
        EXPECT_EQ(m[2], "com.other.sdk[" + std::to_string(::getpid()) + "]: [net] it broke: 100%s %d");
    }
}

}  // namespace
}  // namespace tavrin::platform
