#pragma once
// The process-wide set of platform implementations. Each facility has a real
// Linux default; the host application (or a test) may replace any of them
// before configuring the SDK:
//
//     using namespace tavrin::platform;
//     KeyValueStore::setDataDirectory("/var/lib/shop/tavrin");
//     SystemLog::setSink(std::make_shared<StderrSink>());
//     HttpClient::setShared(std::make_shared<SystemHttpClient>(HttpClientOptions{.proxy = ""}));  // no proxy
//     DeviceFacts::setApplicationInfo({.bundleIdentifier = "com.example.shop"});
//     // ... TavrinService::configure(config), the application's work, TavrinService::shutdown(timeout) ...
//     resetToDefaults();  // a test's teardown: every facility back to its default
//
// The replacement points:
//
//   KeyValueStore::setDataDirectory(dir) / setStandard(store)   durable store
//   HttpClient::setShared(client)                               HTTP transport
//   PathMonitor::setFactory(factory)                            network path
//   SystemLog::setSink(sink)                                    system log
//   DeviceFacts::setApplicationInfo(info) / setScreenBounds(b)  host facts
//   Clock::setSource(source)                                    wall clock

#include "tavrin/platform/clock.h"
#include "tavrin/platform/device_facts.h"
#include "tavrin/platform/http_client.h"
#include "tavrin/platform/key_value_store.h"
#include "tavrin/platform/notification_center.h"
#include "tavrin/platform/path_monitor.h"
#include "tavrin/platform/system_log.h"

namespace tavrin::platform {

// Puts every replaceable facility back to its default (tests start clean with it).
void resetToDefaults();

}  // namespace tavrin::platform
