#pragma once
// System log: the platform logging facility behind LoggerUtility. The SDK's
// lines go to the local syslog socket unless the host application installs
// its own sink (stderr, its own logger); tests install a capturing one.
//
//     using namespace tavrin::platform;
//     struct ShopSink final : LogSink {  // forwards to the application's own logger, debug lines left out
//         bool isEnabled(LogType type) const override { return type != LogType::debug; }
//         // Called from several threads at once: a sink with state guards it.
//         void write(const LogRecord& record) override { /* record.category, record.message ... */ }
//     };
//     SystemLog::setSink(std::make_shared<ShopSink>());  // or std::make_shared<StderrSink>()
//     SystemLog("com.example.shop", "checkout").log(LogType::info, "cart restored");
//     SystemLog::setSink(nullptr);                       // the system log again

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "tavrin/platform/api.h"

namespace tavrin::platform {

enum class LogType { debug, info, error };

TAVRIN_API const char* logTypeName(LogType type) noexcept;

// Whether the text of a message may appear unredacted in the log.
enum class LogPrivacy { publicText, privateText };

struct TAVRIN_API LogRecord {
    LogType type;
    std::string subsystem;
    std::string category;
    std::string message;
    LogPrivacy privacy;
};

class TAVRIN_API LogSink {
public:
    virtual ~LogSink() = default;
    virtual bool isEnabled(LogType type) const = 0;
    virtual void write(const LogRecord& record) = 0;
};

#if !defined(_WIN32)
// The local system log socket, written directly: each record is one datagram
// "<PRI>Mmm dd hh:mm:ss IDENT[PID]: [category] message" with the subsystem as
// identity and facility user. The process's own syslog(3) state (identity,
// options, facility), which belongs to the host application, is never touched;
// its log mask (setlogmask) is honoured as the filter.
//
// A socket that goes away (the log daemon restarted) is reconnected at once;
// while none can be reached, lines are dropped and connecting is retried with
// a growing pause, so a line costs a clock reading rather than a system call.
// A saturated daemon drops lines instead of stalling the caller.
class TAVRIN_API SyslogSink final : public LogSink {
public:
    explicit SyslogSink(std::string socketPath = "/dev/log");
    ~SyslogSink() override;
    SyslogSink(const SyslogSink&) = delete;
    SyslogSink& operator=(const SyslogSink&) = delete;

    bool isEnabled(LogType type) const override;
    void write(const LogRecord& record) override;

    const std::string& socketPath() const noexcept { return path_; }

private:
    bool connectLocked();

    const std::string path_;
    std::mutex mutex_;
    int fd_ = -1;
    std::chrono::steady_clock::time_point nextAttempt_{};
    std::chrono::milliseconds pause_{0};
};
#endif

#if defined(_WIN32)
// Windows: each record becomes one line of debug output (OutputDebugStringW),
// in the syslog sink's text form "<PRI>Mmm dd hh:mm:ss IDENT[PID]: [category]
// message", shown by an attached debugger or a debug-output viewer. Info and
// error lines are always written; debug lines only while a debugger is
// attached, since each line costs a round trip through the system even when
// nobody reads it.
class TAVRIN_API DebugOutputSink final : public LogSink {
public:
    bool isEnabled(LogType type) const override;
    void write(const LogRecord& record) override;
};
#endif

// One line per message on standard error: "<subsystem> [<category>] <TYPE>: <message>".
class TAVRIN_API StderrSink final : public LogSink {
public:
    bool isEnabled(LogType) const override { return true; }
    void write(const LogRecord& record) override;

private:
    std::mutex mutex_;
};

// A logger handle with a subsystem and a category, writing to the installed sink.
class TAVRIN_API SystemLog {
public:
    SystemLog(std::string subsystem, std::string category);

    bool isEnabled(LogType type) const;
    void log(LogType type, std::string_view message, LogPrivacy privacy = LogPrivacy::publicText) const;

    const std::string& subsystem() const noexcept { return subsystem_; }
    const std::string& category() const noexcept { return category_; }

    // Process-wide sink; the system's (SyslogSink on Linux) until replaced. Passing nullptr restores it.
    static void setSink(std::shared_ptr<LogSink> sink);
    static std::shared_ptr<LogSink> sink();

private:
    std::string subsystem_;
    std::string category_;
};

}  // namespace tavrin::platform
