// A host application as a user writes it: only the installed headers and library.
#include <iostream>

#include "tavrin/tavrin.h"

int main() {
    tavrin::platform::SystemLog::setSink(std::make_shared<tavrin::platform::StderrSink>());
    tavrin::TavrinService::setLogLevel(tavrin::LogLevel::warning);
    tavrin::platform::DeviceFacts::setApplicationInfo(
        {.bundleIdentifier = "com.example.shop", .infoDictionary = {{"CFBundleShortVersionString", "2.3"}}});

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
    const tavrin::AnyValue::Dictionary push{
        {"track", "pageview"}, {"price", 9.99}, {"tags", tavrin::AnyValue::Array{"a", "b"}}};
    const auto [session, action] = tavrin::SessionManager::startOrResumeSession();
    std::cout << "domain " << config.trackDomain << "\n"
              << "push " << tavrin::AnyValue::sortedJsonText(push).value_or("?") << "\n"
              << "consent " << tavrin::rawValue(tavrin::ConsentStatus::ncm) << "\n"
              << "session " << session.size() << " " << tavrin::rawValue(action) << "\n";
    return 0;
}
