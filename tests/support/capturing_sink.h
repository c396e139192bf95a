#pragma once
// A log sink that keeps every record in memory, for tests that check what the
// SDK logged.

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "tavrin/platform/system_log.h"

namespace tavrin::testing {

class CapturingSink final : public platform::LogSink {
public:
    explicit CapturingSink(bool debugEnabled = true, bool infoEnabled = true, bool errorEnabled = true);
    bool isEnabled(platform::LogType type) const override;
    void write(const platform::LogRecord& record) override;

    std::vector<platform::LogRecord> records() const;
    std::vector<std::string> messages() const;
    // Messages of one type only.
    std::vector<std::string> messages(platform::LogType type) const;
    bool contains(std::string_view message) const;
    // How many records carry exactly this message.
    std::size_t count(std::string_view message) const;
    void clear();

private:
    bool enabled_[3];
    mutable std::mutex mutex_;
    std::vector<platform::LogRecord> records_;
};

}  // namespace tavrin::testing
