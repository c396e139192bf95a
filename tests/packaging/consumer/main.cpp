// A host application as a user writes it: only the installed headers and library.
#include <iostream>

#include "tavrin/tavrin.h"

int main() {
    tavrin::platform::SystemLog::setSink(std::make_shared<tavrin::platform::StderrSink>());
    tavrin::LoggerUtility::shared().setLogLevel(tavrin::LogLevel::warning);

    const tavrin::TrackConfig config{.trackDomain = "collect.example.com",
                                     .container = "shop-app",
                                     .environment = tavrin::TrackConfig::Environment::live,
                                     .version = "3",
                                     .debugCode = std::nullopt,
                                     .sessionTimeoutInSeconds = std::nullopt,
                                     .authorizationToken = "token",
                                     .customProtocol = std::nullopt,
                                     .enableOfflineTracking = true,
                                     .offlineTrackingTimeout = 86400};
    const auto properties = tavrin::validatedCustomProperties({{"price", 9.99}, {"tags", tavrin::AnyValue::Array{"a", "b"}}});
    std::cout << tavrin::encodeJsonText(config) << "\n" << tavrin::encodeJsonText(properties) << "\n";
    return properties.size() == 2 ? 0 : 1;
}
