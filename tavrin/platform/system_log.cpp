#include "tavrin/platform/system_log.h"

#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "tavrin/platform/dispatch.h"

namespace tavrin::platform {

const char* logTypeName(LogType type) noexcept {
    switch (type) {
        case LogType::debug: return "DEBUG";
        case LogType::info: return "INFO";
        case LogType::error: return "ERROR";
    }
    return "?";
}

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

std::shared_ptr<LogSink>& sinkSlot() {
    static auto* slot = new std::shared_ptr<LogSink>(std::make_shared<SyslogSink>());
    return *slot;
}

std::mutex& sinkMutex() {
    static std::mutex m;
    return m;
}

// A thread of the parent may have been writing a line when the process
// forked: a child replaces the library's own sinks (whose lock that thread
// held) with fresh ones of the same kind and sets the parent's aside.
// A sink the host installed stays the host's to look after.
const bool gForkHandlersRegistered = [] {
    return pthread_atfork([] { sinkMutex().lock(); }, [] { sinkMutex().unlock(); },
                          [] {
                              auto& slot = sinkSlot();
                              std::shared_ptr<LogSink> fresh;
                              if (auto* syslog = dynamic_cast<SyslogSink*>(slot.get()))
                                  fresh = std::make_shared<SyslogSink>(syslog->socketPath());
                              else if (dynamic_cast<StderrSink*>(slot.get()))
                                  fresh = std::make_shared<StderrSink>();
                              if (fresh) keepForever(std::exchange(slot, std::move(fresh)));
                              sinkMutex().unlock();
                          }) == 0;
}();

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

void StderrSink::write(const LogRecord& record) {
    std::lock_guard lock(mutex_);
    std::fprintf(stderr, "%s [%s] %s: %s\n", record.subsystem.c_str(), record.category.c_str(),
                 logTypeName(record.type), record.message.c_str());
}

SystemLog::SystemLog(std::string subsystem, std::string category)
    : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

bool SystemLog::isEnabled(LogType type) const { return sink()->isEnabled(type); }

void SystemLog::log(LogType type, std::string_view message, LogPrivacy privacy) const {
    auto s = sink();
    if (!s->isEnabled(type)) return;
    s->write(LogRecord{type, subsystem_, category_, std::string(message), privacy});
}

void SystemLog::setSink(std::shared_ptr<LogSink> sink) {
    std::lock_guard lock(sinkMutex());
    sinkSlot() = sink ? std::move(sink) : std::make_shared<SyslogSink>();
}

std::shared_ptr<LogSink> SystemLog::sink() {
    std::lock_guard lock(sinkMutex());
    return sinkSlot();
}

}  // namespace tavrin::platform
