#include "tavrin/platform/platform.h"

namespace tavrin::platform {

void resetToDefaults() {
    KeyValueStore::setStandard(nullptr);
    KeyValueStore::setDataDirectory(std::nullopt);
    HttpClient::setShared(nullptr);
    PathMonitor::setFactory({});
    SystemLog::setSink(nullptr);
    DeviceFacts::reset();
    NotificationCenter::defaultCenter().removeAllObservers();
    Clock::reset();
}

}  // namespace tavrin::platform
