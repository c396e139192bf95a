#include "tavrin/platform/system_log.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/capturing_sink.h"
#include "tests/support/child_process.h"
#include "tests/support/temp_dir.h"

namespace tavrin::platform {
namespace {

using namespace std::chrono_literals;
using testing::CapturingSink;
using testing::inChild;

// A log daemon's socket: bound by the test at a path of its choosing.
class LogSocket {
public:
    explicit LogSocket(std::string path) : path_(std::move(path)) {
        ::unlink(path_.c_str());
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
        if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            error_ = std::string("bind ") + path_ + ": " + std::strerror(errno);
    }
    ~LogSocket() {
        if (fd_ >= 0) ::close(fd_);
        ::unlink(path_.c_str());
    }
    const std::string& error() const { return error_; }

    // The next datagram, or nothing within the timeout.
    std::optional<std::string> receive(std::chrono::milliseconds timeout = 2s) {
        timeval tv{static_cast<time_t>(timeout.count() / 1000), static_cast<suseconds_t>(timeout.count() % 1000 * 1000)};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        char buffer[4096];
        const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
        if (n < 0) return std::nullopt;
        return std::string(buffer, static_cast<std::size_t>(n));
    }

private:
    std::string path_;
    int fd_ = -1;
    std::string error_;
};

// "<PRI>Mmm dd hh:mm:ss IDENT[PID]: MSG" -> the parts, or an empty vector.
std::vector<std::string> parseDatagram(const std::string& datagram) {
    static const std::regex shape(
        R"(<(\d+)>(?:Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 123]\d \d\d:\d\d:\d\d ([^ \[]+)\[(\d+)\]: (.*))");
    std::smatch m;
    if (!std::regex_match(datagram, m, shape)) return {};
    return {m[1], m[2], m[3], m[4]};
}

std::vector<std::string> expected(int priority, const std::string& ident, const std::string& message,
                                  pid_t pid = ::getpid()) {
    return {std::to_string(priority), ident, std::to_string(pid), message};
}

class SystemLogTest : public ::testing::Test {
protected:
    void TearDown() override { SystemLog::setSink(nullptr); }
};

TEST_F(SystemLogTest, WritesEnabledTypesToTheInstalledSink) {
    auto sink = std::make_shared<CapturingSink>(true, true, false);
    SystemLog::setSink(sink);
    const SystemLog log("com.example.app", "default");
    EXPECT_TRUE(log.isEnabled(LogType::info));
    EXPECT_FALSE(log.isEnabled(LogType::error));
    log.log(LogType::info, "first");
    log.log(LogType::debug, "second", LogPrivacy::privateText);
    log.log(LogType::error, "disabled");
    const auto records = sink->records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].subsystem, "com.example.app");
    EXPECT_EQ(records[0].category, "default");
    EXPECT_EQ(records[0].type, LogType::info);
    EXPECT_EQ(records[0].privacy, LogPrivacy::publicText);
    EXPECT_EQ(records[1].privacy, LogPrivacy::privateText);
    EXPECT_EQ(sink->messages(), (std::vector<std::string>{"first", "second"}));

    SystemLog::setSink(nullptr);  // restores the system log socket
    const auto* restored = dynamic_cast<SyslogSink*>(SystemLog::sink().get());
    ASSERT_NE(restored, nullptr);
    EXPECT_EQ(restored->socketPath(), "/dev/log");
}

TEST_F(SystemLogTest, StderrSinkFormat) {
    SystemLog::setSink(std::make_shared<StderrSink>());
    ::testing::internal::CaptureStderr();
    SystemLog("com.example.app", "default").log(LogType::error, "it broke");
    SystemLog("com.example.app", "net").log(LogType::debug, "detail");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "com.example.app [default] ERROR: it broke\ncom.example.app [net] DEBUG: detail\n");
}

TEST_F(SystemLogTest, SyslogSinkFollowsTheHostsLogMask) {
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

TEST_F(SystemLogTest, SyslogSinkSendsClassicDatagramsAndFollowsTheSocketAcrossRestarts) {
    testing::TempDir dir;
    const std::string path = (dir / "log").string();
    SyslogSink sink(path);
    auto write = [&](LogType type, const std::string& subsystem, const std::string& message) {
        sink.write(LogRecord{type, subsystem, "net", message, LogPrivacy::publicText});
    };
    write(LogType::info, "com.example.app", "before any daemon");  // dropped, not an error
    {
        LogSocket daemon(path);
        ASSERT_EQ(daemon.error(), "");
        // The first attempt failed moments ago; lines resume once the pause is over.
        bool resumed = false;
        for (auto until = std::chrono::steady_clock::now() + 5s; !resumed && std::chrono::steady_clock::now() < until;) {
            write(LogType::info, "com.example.app", "probe");
            resumed = daemon.receive(20ms).has_value();
        }
        ASSERT_TRUE(resumed) << "no line arrived after the log socket appeared";

        // Facility user (8) plus the severity of each type; identity is the subsystem.
        write(LogType::debug, "com.example.app", "detail");
        write(LogType::info, "com.example.app", "started");
        write(LogType::error, "com.other.sdk", "it broke: 100%s %d");
        EXPECT_EQ(parseDatagram(daemon.receive().value_or("")), expected(15, "com.example.app", "[net] detail"));
        EXPECT_EQ(parseDatagram(daemon.receive().value_or("")), expected(14, "com.example.app", "[net] started"));
        EXPECT_EQ(parseDatagram(daemon.receive().value_or("")),
                  expected(11, "com.other.sdk", "[net] it broke: 100%s %d"));
    }
    // The daemon restarts: a new socket at the same path takes the very next line.
    LogSocket restarted(path);
    ASSERT_EQ(restarted.error(), "");
    write(LogType::error, "com.example.app", "after restart");
    EXPECT_EQ(parseDatagram(restarted.receive().value_or("")), expected(11, "com.example.app", "[net] after restart"));
}

// The host's openlog(3) settings are its own: SDK lines in between change none of them.
TEST_F(SystemLogTest, HostSyslogOptionsAndIdentitySurviveSdkLines) {
    testing::TempDir dir;
    LogSocket daemon((dir / "log").string());
    SystemLog::setSink(std::make_shared<SyslogSink>((dir / "log").string()));
    // LOG_PERROR copies the host's lines to standard error, "identity: message".
    openlog("host-app", LOG_PERROR, LOG_LOCAL3);
    ::testing::internal::CaptureStderr();
    syslog(LOG_WARNING, "host before");
    SystemLog("com.example.sdk", "default").log(LogType::error, "sdk line");
    syslog(LOG_WARNING, "host after");
    const std::string hostLines = ::testing::internal::GetCapturedStderr();
    closelog();
    EXPECT_EQ(hostLines, "host-app: host before\nhost-app: host after\n");
    EXPECT_EQ(parseDatagram(daemon.receive().value_or("")), expected(11, "com.example.sdk", "[default] sdk line"));
}

// The same through the real /dev/log, inside a mount namespace whose /dev is
// the test's own: every line the process writes, the host's and the SDK's,
// arrives with its own identity and facility.
TEST_F(SystemLogTest, HostAndSdkLinesKeepTheirOwnIdentityAndFacilityOnDevLog) {
    const std::string result = inChild([] {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            return std::string("skip: no private mount namespace (needs root or CAP_SYS_ADMIN): ") +
                   std::strerror(errno);
        if (::mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0)
            return std::string("mount tmpfs on /dev: ") + std::strerror(errno);
        LogSocket daemon("/dev/log");
        if (!daemon.error().empty()) return daemon.error();
        openlog("host-app", LOG_PID | LOG_NDELAY, LOG_LOCAL3);
        syslog(LOG_WARNING, "host before");
        SystemLog::setSink(nullptr);  // the default sink, on /dev/log
        SystemLog("com.example.sdk", "default").log(LogType::error, "sdk line");
        syslog(LOG_WARNING, "host after");
        std::string lines = std::to_string(::getpid()) + "\n";
        for (int i = 0; i < 3; ++i) lines += daemon.receive().value_or("(nothing)") + "\n";
        return lines;
    });
    if (result.starts_with("skip: ")) GTEST_SKIP() << result.substr(6);
    std::vector<std::string> texts;
    for (std::size_t start = 0, end; (end = result.find('\n', start)) != std::string::npos; start = end + 1)
        texts.push_back(result.substr(start, end - start));
    ASSERT_EQ(texts.size(), 4u) << result;
    const pid_t child = std::stoi(texts[0]);
    const int local3Warning = LOG_LOCAL3 | LOG_WARNING;  // 156
    EXPECT_EQ(parseDatagram(texts[1]), expected(local3Warning, "host-app", "host before", child)) << texts[1];
    EXPECT_EQ(parseDatagram(texts[2]), expected(LOG_USER | LOG_ERR, "com.example.sdk", "[default] sdk line", child))
        << texts[2];
    EXPECT_EQ(parseDatagram(texts[3]), expected(local3Warning, "host-app", "host after", child)) << texts[3];
}

}  // namespace
}  // namespace tavrin::platform
