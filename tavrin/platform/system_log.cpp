#include "tavrin/platform/system_log.h"

#include <cstdio>
#include <utility>

#include "tavrin/platform/dispatch.h"
#include "tavrin/platform/internal/system.h"

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

std::shared_ptr<LogSink>& sinkSlot() {
    static auto* slot = new std::shared_ptr<LogSink>(os::makeDefaultLogSink());
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
    return os::registerForkHandlers([] { sinkMutex().lock(); }, [] { sinkMutex().unlock(); },
                                    [] {
                                        auto& slot = sinkSlot();
                                        std::shared_ptr<LogSink> fresh;
                                        if (dynamic_cast<StderrSink*>(slot.get()))
                                            fresh = std::make_shared<StderrSink>();
                                        else
                                            fresh = os::freshDefaultSink(*slot);
                                        if (fresh) keepForever(std::exchange(slot, std::move(fresh)));
                                        sinkMutex().unlock();
                                    });
}();

}  // namespace

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
    sinkSlot() = sink ? std::move(sink) : os::makeDefaultLogSink();
}

std::shared_ptr<LogSink> SystemLog::sink() {
    std::lock_guard lock(sinkMutex());
    return sinkSlot();
}

}  // namespace tavrin::platform
