// The default log sink on Linux: lines in the classic syslog format sent to
// the local log socket.

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "tavrin/platform/system_log.h"

namespace tavrin::platform {

namespace {

int syslogPriority(LogType type) {
    switch (type) {
        case LogType::debug: return LOG_DEBUG;
        case LogType::info: return LOG_INFO;
        case LogType::error: return LOG_ERR;
    }
    return LOG_INFO;
}

// Pauses between connection attempts while no log socket can be reached.
constexpr std::chrono::milliseconds kFirstPause{10};
constexpr std::chrono::milliseconds kLongestPause{2000};

// "<PRI>Mmm dd hh:mm:ss ", the classic header, with English month names whatever the locale.
std::string header(LogType type) {
    static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char text[48];
    std::snprintf(text, sizeof text, "<%d>%s %2d %02d:%02d:%02d ", LOG_USER | syslogPriority(type),
                  kMonths[local.tm_mon % 12], local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return text;
}

}  // namespace

SyslogSink::SyslogSink(std::string socketPath) : path_(std::move(socketPath)) {}

SyslogSink::~SyslogSink() {
    if (fd_ >= 0) ::close(fd_);
}

bool SyslogSink::isEnabled(LogType type) const {
    // setlogmask(0) reads the host's mask without changing it.
    return (setlogmask(0) & LOG_MASK(syslogPriority(type))) != 0;
}

bool SyslogSink::connectLocked() {
    if (fd_ >= 0) return true;
    const auto now = std::chrono::steady_clock::now();
    if (now < nextAttempt_) return false;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() < sizeof address.sun_path) {
        std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd_ >= 0 && ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
            pause_ = std::chrono::milliseconds{0};
            return true;
        }
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }
    pause_ = pause_.count() == 0 ? kFirstPause : std::min(pause_ * 2, kLongestPause);
    nextAttempt_ = now + pause_;
    return false;
}

void SyslogSink::write(const LogRecord& record) {
    std::lock_guard lock(mutex_);
    // Checked first: with no log socket a line costs a clock reading and nothing else.
    if (!connectLocked()) return;
    std::string line = header(record.type);
    line.append(record.subsystem)
        .append("[")
        .append(std::to_string(::getpid()))
        .append("]: [")
        .append(record.category)
        .append("] ")
        .append(record.message);
    // One fresh connection per line at most: a daemon that restarted left our
    // socket connected to nothing, and its new socket takes the next attempt.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!connectLocked()) return;
        ssize_t sent;
        do {
            sent = ::send(fd_, line.data(), line.size(), MSG_NOSIGNAL);
        } while (sent < 0 && errno == EINTR);
        if (sent >= 0) return;
        // Full (EAGAIN) or too long (EMSGSIZE): the line is lost, the connection is fine.
        if (errno != ECONNREFUSED && errno != ENOTCONN && errno != ECONNRESET && errno != EPIPE && errno != ENOENT &&
            errno != EBADF)
            return;
        ::close(fd_);
        fd_ = -1;
    }
}

}  // namespace tavrin::platform
