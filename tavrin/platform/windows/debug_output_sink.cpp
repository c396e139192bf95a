#include "tavrin/platform/system_log.h"

#include <windows.h>

#include <cstdio>
#include <ctime>
#include <string>

#include "tavrin/platform/windows/wide_text.h"

namespace tavrin::platform {

namespace {

// Facility user (1) with the syslog severities, so both systems' lines read alike.
int priority(LogType type) {
    constexpr int kUser = 1 << 3;
    switch (type) {
        case LogType::debug: return kUser | 7;
        case LogType::info: return kUser | 6;
        case LogType::error: return kUser | 3;
    }
    return kUser | 6;
}

// "<PRI>Mmm dd hh:mm:ss ", with English month names whatever the locale.
std::string header(LogType type) {
    static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_s(&local, &now);
    char text[48];
    std::snprintf(text, sizeof text, "<%d>%s %2d %02d:%02d:%02d ", priority(type), kMonths[local.tm_mon % 12],
                  local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return text;
}

}  // namespace

bool DebugOutputSink::isEnabled(LogType type) const { return type != LogType::debug || IsDebuggerPresent(); }

void DebugOutputSink::write(const LogRecord& record) {
    // As with syslog, the text is written as given whatever its privacy: the
    // debug output belongs to whoever may debug the process.
    std::string line = header(record.type);
    line.append(record.subsystem)
        .append("[")
        .append(std::to_string(GetCurrentProcessId()))
        .append("]: [")
        .append(record.category)
        .append("] ")
        .append(record.message)
        .append("\n");
    // One call per line, so lines from several threads never interleave.
    OutputDebugStringW(win::toWide(line).c_str());
}

}  // namespace tavrin::platform
