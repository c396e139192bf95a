#include "tests/support/capturing_sink.h"

namespace tavrin::testing {

using platform::LogRecord;
using platform::LogType;

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

std::size_t CapturingSink::count(std::string_view message) const {
    std::lock_guard lock(mutex_);
    std::size_t found = 0;
    for (const auto& r : records_) found += r.message == message;
    return found;
}

void CapturingSink::clear() {
    std::lock_guard lock(mutex_);
    records_.clear();
}

}  // namespace tavrin::testing
