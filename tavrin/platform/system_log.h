#pragma once
// System log: the platform logging facility behind LoggerUtility.
// Default sink is syslog(3); the host application may install its own sink
// (stderr, its own logger) and tests install a capturing sink.

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tavrin::platform {

enum class LogType { debug, info, error };

const char* logTypeName(LogType type) noexcept;

// Whether the text of a message may appear unredacted in the log.
enum class LogPrivacy { publicText, privateText };

struct LogRecord {
    LogType type;
    std::string subsystem;
    std::string category;
    std::string message;
    LogPrivacy privacy;
};

class LogSink {
public:
    virtual ~LogSink() = default;
    virtual bool isEnabled(LogType type) const = 0;
    virtual void write(const LogRecord& record) = 0;
};

// syslog(3) with the subsystem as identity and the category in the message.
class SyslogSink final : public LogSink {
public:
    bool isEnabled(LogType type) const override;
    void write(const LogRecord& record) override;

private:
    std::mutex mutex_;
    // openlog keeps the pointer it is given, so every identity text used stays alive.
    std::set<std::string> identities_;
    const std::string* identity_ = nullptr;
};

// One line per message on standard error: "<subsystem> [<category>] <TYPE>: <message>".
class StderrSink final : public LogSink {
public:
    bool isEnabled(LogType) const override { return true; }
    void write(const LogRecord& record) override;

private:
    std::mutex mutex_;
};

// Keeps every record in memory; for tests.
class CapturingSink final : public LogSink {
public:
    explicit CapturingSink(bool debugEnabled = true, bool infoEnabled = true, bool errorEnabled = true);
    bool isEnabled(LogType type) const override;
    void write(const LogRecord& record) override;

    std::vector<LogRecord> records() const;
    std::vector<std::string> messages() const;
    // Messages of one type only.
    std::vector<std::string> messages(LogType type) const;
    bool contains(std::string_view message) const;
    void clear();

private:
    bool enabled_[3];
    mutable std::mutex mutex_;
    std::vector<LogRecord> records_;
};

// A logger handle with a subsystem and a category, writing to the installed sink.
class SystemLog {
public:
    SystemLog(std::string subsystem, std::string category);

    bool isEnabled(LogType type) const;
    void log(LogType type, std::string_view message, LogPrivacy privacy = LogPrivacy::publicText) const;

    const std::string& subsystem() const noexcept { return subsystem_; }
    const std::string& category() const noexcept { return category_; }

    // Process-wide sink; SyslogSink until replaced. Passing nullptr restores syslog.
    static void setSink(std::shared_ptr<LogSink> sink);
    static std::shared_ptr<LogSink> sink();

private:
    std::string subsystem_;
    std::string category_;
};

}  // namespace tavrin::platform
