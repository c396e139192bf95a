#include "tavrin/platform/system_log.h"

#include <syslog.h>

#include <cstdio>

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

std::shared_ptr<LogSink>& sinkSlot() {
    static std::shared_ptr<LogSink> slot = std::make_shared<SyslogSink>();
    return slot;
}

std::mutex& sinkMutex() {
    static std::mutex m;
    return m;
}

}  // namespace

bool SyslogSink::isEnabled(LogType type) const {
    // setlogmask(0) reads the current mask without changing it.
    return (setlogmask(0) & LOG_MASK(syslogPriority(type))) != 0;
}

void SyslogSink::write(const LogRecord& record) {
    std::lock_guard lock(mutex_);
    if (!identity_ || *identity_ != record.subsystem) {
        identity_ = &*identities_.insert(record.subsystem).first;
        openlog(identity_->c_str(), LOG_PID, LOG_USER);
    }
    syslog(syslogPriority(record.type), "[%s] %s", record.category.c_str(), record.message.c_str());
}

void StderrSink::write(const LogRecord& record) {
    std::lock_guard lock(mutex_);
    std::fprintf(stderr, "%s [%s] %s: %s\n", record.subsystem.c_str(), record.category.c_str(),
                 logTypeName(record.type), record.message.c_str());
}

CapturingSink::CapturingSink(bool debugEnabled, bool infoEnabled, bool errorEnabled)
    : enabled_{debugEnabled, infoEnabled, errorEnabled} {}

bool CapturingSink::isEnabled(LogType type) const { return enabled_[static_cast<int>(type)]; }

void CapturingSink::write(const LogRecord& record) {
    std::lock_guard lock(mutex_);
    records_.push_back(record);
}

std::vector<LogRecord> CapturingSink::records() const {
    std::lock_guard lock(mutex_);
    return records_;
}

std::vector<std::string> CapturingSink::messages() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> out;
    out.reserve(records_.size());
    for (const auto& r : records_) out.push_back(r.message);
    return out;
}

std::vector<std::string> CapturingSink::messages(LogType type) const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> out;
    for (const auto& r : records_)
        if (r.type == type) out.push_back(r.message);
    return out;
}

bool CapturingSink::contains(std::string_view message) const {
    std::lock_guard lock(mutex_);
    for (const auto& r : records_)
        if (r.message == message) return true;
    return false;
}

void CapturingSink::clear() {
    std::lock_guard lock(mutex_);
    records_.clear();
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
